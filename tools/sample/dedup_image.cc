#include "sample/dedup_image.h"

#include <lz4.h>
#include <openssl/evp.h>

#include <algorithm>
#include <cstring>
#include <random>
#include <stdexcept>

#include "sample/checksum.h"

namespace sample {
namespace {

constexpr uint32_t kMagic = 0xB000DAAA;
constexpr uint32_t kBitsPerBlk = 32448;
constexpr uint32_t kBlksPerMetaMapBit[3] = {8, 4, 16};

uint64_t DivCeil(uint64_t value, uint64_t by) { return (value + by - 1) / by; }

std::array<uint8_t, 20> Sha1(std::span<const uint8_t> bytes) {
  std::array<uint8_t, 20> digest{};
  unsigned size = 0;
  if (EVP_Digest(bytes.data(), bytes.size(), digest.data(), &size, EVP_sha1(), nullptr) != 1) {
    throw std::runtime_error("SHA-1 is not available");
  }
  return digest;
}

// The 64-bit hash that deals the hash map out, for a 20-byte string alone: no whole 24-byte block, 20 bytes of tail.
uint64_t Spread(const std::array<uint8_t, 20>& bytes) {
  uint64_t a = 42;
  uint64_t b = 42;
  uint64_t c = 0x9e3779b97f4a7c13ULL + bytes.size();
  for (uint32_t i = 0; i < 8; i++) a += uint64_t{bytes[i]} << (8 * i);
  for (uint32_t i = 0; i < 8; i++) b += uint64_t{bytes[8 + i]} << (8 * i);
  for (uint32_t i = 0; i < 4; i++) c += uint64_t{bytes[16 + i]} << (8 * (i + 1));
  constexpr int kShifts[4][3] = {{43, 9, 8}, {38, 23, 5}, {35, 49, 11}, {12, 18, 22}};
  for (const auto& shift : kShifts) {
    a = (a - b - c) ^ (c >> shift[0]);
    b = (b - c - a) ^ (a << shift[1]);
    c = (c - a - b) ^ (b >> shift[2]);
  }
  return c;
}

}  // namespace

DedupImage::DedupImage(const Shape& shape)
    : shape_(shape),
      group_(shape.disks, shape.ssdSize, shape.diskSize),
      nextUnit_(shape.disks),
      known_(shape.mode == 2 ? 1 : shape.disks),
      plain_(shape.disks) {
  if (shape.mode != 1 && shape.mode != 2) throw std::invalid_argument("a dedup layer has mode 1 or 2");
  if (!shape.mdr && shape.expansion != 0) throw std::invalid_argument("an expansion needs redundant metadata");
  LayOut();
  for (uint32_t disk = 0; disk < shape.disks; disk++) {
    Disk(disk).DedupMode(static_cast<uint8_t>(shape.mode));
    LaySuperBlk(disk);
    LayHeader(disk, 1, 2);
    for (uint64_t i = 0; i < at_.bmapSize; i++) LayHeader(disk, at_.bmapStart + i, 3);
    for (uint64_t i = 0; i < at_.hmapSize; i++) LayHeader(disk, at_.hmapStart + i, 4);
    for (uint32_t map = 0; map < 3; map++) {
      for (uint64_t i = 0; i < at_.metaBmapSize[map]; i++) LayHeader(disk, at_.metaBmapStart[map] + i, 8 + map);
    }
    nextUnit_[disk] = 4 * shape.expansion;  // both copies of it, in units
    for (uint64_t unit = 0; unit < nextUnit_[disk]; unit++) {
      const uint64_t bit = At(at_.bmapStart + unit / kBitsPerBlk) + 40 + unit % kBitsPerBlk / 8;
      Disk(disk).Put8(bit, static_cast<uint8_t>(Disk(disk).Get8(bit) | (1U << (unit % kBitsPerBlk % 8))));
    }
  }
  // Where the layer knows hashes, the zero block is there from the beginning.
  if (shape.hashMap) {
    const Block zero{};
    for (uint32_t disk = 0; disk < known_.size(); disk++) {
      const Record record = StoreUnits(disk, zero);
      known_[disk][Sha1(zero)] = record;
      if (shape.mode == 2) {
        AddHashEntry(Sha1(zero), record);
      } else {
        uint64_t pbn = 0;
        for (uint32_t i = 0; i < 5; i++) pbn |= uint64_t{record[1 + i]} << (8 * i);
        pbn = (pbn & 0xfffffffff) | (uint64_t{7} << 40);
        const uint64_t entry = At(at_.hmapStart) + 50 + 118 * 34;
        Disk(disk).PutBytes(entry, Sha1(zero)).Put32(entry + 20, 1).Put64(entry + 24, pbn).Put16(entry + 32, 77);
      }
    }
  }
}

void DedupImage::LayOut() {
  Layout& at = at_;
  at.blks = (shape_.diskSize - kDataOffset - kGptSize) / kBlock;
  at.bmapSize = DivCeil(2 * at.blks, kBitsPerBlk);
  at.xmapFull = DivCeil(shape_.ratio * at.blks, 225);
  if (shape_.expansion >= at.xmapFull) throw std::invalid_argument("the expansion takes all of the map");
  at.xmapSize = at.xmapFull - shape_.expansion;
  // The group counts whole disks, hence not the sum of their blocks: the bytes that no block holds add up.
  const uint64_t members = shape_.mode == 2 ? shape_.disks : 1;
  const uint64_t counted =
      shape_.mode == 2 ? members * (shape_.diskSize - kDataOffset - kGptSize) / kBlock : uint64_t{1};
  at.hmapSize = shape_.hashMap ? DivCeil(counted, 119) / members : 0;
  const uint64_t afterReserve = 16;
  if (!shape_.mdr) {
    at.hmapStart = afterReserve;
    at.bmapStart = at.hmapStart + at.hmapSize;
    at.xmapStart = at.bmapStart + at.bmapSize;
    at.dataStart = at.xmapStart + at.xmapSize;
  } else {
    at.bmapStart = afterReserve;
    at.xmapStart = at.bmapStart + at.bmapSize;
    uint64_t next = at.xmapStart + at.xmapSize;
    if (shape_.mapBitmaps) {
      const uint64_t mapped[3] = {at.hmapSize, at.bmapSize, DivCeil(10 * at.blks, 225)};
      for (uint32_t map = 0; map < 3; map++) {
        at.metaBmapStart[map] = next;
        at.metaBmapSize[map] = DivCeil(DivCeil(mapped[map], kBlksPerMetaMapBit[map]), kBitsPerBlk);
        next += at.metaBmapSize[map];
      }
    }
    at.hmapStart = next;
    at.secondary = at.hmapStart + at.hmapSize;
    at.dataStart = at.secondary + at.hmapStart;
  }
  if (at.dataStart + 2 * shape_.expansion + 2 >= at.blks) throw std::invalid_argument("too small for a dedup layer");
  at.dataSize = 2 * (at.blks - 2 * shape_.expansion - at.dataStart);
}

void DedupImage::LaySuperBlk(uint32_t disk) {
  LayHeader(disk, 0, 1);
  DiskImage& image = Disk(disk);
  image.Put64(At(0) + 28, 0).Put64(At(0) + 56, kOwner);
  image.Put16(At(0) + 80, static_cast<uint16_t>((shape_.hashMap ? 1 : 0) | (shape_.mdr ? 4 : 0) |
                                                (shape_.mdr && shape_.mapBitmaps ? 8 : 0)));
  const uint64_t fields[] = {1,
                             1,
                             2,
                             14,
                             at_.hmapStart,
                             at_.hmapSize,
                             at_.bmapStart,
                             at_.bmapSize,
                             at_.xmapStart,
                             at_.xmapSize,
                             at_.dataStart,
                             at_.dataSize,
                             at_.metaBmapStart[0],
                             at_.metaBmapSize[0],
                             at_.metaBmapStart[1],
                             at_.metaBmapSize[1],
                             at_.metaBmapStart[2],
                             at_.metaBmapSize[2]};
  for (uint32_t i = 0; i < std::size(fields); i++) image.Put64(At(0) + 84 + 8 * i, fields[i]);
  for (uint32_t map = 0; map < 3; map++) {
    image.Put8(At(0) + 249 + map, static_cast<uint8_t>(kBlksPerMetaMapBit[map]));
  }
  image.Put8(At(0) + 252, shape_.ratio).Put64(At(0) + 261, 2 * shape_.expansion);
}

void DedupImage::LayHeader(uint32_t disk, uint64_t blk, uint32_t type) {
  Disk(disk).Put32(At(blk), kMagic).Put32(At(blk) + 4, type).Put64(At(blk) + 20, kOwner);
  // Bitmaps stay untagged: a tag of 0 fits every place.
  const uint64_t tag = blk | (uint64_t{type} << 40) | (shape_.mode == 2 ? uint64_t{disk} << 44 : 0);
  Disk(disk).Put64(At(blk) + 28, type == 3 ? 0 : tag);
}

uint64_t DedupImage::XmapAt(uint64_t index) const {
  return At(index < at_.xmapSize ? at_.xmapStart + index : at_.dataStart + (index - at_.xmapSize));
}

bool DedupImage::InUse(uint32_t disk, uint64_t unit) const {
  const uint64_t bit = unit % kBitsPerBlk;
  const DiskImage& image = const_cast<DedupImage*>(this)->Disk(disk);
  return (image.Get8(At(at_.bmapStart + unit / kBitsPerBlk) + 40 + bit / 8) >> (bit % 8) & 1) != 0;
}

uint64_t DedupImage::TakeUnit(uint32_t disk) {
  const uint64_t unit = nextUnit_.at(disk)++;
  if (unit >= 4 * shape_.expansion + at_.dataSize) throw std::runtime_error("the sample's data region is full");
  const uint64_t bit = unit % kBitsPerBlk;
  const uint64_t byte = At(at_.bmapStart + unit / kBitsPerBlk) + 40 + bit / 8;
  Disk(disk).Put8(byte, static_cast<uint8_t>(Disk(disk).Get8(byte) | (1U << (bit % 8))));
  return unit;
}

DedupImage::Record DedupImage::StoreUnits(uint32_t disk, std::span<const uint8_t> block) {
  uint64_t first = 0;
  uint64_t second = 0xfffffffff;
  std::array<uint8_t, kUnit> unit{};
  const int length = LZ4_compress_default(reinterpret_cast<const char*>(block.data()),
                                          reinterpret_cast<char*>(unit.data()), kBlock, kUnit - 2);
  if (length > 0) {
    unit[kUnit - 2] = static_cast<uint8_t>(length);
    unit[kUnit - 1] = static_cast<uint8_t>(length >> 8);
    first = TakeUnit(disk);
    Disk(disk).PutBytes(UnitAt(first), unit);
  } else {
    first = TakeUnit(disk);
    second = TakeUnit(disk);
    Disk(disk).PutBytes(UnitAt(first), block.first(kUnit)).PutBytes(UnitAt(second), block.subspan(kUnit));
    second += at_.dataStart;
  }
  first += at_.dataStart;
  Record record{};
  record[0] = static_cast<uint8_t>(7 | ((shape_.mode == 2 ? disk : 0) << 4));
  for (uint32_t i = 0; i < 4; i++) record[1 + i] = static_cast<uint8_t>(first >> (8 * i));
  record[5] = static_cast<uint8_t>(((first >> 32) & 15) | ((second & 15) << 4));
  for (uint32_t i = 0; i < 4; i++) record[6 + i] = static_cast<uint8_t>(second >> (4 + 8 * i));
  return record;
}

void DedupImage::AddHashEntry(const Digest& digest, const Record& record) {
  if (at_.hmapSize == 0) return;
  const uint64_t global = Spread(digest) % (at_.hmapSize * shape_.disks);
  const auto disk = static_cast<uint32_t>(global / at_.hmapSize);
  const uint64_t blk = At(at_.hmapStart + global % at_.hmapSize);
  uint64_t unit = 0;
  for (uint32_t i = 0; i < 5; i++) unit |= uint64_t{record[1 + i]} << (8 * i);
  const uint64_t pbn = (unit & 0xfffffffff) | (uint64_t{7} << 40) | (uint64_t{record[0]} >> 4 << 44);
  for (uint64_t slot = 0; slot < 119; slot++) {
    const uint64_t entry = blk + 50 + slot * 34;
    if (Disk(disk).Get64(entry + 24) != 0) continue;
    Disk(disk).PutBytes(entry, digest).Put32(entry + 20, static_cast<uint32_t>(slot + 1)).Put64(entry + 24, pbn);
    Disk(disk).Put16(entry + 32, static_cast<uint16_t>(0x4000 + slot));
    return;
  }
}

void DedupImage::PutRecord(uint32_t disk, uint64_t logicalBlk, const Record& record) {
  const uint64_t index = logicalBlk / 225;
  if (index >= at_.xmapFull) throw std::out_of_range("beyond the sample's translation map");
  const uint64_t blk = XmapAt(index);
  if (Disk(disk).Get32(blk) != kMagic) {
    LayHeader(disk, (blk - kDataOffset) / kBlock, 5);
    const Record none{7, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff};
    for (uint64_t i = 0; i < 225; i++) Disk(disk).PutBytes(blk + 46 + 18 * i + 8, none);
  }
  Disk(disk).PutBytes(EntryAt(logicalBlk) + 8, record);
}

void DedupImage::Store(uint32_t disk, uint64_t logicalBlk, std::span<const uint8_t> block, uint32_t member) {
  if (block.size() != kBlock) throw std::invalid_argument("a logical block has 4096 bytes");
  auto& known = known_.at(shape_.mode == 2 ? 0 : disk);
  const Digest digest = Sha1(block);
  const auto found = known.find(digest);
  Record record{};
  if (found != known.end()) {
    record = found->second;
  } else {
    record = StoreUnits(shape_.mode == 2 ? member : disk, block);
    if (shape_.mode == 2) {
      known[digest] = record;
      AddHashEntry(digest, record);
    }
  }
  PutRecord(disk, logicalBlk, record);
  std::copy(block.begin(), block.end(), plain_.at(disk)[logicalBlk].begin());
}

void DedupImage::Unmap(uint32_t disk, uint64_t logicalBlk) {
  PutRecord(disk, logicalBlk, {7, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff});
  plain_.at(disk).erase(logicalBlk);
}

void DedupImage::StoreMixture(uint64_t blks, uint64_t seed) {
  std::mt19937_64 random(seed);
  std::vector<Block> former;
  for (uint64_t blk = 0; blk < blks; blk++) {
    for (uint32_t disk = 0; disk < shape_.disks; disk++) {
      Block block{};
      const uint64_t kind = random() % 10;
      if (kind == 0) continue;  // a hole
      if (kind <= 2 && !former.empty()) {
        block = former[random() % former.size()];
      } else if (kind <= 4) {
        for (uint8_t& byte : block) byte = static_cast<uint8_t>(random());
      } else if (kind <= 8) {
        for (uint8_t& byte : block) byte = static_cast<uint8_t>("the quick brown fox "[random() % 5]);
      }
      former.push_back(block);
      Store(disk, blk, block, static_cast<uint32_t>(random() % shape_.disks));
    }
  }
}

void DedupImage::FillUp(uint64_t free) {
  for (uint32_t disk = 0; disk < shape_.disks; disk++) {
    const uint64_t end = 4 * shape_.expansion + at_.dataSize;
    for (uint64_t unit = nextUnit_[disk] + free; unit < end; unit++) {
      const uint64_t bit = unit % kBitsPerBlk;
      const uint64_t byte = At(at_.bmapStart + unit / kBitsPerBlk) + 40 + bit / 8;
      Disk(disk).Put8(byte, static_cast<uint8_t>(Disk(disk).Get8(byte) | (1U << (bit % 8))));
    }
  }
}

void DedupImage::SealBlk(uint32_t disk, uint64_t blk) {
  DiskImage& image = Disk(disk);
  if (image.Get32(At(blk)) != kMagic) return;
  image.Put32(At(blk) + 16, 0);
  image.Put32(At(blk) + 16, Crc32c(image.GetBytes(At(blk), kBlock)));
}

void DedupImage::Seal() {
  for (uint32_t disk = 0; disk < shape_.disks; disk++) {
    const uint64_t metadata = shape_.mdr ? at_.secondary : at_.dataStart;
    for (uint64_t blk = 0; blk < metadata; blk++) SealBlk(disk, blk);
    for (uint64_t i = 0; i < shape_.expansion; i++) SealBlk(disk, at_.dataStart + i);
    if (!shape_.mdr) continue;
    for (uint64_t blk = 0; blk < at_.hmapStart; blk++) {
      Disk(disk).PutBytes(At(at_.secondary + blk), Disk(disk).GetBytes(At(blk), kBlock));
    }
    for (uint64_t i = 0; i < shape_.expansion; i++) {
      Disk(disk).PutBytes(At(at_.dataStart + shape_.expansion + i), Disk(disk).GetBytes(At(at_.dataStart + i), kBlock));
    }
  }
}

std::vector<uint8_t> DedupImage::Plain(uint32_t disk) const {
  const auto& blocks = plain_.at(disk);
  std::vector<uint8_t> bytes(blocks.empty() ? 0 : (blocks.rbegin()->first + 1) * kBlock);
  for (const auto& [blk, block] : blocks) {
    std::copy(block.begin(), block.end(), bytes.begin() + static_cast<ptrdiff_t>(blk * kBlock));
  }
  return bytes;
}

}  // namespace sample
