// A preload library: pread and pread64 of any byte in [KAB_FAIL_FROM, KAB_FAIL_TO) fail with EIO, and the read number
// KAB_INTERRUPT_AT, from 1, comes with a SIGINT. The tool under test and the library stay as they are.
#define _GNU_SOURCE
#include <dlfcn.h>
#include <errno.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/types.h>

typedef ssize_t (*PreadFn)(int, void*, size_t, off_t);

static long long Bound(const char* name) {
  const char* text = getenv(name);
  return text != NULL ? atoll(text) : -1;
}

static long long reads = 0;

static ssize_t Read(const char* name, int fd, void* buf, size_t count, off_t offset) {
  if (++reads == Bound("KAB_INTERRUPT_AT")) raise(SIGINT);
  const long long from = Bound("KAB_FAIL_FROM");
  const long long to = Bound("KAB_FAIL_TO");
  if (offset < to && offset + (long long)count > from) {
    errno = EIO;
    return -1;
  }
  PreadFn real;
  *(void**)&real = dlsym(RTLD_NEXT, name);
  return real(fd, buf, count, offset);
}

__attribute__((visibility("default"))) ssize_t pread(int fd, void* buf, size_t count, off_t offset) {
  return Read("pread", fd, buf, count, offset);
}
__attribute__((visibility("default"))) ssize_t pread64(int fd, void* buf, size_t count, off_t offset) {
  return Read("pread64", fd, buf, count, offset);
}
