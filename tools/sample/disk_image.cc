#include "sample/disk_image.h"

#include <fcntl.h>
#include <openssl/evp.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>
#include <stdexcept>

namespace sample {
namespace {

uint64_t Mix(uint64_t value) {  // a bijection of 64-bit values whose results look random
  value += 0x9e3779b97f4a7c15ULL;
  value = (value ^ (value >> 30)) * 0xbf58476d1ce4e5b9ULL;
  value = (value ^ (value >> 27)) * 0x94d049bb133111ebULL;
  return value ^ (value >> 31);
}

[[noreturn]] void Fail(const std::string& what) {
  throw std::runtime_error(what + ": " + std::error_code(errno, std::generic_category()).message());
}

void WriteAll(int fd, const uint8_t* data, uint64_t length, uint64_t offset) {
  while (length > 0) {
    const ssize_t written = pwrite(fd, data, length, static_cast<off_t>(offset));
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) Fail("writing an image");
    data += written;
    length -= static_cast<uint64_t>(written);
    offset += static_cast<uint64_t>(written);
  }
}

}  // namespace

Uuid MakeUuid(uint32_t number) {
  Uuid uuid;
  for (uint32_t i = 0; i < 16; i++) uuid[i] = static_cast<uint8_t>(Mix(number * 16ULL + i));
  // The number itself in front keeps the UUIDs of a group apart for the eye.
  uuid[0] = static_cast<uint8_t>(number >> 8);
  uuid[1] = static_cast<uint8_t>(number);
  return uuid;
}

std::string UuidText(const Uuid& uuid) {
  static constexpr char kDigits[] = "0123456789abcdef";
  std::string text;
  for (size_t i = 0; i < uuid.size(); i++) {
    if (i == 4 || i == 6 || i == 8 || i == 10) text += '-';
    text += kDigits[uuid[i] >> 4];
    text += kDigits[uuid[i] & 15];
  }
  return text;
}

Dek MakeDek(uint32_t number) {
  Dek dek;
  for (uint32_t i = 0; i < dek.size(); i++) dek[i] = static_cast<uint8_t>(Mix(~uint64_t{number} * 64 + i));
  return dek;
}

DiskImage::DiskImage() {
  FormatVersion(20);
  LayHead();
}

DiskImage& DiskImage::LayHead() {
  // Bytes 8 to 27 of the metadata block hold two layouts; the type chooses.
  Fill(kMetaOffset + 8, 20, 0);
  Put8(kMetaOffset + 8, type_);
  if (type_ == 11) {
    Put8(kMetaOffset + 9, static_cast<uint8_t>((mountState_ & 7) | (encrypted_ ? 8 : 0) | (keyByOwnUuid_ ? 0x80 : 0)));
    PutBytes(kMetaOffset + 10, uuid_);
    PutBytes(kMetaOffset + 172, altUuid_);
    return *this;
  }
  Put8(kMetaOffset + 11, static_cast<uint8_t>(((dedupMode_ & 3) << 2) | ((mountState_ & 7) << 5)));
  PutBytes(kMetaOffset + 12, uuid_);
  return Put8(kEncrMetaOffset + 8, static_cast<uint8_t>((Get8(kEncrMetaOffset + 8) & ~1) | (encrypted_ ? 1 : 0)));
}

DiskImage& DiskImage::Size(uint64_t bytes) {
  size_ = bytes;
  return *this;
}

DiskImage& DiskImage::Type(uint8_t type) {
  type_ = type;
  return LayHead();
}

DiskImage& DiskImage::SetUuid(const Uuid& uuid) {
  uuid_ = uuid;
  return LayHead();
}

DiskImage& DiskImage::AltUuid(const Uuid& uuid) {
  altUuid_ = uuid;
  return LayHead();
}

DiskImage& DiskImage::MountState(uint8_t state) {
  mountState_ = state;
  return LayHead();
}

DiskImage& DiskImage::FormatVersion(uint8_t version) { return Put8(kMetaOffset + 468, version); }

DiskImage& DiskImage::DedupMode(uint8_t mode) {
  dedupMode_ = mode;
  return LayHead();
}

DiskImage& DiskImage::GroupUuid(uint32_t slot, const Uuid& uuid) {
  if (slot >= kGroupSlots) throw std::out_of_range("a group has slots 0 to 6");
  return PutBytes(kMetaOffset + 60 + 16ULL * slot, uuid);
}

DiskImage& DiskImage::EncryptedFlag(bool encrypted) {
  encrypted_ = encrypted;
  return LayHead();
}

DiskImage& DiskImage::KeyByOwnUuid(bool own) {
  keyByOwnUuid_ = own;
  return LayHead();
}

DiskImage& DiskImage::Encrypt(const Dek& dek) {
  dek_ = dek;
  return EncryptedFlag(true);
}

DiskImage& DiskImage::Put8(uint64_t offset, uint8_t value) { return PutBytes(offset, {&value, 1}); }

DiskImage& DiskImage::Put16(uint64_t offset, uint16_t value) {
  return Put8(offset, static_cast<uint8_t>(value)).Put8(offset + 1, static_cast<uint8_t>(value >> 8));
}

DiskImage& DiskImage::Put32(uint64_t offset, uint32_t value) {
  return Put16(offset, static_cast<uint16_t>(value)).Put16(offset + 2, static_cast<uint16_t>(value >> 16));
}

DiskImage& DiskImage::Put64(uint64_t offset, uint64_t value) {
  return Put32(offset, static_cast<uint32_t>(value)).Put32(offset + 4, static_cast<uint32_t>(value >> 32));
}

DiskImage& DiskImage::PutBytes(uint64_t offset, std::span<const uint8_t> bytes) {
  while (!bytes.empty()) {
    const uint64_t at = offset % kPage;
    const size_t piece = static_cast<size_t>(std::min<uint64_t>(kPage - at, bytes.size()));
    std::memcpy(pages_[offset / kPage].data() + at, bytes.data(), piece);
    bytes = bytes.subspan(piece);
    offset += piece;
  }
  return *this;
}

DiskImage& DiskImage::Fill(uint64_t offset, uint64_t length, uint8_t value) {
  while (length > 0) {
    const uint64_t at = offset % kPage;
    const uint64_t piece = std::min(kPage - at, length);
    std::memset(pages_[offset / kPage].data() + at, value, static_cast<size_t>(piece));
    offset += piece;
    length -= piece;
  }
  return *this;
}

DiskImage& DiskImage::FillNoise(uint64_t offset, uint64_t length, uint64_t seed) {
  const uint64_t start = Mix(seed);
  std::vector<uint8_t> noise(length);
  for (uint64_t i = 0; i < length; i++) noise[i] = static_cast<uint8_t>(Mix(start + (i >> 3)) >> (8 * (i & 7)));
  return PutBytes(offset, noise);
}

DiskImage& DiskImage::Flip(uint64_t offset, uint32_t bit) {
  return Put8(offset, static_cast<uint8_t>(Get8(offset) ^ (1U << (bit & 7))));
}

uint8_t DiskImage::Get8(uint64_t offset) const {
  const auto page = pages_.find(offset / kPage);
  return page == pages_.end() ? uint8_t{0} : page->second[offset % kPage];
}

uint16_t DiskImage::Get16(uint64_t offset) const {
  return static_cast<uint16_t>(Get8(offset) | (Get8(offset + 1) << 8));
}

uint32_t DiskImage::Get32(uint64_t offset) const { return Get16(offset) | (uint32_t{Get16(offset + 2)} << 16); }

uint64_t DiskImage::Get64(uint64_t offset) const { return Get32(offset) | (uint64_t{Get32(offset + 4)} << 32); }

std::vector<uint8_t> DiskImage::GetBytes(uint64_t offset, uint64_t length) const {
  std::vector<uint8_t> bytes(length);
  for (uint64_t done = 0; done < length;) {
    const uint64_t at = (offset + done) % kPage;
    const uint64_t piece = std::min(kPage - at, length - done);
    const auto page = pages_.find((offset + done) / kPage);
    if (page != pages_.end()) std::memcpy(bytes.data() + done, page->second.data() + at, static_cast<size_t>(piece));
    done += piece;
  }
  return bytes;
}

std::string DiskImage::Write(const std::string& path) const {
  const int fd = open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (fd < 0) Fail(path);
  try {
    WriteTo(fd);
  } catch (...) {
    close(fd);
    throw;
  }
  if (close(fd) != 0) Fail(path);
  return path;
}

void DiskImage::WriteTo(int fd) const {
  if (ftruncate(fd, static_cast<off_t>(size_)) != 0) Fail("sizing an image");
  for (const auto& [index, page] : pages_) {
    const uint64_t offset = index * kPage;
    if (offset >= size_) break;
    if (dek_ && offset >= kDataOffset) break;
    WriteAll(fd, page.data(), std::min(kPage, size_ - offset), offset);
  }
  if (dek_) WriteEnciphered(fd);
}

void DiskImage::WriteEnciphered(int fd) const {
  const std::unique_ptr<EVP_CIPHER_CTX, decltype(&EVP_CIPHER_CTX_free)> cipher(EVP_CIPHER_CTX_new(),
                                                                               &EVP_CIPHER_CTX_free);
  constexpr uint64_t kBatch = 512ULL * kCipherBlock;
  for (uint64_t start = kDataOffset; start < size_; start += kBatch) {
    std::vector<uint8_t> bytes = GetBytes(start, std::min(kBatch, size_ - start));
    // A unit that the disk's end cuts off cannot be read back, hence stays clear; it lies in the secondary GPT.
    for (uint64_t at = 0; bytes.size() - at >= kCipherBlock; at += kCipherBlock) {
      std::array<uint8_t, 16> tweak{};
      for (uint32_t i = 0; i < 8; i++) tweak[i] = static_cast<uint8_t>((start + at - kDataOffset) >> (8 * i));
      int length = 0;
      if (!cipher || EVP_EncryptInit_ex(cipher.get(), EVP_aes_256_xts(), nullptr, dek_->data(), tweak.data()) != 1 ||
          EVP_EncryptUpdate(cipher.get(), bytes.data() + at, &length, bytes.data() + at, kCipherBlock) != 1 ||
          length != int{kCipherBlock}) {
        throw std::runtime_error("enciphering an image failed");
      }
    }
    WriteAll(fd, bytes.data(), bytes.size(), start);
  }
}

}  // namespace sample
