#include "crypto/device_hash.h"

#include "devlib/library_instance.h"

namespace tavrin {

int Digest::finish(void* context, int inLength) {
  int length = inLength;
  const int status = tavrin_finalHash(context, buffer_.data(), &length, libraryInstance);
  length_ = returnedLength(length, buffer_.size());
  return status;
}

int initHash(const Session& session, HashCode hash, void** context) {
  return tavrin_initHash(session.deviceId(), static_cast<int>(hash), context, libraryInstance);
}

int updateHash(void* context, ByteView data) {
  return tavrin_updateHash(context, data.data(), deviceLength(data.size()), libraryInstance);
}

HashFailure hashMessage(const Session& session, HashCode hash, ByteView message, Digest& digest) {
  void* context = nullptr;
  int status = initHash(session, hash, &context);
  if (status != 0) return {HashFailure::init, status};
  status = updateHash(context, message);
  if (status != 0) return {HashFailure::update, status};
  status = digest.finish(context, Digest::capacity);
  if (status != 0) return {HashFailure::final, status};
  return {HashFailure::none, 0};
}

}  // namespace tavrin
