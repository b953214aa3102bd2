#include "sample/log_image.h"

#include <algorithm>
#include <cstring>
#include <stdexcept>

namespace sample {

namespace {

constexpr uint64_t kMagic = 0xCAFEF00D08142007;
constexpr uint64_t kSector = 512;
constexpr size_t kHeader = 64;
constexpr size_t kPrefix = 48;

template <class T>
void Put(std::vector<uint8_t>& bytes, size_t offset, T value) {
  if (bytes.size() < offset + sizeof(T)) bytes.resize(offset + sizeof(T));
  for (size_t i = 0; i < sizeof(T); i++) bytes[offset + i] = static_cast<uint8_t>(uint64_t{value} >> (8 * i));
}

uint64_t Word(std::span<const uint8_t> bytes, size_t offset, size_t width = 8) {
  uint64_t value = 0;
  for (size_t i = 0; i < width; i++) value |= uint64_t{bytes[offset + i]} << (8 * i);
  return value;
}

struct Mixer {
  uint64_t a = 42, b = 42, c = 0x9E3779B97F4A7C13;

  void Mix() {
    for (size_t i = 0; i < 12; i++) Step(i, false);
  }
  void Unmix() {
    for (size_t i = 12; i-- != 0;) Step(i, true);
  }

 private:
  void Step(size_t i, bool back) {
    static constexpr struct {
      bool left;
      uint32_t shift;
    } kSteps[] = {{false, 43}, {true, 9},  {false, 8},  {false, 38}, {true, 23}, {false, 5},
                  {false, 35}, {true, 49}, {false, 11}, {false, 12}, {true, 18}, {false, 22}};
    uint64_t* words[] = {&a, &b, &c};
    uint64_t& first = *words[i % 3];
    const uint64_t second = *words[(i + 1) % 3];
    const uint64_t third = *words[(i + 2) % 3];
    const uint64_t shifted = kSteps[i].left ? third << kSteps[i].shift : third >> kSteps[i].shift;
    if (back) {
      first = (first ^ shifted) + second + third;
    } else {
      first = (first - second - third) ^ shifted;
    }
  }
};

// Prefix and PLOG header; the payload length is patched when the entry is whole.
std::vector<uint8_t> EntryHead(const Uuid& disk, uint32_t type) {
  std::vector<uint8_t> entry(56);
  std::copy(disk.begin(), disk.end(), entry.begin());
  Put<uint16_t>(entry, 28, 1);
  Put<uint16_t>(entry, 48, 1);
  Put<uint16_t>(entry, 50, 1);
  Put<uint32_t>(entry, 52, type);
  return entry;
}

void SetLengths(std::vector<uint8_t>& entry, size_t payloadEnd) {
  Put<uint32_t>(entry, 16, static_cast<uint32_t>(payloadEnd - kPrefix));
  Put<uint32_t>(entry, 20, static_cast<uint32_t>(entry.size()));
}

}  // namespace

uint64_t MixBlock(std::span<const uint8_t> block) {
  Mixer mix;
  const auto word = [&](size_t i) { return i == 7 ? 0 : Word(block, 8 * i); };
  for (size_t k = 0; k + 2 < 512; k += 3) {
    mix.a += word(k), mix.b += word(k + 1), mix.c += word(k + 2);
    mix.Mix();
  }
  mix.c += 512, mix.a += word(510), mix.b += word(511);
  mix.Mix();
  return mix.c;
}

uint64_t MixRecord(std::span<const uint8_t> record) {
  std::vector<uint8_t> bytes(record.begin(), record.begin() + 140);
  std::fill(bytes.begin() + 132, bytes.end(), uint8_t{0});
  Mixer mix;
  for (size_t at = 0; at < 120; at += 24) {
    mix.a += Word(bytes, at), mix.b += Word(bytes, at + 8), mix.c += Word(bytes, at + 16);
    mix.Mix();
  }
  mix.c += 140, mix.a += Word(bytes, 120), mix.b += Word(bytes, 128), mix.c += Word(bytes, 136, 4) << 8;
  mix.Mix();
  return mix.c;
}

std::vector<uint8_t> WriteEntry(const Uuid& disk, uint64_t lsn, uint64_t lba, uint32_t length,
                                const std::vector<LogExtent>& extents, uint32_t type) {
  std::vector<uint8_t> entry = EntryHead(disk, type);
  Put<uint64_t>(entry, 56, lsn);
  Put<uint64_t>(entry, 64, lba);
  Put<uint32_t>(entry, 72, length);
  const size_t payloadEnd = entry.size();
  Put<uint16_t>(entry, payloadEnd, static_cast<uint16_t>(extents.size()));
  for (const LogExtent& extent : extents) {
    const size_t at = entry.size();
    Put<uint8_t>(entry, at, static_cast<uint8_t>((extent.sector >> 40 & 7) << 5 | (extent.sectors >> 8 & 31)));
    Put<uint8_t>(entry, at + 1, static_cast<uint8_t>(extent.sectors & 0xFF));
    Put<uint8_t>(entry, at + 2, static_cast<uint8_t>(extent.sector >> 32 & 0xFF));
    Put<uint32_t>(entry, at + 3, static_cast<uint32_t>(extent.sector & 0xFFFFFFFF));
  }
  SetLengths(entry, payloadEnd);
  return entry;
}

std::vector<uint8_t> ReleaseEntry(const Uuid& disk, const std::vector<uint64_t>& lsns) {
  std::vector<uint8_t> entry = EntryHead(disk, 2);
  Put<uint32_t>(entry, 56, static_cast<uint32_t>(lsns.size()));
  for (const uint64_t lsn : lsns) Put<uint64_t>(entry, entry.size(), lsn);
  SetLengths(entry, entry.size());
  return entry;
}

std::vector<uint8_t> BareEntry(const Uuid& disk, uint32_t type) {
  std::vector<uint8_t> entry = EntryHead(disk, type);
  SetLengths(entry, entry.size());
  return entry;
}

LogChain& LogChain::Add(const std::vector<uint8_t>& entry) {
  if (entry.size() > kLogBlock - kHeader) throw std::length_error("entry does not fit a log block");
  if (full_ || used_ + entry.size() > kLogBlock || blocks_.back()[12] == 255) {
    std::vector<uint8_t> block(kLogBlock);
    Put<uint16_t>(block, 0, 1);
    Put<uint16_t>(block, 2, 5);
    Put<uint64_t>(block, 4, kMagic);
    block[13] = logType_;
    blocks_.push_back(std::move(block));
    used_ = kHeader;
    full_ = false;
  }
  std::vector<uint8_t>& block = blocks_.back();
  std::memcpy(block.data() + used_, entry.data(), entry.size());
  used_ += entry.size();
  block[12]++;
  entries_++;
  return *this;
}

LogChain& LogChain::EndBlock() {
  full_ = true;
  return *this;
}

LogImage& LogImage::Stride(uint64_t blocks) {
  stride_ = blocks;
  return *this;
}

LogImage& LogImage::Generation(uint64_t generation) {
  generation_ = generation;
  return *this;
}

LogImage& LogImage::TornTail(bool torn) {
  torn_ = torn;
  return *this;
}

void LogImage::SealBlock(DiskImage& ssd, uint64_t blkNo) {
  const uint64_t at = BlkOffset(blkNo);
  ssd.Put64(at + 56, MixBlock(ssd.GetBytes(at, kLogBlock)));
}

void LogImage::SealRecord(DiskImage& ssd, uint64_t copy) {
  const uint64_t at = BlkOffset(copy);
  ssd.Put64(at + 132, MixRecord(ssd.GetBytes(at, 140)));
}

void LogImage::ForgeBlock(DiskImage& ssd, uint64_t blkNo, uint64_t checksum) {
  const uint64_t at = BlkOffset(blkNo);
  const std::vector<uint8_t> block = ssd.GetBytes(at, kLogBlock);
  Mixer have;  // before the last full group
  for (size_t k = 0; k < 507; k += 3) {
    have.a += Word(block, 8 * k), have.b += k == 6 ? 0 : Word(block, 8 * (k + 1)), have.c += Word(block, 8 * (k + 2));
    have.Mix();
  }
  Mixer want{0, 0, checksum};
  want.Unmix();
  want.c -= 512;
  want.Unmix();
  ssd.Put64(at + 8 * 507, want.a - have.a).Put64(at + 8 * 508, want.b - have.b).Put64(at + 8 * 509, want.c - have.c);
  ssd.Put64(at + 8 * 510, 0).Put64(at + 8 * 511, 0).Put64(at + 56, checksum);
}

std::vector<uint64_t> LogImage::WriteChain(const LogChain& chain, uint64_t* nextBlk) {
  std::vector<uint64_t> numbers;
  uint64_t prev = kNoBlk;
  uint64_t prevSum = 0;
  for (std::vector<uint8_t> block : chain.blocks_) {
    const uint64_t number = *nextBlk;
    if (number + stride_ >= start_ + length_) throw std::length_error("log does not fit its write buffer");
    *nextBlk += stride_;
    Put<uint64_t>(block, 16, *nextBlk);
    Put<uint64_t>(block, 24, prev);
    Put<uint64_t>(block, 32, prevSum);
    prevSum = MixBlock(block);
    Put<uint64_t>(block, 56, prevSum);
    ssd_.PutBytes(BlkOffset(number), block);
    numbers.push_back(number);
    prev = number;
  }
  // The last block names the place of the next one, where nothing valid was written yet.
  if (!numbers.empty() && torn_) {
    std::vector<uint8_t> block = chain.blocks_.back();
    Put<uint64_t>(block, 32, prevSum);
    Put<uint64_t>(block, 56, MixBlock(block) ^ 1);
    ssd_.PutBytes(BlkOffset(*nextBlk), block);
  }
  if (!numbers.empty()) *nextBlk += stride_;
  return numbers;
}

void LogImage::WriteRecord(uint64_t copy, uint64_t generation) {
  const uint64_t at = BlkOffset(copy);
  const auto pointers = [&](uint64_t offset, const std::vector<uint64_t>& blks) {
    ssd_.Put64(offset, blks.empty() ? kNoBlk : blks.front());
    ssd_.Put64(offset + 8, blks.empty() ? kNoBlk : blks.back());
    ssd_.Put64(offset + 16, blks.empty() ? 0 : 1);
  };
  ssd_.Put16(at, 1).Put16(at + 2, 5).Put64(at + 4, kMagic).Put64(at + 12, generation);
  ssd_.Put64(at + 20, start_).Put64(at + 28, length_);
  pointers(at + 36, llogBlks_);
  pointers(at + 60, plogBlks_);
  ssd_.Put32(at + 84, kLogBlock).Put64(at + 92, 0x20000).Put64(at + 100, start_ + length_).Put64(at + 108, 1);
  ssd_.Put32(at + 120, 0);
  SealRecord(ssd_, copy);
}

void LogImage::Write(const LogChain& plog, const LogChain& llog) {
  uint64_t nextBlk = start_;
  plogBlks_ = WriteChain(plog, &nextBlk);
  llogBlks_ = WriteChain(llog, &nextBlk);
  WriteRecord(0, generation_);
  WriteRecord(1, generation_ - 1);
}

namespace {

constexpr uint64_t kFirstBlk = 16;

uint64_t SsdBytes(const LoggedGroupOptions& options) {
  return kDataOffset + (kFirstBlk + options.writeBufferBlks) * kLogBlock + kGptSize;
}

}  // namespace

LoggedGroup::LoggedGroup(const LoggedGroupOptions& options)
    : options_(options),
      random_(options.seed),
      group_(options.disks, SsdBytes(options), kDataOffset + options.diskBytes + kGptSize),
      log_(group_.Ssd(), kFirstBlk, options.writeBufferBlks),
      plog_(1),
      pictures_(options.disks),
      owners_(options.disks, std::vector<uint64_t>(options.diskBytes / kSector)),
      logged_(options.disks) {
  // The first half of the write buffer is the chain's, the second half holds data.
  nextSector_ = (kFirstBlk + options.writeBufferBlks / 2) * 8;
  for (uint32_t i = 0; i < options.disks; i++) {
    group_.Disk(i).FillNoise(kDataOffset, options.diskBytes, random_());
    pictures_[i] = group_.Disk(i).GetBytes(kDataOffset, options.diskBytes);
  }
  for (uint32_t i = 0; i < options.entries; i++) {
    const auto disk = static_cast<uint32_t>(Below(options.disks));
    const uint64_t kind = Below(100);
    if (kind < 70) {
      AddWrite(disk);
    } else if (kind < 78) {
      AddZeroWrite(disk);
    } else if (kind < 97) {
      AddRelease(disk);
    } else if (kind < 98) {
      if (options.oddEntries) plog_.Add(BareEntry(group_.Disk(disk).uuid(), 9));  // of a type nobody knows
    } else {
      plog_.EndBlock();
    }
  }
  log_.Stride(options.stride).TornTail(true).Write(plog_);
}

// Mostly single blocks, as guests write; some lengths sit on the limits between size classes.
uint64_t LoggedGroup::PickLength() {
  static constexpr uint64_t kLimits[] = {512, 3584, 8192, 8704, 16384, 16896, 65536, 66048, 131072, 131584};
  const uint64_t kind = Below(10);
  if (kind < 5) return 4096;
  if (kind < 7) return kLimits[Below(std::size(kLimits))];
  if (kind < 9) return kSector * (1 + Below(128));
  return kSector * (1 + Below(640));
}

void LoggedGroup::AddWrite(uint32_t disk) {
  uint64_t length = std::min(PickLength(), options_.diskBytes);
  const uint64_t endSector = (kFirstBlk + options_.writeBufferBlks) * 8;
  if (nextSector_ + length / kSector + 16 > endSector) length = 4096;
  if (nextSector_ + length / kSector + 16 > endSector) return;  // the write buffer is full
  const uint64_t lba = kSector * Below((options_.diskBytes - length) / kSector + 1);

  // One to four pieces, with unused sectors between them.
  std::vector<LogExtent> extents;
  const uint64_t pieces = 1 + (length > 4096 ? Below(4) : 0);
  uint64_t done = 0;
  for (uint64_t i = 0; i < pieces && done < length; i++) {
    const uint64_t left = (length - done) / kSector;
    const uint64_t sectors = i + 1 == pieces ? left : 1 + Below(left);
    nextSector_ += Below(4);
    const uint64_t offset = kDataOffset + nextSector_ * kSector;
    group_.Ssd().FillNoise(offset, sectors * kSector, random_());
    const std::vector<uint8_t> bytes = group_.Ssd().GetBytes(offset, sectors * kSector);
    std::copy(bytes.begin(), bytes.end(), pictures_[disk].begin() + static_cast<ptrdiff_t>(lba + done));
    extents.push_back({nextSector_, static_cast<uint16_t>(sectors)});
    nextSector_ += sectors;
    done += sectors * kSector;
  }
  const uint64_t lsn = lsn_++;
  std::fill_n(owners_[disk].begin() + static_cast<ptrdiff_t>(lba / kSector), length / kSector, lsn);
  logged_[disk].push_back({lsn, lba, length});
  // A length that is not whole sectors names another size class; the extents alone decide what is mapped.
  const uint64_t stated = length == 4096 && Below(8) == 0 ? 4095 : length;
  plog_.Add(
      WriteEntry(group_.Disk(disk).uuid(), lsn, lba, static_cast<uint32_t>(stated), extents, Below(8) == 0 ? 4 : 1));
}

void LoggedGroup::AddZeroWrite(uint32_t disk) {
  const uint64_t length = std::min(PickLength(), options_.diskBytes);
  const uint64_t lba = kSector * Below((options_.diskBytes - length) / kSector + 1);
  std::fill_n(pictures_[disk].begin() + static_cast<ptrdiff_t>(lba), length, uint8_t{0});
  const uint64_t lsn = lsn_++;
  std::fill_n(owners_[disk].begin() + static_cast<ptrdiff_t>(lba / kSector), length / kSector, lsn);
  logged_[disk].push_back({lsn, lba, length});
  plog_.Add(WriteEntry(group_.Disk(disk).uuid(), lsn, lba, static_cast<uint32_t>(length),
                       {{Below(8) == 0 ? kRemovedSector : kZeroSector, static_cast<uint16_t>(length / kSector)}}));
}

// Data is released once it is on its disk. Only what the LSN still owns is: where a newer write lies over it, the
// disk keeps older bytes, so that a release that took the newer range along would show.
void LoggedGroup::AddRelease(uint32_t disk) {
  std::vector<uint64_t> lsns;
  for (uint64_t i = 1 + Below(4); i != 0 && !logged_[disk].empty(); i--) {
    const size_t pick = Below(logged_[disk].size());
    const Logged released = logged_[disk][pick];
    logged_[disk].erase(logged_[disk].begin() + static_cast<ptrdiff_t>(pick));
    for (uint64_t at = released.lba; at < released.lba + released.length; at += kSector) {
      if (owners_[disk][at / kSector] != released.lsn) continue;
      owners_[disk][at / kSector] = 0;
      group_.Disk(disk).PutBytes(kDataOffset + at, std::span(pictures_[disk]).subspan(at, kSector));
    }
    lsns.push_back(released.lsn);
  }
  lsns.push_back(lsn_ + 1000000);  // never seen
  plog_.Add(ReleaseEntry(group_.Disk(disk).uuid(), lsns));
}

}  // namespace sample
