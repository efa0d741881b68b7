#include "crypto/signature_input.h"

namespace tavrin {
namespace {

// Replaces the parts by their digest.
CK_RV finishHash(const Call& call, Session& session) {
  Digest digest;
  const int status = digest.finish(session.parts.hashContext, Digest::capacity);
  session.parts.hashContext = nullptr;
  wipeAndFree(session.parts.data);
  if (status != 0) return endFailed(session, call.refuse(CKR_FUNCTION_FAILED, "finalHash failed ", status));
  session.parts.data.assign(digest.bytes().begin(), digest.bytes().end());
  return CKR_OK;
}

}  // namespace

CK_RV refusePss(const Call& call, const Session& session) {
  return call.refuse(CKR_MECHANISM_INVALID, "CKM_RSA_PKCS_PSS not supported on firmware ",
                     session.device.firmwareVersion);
}

CK_RV endFailed(Session& session, CK_RV code) {
  session.activeOperation = Operation::none;
  return code;
}

CK_RV makeInput(Session& session, ByteView message, const HashErrorTexts& texts, Digest& digest, ByteView& input) {
  input = message;
  if (session.mechanism->hash == HashCode::none) return CKR_OK;
  const HashFailure failure = hashMessage(session, session.mechanism->hash, message, digest);
  if (failure.step != HashFailure::none) {
    const char* const lines[] = {nullptr, texts.init, texts.update, texts.final};
    logError(lines[failure.step], failure.status);
    return endFailed(session, CKR_FUNCTION_FAILED);
  }
  input = digest.bytes();
  return CKR_OK;
}

CK_RV takePart(const Call& call, Session& session, HashCode hash, ByteView part) {
  if (hash == HashCode::none) {
    session.parts.data.insert(session.parts.data.end(), part.begin(), part.end());
    return CKR_OK;
  }
  void*& context = session.parts.hashContext;
  if (!context) {
    const int status = initHash(session, hash, &context);
    if (status != 0) return endFailed(session, call.refuse(CKR_FUNCTION_FAILED, "initHash failed ", status));
  }
  const int status = updateHash(context, part);
  if (status == 0) return CKR_OK;
  context = nullptr;
  return endFailed(session, call.refuse(CKR_FUNCTION_FAILED, "updateHash failed ", status));
}

CK_RV takeInput(const Call& call, Session& session, HashCode hash, SecretBytes& input) {
  const CK_RV refusal = hash == HashCode::none ? CKR_OK : finishHash(call, session);
  if (refusal == CKR_OK) session.parts.data.swap(input);
  return refusal;
}

}  // namespace tavrin
