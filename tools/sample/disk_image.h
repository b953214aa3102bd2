#pragma once
// Disk images for `kab sample` and the tests. A builder starts with a disk that opens without a complaint; each
// chained call sets or spoils one thing. Everything is written at bare offsets: the library's own structs are not
// used here, so that a wrong struct cannot agree with itself.

#include <array>
#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace sample {

using Uuid = std::array<uint8_t, 16>;
using Dek = std::array<uint8_t, 64>;  // two AES-256 keys

constexpr uint64_t kMetaOffset = 1048576;      // the Arvo metadata block, 4096 bytes
constexpr uint64_t kEncrMetaOffset = 1049600;  // inside it: the encryption metadata block, 512 bytes
constexpr uint64_t kDataOffset = 3145728;      // clear below, enciphered from here on
constexpr uint64_t kGptSize = 16896;           // at the end of every disk, not used
constexpr uint32_t kCipherBlock = 2048;
constexpr uint32_t kGroupSlots = 7;

/// A UUID that tells its number: 16 different bytes for each `number`.
Uuid MakeUuid(uint32_t number);
/// 36 lower-case characters; the bytes as stored, hyphens after bytes 4, 6, 8 and 10.
std::string UuidText(const Uuid& uuid);
/// A key that tells its number.
Dek MakeDek(uint32_t number);

/// One disk, sparse in memory: only the pages written to exist. Failures are std::runtime_error.
class DiskImage {
 public:
  /// 8 MiB, type 1, format version 20, unmounted, not encrypted, no dedup layer.
  DiskImage();
  virtual ~DiskImage() = default;
  DiskImage(const DiskImage&) = default;
  DiskImage& operator=(const DiskImage&) = default;

  DiskImage& Size(uint64_t bytes);
  /// 11 moves the mount state, the encrypted flag and the UUID to that type's places.
  DiskImage& Type(uint8_t type);
  DiskImage& SetUuid(const Uuid& uuid);
  /// Type 11 only: the second UUID.
  DiskImage& AltUuid(const Uuid& uuid);
  /// 0: not cleanly unmounted. 3 bits.
  DiskImage& MountState(uint8_t state);
  DiskImage& FormatVersion(uint8_t version);
  /// 2 bits; 1 and 2 announce a dedup layer. Not for type 11.
  DiskImage& DedupMode(uint8_t mode);
  /// On an SSD: the capacity disk of a slot, 0 to 6.
  DiskImage& GroupUuid(uint32_t slot, const Uuid& uuid);
  /// Says that the disk is encrypted without enciphering anything.
  DiskImage& EncryptedFlag(bool encrypted);
  /// Type 11 only: whether the key goes by the disk's own UUID rather than by the second one.
  DiskImage& KeyByOwnUuid(bool own);
  /// Sets the flag and enciphers the whole data area when the image is written; Put... and Get... stay in clear.
  DiskImage& Encrypt(const Dek& dek);

  /// Little-endian, at a byte offset from the start of the disk; beyond its end is allowed and lost in Write.
  DiskImage& Put8(uint64_t offset, uint8_t value);
  DiskImage& Put16(uint64_t offset, uint16_t value);
  DiskImage& Put32(uint64_t offset, uint32_t value);
  DiskImage& Put64(uint64_t offset, uint64_t value);
  DiskImage& PutBytes(uint64_t offset, std::span<const uint8_t> bytes);
  DiskImage& Fill(uint64_t offset, uint64_t length, uint8_t value);
  /// Bytes that look like nothing and repeat for the same seed; they do not compress.
  DiskImage& FillNoise(uint64_t offset, uint64_t length, uint64_t seed);
  /// Flips one bit.
  DiskImage& Flip(uint64_t offset, uint32_t bit);

  uint8_t Get8(uint64_t offset) const;
  uint16_t Get16(uint64_t offset) const;
  uint32_t Get32(uint64_t offset) const;
  uint64_t Get64(uint64_t offset) const;
  std::vector<uint8_t> GetBytes(uint64_t offset, uint64_t length) const;

  uint64_t size() const { return size_; }
  const Uuid& uuid() const { return uuid_; }
  bool encrypted() const { return encrypted_; }

  /// Creates or replaces a file and returns its path. Holes stay holes unless the disk is enciphered.
  std::string Write(const std::string& path) const;
  /// The same into an open, empty descriptor (a memfd, for example).
  void WriteTo(int fd) const;

 private:
  static constexpr uint64_t kPage = 4096;
  using Page = std::array<uint8_t, kPage>;

  DiskImage& LayHead();
  void WriteEnciphered(int fd) const;

  std::map<uint64_t, Page> pages_;
  uint64_t size_ = 8ULL << 20;
  uint8_t type_ = 1;
  Uuid uuid_ = MakeUuid(1);
  Uuid altUuid_{};
  uint8_t mountState_ = 1;
  uint8_t dedupMode_ = 0;
  bool encrypted_ = false;
  bool keyByOwnUuid_ = false;
  std::optional<Dek> dek_;
};

}  // namespace sample
