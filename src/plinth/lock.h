#pragma once
// The host's exclusive lock: named and ranked. The rank orders acquisition; here it is kept for a debugger to read.

#include <cstdint>

struct plinth_Lock;

namespace kab::plinth {

/// A new lock, or null when memory is exhausted. `name` is borrowed and must outlive the lock.
plinth_Lock* LockCreate(const char* name, uint32_t rank);
void LockAcquire(plinth_Lock* lock);
void LockRelease(plinth_Lock* lock);
/// Null is allowed.
void LockDestroy(plinth_Lock* lock);

/// Holds a lock for a scope.
class LockGuard {
 public:
  explicit LockGuard(plinth_Lock* lock) : lock_(lock) { LockAcquire(lock_); }
  ~LockGuard() { LockRelease(lock_); }
  LockGuard(const LockGuard&) = delete;
  LockGuard& operator=(const LockGuard&) = delete;

 private:
  plinth_Lock* lock_;
};

}  // namespace kab::plinth
