#include "softtoken/hash_contexts.h"

#include "devlib/device_constants.h"

namespace softtoken {
namespace {

constexpr std::size_t maxContexts = 1024;

int algorithmOf(int hashCode) {
  using tavrin::HashCode;
  switch (static_cast<HashCode>(hashCode)) {
    case HashCode::sha1Alternative:
    case HashCode::sha1:
      return GCRY_MD_SHA1;
    case HashCode::sha256:
      return GCRY_MD_SHA256;
    case HashCode::sha384:
      return GCRY_MD_SHA384;
    case HashCode::sha512:
      return GCRY_MD_SHA512;
    default:
      throw Failure(Status::badArgument, "unknown hash code " + std::to_string(hashCode));
  }
}

}  // namespace

void* HashContexts::open(int hashCode) {
  const int algorithm = algorithmOf(hashCode);
  readyCryptoLibrary();
  gcry_md_hd_t handle = nullptr;
  check(gcry_md_open(&handle, algorithm, 0), "opening a hash");
  Running running{algorithm, {}};
  running.hash.reset(handle);

  const std::lock_guard guard(mutex_);
  if (running_.size() >= maxContexts) running_.erase(running_.begin());
  running_.emplace(++last_, std::move(running));
  return reinterpret_cast<void*>(last_);  // NOLINT(performance-no-int-to-ptr)
}

void HashContexts::update(const void* context, ByteView data) {
  auto taken = take(context);
  gcry_md_write(taken.mapped().hash.get(), data.data(), data.size());
  const std::lock_guard guard(mutex_);
  running_.insert(std::move(taken));
}

Bytes HashContexts::finish(const void* context) {
  const auto taken = take(context);
  const Running& running = taken.mapped();
  const std::uint8_t* digest = gcry_md_read(running.hash.get(), running.algorithm);
  return {digest, digest + gcry_md_get_algo_dlen(running.algorithm)};
}

void HashContexts::clear() {
  const std::lock_guard guard(mutex_);
  running_.clear();
}

HashContexts::RunningByNumber::node_type HashContexts::take(const void* context) {
  const std::lock_guard guard(mutex_);
  auto taken = running_.extract(reinterpret_cast<std::uintptr_t>(context));
  if (!taken) throw Failure(Status::notFound, "there is no such hash context");
  return taken;
}

}  // namespace softtoken
