// Results that a caller reads after the call that made them, until the same thread's next such call.
#pragma once

#include <map>
#include <mutex>
#include <thread>

namespace softtoken {

// Not thread_local: those values would outlive the library's code when it is unloaded.
template <class Value>
class PerThread {
 public:
  // Replaces the calling thread's value; the reference stays good until the next keep() of this thread or clear().
  Value& keep(Value value) {
    const std::lock_guard guard(mutex_);
    Value& kept = values_[std::this_thread::get_id()];
    kept = std::move(value);
    return kept;
  }

  void clear() {
    const std::lock_guard guard(mutex_);
    values_.clear();
  }

 private:
  std::mutex mutex_;
  std::map<std::thread::id, Value> values_;  // nodes stay where they are
};

}  // namespace softtoken
