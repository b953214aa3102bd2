// Writing a dump: records behind one another in a zlib stream, hashed as they go, the header last.

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>

#include "core/frame/log.h"
#include "core/frame/memory.h"
#include "dump/dump_format.h"
#include "kab/core.h"
#include "kab/dump.h"
#include "plinth/lock.h"
#include "plinth/sha256.h"
#include "plinth/text.h"

namespace kab::dump {
namespace {

constexpr const char* kLockName = "kab-dumpctx-lck";
constexpr uint32_t kLockRank = 0xfeffffff;
constexpr size_t kTimeTextSize = 26;  // asctime's 24 characters, the line end and the terminating zero

Header* HeaderOf(KABDumpCtx* dump) { return reinterpret_cast<Header*>(dump->header); }

uint64_t NowMicroseconds() {
  timeval now;
  gettimeofday(&now, nullptr);
  return static_cast<uint64_t>(now.tv_sec) * 1000000 + static_cast<uint64_t>(now.tv_usec);
}

// "_" and the local time as asctime writes it, blanks made underscores and the line end dropped.
void FormatTimeStamp(char text[kTimeTextSize + 1]) {
  const time_t now = time(nullptr);
  tm local = {};
  localtime_r(&now, &local);
  text[0] = '_';
  if (asctime_r(&local, text + 1) == nullptr) text[1] = '\0';
  for (char* c = text; *c != '\0'; ++c) {
    if (*c == ' ') *c = '_';
    if (*c == '\n') *c = '\0';
  }
}

// One record in one append: head and data are compressed, hashed and counted as one step. The caller holds the lock.
uint32_t AppendRecord(KABDumpCtx* dump, const void* head, uint32_t headLength, const void* data, uint32_t length) {
  if (dump->failed != 0) return KAB_GENERAL_FAILURE;  // another thread's append failed meanwhile
  uint32_t st = KABCompressAppend(dump->compress, head, headLength);
  if (st == KAB_OK && length != 0) st = KABCompressAppend(dump->compress, data, length);
  if (st != KAB_OK) {
    dump->failed = 1;  // the stream may hold half a record: no header may ever vouch for it
    return st;
  }
  plinth::Sha256Feed(dump->hashState, head, headLength);
  plinth::Sha256Feed(dump->hashState, data, length);
  Header* header = HeaderOf(dump);
  header->records += 1;
  header->totalLength += uint64_t{headLength} + length;
  return KAB_OK;
}

uint32_t AppendPiece(KABDumpCtx* dump, KABDiskCtx* ctx, uint32_t length, uint64_t offset) {
  const plinth::LockGuard guard(dump->lock);
  if (dump->failed != 0) return KAB_GENERAL_FAILURE;
  const auto buffer = AllocBytes(sizeof(RecordHead) + uint64_t{length});
  if (buffer == nullptr) return KAB_OUT_OF_MEMORY;
  const uint32_t st = KABRead(ctx, buffer.get() + sizeof(RecordHead), length, static_cast<int64_t>(offset));
  if (st != KAB_OK) {
    Log("Error: Failed to read data from the disk: %s\n", KABErrorStr(st));
    return KAB_GENERAL_FAILURE;
  }
  auto* head = reinterpret_cast<RecordHead*>(buffer.get());
  head->offset = offset;
  head->length = length;
  return AppendRecord(dump, buffer.get(), static_cast<uint32_t>(sizeof(RecordHead) + length), nullptr, 0);
}

void ReleaseStream(KABDumpCtx* dump) {
  if (dump->compress == nullptr) return;
  if (dump->compress->stream != nullptr) KABFree(&dump->compress->stream->buffer);
  KABFree(&dump->compress->stream);
  KABFree(&dump->compress);
}

// A creation that failed behind the open leaves neither the file nor anything else.
KABDumpCtx* GiveUpCreation(KABDumpCtx* dump, int fd, const char* dumpPath) {
  if (fd >= 0) {
    close(fd);
    remove(dumpPath);
  }
  plinth::Sha256Abandon(dump->hashState);
  plinth::LockDestroy(dump->lock);
  KABFree(&dump);
  return nullptr;
}

}  // namespace
}  // namespace kab::dump

uint32_t KABGenerateDumpFileName(const char* directory, const char* prefix, const char* middle, char** nameOut) {
  using namespace kab::dump;
  auto stamp = kab::Owned<char>(static_cast<char*>(KABAlloc(kTimeTextSize + 1)));
  if (stamp == nullptr) return KAB_OUT_OF_MEMORY;
  FormatTimeStamp(stamp.get());
  const size_t size = strlen(directory) + strlen(prefix) + strlen(middle) + strlen(stamp.get()) + 3;
  auto* name = static_cast<char*>(KABAlloc(size));
  *nameOut = name;
  if (name == nullptr) return KAB_OUT_OF_MEMORY;
  const size_t length = strlen(directory);
  const bool slash = length != 0 && directory[length - 1] == '/';
  for (const char* part : {directory, slash ? "" : "/", prefix, "_", middle, static_cast<const char*>(stamp.get())}) {
    kab::plinth::TextConcat(name, size, part);
  }
  return KAB_OK;
}

KABDumpCtx* KABInitDumpFile(const char* dumpPath, const char* devicePath, uint64_t diskSize) {
  using namespace kab::dump;
  char* baseName = nullptr;
  if (KABExtractDeviceName(devicePath, nullptr, &baseName) != KAB_OK) return nullptr;
  const kab::Owned<char> deviceName(baseName);

  auto* dump = static_cast<KABDumpCtx*>(KABAlloc(sizeof(KABDumpCtx)));
  if (dump == nullptr) {
    kab::Log("Error: Failed to allocate dump context for %s\n", dumpPath);
    return nullptr;
  }
  const int fd = open(dumpPath, O_RDWR | O_CREAT | O_EXCL, 0644);
  const int openError = errno;

  dump->lock = kab::plinth::LockCreate(kLockName, kLockRank);
  if (dump->lock == nullptr) {
    kab::Log("Error: Failed to create exclusive lock.\n");
    return GiveUpCreation(dump, fd, dumpPath);
  }
  if (fd < 0) {
    kab::Log("Error: Failed to create dump file : %s\n", strerror(openError));
    return GiveUpCreation(dump, fd, dumpPath);
  }
  dump->fd = static_cast<uint32_t>(fd);

  Header* header = HeaderOf(dump);
  header->magic = KAB_DUMP_MAGIC;
  header->version = KAB_DUMP_VERSION;
  header->diskSize = diskSize;
  header->created = NowMicroseconds();
  std::memcpy(header->deviceName, baseName, strnlen(baseName, kDeviceNameSize));

  dump->hashState = kab::plinth::Sha256Start();
  if (dump->hashState == nullptr) {
    kab::Log("Error: Failed to init hash context\n");
    return GiveUpCreation(dump, fd, dumpPath);
  }
  dump->compress = KABCompressInit(dump->fd, kStreamOffset);
  if (dump->compress == nullptr) {
    kab::Log("Error: Failed to init compression context\n");
    return GiveUpCreation(dump, fd, dumpPath);
  }
  return dump;
}

uint32_t KABAddBufferToDump(KABDumpCtx* dump, const void* data, uint32_t length, uint64_t offset) {
  using namespace kab::dump;
  if (dump->closed != 0) return KAB_GENERAL_FAILURE;
  const kab::plinth::LockGuard guard(dump->lock);
  RecordHead head;
  head.offset = offset;
  head.length = length;
  return AppendRecord(dump, &head, sizeof head, data, length);
}

uint32_t KABAddChunkToDump(KABDumpCtx* dump, KABDiskCtx* ctx, uint32_t length, uint64_t offset) {
  if (dump->closed != 0) return KAB_GENERAL_FAILURE;
  if (offset > UINT64_MAX - length) {
    kab::Log("Error: Failed to add chunk at offset %lu into dump file. Error %s.\n", offset,
             KABErrorStr(KAB_GENERAL_FAILURE));
    return KAB_GENERAL_FAILURE;
  }
  while (length != 0) {
    const uint32_t piece = std::min<uint32_t>(length, KAB_DUMP_MAX_PIECE);
    const uint32_t st = kab::dump::AppendPiece(dump, ctx, piece, offset);
    if (st != KAB_OK) {
      kab::Log("Error: Failed to add chunk at offset %lu into dump file. Error %s.\n", offset, KABErrorStr(st));
      return st;
    }
    offset += piece;
    length -= piece;
  }
  return KAB_OK;
}

uint32_t KABCloseDumpFile(KABDumpCtx* dump) {
  using namespace kab::dump;
  if (dump->closed != 0) return KAB_GENERAL_FAILURE;
  if (dump->failed != 0) {
    // Nothing is left to save: the header stays zero, and what the dump holds is released.
    kab::Log("Error: Failed to write compressed data to dump file: %s\n", KABErrorStr(KAB_GENERAL_FAILURE));
    deflateEnd(&dump->compress->stream->zlib);
    kab::plinth::Sha256Abandon(dump->hashState);
    dump->hashState = nullptr;
    ReleaseStream(dump);
    close(static_cast<int>(dump->fd));
    kab::plinth::LockDestroy(dump->lock);
    dump->lock = nullptr;
    dump->closed = 1;
    return KAB_GENERAL_FAILURE;
  }

  uint32_t st = KABCompressFinish(dump->compress);
  if (st != KAB_OK) {
    kab::Log("Error: Failed to write compressed data to dump file: %s\n", KABErrorStr(st));
    dump->failed = 1;
    return st;  // descriptor and lock stay until the next close
  }
  kab::plinth::Sha256Finish(dump->hashState, HeaderOf(dump)->sha256);
  dump->hashState = nullptr;
  ReleaseStream(dump);
  st = KABDiskWrite(dump->fd, dump->header, sizeof dump->header, 0);
  if (st != KAB_OK) kab::Log("Error: Failed to update dump file header: %s\n", KABErrorStr(st));
  if (close(static_cast<int>(dump->fd)) != 0) {
    kab::Log("Error: Failed to close dump file : %s\n", strerror(errno));
    st = KAB_GENERAL_FAILURE;
  }
  kab::plinth::LockDestroy(dump->lock);
  dump->lock = nullptr;
  dump->closed = 1;
  return st;
}
