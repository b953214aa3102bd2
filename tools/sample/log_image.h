#pragma once
// The SSD log of a disk group: checkpoint records, chains of PLOG and LLOG blocks, and the data that they speak of.

#include <cstdint>
#include <random>
#include <span>
#include <vector>

#include "sample/group_image.h"

namespace sample {

constexpr uint64_t kLogBlock = 4096;
constexpr uint64_t kNoBlk = 0xFFFFFFFFFF5FF;
constexpr uint64_t kZeroSector = 0x7FFFFFFFFFF;     // packed address of data that was written as zeros
constexpr uint64_t kRemovedSector = 0x7FFFFFFFFFE;  // packed address of the second reserved range

/// The checksum of a log block with its own field taken as 0.
uint64_t MixBlock(std::span<const uint8_t> block);
/// The same for the 140 bytes of a checkpoint record.
uint64_t MixRecord(std::span<const uint8_t> record);

struct LogExtent {
  uint64_t sector;   // from the SSD's data offset; 43 bits
  uint16_t sectors;  // 13 bits
};

/// The bytes of single entries. A write without extents carries a map of none.
std::vector<uint8_t> WriteEntry(const Uuid& disk, uint64_t lsn, uint64_t lba, uint32_t length,
                                const std::vector<LogExtent>& extents, uint32_t type = 1);
std::vector<uint8_t> ReleaseEntry(const Uuid& disk, const std::vector<uint64_t>& lsns);
/// An entry of some type with nothing behind its header.
std::vector<uint8_t> BareEntry(const Uuid& disk, uint32_t type);

/// One chain of log blocks under construction.
class LogChain {
 public:
  explicit LogChain(uint8_t logType) : logType_(logType) {}

  /// Adds an entry to the last block, or to a new one when it does not fit there.
  LogChain& Add(const std::vector<uint8_t>& entry);
  /// The next entry begins a new block.
  LogChain& EndBlock();
  size_t BlockCount() const { return blocks_.size(); }
  size_t EntryCount() const { return entries_; }

 private:
  friend class LogImage;
  uint8_t logType_;
  bool full_ = true;
  size_t used_ = 0;
  size_t entries_ = 0;
  std::vector<std::vector<uint8_t>> blocks_;
};

/// Lays the log on an SSD. The write buffer begins with the chains' blocks; data comes behind them.
class LogImage {
 public:
  LogImage(DiskImage& ssd, uint64_t startBlk, uint64_t lengthBlks) : ssd_(ssd), start_(startBlk), length_(lengthBlks) {}

  /// Blocks of a chain are laid one after the other; with a stride, that many blocks apart.
  LogImage& Stride(uint64_t blocks);
  LogImage& Generation(uint64_t generation);
  /// Adds a block behind the PLOG's last one that has the right link and a wrong checksum.
  LogImage& TornTail(bool torn);

  /// Writes both chains and both checkpoint records.
  void Write(const LogChain& plog, const LogChain& llog);
  void Write(const LogChain& plog) { Write(plog, LogChain(2)); }

  /// Where blocks of the PLOG went.
  const std::vector<uint64_t>& PlogBlks() const { return plogBlks_; }
  const std::vector<uint64_t>& LlogBlks() const { return llogBlks_; }
  uint64_t StartBlk() const { return start_; }
  uint64_t LengthBlks() const { return length_; }

  /// Makes a block's, or a record's (blocks 0 and 1), checksum right again after a test spoiled something.
  static void SealBlock(DiskImage& ssd, uint64_t blkNo);
  static void SealRecord(DiskImage& ssd, uint64_t copy);
  /// Makes a block valid with a checksum of choice: its last 40 bytes are what that takes. The mix is no hash.
  static void ForgeBlock(DiskImage& ssd, uint64_t blkNo, uint64_t checksum);
  static uint64_t BlkOffset(uint64_t blkNo) { return kDataOffset + blkNo * kLogBlock; }

 private:
  std::vector<uint64_t> WriteChain(const LogChain& chain, uint64_t* nextBlk);
  void WriteRecord(uint64_t copy, uint64_t generation);

  DiskImage& ssd_;
  uint64_t start_;
  uint64_t length_;
  uint64_t stride_ = 1;
  uint64_t generation_ = 7;
  bool torn_ = false;
  std::vector<uint64_t> plogBlks_;
  std::vector<uint64_t> llogBlks_;
};

struct LoggedGroupOptions {
  uint64_t seed = 1;
  uint32_t disks = 3;
  uint32_t entries = 3000;
  uint64_t diskBytes = 2ULL << 20;   // of a capacity disk's data area
  uint64_t writeBufferBlks = 16384;  // 64 MiB
  uint64_t stride = 1;
  bool oddEntries = true;  // now and then one of a type that nobody knows
};

/// A group with a random PLOG: overlapping rewrites, releases, zero writes, several disks, a torn tail. What each disk
/// holds as the group sees it is kept as plain bytes.
class LoggedGroup {
 public:
  explicit LoggedGroup(const LoggedGroupOptions& options);

  GroupImage& Group() { return group_; }
  const std::vector<uint8_t>& Picture(uint32_t disk) const { return pictures_.at(disk); }
  const LogImage& Log() const { return log_; }
  size_t EntryCount() const { return plog_.EntryCount(); }

 private:
  struct Logged {
    uint64_t lsn;
    uint64_t lba;
    uint64_t length;
  };

  uint64_t Below(uint64_t bound) { return random_() % bound; }
  uint64_t PickLength();
  void AddWrite(uint32_t disk);
  void AddZeroWrite(uint32_t disk);
  void AddRelease(uint32_t disk);

  LoggedGroupOptions options_;
  std::mt19937_64 random_;
  GroupImage group_;
  LogImage log_;
  LogChain plog_;
  uint64_t lsn_ = 1;
  uint64_t nextSector_;
  std::vector<std::vector<uint8_t>> pictures_;
  std::vector<std::vector<uint64_t>> owners_;  // LSN by sector, 0 where the disk itself is newest
  std::vector<std::vector<Logged>> logged_;
};

}  // namespace sample
