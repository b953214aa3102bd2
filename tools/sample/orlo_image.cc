#include "sample/orlo_image.h"

#include <algorithm>
#include <random>
#include <stdexcept>

namespace sample {
namespace {

constexpr uint64_t kRegistryOffset = 65536;
constexpr uint64_t kRegistryRoom = 131072;
constexpr uint32_t kEntriesAt = 52;

}  // namespace

uint64_t OrloImage::RegistryAt() { return kDataOffset + kRegistryOffset; }

OrloImage::OrloImage(DiskImage& disk, uint8_t version) : disk_(disk), version_(version) {
  disk_.FormatVersion(version);
  PutRegistry();
}

uint64_t OrloImage::Allocate(uint64_t blocks) {
  const uint64_t first = nextBlock_;
  nextBlock_ += blocks;
  if (BlockAt(nextBlock_) + kGptSize > disk_.size())
    throw std::runtime_error("the disk is too small for its components");
  return first;
}

std::vector<OrloRun> OrloImage::MakeRuns(uint32_t count, uint32_t longest, uint64_t seed) {
  std::mt19937_64 random(seed);
  std::vector<OrloRun> runs = {{0, 4}, {4, 2, 1, true}, {100, 3}};
  uint32_t at = 1024;
  for (uint32_t i = 0; i < count; ++i) {
    if (random() % 3 == 0) at += static_cast<uint32_t>(1 + random() % longest);
    OrloRun run = {at, static_cast<uint32_t>(1 + random() % longest)};
    run.hole = random() % 6 == 0;
    const uint64_t other = random() % 8;
    if (other < 3) run.type = static_cast<uint8_t>(other * 21);  // 0, 21, 42
    if (other == 3) run.type = 2;
    runs.push_back(run);
    at += run.count;
  }
  return runs;
}

const OrloVdisk& OrloImage::AddVdisk(const Uuid& uuid, std::vector<OrloRun> runs, OrloTreeShape shape,
                                     bool superBlockPresent) {
  OrloVdisk vdisk = {uuid, static_cast<uint32_t>(vdisks_.size() + 1), superBlockPresent, std::move(runs)};
  for (OrloRun& run : vdisk.runs) {
    if (run.hole) {
      run.physical = kNoPhysical;
      continue;
    }
    run.physical = Allocate(run.count);
    const uint64_t at = BlockAt(run.physical);
    disk_.FillNoise(at, run.count * kMapBlock, run.physical);
    if (run.logical != 0) continue;
    disk_.Put64(at, 0x1F2E3D4C5B6A7890).Put32(at + 8, 2);
    for (uint64_t field = 24; field <= 40; field += 4) disk_.Put32(at + field, 512);
  }
  vdisk.root = PutTree(vdisk, shape);
  vdisks_.push_back(std::move(vdisk));
  PutRegistry();
  return vdisks_.back();
}

std::vector<uint8_t> OrloImage::Picture(size_t vdisk, uint64_t offset, uint64_t length) const {
  std::vector<uint8_t> bytes(length);
  for (const OrloRun& run : vdisks_.at(vdisk).runs) {
    if (run.hole) continue;
    const uint64_t start = run.logical * kMapBlock;
    const uint64_t from = std::max(start, offset);
    const uint64_t to = std::min(start + run.count * kMapBlock, offset + length);
    if (from >= to) continue;
    const auto piece = disk_.GetBytes(BlockAt(run.physical) + (from - start), to - from);
    std::copy(piece.begin(), piece.end(), bytes.begin() + static_cast<ptrdiff_t>(from - offset));
  }
  return bytes;
}

void OrloImage::PutLeaf(uint64_t block, std::span<const OrloRun> runs) {
  const uint64_t at = BlockAt(block);
  disk_.Fill(at, kMapBlock, 0).Put16(at + 16, static_cast<uint16_t>(runs.size() | 0x8000));
  for (size_t i = 0; i < runs.size(); ++i) {
    const OrloRun& run = runs[i];
    const uint32_t countAndType = run.count | static_cast<uint32_t>(run.type) << 26;
    disk_.Put32(at + 18 + 4 * i, run.logical);
    if (version_ == 6) {
      disk_.Put32(at + 1374 + 8 * i, static_cast<uint32_t>(run.physical)).Put32(at + 1374 + 8 * i + 4, countAndType);
    } else {
      disk_.Put64(at + 1034 + 12 * i, run.physical).Put32(at + 1034 + 12 * i + 8, countAndType);
    }
  }
}

void OrloImage::PutInterior(uint64_t block, std::span<const uint32_t> keys, std::span<const uint64_t> children) {
  const uint64_t at = BlockAt(block);
  disk_.Fill(at, kMapBlock, 0).Put16(at + 16, static_cast<uint16_t>(keys.size()));
  for (size_t i = 0; i < keys.size(); ++i) disk_.Put32(at + 18 + 4 * i, keys[i]);
  for (size_t i = 0; i < children.size(); ++i) {
    if (version_ == 6) {
      disk_.Put32(at + 2054 + 4 * i, static_cast<uint32_t>(children[i]));
    } else {
      disk_.Put64(at + 1374 + 8 * i, children[i]);
    }
  }
}

uint64_t OrloImage::PutTree(OrloVdisk& vdisk, const OrloTreeShape& shape) {
  struct Subtree {
    uint64_t block;
    uint32_t firstKey;
    uint32_t end;
  };
  const auto cut = [](uint32_t asked, uint32_t most) { return asked == 0 ? most : std::min(asked, most); };
  const size_t leafRecords = cut(shape.leafRecords, MaxLeafRecords());
  const size_t children = std::max<size_t>(2, cut(shape.children, MaxChildren()));
  const std::span<const OrloRun> runs = vdisk.runs;
  if (runs.empty()) return kNoPhysical;

  std::vector<Subtree> level;
  for (size_t i = 0; i < runs.size(); i += leafRecords) {
    const auto part = runs.subspan(i, std::min(leafRecords, runs.size() - i));
    level.push_back({Allocate(1), part.front().logical, part.back().logical + part.back().count});
    vdisk.mapBlocks.push_back(level.back().block);
    PutLeaf(level.back().block, part);
  }
  for (vdisk.levels = 1; level.size() > 1; ++vdisk.levels) {
    std::vector<Subtree> above;
    for (size_t i = 0; i < level.size(); i += children) {
      const auto part = std::span(level).subspan(i, std::min(children, level.size() - i));
      std::vector<uint32_t> keys;
      std::vector<uint64_t> blocks = {part[0].block};
      for (size_t j = 1; j < part.size(); ++j) {
        keys.push_back(shape.looseSeparators ? part[j - 1].end : part[j].firstKey);
        blocks.push_back(part[j].block);
      }
      above.push_back({Allocate(1), part.front().firstKey, part.back().end});
      vdisk.mapBlocks.push_back(above.back().block);
      PutInterior(above.back().block, keys, blocks);
    }
    level = std::move(above);
  }
  return level.front().block;
}

void OrloImage::PutRegistry() {
  const uint64_t length = kEntriesAt + vdisks_.size() * EntrySize();
  if (length > kRegistryRoom) throw std::runtime_error("too many vdisks for the registry");
  static constexpr uint8_t kMagic[] = {'O', 'L', 'R', 'O'};
  disk_.PutBytes(kDataOffset, kMagic).Put32(kDataOffset + 4, version_);
  disk_.Put64(kDataOffset + 48, kRegistryOffset).Put64(kDataOffset + 72, kRegistryRoom);
  const uint64_t at = RegistryAt();
  disk_.Put64(at + 16, length).Put32(at + 36, static_cast<uint32_t>(vdisks_.size()));
  for (size_t i = 0; i < vdisks_.size(); ++i) {
    const OrloVdisk& vdisk = vdisks_[i];
    const uint64_t entry = at + kEntriesAt + i * EntrySize();
    const uint32_t present = vdisk.superBlockPresent ? 1 : 0;
    disk_.Put32(entry, vdisk.id);
    if (version_ == 6) {
      disk_.Put32(entry + 12, static_cast<uint32_t>(vdisk.root)).Put32(entry + 16, present);
      disk_.PutBytes(entry + 20, vdisk.uuid);
    } else {
      disk_.Put32(entry + 12, present).Put64(entry + 16, vdisk.root).PutBytes(entry + 24, vdisk.uuid);
    }
  }
}

}  // namespace sample
