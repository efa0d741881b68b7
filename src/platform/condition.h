// A mutex and a condition variable, used as std::mutex and std::condition_variable are. On Windows they hold no
// handles: those of the compiler's library are not closed when the module is unloaded, since module state is never
// destroyed.
#pragma once

#ifdef _WIN32
#include <mutex>
#else
#include <condition_variable>
#include <mutex>
#endif

namespace tavrin::platform {

#ifdef _WIN32

class Mutex {
 public:
  void lock();
  void unlock();

 private:
  friend class Condition;
  void* lock_ = nullptr;  // an SRWLOCK
};

class Condition {
 public:
  void notify_all();
  template <typename Predicate>
  void wait(std::unique_lock<Mutex>& lock, Predicate ready) {
    while (!ready()) sleep(*lock.mutex());
  }

 private:
  void sleep(Mutex& mutex);
  void* variable_ = nullptr;  // a CONDITION_VARIABLE
};

#else

using Mutex = std::mutex;
using Condition = std::condition_variable;

#endif

}  // namespace tavrin::platform
