#include "tool/key_file.h"

#include <gpg-error.h>

#include <algorithm>
#include <memory>
#include <string_view>

#include "softtoken/certificates.h"
#include "softtoken/crypto_library.h"
#include "softtoken/platform.h"
#include "tool/certificate_facts.h"
#include "tool/der_fields.h"
#include "tool/pkcs12.h"

namespace tool {
namespace {

using softtoken::Bytes;
using softtoken::ByteView;
using softtoken::Failure;
using softtoken::SecretBytes;
using softtoken::Status;

constexpr std::size_t largestFile = 1 << 20;
constexpr std::uint8_t ecPublicKey[] = {0x06, 0x07, 0x2A, 0x86, 0x48, 0xCE, 0x3D, 0x02, 0x01};

template <class Container>
void assign(Container& target, ByteView bytes) {
  target.assign(bytes.begin(), bytes.end());
}

// PKCS#1.
PrivateKey rsaKeyIn(ByteView der) {
  DerFields fields = DerFields(der).inside(softtoken::tag::sequence);
  fields.number();  // the version
  PrivateKey key;
  assign(key.modulus, fields.number());
  assign(key.publicExponent, fields.number());
  for (SecretBytes* part :
       {&key.privateExponent, &key.prime1, &key.prime2, &key.exponent1, &key.exponent2, &key.coefficient})
    assign(*part, fields.number());
  if (key.modulus.empty()) throw Failure(Status::badArgument, "the RSA key in the file is damaged");
  return key;
}

// An ECPrivateKey. `curve` is the one that the surrounding structure names; if it is empty, the key names the curve.
PrivateKey ecKeyIn(ByteView der, ByteView curve) {
  DerFields fields = DerFields(der).inside(softtoken::tag::sequence);
  fields.number();
  PrivateKey key;
  assign(key.scalar, fields.take(softtoken::tag::octetString).content);
  if (curve.empty() && fields.nextIs(softtoken::tag::explicitZero))
    curve = fields.inside(softtoken::tag::explicitZero).take(tag::objectIdentifier).whole;
  assign(key.curve, curve);
  return key;
}

struct PemBlock {
  std::string_view kind;  // such as CERTIFICATE
  std::string_view body;
};

// Removes the text up to the end of the next block and returns that block; nothing when there is none.
std::optional<PemBlock> takeBlock(std::string_view& text) {
  constexpr std::string_view begin = "-----BEGIN ";
  constexpr std::string_view dashes = "-----";
  const auto start = text.find(begin);
  if (start == text.npos) return std::nullopt;
  text.remove_prefix(start + begin.size());
  const auto kindEnd = text.find(dashes);
  const auto bodyEnd = text.find("-----END ");
  if (kindEnd == text.npos || bodyEnd == text.npos || bodyEnd < kindEnd)
    throw Failure(Status::badArgument, "the file ends within a PEM block");
  const PemBlock block{text.substr(0, kindEnd),
                       text.substr(kindEnd + dashes.size(), bodyEnd - kindEnd - dashes.size())};
  text.remove_prefix(bodyEnd);
  return block;
}

SecretBytes decoded(std::string_view base64) {
  const std::unique_ptr<_gpgrt_b64state, softtoken::ReleaseWith<gpgrt_b64dec_finish>> decoder(
      gpgrt_b64dec_start(nullptr));
  if (!decoder) throw std::bad_alloc();
  const ByteView text = softtoken::viewOf(base64);
  SecretBytes bytes(text.begin(), text.end());
  std::size_t length = 0;
  if (bytes.empty() || gpgrt_b64dec_proc(decoder.get(), bytes.data(), bytes.size(), &length) != 0)
    throw Failure(Status::badArgument, "a PEM block of the file is damaged");
  bytes.resize(length);
  return bytes;
}

std::optional<PrivateKey> keyIn(const PemBlock& block, const AskPassword& askPassword) {
  if (!block.kind.ends_with("PRIVATE KEY")) return std::nullopt;
  if (block.body.find("Proc-Type:") != block.body.npos) {
    throw Failure(Status::badArgument,
                  "the key is encrypted in OpenSSL's old form; convert it with: openssl pkcs8 -topk8");
  }
  const SecretBytes der = decoded(block.body);
  if (block.kind == "PRIVATE KEY") return privateKeyIn(der);
  if (block.kind == "RSA PRIVATE KEY") return rsaKeyIn(der);
  if (block.kind == "EC PRIVATE KEY") return ecKeyIn(der, {});
  if (block.kind == "ENCRYPTED PRIVATE KEY") return encryptedPrivateKeyIn(der, askPassword());
  throw Failure(Status::badArgument, "the file holds a key of an unknown kind: " + std::string(block.kind));
}

KeyFile readPem(std::string_view text, const AskPassword& askPassword) {
  KeyFile result;
  while (const auto block = takeBlock(text)) {
    if (block->kind == "CERTIFICATE") {
      const SecretBytes der = decoded(block->body);
      result.certificates.emplace_back(der.begin(), der.end());
    } else if (!result.key) {
      result.key = keyIn(*block, askPassword);
    }
  }
  return result;
}

}  // namespace

PrivateKey privateKeyIn(ByteView info) {
  DerFields fields = DerFields(info).inside(softtoken::tag::sequence);
  fields.number();
  DerFields algorithm = fields.inside(softtoken::tag::sequence);
  const ByteView identifier = algorithm.take(tag::objectIdentifier).whole;
  const ByteView key = fields.take(softtoken::tag::octetString).content;
  if (std::ranges::equal(identifier, softtoken::rsaEncryption)) return rsaKeyIn(key);
  if (std::ranges::equal(identifier, ecPublicKey)) return ecKeyIn(key, algorithm.take(tag::objectIdentifier).whole);
  throw Failure(Status::badArgument, "the file's key is neither an RSA key nor one on an elliptic curve");
}

PrivateKey encryptedPrivateKeyIn(ByteView info, const SecretBytes& password) {
  DerFields fields = DerFields(info).inside(softtoken::tag::sequence);
  const ByteView algorithm = fields.take(softtoken::tag::sequence).content;
  return privateKeyIn(decryptByPassword(algorithm, fields.take(softtoken::tag::octetString).content, password));
}

bool fits(const PrivateKey& key, ByteView certificate) {
  const auto facts = readFacts(certificate);
  return facts && key.isRsa() && holdsKey(*facts, key.modulus);
}

KeyFile readKeyFile(const std::string& file, const AskPassword& askPassword) {
  std::optional<std::vector<std::uint8_t>> content = softtoken::readFile(softtoken::pathOf(file), largestFile);
  if (!content) throw Failure(Status::notFound, "cannot read " + file + " (it has at most 1 MiB)");
  const SecretBytes bytes(content->begin(), content->end());
  softtoken::wipe(content->data(), content->size());
  const std::string_view text(reinterpret_cast<const char*>(bytes.data()), bytes.size());
  const bool isDer = !bytes.empty() && bytes[0] == softtoken::tag::sequence;
  if (!isDer && text.find("-----BEGIN ") == text.npos)
    throw Failure(Status::badArgument, file + " is neither a PEM nor a PKCS#12 file");
  KeyFile result = isDer ? readPkcs12(bytes, askPassword()) : readPem(text, askPassword);
  if (!result.key && result.certificates.empty())
    throw Failure(Status::badArgument, file + " holds neither a key nor a certificate");
  return result;
}

}  // namespace tool
