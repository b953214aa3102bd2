// Writing and extracting a dump, each beside the bare work that cannot be left out: deflate or inflate, SHA-256 and
// positional transfers of the same bytes in the same order.

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <openssl/evp.h>
#include <sys/mman.h>
#include <unistd.h>
#include <zlib.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "kab/core.h"
#include "kab/dump.h"

namespace {

constexpr size_t kSource = 16 << 20;
constexpr uint32_t kPiece = KAB_DUMP_MAX_PIECE;
constexpr size_t kBuffer = KAB_STREAM_BUFFER_SIZE;
constexpr int64_t kStreamAt = KAB_DUMP_HEADER_SIZE;
constexpr size_t kHead = 12;

// What metadata looks like to a compressor: records of small numbers, and now and then noise or nothing.
const std::vector<uint8_t>& Source() {
  static const std::vector<uint8_t> kBytes = [] {
    std::vector<uint8_t> bytes(kSource);
    uint64_t state = 88172645463325252U;
    for (size_t at = 0; at < bytes.size(); at += 8) {
      state ^= state << 13, state ^= state >> 7, state ^= state << 17;
      const uint64_t kind = at / 65536 % 4;
      const uint64_t word = kind == 0 ? 0 : kind == 1 ? state : at / 64 * 8 + state % 16;
      std::memcpy(&bytes[at], &word, 8);
    }
    return bytes;
  }();
  return kBytes;
}

int MemoryFile() {
  const int fd = memfd_create("bench", MFD_CLOEXEC);
  if (fd < 0) std::abort();
  return fd;
}

void PutHead(uint8_t* head, uint64_t offset, uint32_t length) {
  std::memcpy(head, &offset, sizeof offset);
  std::memcpy(head + 8, &length, sizeof length);
}

void Check(bool ok) {
  if (!ok) std::abort();
}

// The library's writer over a file of its own.
class KabDump {
 public:
  KabDump() {
    char folder[] = "/tmp/kab-bench-XXXXXX";
    Check(mkdtemp(folder) != nullptr);
    folder_ = folder;
    path_ = folder_ + "/dump";
  }
  ~KabDump() {
    unlink(path_.c_str());
    rmdir(folder_.c_str());
  }
  void Write() {
    unlink(path_.c_str());
    KABDumpCtx* dump = KABInitDumpFile(path_.c_str(), "/", kSource);
    Check(dump != nullptr);
    for (size_t at = 0; at < kSource; at += kPiece) {
      Check(KABAddBufferToDump(dump, Source().data() + at, kPiece, at) == KAB_OK);
    }
    Check(KABCloseDumpFile(dump) == KAB_OK);
    KABFree(&dump);
  }
  const std::string& path() const { return path_; }

 private:
  std::string folder_;
  std::string path_;
};

void BM_DumpAppend_Kab(benchmark::State& state) {
  KabDump dump;
  for (auto _ : state) dump.Write();
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kSource));
}
BENCHMARK(BM_DumpAppend_Kab)->Unit(benchmark::kMillisecond);

void BM_DumpAppend_Peer(benchmark::State& state) {
  KabDump dump;
  for (auto _ : state) {
    unlink(dump.path().c_str());
    const int fd = open(dump.path().c_str(), O_RDWR | O_CREAT | O_EXCL, 0644);
    Check(fd >= 0);
    std::vector<uint8_t> out(kBuffer);
    EVP_MD_CTX* hash = EVP_MD_CTX_new();
    EVP_DigestInit_ex(hash, EVP_sha256(), nullptr);
    z_stream zlib = {};
    Check(deflateInit(&zlib, Z_DEFAULT_COMPRESSION) == Z_OK);
    zlib.next_out = out.data();
    zlib.avail_out = kBuffer;
    int64_t offset = kStreamAt;
    const auto flush = [&] {
      const size_t filled = kBuffer - zlib.avail_out;
      Check(pwrite(fd, out.data(), filled, offset) == static_cast<ssize_t>(filled));
      offset += static_cast<int64_t>(filled);
      zlib.next_out = out.data();
      zlib.avail_out = kBuffer;
    };
    const auto append = [&](const uint8_t* data, uint32_t length) {
      EVP_DigestUpdate(hash, data, length);
      zlib.next_in = const_cast<Bytef*>(data);
      zlib.avail_in = length;
      while (zlib.avail_in != 0) {
        Check(deflate(&zlib, Z_NO_FLUSH) == Z_OK);
        if (zlib.avail_out == 0) flush();
      }
    };
    for (size_t at = 0; at < kSource; at += kPiece) {
      uint8_t head[kHead];
      PutHead(head, at, kPiece);
      append(head, kHead);
      append(Source().data() + at, kPiece);
    }
    for (int result = Z_OK; result != Z_STREAM_END;) {
      result = deflate(&zlib, Z_FINISH);
      Check(result == Z_OK || result == Z_STREAM_END);
      flush();
    }
    deflateEnd(&zlib);
    uint8_t header[KAB_DUMP_HEADER_SIZE] = {};
    EVP_DigestFinal_ex(hash, header + 40, nullptr);
    EVP_MD_CTX_free(hash);
    Check(pwrite(fd, header, sizeof header, 0) == sizeof header);
    close(fd);
  }
  state.counters["target"] = 1.02;
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kSource));
}
BENCHMARK(BM_DumpAppend_Peer)->Unit(benchmark::kMillisecond);

void BM_DumpExtract_Kab(benchmark::State& state) {
  KabDump dump;
  dump.Write();
  const int source = open(dump.path().c_str(), O_RDONLY);
  const int target = MemoryFile();
  for (auto _ : state) {
    Check(KABExtractDumpToDisk(static_cast<uint32_t>(source), static_cast<uint32_t>(target), 1, nullptr) == KAB_OK);
  }
  close(source);
  close(target);
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kSource));
}
BENCHMARK(BM_DumpExtract_Kab)->Unit(benchmark::kMillisecond);

void BM_DumpExtract_Peer(benchmark::State& state) {
  KabDump dump;
  dump.Write();
  const int source = open(dump.path().c_str(), O_RDONLY);
  const int target = MemoryFile();
  for (auto _ : state) {
    uint8_t header[KAB_DUMP_HEADER_READ];
    Check(pread(source, header, sizeof header, 0) == sizeof header);
    Check(ftruncate(target, kSource) == 0);
    std::vector<uint8_t> in(kBuffer);
    std::vector<uint8_t> data(kPiece);
    EVP_MD_CTX* hash = EVP_MD_CTX_new();
    EVP_DigestInit_ex(hash, EVP_sha256(), nullptr);
    z_stream zlib = {};
    Check(inflateInit(&zlib) == Z_OK);
    int64_t offset = kStreamAt;
    const auto take = [&](uint8_t* to, uint32_t length) {
      zlib.next_out = to;
      zlib.avail_out = length;
      while (zlib.avail_out != 0) {
        if (zlib.avail_in == 0) {
          const ssize_t filled = pread(source, in.data(), kBuffer, offset);
          Check(filled > 0);
          offset += filled;
          zlib.next_in = in.data();
          zlib.avail_in = static_cast<uInt>(filled);
        }
        const int result = inflate(&zlib, Z_NO_FLUSH);
        Check(result == Z_OK || result == Z_STREAM_END);
      }
      EVP_DigestUpdate(hash, to, length);
    };
    for (size_t at = 0; at < kSource; at += kPiece) {
      uint8_t head[kHead];
      take(head, kHead);
      take(data.data(), kPiece);
      Check(pwrite(target, data.data(), kPiece, static_cast<int64_t>(at)) == kPiece);
    }
    uint8_t digest[32];
    EVP_DigestFinal_ex(hash, digest, nullptr);
    EVP_MD_CTX_free(hash);
    inflateEnd(&zlib);
    Check(std::memcmp(digest, header + 40, sizeof digest) == 0);
  }
  close(source);
  close(target);
  state.counters["target"] = 1.05;
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kSource));
}
BENCHMARK(BM_DumpExtract_Peer)->Unit(benchmark::kMillisecond);

}  // namespace
