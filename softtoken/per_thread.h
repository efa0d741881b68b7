// Results that a caller reads after the call that made them, until the next such call of the same thread.
#pragma once

#include <map>
#include <mutex>
#include <thread>

namespace softtoken {

// Not thread_local: such values are destroyed when their thread ends, which may be after the library is unloaded.
template <class Value>
class PerThread {
 public:
  // Replaces the calling thread's value; the reference stays valid until the next keep() of this thread or clear().
  Value& keep(Value value) {
    return change([&](Value& kept) { kept = std::move(value); });
  }

  // Lets `change(value)` change the calling thread's value. The reference is valid as long as that of keep().
  template <class Change>
  Value& change(Change&& change) {
    const std::lock_guard guard(mutex_);
    Value& kept = values_[std::this_thread::get_id()];
    change(kept);
    return kept;
  }

  void clear() {
    const std::lock_guard guard(mutex_);
    values_.clear();
  }

 private:
  std::mutex mutex_;
  std::map<std::thread::id, Value> values_;  // a map, because its nodes never move
};

}  // namespace softtoken
