#include "tool/catalogue.h"

#include <algorithm>

namespace tool {
namespace {

// The first row whose pattern is in the message is used, so special messages come before general ones.
constexpr Explanation rows[] = {
    // Passwords.
    {"retry count : 0", "The password was wrong and no try is left: the token is locked.",
     "Unlock it with the security officer password (for a software token: tavrin-tool token unlock NAME)."},
    {"password validation failed : 21", "The token is locked after too many wrong passwords.",
     "Unlock it with the security officer password (for a software token: tavrin-tool token unlock NAME)."},
    {"password validation failed : 20", "The application gave a wrong password, which cost a try.",
     "Enter the right password; check that the application has no old one stored."},
    {"password validation failed, retry count", "The login was refused; the line shows how many tries are left.",
     "Enter the right password before the last try is used."},
    {"password validation failed", "The token could not check the password.",
     "See the status in the line; plug the token in again and retry."},
    {"tavrin_changeUserPassword failed", "The token did not change the password, mostly because the old one was wrong.",
     "Check the old password; tavrin-tool status shows the tries left."},
    {"pin length out of range", "A password has 4 to 63 bytes; the application gave one that is shorter or longer.",
     "Use a password of 4 to 63 bytes."},
    {"user not logged in", "The operation needs a login, and this session has none.",
     "Call C_Login first; a removed token logs its sessions out."},
    {"unsupported userType", "Only the user can log in, not the security officer.",
     "Log in as CKU_USER; use tavrin-tool to unlock a token."},
    // Tokens and sessions.
    {"No valid token found", "The device library found no token.",
     "Plug a token in; tavrin-tool status shows what is connected."},
    {"invalid slotID", "The slot is unknown or its token has been removed.",
     "Call C_GetSlotList again and use a slot from its result."},
    {"invalid hSession", "The session handle is unknown: it was closed, or belongs to another process.",
     "Open a session after C_Initialize and in each process; do not use it after C_CloseSession."},
    {"no session handle left", "All session handles are in use.", "Close sessions that are not needed."},
    {"CKF_SERIAL_SESSION not set", "Sessions must be opened with CKF_SERIAL_SESSION.",
     "Set this flag in C_OpenSession."},
    {"session is read-only", "The session was opened without CKF_RW_SESSION.",
     "Open the session with CKF_RW_SESSION to change the token."},
    {"already initialized", "C_Initialize was called twice; often two parts of a program use the module.",
     "Treat CKR_CRYPTOKI_ALREADY_INITIALIZED as success."},
    {"not initialized", "A function was called before C_Initialize or after C_Finalize.",
     "Call C_Initialize first; a child process after fork must call it again."},
    {"Init pkcs11 library failed", "The device library could not be started.",
     "Check the device library beside the module with tavrin-tool status."},
    {"device listing failed", "The device library did not list the tokens.",
     "Check the token's driver and plug the token in again."},
    {"no event pending", "No token was inserted or removed since the last call.",
     "Nothing is wrong: this is the answer of a call that does not wait."},
    {"monitor stopped", "The module was finalized while a thread waited for slot events.",
     "Nothing is wrong: end the waiting thread."},
    // Objects.
    {"ECC keypair not supported for import", "The token takes no elliptic-curve private keys from outside.",
     "Generate the key on the token, or import an RSA key."},
    {"Invalid input parameters for import RSA key", "A part of the RSA key is missing from the template.",
     "Give modulus, exponents, primes and coefficient; the public exponent must be 65537."},
    {"Import private key into device failed", "The token did not store the key.",
     "See the status in the line: the token may be full or the key's size not supported."},
    {"Leaf import failed", "The token did not store the certificate.",
     "See the status in the line: the token may be full; delete what is not needed."},
    {"certificate too long", "A certificate has at most 3072 bytes on a token.", "Have a shorter certificate issued."},
    {"Certificate data not available", "The template has no certificate in CKA_VALUE.", "Give the certificate as DER."},
    {"Provided object class not supported", "Only certificates and private keys can be written to the token.",
     "Keep other objects elsewhere."},
    {"Delete ", "The token did not delete the object.", "See the status in the line, and log in again."},
    {"Update key pair details failed", "The token did not change label or ID of the key.",
     "See the status in the line, and log in again."},
    {"not found in", "The object has been deleted, or the handle never existed.", "Search for the object again."},
    {"invalid hObject", "The object handle is unknown.", "Search for the object again."},
    {"Input hobject not valid", "The object handle is unknown.", "Search for the object again."},
    {"derived key handle not found", "The derived secret does not exist any more.", "Derive it again."},
    {"Invalid input handle", "The key of this handle is not on the token, or is no private key.",
     "Search for the key again and use its handle."},
    {"invalid input handle", "The key of this handle is not on the token.", "Search for the key again."},
    {"invalid hKey", "The handle is not one of a key that this operation can use.",
     "Use the handle of a private key to sign or decrypt, and of a public key to verify or encrypt."},
    // Mechanisms.
    {"not supported on firmware", "The token's firmware is too old for this mechanism.",
     "Use a token with newer firmware, or PKCS#1 v1.5 padding."},
    {"mechanism param invalid", "The parameters of the mechanism are missing, or none that the token can use.",
     "OAEP needs SHA-1; PSS needs the hash of the mechanism and a salt of its length."},
    {"unknown EC param", "The curve is not one of P-256, P-384 and P-521.",
     "Give CKA_EC_PARAMS as the object identifier of one of them."},
    {"unsupported RSA modulusBits", "RSA keys have 1024, 2048, 3072 or 4096 bits.",
     "Choose one of these sizes; also give CKA_KEY_TYPE in the private key's template, or an EC key becomes RSA."},
    {"unsupported mechanism", "The module does not offer this mechanism for this operation.",
     "Choose one from C_GetMechanismList."},
    {"mechanism not supported", "The module does not offer this digest.", "Choose one from C_GetMechanismList."},
    {"Generate key pair failed", "The token did not generate the key.",
     "See the status in the line: the token may be full."},
    // Operations.
    {"operation already active", "The session is in another operation that was not finished.",
     "Finish it, or use another session."},
    {"not initialised", "The operation was not begun with its Init function.", "Call the Init function first."},
    {"Verify signature failed", "The signature does not match data and key.",
     "Check that data, key and mechanism are those of the signature."},
    {"verify failed", "The signature does not match data and key.",
     "Check that data, key and mechanism are those of the signature."},
    {"crypt data failed", "The ciphertext does not fit the key or the padding, or the token failed.",
     "Check key, mechanism and ciphertext."},
    {"tavrin_ecdhDerive failed", "The token did not compute the shared secret.",
     "Check the other side's public key: it must be on the same curve."},
    {"signHash failed", "The token did not sign.", "See the status in the line; log in again."},
    {"Sign hash failed", "The token did not sign.", "See the status in the line; log in again."},
    {"ash in dige", "The device library did not compute the digest.", "See the status in the line and retry."},
    {"Hash failed", "The device library did not compute the digest.", "See the status in the line and retry."},
    {"hash data in di", "The device library did not compute the digest.", "See the status in the line and retry."},
    {"random number failed", "The token gave no random numbers.", "Plug the token in again."},
    {"buffer too small", "The application's buffer is too short for the result.",
     "Ask for the length with a NULL buffer first."},
    {"too long", "The result is longer than 4096 bytes.", "Report this to the maker of the device library."},
    // Arguments.
    {"is NULL", "The application passed no pointer where one is needed.", "Correct the call in the application."},
    {"pointer in NULL", "The application passed no mechanism.", "Correct the call in the application."},
    {"template is null", "The application passed no template.", "Correct the call in the application."},
    {"<=0", "The application passed a length or a count of 0.", "Correct the call in the application."},
    {"<= 0", "The application passed a length or a count of 0.", "Correct the call in the application."},
    {"wrong size for CKA_CLASS", "CKA_CLASS has the size of a CK_ULONG.", "Correct the template in the application."},
    {"out of memory", "The computer is out of memory.", "End other programs."},
    {"unexpected failure", "The module met an error that it does not know.", "Send this report to support."},
    {"invalid session state", "The session is in a state that allows no logout or login.", "Open a new session."},
};

}  // namespace

const Explanation* explanationOf(std::string_view message) {
  const auto* row = std::ranges::find_if(
      rows, [&](const Explanation& candidate) { return message.find(candidate.pattern) != message.npos; });
  return row == std::end(rows) ? nullptr : row;
}

}  // namespace tool
