#include "objects/attribute_table.h"

#include <algorithm>
#include <cstring>
#include <iterator>
#include <utility>

#include "devlib/device_constants.h"
#include "objects/object_handles.h"

namespace tavrin {
namespace {

ByteView asBytes(std::string_view text) { return {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()}; }

// The functions that read an attribute. The rows of the table below name them.
using Reader = void (*)(const ObjectView& object, AttributeValue& value);

void empty(const ObjectView&, AttributeValue&) {}
void yes(const ObjectView&, AttributeValue& value) { value.setBoolean(true); }
void no(const ObjectView&, AttributeValue& value) { value.setBoolean(false); }

template <CK_ULONG number>
void constant(const ObjectView&, AttributeValue& value) {
  value.setNumber(number);
}

void ownHandle(const ObjectView& object, AttributeValue& value) { value.setNumber(object.handle); }
void exponent65537(const ObjectView&, AttributeValue& value) { value.view(rsaPublicExponentBytes); }

void certificateDer(const ObjectView& object, AttributeValue& value) { value.view(certificate(*object.certificate)); }
void certificateLabel(const ObjectView& object, AttributeValue& value) {
  value.view(asBytes(label(*object.certificate)));
}
void certificateId(const ObjectView& object, AttributeValue& value) { value.view(certId(*object.certificate)); }

// Calls the device library. The value is empty when the library cannot parse the certificate.
template <std::vector<std::uint8_t> (*operation)(const std::uint8_t*, int, void*)>
void partOfCertificate(const ObjectView& object, AttributeValue& value) {
  const ByteView der = certificate(*object.certificate);
  value.setMade(operation(der.data(), static_cast<int>(der.size()), nullptr));
}

void keyBytes(const ObjectView& object, AttributeValue& value) { value.view(publicKey(*object.keyPair)); }
void keyLabel(const ObjectView& object, AttributeValue& value) { value.view(asBytes(label(*object.keyPair))); }
void keyIdBytes(const ObjectView& object, AttributeValue& value) { value.view(keyId(*object.keyPair)); }

template <std::uint32_t mask>
void usage(const ObjectView& object, AttributeValue& value) {
  value.setBoolean((object.keyPair->usage & mask) != 0);
}

// A code outside the table reads as RSA 2048.
const KeyTypeInfo& keyTypeOf(const ObjectView& object) {
  const KeyTypeInfo* info = findKeyType(object.keyPair->keyType);
  return info ? *info : *findKeyType(codeOf(KeyType::rsa2048));
}

void keyType(const ObjectView& object, AttributeValue& value) {
  value.setNumber(keyTypeOf(object).algorithm == KeyAlgorithm::ec ? CKK_EC : CKK_RSA);
}
void keyGenMechanism(const ObjectView& object, AttributeValue& value) {
  const bool isEc = keyTypeOf(object).algorithm == KeyAlgorithm::ec;
  value.setNumber(isEc ? CKM_EC_KEY_PAIR_GEN : CKM_RSA_PKCS_KEY_PAIR_GEN);
}
// The size of the curve for EC keys.
void modulusBits(const ObjectView& object, AttributeValue& value) { value.setNumber(keyTypeOf(object).bits); }
void ecParams(const ObjectView& object, AttributeValue& value) { value.view(keyTypeOf(object).curve); }

// A DER OCTET STRING with the public key. A length from 128 on is written as 0x81 and its lowest byte. EC points have
// at most 133 bytes; for RSA moduli of 2048 bits and more the written length is wrong.
void ecPoint(const ObjectView& object, AttributeValue& value) {
  const ByteView point = publicKey(*object.keyPair);
  std::vector<std::uint8_t> der{0x04};
  if (point.size() >= 128) der.push_back(0x81);
  der.push_back(static_cast<std::uint8_t>(point.size()));
  der.insert(der.end(), point.begin(), point.end());
  value.setMade(std::move(der));
}

constexpr auto certificateIssuer = partOfCertificate<tavrin_getCertificateIssuer>;
constexpr auto certificateSerialNumber = partOfCertificate<tavrin_getCertificateSerialDER>;
constexpr auto certificateSubject = partOfCertificate<tavrin_getCertificateSubject>;

constexpr auto maySign = usage<usageSign>;
constexpr auto mayDecrypt = usage<usageDecrypt>;

struct AttributeRow {
  CK_ATTRIBUTE_TYPE type;
  Reader certificate;
  Reader privateKey;
  Reader publicKey;
};

// A certificate also has a modulus, its bits and an exponent, and an EC key has the RSA exponent: some applications
// read the same attributes of every object. An attribute that is not in the table reads as empty.
constexpr AttributeRow attributeTable[] = {
    // type               certificate                  private key                public key
    {CKA_CLASS, constant<CKO_CERTIFICATE>, constant<CKO_PRIVATE_KEY>, constant<CKO_PUBLIC_KEY>},
    {CKA_TOKEN, yes, yes, yes},
    {CKA_PRIVATE, no, yes, no},
    {CKA_LABEL, certificateLabel, keyLabel, keyLabel},
    {CKA_VALUE, certificateDer, keyBytes, keyBytes},
    {CKA_OBJECT_ID, ownHandle, ownHandle, ownHandle},
    {CKA_CERTIFICATE_TYPE, constant<CKC_X_509>, constant<0>, constant<0>},
    {CKA_ISSUER, certificateIssuer, empty, empty},
    {CKA_SERIAL_NUMBER, certificateSerialNumber, empty, empty},
    {CKA_TRUSTED, yes, yes, yes},
    {CKA_KEY_TYPE, constant<0>, keyType, keyType},
    {CKA_SUBJECT, certificateSubject, empty, empty},
    {CKA_ID, certificateId, keyIdBytes, keyIdBytes},
    {CKA_SENSITIVE, no, yes, no},
    {CKA_ENCRYPT, no, no, mayDecrypt},
    {CKA_DECRYPT, no, mayDecrypt, no},
    {CKA_WRAP, no, no, no},
    {CKA_VERIFY_RECOVER, no, no, no},
    {CKA_DERIVE, no, no, no},
    {CKA_SIGN, no, maySign, no},
    {CKA_VERIFY, no, no, maySign},
    {CKA_MODULUS, certificateDer, keyBytes, keyBytes},
    {CKA_MODULUS_BITS, constant<2048>, modulusBits, modulusBits},
    {CKA_PUBLIC_EXPONENT, exponent65537, exponent65537, exponent65537},
    {CKA_EXTRACTABLE, yes, no, yes},
    {CKA_LOCAL, yes, yes, yes},
    {CKA_KEY_GEN_MECHANISM, constant<0>, keyGenMechanism, keyGenMechanism},
    {CKA_MODIFIABLE, yes, no, no},
    {CKA_EC_PARAMS, empty, ecParams, ecParams},
    {CKA_EC_POINT, empty, ecPoint, ecPoint}};

Reader readerFor(const AttributeRow& row, const ObjectView& object) {
  if (object.certificate) return row.certificate;
  return isPrivateKey(object.handle) ? row.privateKey : row.publicKey;
}

}  // namespace

void AttributeValue::setBoolean(bool value) {
  small_[0] = value ? CK_TRUE : CK_FALSE;
  bytes_ = ByteView(small_).first(sizeof(CK_BBOOL));
}

void AttributeValue::setNumber(CK_ULONG value) {
  std::memcpy(small_.data(), &value, sizeof value);
  bytes_ = small_;
}

void AttributeValue::setMade(std::vector<std::uint8_t> bytes) {
  made_ = std::move(bytes);
  bytes_ = made_;
}

void readAttribute(CK_ATTRIBUTE_TYPE type, const ObjectView& object, AttributeValue& value) {
  const auto row = std::find_if(std::begin(attributeTable), std::end(attributeTable),
                                [type](const AttributeRow& candidate) { return candidate.type == type; });
  if (row != std::end(attributeTable)) readerFor(*row, object)(object, value);
}

}  // namespace tavrin
