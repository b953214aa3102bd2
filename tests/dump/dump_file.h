#pragma once
// Dump files made and read at bare offsets, with zlib's and OpenSSL's one-shot calls: the other opinion about the
// format that the library's dumps are compared with.

#include <fcntl.h>
#include <openssl/sha.h>
#include <unistd.h>
#include <zlib.h>

#include <array>
#include <cstdint>
#include <cstring>
#include <optional>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

namespace kab_test {

using Blob = std::vector<uint8_t>;

struct Record {
  uint64_t offset;
  Blob data;
  bool operator==(const Record&) const = default;
};

inline Blob Noise(size_t size, uint64_t seed) {
  std::mt19937_64 random(seed);
  Blob bytes(size + 8);
  for (size_t i = 0; i < size; i += 8) {
    const uint64_t word = random();
    std::memcpy(&bytes[i], &word, 8);
  }
  bytes.resize(size);
  return bytes;
}

inline uint64_t Get(const Blob& bytes, size_t at, size_t width) {
  uint64_t value = 0;
  for (size_t i = 0; i < width; ++i) value |= uint64_t{bytes.at(at + i)} << (8 * i);
  return value;
}

inline void Put(Blob& bytes, size_t at, size_t width, uint64_t value) {
  if (bytes.size() < at + width) bytes.resize(at + width);
  for (size_t i = 0; i < width; ++i) bytes[at + i] = static_cast<uint8_t>(value >> (8 * i));
}

inline Blob Deflate(const Blob& bytes) {
  Blob packed(compressBound(bytes.size()));
  uLongf size = packed.size();
  if (compress(packed.data(), &size, bytes.data(), bytes.size()) != Z_OK) throw std::runtime_error("compress");
  packed.resize(size);
  return packed;
}

/// The stream at `at` of a file, which must end where the file ends.
inline Blob Inflate(const Blob& file, size_t at) {
  z_stream zlib = {};
  inflateInit(&zlib);
  zlib.next_in = const_cast<Bytef*>(file.data() + at);
  zlib.avail_in = static_cast<uInt>(file.size() - at);
  Blob bytes;
  Blob piece(1 << 20);
  int result = Z_OK;
  while (result == Z_OK) {
    zlib.next_out = piece.data();
    zlib.avail_out = static_cast<uInt>(piece.size());
    result = inflate(&zlib, Z_NO_FLUSH);
    bytes.insert(bytes.end(), piece.data(), zlib.next_out);
  }
  const bool whole = result == Z_STREAM_END && zlib.avail_in == 0;
  inflateEnd(&zlib);
  if (!whole) throw std::runtime_error("the stream does not end with the file");
  return bytes;
}

/// Starts as a whole dump; each call spoils one thing.
class DumpFile {
 public:
  DumpFile& Add(uint64_t offset, const Blob& data) { return AddHead(offset, static_cast<uint32_t>(data.size()), data); }
  /// A record that lies about its length.
  DumpFile& AddHead(uint64_t offset, uint32_t length, const Blob& data) {
    Put(raw_, raw_.size(), 8, offset);
    Put(raw_, raw_.size(), 4, length);
    raw_.insert(raw_.end(), data.begin(), data.end());
    ++records_;
    return *this;
  }
  /// Counts as a record, whatever it is.
  DumpFile& AddBytes(const Blob& bytes) {
    raw_.insert(raw_.end(), bytes.begin(), bytes.end());
    ++records_;
    return *this;
  }
  DumpFile& Count(uint64_t records) { return records_ = records, *this; }
  DumpFile& DiskSize(uint64_t size) { return diskSize_ = size, *this; }
  DumpFile& Name(const std::string& name) { return name_ = name, *this; }
  DumpFile& FlipHash() { return hashFlip_ = 1, *this; }
  DumpFile& CutStream(size_t bytes) { return cut_ = bytes, *this; }
  DumpFile& FlipAdler() { return flipAdler_ = true, *this; }
  DumpFile& Append(const Blob& bytes) { return behind_ = bytes, *this; }
  DumpFile& Stream(const Blob& bytes) { return stream_ = bytes, *this; }
  /// Flips a bit of the stream before compression, behind the hash's back.
  DumpFile& FlipRaw(size_t at) { return flipRaw_ = at, *this; }

  Blob Bytes() const {
    Blob file(4096);
    Put(file, 0, 4, 0xCC0000CC);
    Put(file, 4, 4, 1);
    Put(file, 8, 8, records_);
    Put(file, 16, 8, diskSize_);
    Put(file, 24, 8, raw_.size());
    SHA256(raw_.data(), raw_.size(), &file[40]);
    file[40] = static_cast<uint8_t>(file[40] ^ hashFlip_);
    std::memcpy(&file[72], name_.data(), std::min<size_t>(name_.size(), 128));
    Blob raw = raw_;
    if (flipRaw_) raw.at(*flipRaw_) ^= 1;
    Blob stream = stream_ ? *stream_ : Deflate(raw);
    if (flipAdler_) stream.back() ^= 1;
    stream.resize(stream.size() - cut_);
    file.insert(file.end(), stream.begin(), stream.end());
    file.insert(file.end(), behind_.begin(), behind_.end());
    return file;
  }

 private:
  Blob raw_;
  uint64_t records_ = 0;
  uint64_t diskSize_ = 1 << 20;
  std::string name_ = "disk";
  uint8_t hashFlip_ = 0;
  size_t cut_ = 0;
  bool flipAdler_ = false;
  Blob behind_;
  std::optional<Blob> stream_;
  std::optional<size_t> flipRaw_;
};

struct ParsedDump {
  explicit ParsedDump(const Blob& file) : header(file.begin(), file.begin() + 4096), raw(Inflate(file, 4096)) {
    SHA256(raw.data(), raw.size(), sha256.data());
    for (size_t at = 0; at < raw.size();) {
      const size_t length = Get(raw, at + 8, 4);
      const auto data = raw.begin() + static_cast<ptrdiff_t>(at) + 12;
      if (raw.size() - at - 12 < length) throw std::runtime_error("the last record is cut");
      records.push_back({Get(raw, at, 8), Blob(data, data + static_cast<ptrdiff_t>(length))});
      at += 12 + length;
    }
  }
  Blob header;
  Blob raw;
  std::array<uint8_t, 32> sha256;
  std::vector<Record> records;
};

/// A descriptor for the length of a test, in the width that the library takes.
class File {
 public:
  explicit File(const std::string& path, int flags = O_RDWR | O_CREAT) : fd_(open(path.c_str(), flags, 0644)) {
    if (fd_ < 0) throw std::runtime_error("cannot open " + path);
  }
  ~File() { close(fd_); }
  File(const File&) = delete;
  File& operator=(const File&) = delete;
  uint32_t fd() const { return static_cast<uint32_t>(fd_); }

 private:
  int fd_;
};

}  // namespace kab_test
