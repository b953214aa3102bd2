#include "plinth/lock.h"

#include <pthread.h>

#include <cstdlib>

// pthread, not std::mutex: acquiring a std::mutex may throw.
struct plinth_Lock {
  pthread_mutex_t mutex;
  const char* name;
  uint32_t rank;
};

namespace kab::plinth {

plinth_Lock* LockCreate(const char* name, uint32_t rank) {
  auto* lock = static_cast<plinth_Lock*>(std::calloc(1, sizeof(plinth_Lock)));
  if (lock == nullptr) return nullptr;
  if (pthread_mutex_init(&lock->mutex, nullptr) != 0) {
    std::free(lock);
    return nullptr;
  }
  lock->name = name;
  lock->rank = rank;
  return lock;
}

void LockAcquire(plinth_Lock* lock) { pthread_mutex_lock(&lock->mutex); }

void LockRelease(plinth_Lock* lock) { pthread_mutex_unlock(&lock->mutex); }

void LockDestroy(plinth_Lock* lock) {
  if (lock == nullptr) return;
  pthread_mutex_destroy(&lock->mutex);
  std::free(lock);
}

}  // namespace kab::plinth
