// Reads token objects through the module and makes of them the attributes that the standard defines.
#include <algorithm>
#include <iterator>

#include "devlib/device_constants.h"
#include "standard/module_calls.h"

namespace tavrin::standard {
namespace {

// The module's attributes of a key pair, read from its public half, or of a certificate. The buffers hold any value.
struct Record {
  std::uint8_t label[160];
  std::uint8_t id[maximumIdLength];
  std::uint8_t value[maximumCertificateLength];
  std::uint8_t point[maximumSignatureLength];
  CK_KEY_TYPE keyType = 0;
  CK_ULONG bits = 0;
  CK_BBOOL verify = CK_FALSE;
  CK_BBOOL encrypt = CK_FALSE;
  CK_ATTRIBUTE read[8]{{CKA_VALUE, value, sizeof value},
                       {CKA_LABEL, label, sizeof label},
                       {CKA_ID, id, sizeof id},
                       {CKA_KEY_TYPE, &keyType, sizeof keyType},
                       {CKA_MODULUS_BITS, &bits, sizeof bits},
                       {CKA_VERIFY, &verify, sizeof verify},
                       {CKA_ENCRYPT, &encrypt, sizeof encrypt},
                       {CKA_EC_POINT, point, sizeof point}};

  Record() = default;
  Record(const Record&) = delete;
  Record& operator=(const Record&) = delete;

  ByteView valueBytes() const { return valueOf(read[0]); }
  const CK_ATTRIBUTE& itsLabel() const { return read[1]; }
  const CK_ATTRIBUTE& itsId() const { return read[2]; }
};

// Throws when the module has no such object any more.
void readFromModule(ModuleLock& module, Object& object, std::span<CK_ATTRIBUTE> wanted) {
  Token& token = *object.token;
  const CK_OBJECT_HANDLE handle =
      object.isTokenKey() ? moduleHandleOf(CKO_PUBLIC_KEY, object.moduleHandle) : object.moduleHandle;
  const CK_RV code = module->C_GetAttributeValue(lockedSession(module, token), handle, wanted.data(),
                                                 static_cast<CK_ULONG>(wanted.size()));
  if (code == CKR_OK) return;
  const Refusal failure = moduleFailure(module, token, "C_GetAttributeValue", code, CKR_OBJECT_HANDLE_INVALID);
  if (failure.code() == CKR_OBJECT_HANDLE_INVALID) module.state().objects.drop(object);
  throw failure;
}

// Throws when the handle now names another object.
void compareIdentity(ModuleLock& module, Object& object, ByteView value) {
  if (object.identity.empty()) object.identity.assign(value.begin(), value.end());
  if (std::ranges::equal(object.identity, value)) return;
  module.state().objects.drop(object);
  throw Refusal(CKR_OBJECT_HANDLE_INVALID, "the object was deleted, handle=", object.handle);
}

void describeKey(Attributes& made, const Object& object, const Record& record) {
  const bool isRsa = record.keyType == CKK_RSA;
  made.setNumber(CKA_KEY_TYPE, record.keyType);
  made.setFlag(CKA_LOCAL, !object.imported);
  const CK_MECHANISM_TYPE generation = isRsa ? CKM_RSA_PKCS_KEY_PAIR_GEN : CKM_EC_KEY_PAIR_GEN;
  if (!object.imported) made.setNumber(CKA_KEY_GEN_MECHANISM, generation);
  if (isRsa) {
    made.set(CKA_MODULUS, record.valueBytes());
    made.set(CKA_PUBLIC_EXPONENT, rsaPublicExponentBytes);
  } else {
    const auto* const curve = std::ranges::find_if(
        keyTypes, [&](const KeyTypeInfo& row) { return row.algorithm == KeyAlgorithm::ec && row.bits == record.bits; });
    if (curve != std::end(keyTypes)) made.set(CKA_EC_PARAMS, curve->curve);
  }
  if (object.isPrivate) {
    made.setFlag(CKA_SENSITIVE, true);
    made.setFlag(CKA_ALWAYS_SENSITIVE, !object.imported);
    made.setFlag(CKA_EXTRACTABLE, false);
    made.setFlag(CKA_NEVER_EXTRACTABLE, !object.imported);
    made.setFlag(CKA_DECRYPT, isRsa && record.encrypt != CK_FALSE);
    made.setFlag(CKA_SIGN, record.verify != CK_FALSE);
    made.setFlag(CKA_DERIVE, !isRsa);
    return;
  }
  made.setFlag(CKA_ENCRYPT, isRsa && record.encrypt != CK_FALSE);
  made.setFlag(CKA_VERIFY, record.verify != CK_FALSE);
  if (isRsa) {
    made.setNumber(CKA_MODULUS_BITS, bitsOf(record.valueBytes()));
  } else {
    made.set(CKA_EC_POINT, valueOf(record.read[7]));
  }
}

// Names and serial number are parsed by the device library, once for each certificate.
void describeCertificate(ModuleLock& module, Attributes& made, Object& object, const Record& record) {
  made.setNumber(CKA_CERTIFICATE_TYPE, CKC_X_509);
  made.set(CKA_VALUE, record.valueBytes());
  std::vector<std::uint8_t> names(3 * sizeof record.value);
  CK_ATTRIBUTE read[] = {{CKA_SUBJECT, names.data(), sizeof record.value},
                         {CKA_ISSUER, names.data() + sizeof record.value, sizeof record.value},
                         {CKA_SERIAL_NUMBER, names.data() + 2 * sizeof record.value, sizeof record.value}};
  readFromModule(module, object, read);
  for (const CK_ATTRIBUTE& entry : read) made.set(entry.type, valueOf(entry));
}

void describe(ModuleLock& module, Object& object, const Record& record) {
  const Kind kind = !object.isTokenKey() ? certificate : object.isPrivate ? newPrivateKey : newPublicKey;
  auto made = std::make_shared<Attributes>(withDefaults(Template(nullptr, 0), kind));
  made->setNumber(CKA_CLASS, object.objectClass);
  made->setFlag(CKA_TOKEN, object.session == 0);
  made->setFlag(CKA_PRIVATE, object.isPrivate);
  made->set(CKA_LABEL, valueOf(record.itsLabel()));
  made->set(CKA_ID, valueOf(record.itsId()));
  made->setFlag(CKA_MODIFIABLE, object.isTokenKey());  // the module cannot change a certificate
  made->setFlag(CKA_COPYABLE, object.session != 0 || !object.isPrivate);
  if (object.isTokenKey()) {
    made->set(CKA_SUBJECT, object.subject);
    describeKey(*made, object, record);
  } else {
    describeCertificate(module, *made, object, record);
  }
  object.attributes = std::move(made);
}

}  // namespace

const Attributes& readAttributes(ModuleLock& module, Object& object) {
  if (object.moduleHandle == 0) return *object.attributes;
  Record record;
  readFromModule(module, object, std::span(record.read).first(object.isTokenKey() ? std::size(record.read) : 3));
  compareIdentity(module, object, record.valueBytes());
  const Attributes* known = object.attributes.get();
  if (known && known->match(record.itsLabel()) && known->match(record.itsId())) return *known;
  describe(module, object, record);
  // One reading serves both halves of a pair: the module looks through all of the token's pairs each time.
  const auto other = object.isTokenKey() ? module.state().objects.otherHalf(object) : nullptr;
  if (other && !other->attributes) {
    compareIdentity(module, *other, record.valueBytes());
    describe(module, *other, record);
  }
  return *object.attributes;
}

const Attributes& knownAttributes(ModuleLock& module, Object& object) {
  return object.attributes ? *object.attributes : readAttributes(module, object);
}

void checkIdentity(ModuleLock& module, Object& object) {
  if (object.moduleHandle == 0) throw Refusal(CKR_OBJECT_HANDLE_INVALID, "its pair is gone, handle=", object.handle);
  std::uint8_t value[maximumCertificateLength];
  CK_ATTRIBUTE read{CKA_VALUE, value, sizeof value};
  readFromModule(module, object, {&read, 1});
  compareIdentity(module, object, valueOf(read));
}

bool isSensitive(const Object& object, const Attributes& attributes, CK_ATTRIBUTE_TYPE type) {
  const bool hidden = attributes.flag(CKA_SENSITIVE) || !attributes.flag(CKA_EXTRACTABLE);
  if (object.objectClass == CKO_SECRET_KEY) return type == CKA_VALUE && hidden;
  if (object.objectClass != CKO_PRIVATE_KEY) return false;
  if (attributes.number(CKA_KEY_TYPE) == CKK_EC) return type == CKA_VALUE;
  return type >= CKA_PRIVATE_EXPONENT && type <= CKA_COEFFICIENT;
}

}  // namespace tavrin::standard
