/*
 * Makes chosen system calls fail, for tests of what a program does then. Two forms of one source:
 *
 *  - the module kab_fault_shim, for LD_PRELOAD, which takes its plan from the environment;
 *  - the archive kab_test_faults (KAB_FAULT_WRAP), linked into a test with the linker's --wrap, which takes its plan
 *    from KabFaultPlan and works under sanitizers.
 *
 * A plan (KAB_FAULTS) is a list of rules, separated by commas:
 *
 *    CALL@N=EFFECT    the Nth call, from 1 on        pread@3=EIO
 *    CALL@N+=EFFECT   the Nth and all after it       pwrite@2+=ENOSPC,calloc@40=ENOMEM
 *
 * CALL is open, pread, pwrite, read, write, fstat, fsync, ftruncate, close, malloc, calloc or realloc. EFFECT is an
 * errno by name (those of kErrors) or number; "short", half of what was asked for; "none", no byte at all and no error;
 * or "die": the process is killed in place of the call, as by a loss of power. KAB_FAULT_PATH makes calls count only on
 * files whose path contains that text. A broken plan ends the process.
 *
 * The module counts from the beginning of main to its end, so that the loader's calls are no part of a plan, and writes
 * how often each call was made to the file KAB_FAULT_COUNTS, "CALL N" a line.
 */
#define _GNU_SOURCE
#include "support/fault_shim.h"

#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

enum Call {
  kOpen,
  kPread,
  kPwrite,
  kRead,
  kWrite,
  kFstat,
  kFsync,
  kFtruncate,
  kClose,
  kMalloc,
  kCalloc,
  kRealloc,
  kCalls
};
static const char* const kNames[kCalls] = {"open",  "pread",     "pwrite", "read",   "write",  "fstat",
                                           "fsync", "ftruncate", "close",  "malloc", "calloc", "realloc"};

static const struct {
  const char* name;
  int error;
} kErrors[] = {{"EIO", EIO},       {"ENOSPC", ENOSPC}, {"ENOMEM", ENOMEM}, {"EBUSY", EBUSY},
               {"EMFILE", EMFILE}, {"EINTR", EINTR},   {"EDQUOT", EDQUOT}, {"EACCES", EACCES},
               {"EROFS", EROFS},   {"EFBIG", EFBIG},   {"ENXIO", ENXIO}};

enum { kShort = -1, kNone = -2, kDie = -3, kNoFault = 0, kMaxRules = 16 };

static struct {
  enum Call call;
  unsigned long at;
  int onward;
  int effect; /* an errno, kShort, kNone or kDie */
} rules[kMaxRules];
static unsigned ruleCount;
static unsigned long calls[kCalls];
static int counting; /* the module: only within main */
static char pathPart[256];

static void Broken(const char* plan) {
  /* No stdio: the plan may just have taken memory away. */
  static const char kText[] = "fault_shim: broken plan: ";
  ssize_t ignored = syscall(SYS_write, 2, kText, sizeof kText - 1);
  ignored = syscall(SYS_write, 2, plan, strlen(plan));
  ignored = syscall(SYS_write, 2, "\n", 1);
  (void)ignored;
  abort();
}

static int ParseEffect(const char* text, size_t length, const char* plan) {
  if (length == 5 && memcmp(text, "short", 5) == 0) return kShort;
  if (length == 4 && memcmp(text, "none", 4) == 0) return kNone;
  if (length == 3 && memcmp(text, "die", 3) == 0) return kDie;
  for (size_t i = 0; i < sizeof kErrors / sizeof *kErrors; ++i) {
    if (strlen(kErrors[i].name) == length && memcmp(kErrors[i].name, text, length) == 0) return kErrors[i].error;
  }
  char* end = NULL;
  const long number = strtol(text, &end, 10);
  if (end != text + length || number <= 0 || number > 4095) Broken(plan);
  return (int)number;
}

void KabFaultPlan(const char* plan, const char* path) {
  ruleCount = 0;
  memset(calls, 0, sizeof calls);
  if (path != NULL && strlen(path) >= sizeof pathPart) Broken(path);
  strcpy(pathPart, path == NULL ? "" : path);
  for (const char* rest = plan; rest != NULL && *rest != '\0';) {
    const char* at = strchr(rest, '@');
    if (at == NULL || ruleCount == kMaxRules) Broken(plan);
    unsigned call = 0;
    while (call < kCalls &&
           (strlen(kNames[call]) != (size_t)(at - rest) || memcmp(kNames[call], rest, (size_t)(at - rest)) != 0)) {
      ++call;
    }
    char* end = NULL;
    const unsigned long number = strtoul(at + 1, &end, 10);
    const int onward = *end == '+';
    end += onward;
    if (call == kCalls || number == 0 || *end != '=') Broken(plan);
    const char* effect = end + 1;
    const size_t length = strcspn(effect, ",");
    rules[ruleCount].call = (enum Call)call;
    rules[ruleCount].at = number;
    rules[ruleCount].onward = onward;
    rules[ruleCount].effect = ParseEffect(effect, length, plan);
    __atomic_store_n(&ruleCount, ruleCount + 1, __ATOMIC_RELEASE);
    rest = effect + length + (effect[length] == ',');
  }
  counting = 1;
}

unsigned long KabFaultCalls(const char* call) {
  for (unsigned i = 0; i < kCalls; ++i) {
    if (strcmp(kNames[i], call) == 0) return __atomic_load_n(&calls[i], __ATOMIC_ACQUIRE);
  }
  return 0;
}

/* Counts a call and says what is to happen to it. */
static int Fault(enum Call call) {
  if (!counting) return kNoFault;
  const unsigned long number = __atomic_add_fetch(&calls[call], 1, __ATOMIC_ACQ_REL);
  const unsigned count = __atomic_load_n(&ruleCount, __ATOMIC_ACQUIRE);
  for (unsigned i = 0; i < count; ++i) {
    if (rules[i].call != call) continue;
    if (number != rules[i].at && !(rules[i].onward && number > rules[i].at)) continue;
    if (rules[i].effect == kDie) syscall(SYS_kill, getpid(), SIGKILL);
    return rules[i].effect;
  }
  return kNoFault;
}

static int FaultOnPath(enum Call call, const char* path) {
  return pathPart[0] != '\0' && strstr(path, pathPart) == NULL ? kNoFault : Fault(call);
}

static int FaultOnFile(enum Call call, int fd) {
  if (pathPart[0] == '\0') return Fault(call);
  char link[32], path[4096];
  snprintf(link, sizeof link, "/proc/self/fd/%d", fd);
  const ssize_t length = readlink(link, path, sizeof path - 1);
  if (length < 0) return kNoFault;
  path[length] = '\0';
  return FaultOnPath(call, path);
}

static int Fail(int error) {
  errno = error;
  return -1;
}

#ifdef KAB_FAULT_WRAP
#define DOOR(name) __wrap_##name
extern void* __real_malloc(size_t size);
extern void* __real_calloc(size_t count, size_t size);
extern void* __real_realloc(void* block, size_t size);
#define REAL_MALLOC __real_malloc
#define REAL_CALLOC __real_calloc
#define REAL_REALLOC __real_realloc
#else
#define DOOR(name) name
extern void* __libc_malloc(size_t size);
extern void* __libc_calloc(size_t count, size_t size);
extern void* __libc_realloc(void* block, size_t size);
/* Under AddressSanitizer its own, or it would not know the blocks that it is asked to free. */
extern void* __interceptor_malloc(size_t size) __attribute__((weak));
extern void* __interceptor_calloc(size_t count, size_t size) __attribute__((weak));
extern void* __interceptor_realloc(void* block, size_t size) __attribute__((weak));
#define REAL_MALLOC (__interceptor_malloc != NULL ? __interceptor_malloc : __libc_malloc)
#define REAL_CALLOC (__interceptor_calloc != NULL ? __interceptor_calloc : __libc_calloc)
#define REAL_REALLOC (__interceptor_realloc != NULL ? __interceptor_realloc : __libc_realloc)

static void WriteCounts(const char* path) {
  const int fd = (int)syscall(SYS_openat, AT_FDCWD, path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
  if (fd < 0) return;
  for (unsigned i = 0; i < kCalls; ++i) dprintf(fd, "%s %lu\n", kNames[i], calls[i]);
  syscall(SYS_close, fd);
}

static int (*realMain)(int, char**, char**);

static int CountedMain(int argc, char** argv, char** variables) {
  KabFaultPlan(getenv("KAB_FAULTS"), getenv("KAB_FAULT_PATH"));
  const int status = realMain(argc, argv, variables);
  counting = 0;
  const char* counts = getenv("KAB_FAULT_COUNTS");
  if (counts != NULL) WriteCounts(counts);
  return status;
}

typedef int (*StartFn)(int (*)(int, char**, char**), int, char**, void (*)(void), void (*)(void), void (*)(void),
                       void*);
__attribute__((visibility("default"))) int __libc_start_main(int (*mainFn)(int, char**, char**), int argc, char** argv,
                                                             void (*init)(void), void (*fini)(void),
                                                             void (*unload)(void), void* stackEnd) {
  StartFn start;
  *(void**)&start = dlsym(RTLD_NEXT, "__libc_start_main");
  realMain = mainFn;
  return start(CountedMain, argc, argv, init, fini, unload, stackEnd);
}
#endif
#define EXPORT __attribute__((visibility("default")))

/* The calls themselves are made without the C library's doors, which may be this file. */
static int Open(const char* path, int flags, mode_t mode) {
  const int effect = FaultOnPath(kOpen, path);
  if (effect > 0) return Fail(effect);
  return (int)syscall(SYS_openat, AT_FDCWD, path, flags, mode);
}

static ssize_t Transfer(enum Call call, long number, int fd, void* buf, size_t length, off_t offset) {
  const int effect = FaultOnFile(call, fd);
  if (effect > 0) return Fail(effect);
  if (effect == kNone) return 0;
  return syscall(number, fd, buf, effect == kShort ? length / 2 : length, offset);
}

static int Simple(enum Call call, long number, int fd, off_t argument) {
  const int effect = FaultOnFile(call, fd);
  if (effect > 0) {
    if (call == kClose) syscall(SYS_close, fd); /* as the kernel does: closed, whatever it says */
    return Fail(effect);
  }
  return (int)syscall(number, fd, argument);
}

static int Stat(int fd, void* info) {
  const int effect = FaultOnFile(kFstat, fd);
  return effect > 0 ? Fail(effect) : (int)syscall(SYS_fstat, fd, info);
}

#define OPEN_DOOR(name)                                     \
  EXPORT int DOOR(name)(const char* path, int flags, ...) { \
    mode_t mode = 0;                                        \
    if ((flags & (O_CREAT | __O_TMPFILE)) != 0) {           \
      va_list args;                                         \
      va_start(args, flags);                                \
      mode = va_arg(args, mode_t);                          \
      va_end(args);                                         \
    }                                                       \
    return Open(path, flags, mode);                         \
  }
#ifdef KAB_FAULT_WRAP
int __wrap_open(const char* path, int flags, ...);
int __wrap_open64(const char* path, int flags, ...);
ssize_t __wrap_pread(int fd, void* buf, size_t length, off_t offset);
ssize_t __wrap_pread64(int fd, void* buf, size_t length, off_t offset);
ssize_t __wrap_pwrite(int fd, const void* buf, size_t length, off_t offset);
ssize_t __wrap_pwrite64(int fd, const void* buf, size_t length, off_t offset);
ssize_t __wrap_read(int fd, void* buf, size_t length);
ssize_t __wrap_write(int fd, const void* buf, size_t length);
int __wrap_fstat(int fd, struct stat* info);
int __wrap_fsync(int fd);
int __wrap_ftruncate(int fd, off_t length);
int __wrap_close(int fd);
void* __wrap_malloc(size_t size);
void* __wrap_calloc(size_t count, size_t size);
void* __wrap_realloc(void* block, size_t size);
#endif

OPEN_DOOR(open)
OPEN_DOOR(open64)

EXPORT ssize_t DOOR(pread)(int fd, void* buf, size_t length, off_t offset) {
  return Transfer(kPread, SYS_pread64, fd, buf, length, offset);
}
EXPORT ssize_t DOOR(pread64)(int fd, void* buf, size_t length, off_t offset) {
  return Transfer(kPread, SYS_pread64, fd, buf, length, offset);
}
EXPORT ssize_t DOOR(pwrite)(int fd, const void* buf, size_t length, off_t offset) {
  return Transfer(kPwrite, SYS_pwrite64, fd, (void*)buf, length, offset);
}
EXPORT ssize_t DOOR(pwrite64)(int fd, const void* buf, size_t length, off_t offset) {
  return Transfer(kPwrite, SYS_pwrite64, fd, (void*)buf, length, offset);
}
EXPORT ssize_t DOOR(read)(int fd, void* buf, size_t length) { return Transfer(kRead, SYS_read, fd, buf, length, 0); }
EXPORT ssize_t DOOR(write)(int fd, const void* buf, size_t length) {
  return Transfer(kWrite, SYS_write, fd, (void*)buf, length, 0);
}
EXPORT int DOOR(fstat)(int fd, struct stat* info) { return Stat(fd, info); }
#ifndef KAB_FAULT_WRAP
EXPORT int fstat64(int fd, struct stat64* info) { return Stat(fd, info); }
#endif
EXPORT int DOOR(fsync)(int fd) { return Simple(kFsync, SYS_fsync, fd, 0); }
EXPORT int DOOR(ftruncate)(int fd, off_t length) { return Simple(kFtruncate, SYS_ftruncate, fd, length); }
#ifndef KAB_FAULT_WRAP
EXPORT int ftruncate64(int fd, off64_t length) { return Simple(kFtruncate, SYS_ftruncate, fd, length); }
#endif
EXPORT int DOOR(close)(int fd) { return Simple(kClose, SYS_close, fd, 0); }

static int NoMemory(enum Call call) {
  const int effect = Fault(call);
  if (effect > 0) errno = effect;
  return effect > 0;
}

EXPORT void* DOOR(malloc)(size_t size) { return NoMemory(kMalloc) ? NULL : REAL_MALLOC(size); }
EXPORT void* DOOR(calloc)(size_t count, size_t size) { return NoMemory(kCalloc) ? NULL : REAL_CALLOC(count, size); }
EXPORT void* DOOR(realloc)(void* block, size_t size) { return NoMemory(kRealloc) ? NULL : REAL_REALLOC(block, size); }
