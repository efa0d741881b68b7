#include "tool/import_command.h"

#include <algorithm>
#include <iostream>

#include "devlib/device_constants.h"
#include "objects/ca_installation.h"
#include "softtoken/certificates.h"
#include "softtoken/crypto_library.h"
#include "softtoken/failure.h"
#include "softtoken/platform.h"
#include "tool/certificate_facts.h"
#include "tool/command_line.h"
#include "tool/key_file.h"
#include "tool/module_probe.h"
#include "tool/module_session.h"
#include "tool/passwords.h"
#include "tool/text.h"

namespace tool {
namespace {

using softtoken::Bytes;
using softtoken::ByteView;
using softtoken::Failure;
using softtoken::Status;

struct ImportOptions {
  std::string file;
  std::string module;
  std::string token;  // its label; empty: the only one
  std::string label;
  std::string id;  // hexadecimal
  std::string pinFile;
  std::string filePinFile;
};

std::string checkId(const std::string& text) {
  const bool digits = std::ranges::all_of(text, [](unsigned char letter) { return std::isxdigit(letter) != 0; });
  return digits && !text.empty() && text.size() % 2 == 0 ? "" : "takes bytes as hexadecimal digits, not " + text;
}

Bytes bytesOf(const std::string& hex) {
  Bytes bytes;
  for (std::size_t at = 0; at < hex.size(); at += 2)
    bytes.push_back(static_cast<std::uint8_t>(std::stoul(hex.substr(at, 2), nullptr, 16)));
  return bytes;
}

std::string commonNameOf(ByteView certificate) {
  const auto facts = readFacts(certificate);
  return facts ? tavrin::extractCommonName(facts->subject) : "";
}

// The attributes of an object to create. The values must outlive it.
class Template {
 public:
  Template(CK_OBJECT_CLASS objectClass) : class_(objectClass) {
    add(CKA_CLASS, &class_, sizeof class_);
    add(CKA_TOKEN, &onToken_, sizeof onToken_);
  }
  Template(const Template&) = delete;
  Template& operator=(const Template&) = delete;

  void add(CK_ATTRIBUTE_TYPE type, const void* value, std::size_t size) {
    attributes_.push_back({type, const_cast<void*>(value), static_cast<CK_ULONG>(size)});
  }
  template <class Container>
  void add(CK_ATTRIBUTE_TYPE type, const Container& value) {
    if (!value.empty()) add(type, value.data(), value.size());
  }

  CK_OBJECT_HANDLE create(CK_FUNCTION_LIST* functions, const Session& session, CK_RV& result) {
    CK_OBJECT_HANDLE object = 0;
    result = functions->C_CreateObject(session.handle(), attributes_.data(), static_cast<CK_ULONG>(attributes_.size()),
                                       &object);
    return object;
  }

 private:
  CK_OBJECT_CLASS class_;
  CK_BBOOL onToken_ = CK_TRUE;
  std::vector<CK_ATTRIBUTE> attributes_;
};

void requireStored(CK_RV result, const std::string& what) {
  if (result == CKR_DEVICE_MEMORY) throw Failure(Status::full, "the token is full; " + what + " was not written");
  check(result, ("writing " + what).c_str());
}

// Whether this is the token's label or serial number. The module shows the whole label as the slot's description. In
// the token's record it is cut.
bool isNamed(CK_FUNCTION_LIST* functions, CK_SLOT_ID slot, const std::string& name) {
  CK_TOKEN_INFO token{};
  check(functions->C_GetTokenInfo(slot, &token), "C_GetTokenInfo");
  if (textOf(token.label) == name || textOf(token.serialNumber) == name) return true;
  CK_SLOT_INFO info{};
  check(functions->C_GetSlotInfo(slot, &info), "C_GetSlotInfo");
  return textOf(info.slotDescription) == name;
}

// Whether a module refused what the template describes. The first code is the module's, the second that of the standard
// one.
bool refusesKind(CK_RV result) { return result == CKR_FUNCTION_FAILED || result == CKR_TEMPLATE_INCONSISTENT; }

CK_SLOT_ID chooseSlot(CK_FUNCTION_LIST* functions, const std::string& name) {
  std::vector<CK_SLOT_ID> found;
  for (const CK_SLOT_ID slot : slotsWithToken(functions))
    if (name.empty() || isNamed(functions, slot, name)) found.push_back(slot);
  if (found.empty()) {
    throw Failure(Status::notFound,
                  name.empty() ? "no token is connected" : "no token with the label " + name + " is connected");
  }
  if (found.size() > 1) {
    throw Failure(Status::badArgument, name.empty()
                                           ? "several tokens are connected; choose one with --token"
                                           : "several tokens are named " + name + "; choose one by its serial number");
  }
  return found.front();
}

void login(CK_FUNCTION_LIST* functions, const Session& session, const ImportOptions& options) {
  softtoken::SecretBytes pin = readPassword({"user password", options.pinFile, "TAVRIN_PIN"});
  const CK_RV result = functions->C_Login(session.handle(), CKU_USER, pin.data(), static_cast<CK_ULONG>(pin.size()));
  if (result == CKR_PIN_INCORRECT) throw Failure(Status::wrongPassword, "the user password is wrong");
  if (result == CKR_PIN_LOCKED) throw Failure(Status::passwordLocked, "the token is locked");
  check(result, "C_Login");
}

// Writes the key and the certificates of a file to a token.
class Import {
 public:
  Import(CK_FUNCTION_LIST* functions, const Session& session, const ImportOptions& options, const KeyFile& file)
      : functions_(functions), session_(session), options_(options), file_(file) {}

  void run() {
    if (file_.key) writeKey(*file_.key);
    for (const Bytes& certificate : file_.certificates) writeCertificate(certificate);
  }

 private:
  const Bytes* leaf() const {
    const auto found =
        std::ranges::find_if(file_.certificates, [&](const Bytes& der) { return file_.key && fits(*file_.key, der); });
    return found == file_.certificates.end() ? nullptr : &*found;
  }

  std::string keyLabel() const {
    if (!options_.label.empty()) return options_.label;
    const std::string name = leaf() ? commonNameOf(*leaf()) : "";
    return name.empty() ? softtoken::textOf(softtoken::pathOf(options_.file).stem()) : name;
  }

  Bytes keyId(const PrivateKey& key) const {
    if (!options_.id.empty()) return bytesOf(options_.id);
    return softtoken::hashOf(GCRY_MD_SHA1, key.isRsa() ? ByteView(key.modulus) : softtoken::viewOf(keyLabel()));
  }

  bool isOnToken(const PrivateKey& key) const {
    return std::ranges::any_of(session_.objects(CKO_PUBLIC_KEY), [&](CK_OBJECT_HANDLE object) {
      return session_.number(object, CKA_KEY_TYPE) == CKK_RSA && session_.bytes(object, CKA_MODULUS) == key.modulus;
    });
  }

  // The module reports what it does not take by the same code as a token that fails.
  static void requireSupported(const PrivateKey& key) {
    if (!key.isRsa()) return;
    if (!std::ranges::equal(key.publicExponent, tavrin::rsaPublicExponentBytes)) {
      const std::string exponent = std::to_string(tavrin::rsaPublicExponent);
      throw Failure(Status::badArgument, "the token takes RSA keys with the public exponent " + exponent + " only");
    }
    const auto hasSize = [&](const tavrin::KeyTypeInfo& type) {
      return type.algorithm == tavrin::KeyAlgorithm::rsa && type.bits == 8 * key.modulus.size();
    };
    if (std::ranges::none_of(tavrin::keyTypes, hasSize))
      throw Failure(Status::badArgument, "the token takes RSA keys of 1024, 2048, 3072 or 4096 bits only");
  }

  void writeKey(const PrivateKey& key) const {
    const std::string label = keyLabel();
    const Bytes id = keyId(key);
    if (key.isRsa() && isOnToken(key)) {
      std::cout << "the key is on the token already\n";
      return;
    }
    requireSupported(key);
    const CK_KEY_TYPE type = key.isRsa() ? CKK_RSA : CKK_EC;
    Template attributes(CKO_PRIVATE_KEY);
    attributes.add(CKA_KEY_TYPE, &type, sizeof type);
    attributes.add(CKA_LABEL, label);
    attributes.add(CKA_ID, id);
    attributes.add(CKA_MODULUS, key.modulus);
    attributes.add(CKA_PUBLIC_EXPONENT, key.publicExponent);
    attributes.add(CKA_PRIVATE_EXPONENT, key.privateExponent);
    attributes.add(CKA_PRIME_1, key.prime1);
    attributes.add(CKA_PRIME_2, key.prime2);
    attributes.add(CKA_EXPONENT_1, key.exponent1);
    attributes.add(CKA_EXPONENT_2, key.exponent2);
    attributes.add(CKA_COEFFICIENT, key.coefficient);
    attributes.add(CKA_EC_PARAMS, key.curve);
    attributes.add(CKA_VALUE, key.scalar);
    CK_RV result = CKR_OK;
    const CK_OBJECT_HANDLE object = attributes.create(functions_, session_, result);
    if (!key.isRsa() && refusesKind(result)) {
      throw Failure(Status::wrongKeyType,
                    "this token takes no elliptic-curve keys from outside; generate the key on the token");
    }
    requireStored(result, "the key");
    // C_CreateObject stores a key without its ID.
    CK_ATTRIBUTE idAttribute = {CKA_ID, const_cast<std::uint8_t*>(id.data()), static_cast<CK_ULONG>(id.size())};
    check(functions_->C_SetAttributeValue(session_.handle(), object, &idAttribute, 1), "C_SetAttributeValue");
    std::cout << "wrote the key \"" << printable(label) << "\", id " << hexOf(id) << '\n';
  }

  // The ID of the key that the certificate is for; empty when the token has none.
  Bytes idFor(ByteView certificate) const {
    const auto facts = readFacts(certificate);
    for (const CK_OBJECT_HANDLE object : session_.objects(CKO_PUBLIC_KEY)) {
      if (!facts || session_.number(object, CKA_KEY_TYPE) != CKK_RSA) continue;
      if (holdsKey(*facts, session_.bytes(object, CKA_MODULUS))) return session_.bytes(object, CKA_ID);
    }
    return {};
  }

  void writeCertificate(const Bytes& der) const {
    const std::string name = commonNameOf(der);
    if (name.empty()) throw Failure(Status::badArgument, "a certificate in the file cannot be read");
    const Bytes id = idFor(der);
    // With an earlier certificate the module may have written this one, as an issuer from its CA folder.
    const bool there = std::ranges::any_of(session_.objects(CKO_CERTIFICATE), [&](CK_OBJECT_HANDLE object) {
      return session_.bytes(object, CKA_VALUE) == der && session_.bytes(object, CKA_ID) == id;
    });
    if (there) return;
    const std::string label = !id.empty() && !options_.label.empty() ? options_.label : name;
    const CK_CERTIFICATE_TYPE type = CKC_X_509;
    Template attributes(CKO_CERTIFICATE);
    attributes.add(CKA_CERTIFICATE_TYPE, &type, sizeof type);
    attributes.add(CKA_SUBJECT, softtoken::parseCertificate(der).subject);
    attributes.add(CKA_VALUE, der);
    attributes.add(CKA_LABEL, label);
    attributes.add(CKA_ID, id);
    CK_RV result = CKR_OK;
    attributes.create(functions_, session_, result);
    if (result == CKR_DATA_LEN_RANGE) {
      const std::string longest = std::to_string(tavrin::maximumCertificateLength);
      throw Failure(Status::badArgument, "the certificate of " + name + " is longer than " + longest + " bytes");
    }
    requireStored(result, "the certificate of " + name);
    std::cout << "wrote the certificate of \"" << printable(name) << '"' << (id.empty() ? "" : ", id " + hexOf(id))
              << '\n';
  }

  CK_FUNCTION_LIST* functions_;
  const Session& session_;
  const ImportOptions& options_;
  const KeyFile& file_;
};

int importFile(const ImportOptions& options) {
  const KeyFile file = readKeyFile(options.file, [&] {
    return readPassword({"password of the file", options.filePinFile, "TAVRIN_FILE_PIN"});
  });
  std::string warning;
  const LoadedModule module(options.module.empty() ? defaultModule() : softtoken::pathOf(options.module), warning);
  const InitialisedModule initialised(module.functions());
  const Session session(module.functions(), chooseSlot(module.functions(), options.token), false);
  login(module.functions(), session, options);
  Import(module.functions(), session, options, file).run();
  return 0;
}

}  // namespace

void addImportCommand(const Command& program) {
  const auto options = std::make_shared<ImportOptions>();
  const Command command = program.add("import", "Writes a key and certificates from a file to a token.");
  command.requiredArgument("FILE", options->file, "A PKCS#12 (.p12, .pfx) or PEM file");
  command.option("--module FILE", options->module, "The module to load; default: the installed one");
  command.option("--token NAME", options->token, "The token's label or serial number, when there are several");
  command.option("--label TEXT", options->label, "The key's label; default: the certificate's name");
  command.option("--id HEX", options->id, "The key's ID; default: made from the key", checkId);
  command.option("--pin-file FILE", options->pinFile, "File with the user password");
  command.option("--file-pin-file FILE", options->filePinFile, "File with the password of FILE");
  command.footer(
      "The passwords are read from the first line of the given file, else from TAVRIN_PIN (user)\n"
      "and TAVRIN_FILE_PIN (FILE), else from the terminal. Tokens store RSA keys of 1024 to 4096\n"
      "bits; a token that takes no elliptic-curve keys refuses them.\n");
  command.run([options] { return importFile(*options); });
}

}  // namespace tool
