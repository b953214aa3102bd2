// Both checkpoint records, field by field.

#include <fmt/format.h>

#include <cstdio>
#include <cstring>

#include "check.h"
#include "kab/ssdlog.h"
#include "load.h"

namespace tool {
namespace {

constexpr uint64_t kMagic = 0xCAFEF00D08142007;
constexpr size_t kChecksumAt = 132;

class RecordCheck {
 public:
  RecordCheck(Check& check, uint64_t copy, const uint8_t* record, uint64_t offset)
      : check_(check), copy_(copy), record_(record), offset_(offset) {}

  void Run(const std::vector<std::string>& lines) {
    const auto u64 = [this](size_t at) { return Load<uint64_t>(record_ + at); };
    bool sealed = true;
    for (const std::string& line : lines) {
      uint64_t stored = 0;
      uint64_t computed = 0;
      if (std::sscanf(line.c_str(), "Checksum mismatch. stored:0x%lx, computed:0x%lx", &stored, &computed) == 2) {
        sealed = false;
        Tell("checksum", kChecksumAt, fmt::format("{:#x}", computed), fmt::format("{:#x}", stored));
      }
    }
    Equal("magic", 4, kMagic, u64(4));
    if (!sealed && u64(4) != kMagic) return;  // something else lies here: its fields would say nothing
    Equal("version", 0, 1, Load<uint16_t>(record_));
    Equal("kind", 2, 5, Load<uint16_t>(record_ + 2));
    CheckLog("LLOG", 36);
    CheckLog("PLOG", 60);
    Equal("block size", 84, KAB_LOG_BLOCK_SIZE, Load<uint32_t>(record_ + 84));
    Equal("geometry word", 92, 0x20000, u64(92));
    if (u64(100) < End()) Tell("end of the log", 100, fmt::format("at least {}", End()), std::to_string(u64(100)));
    if (u64(108) == 0) Tell("word", 108, "not 0", "0");
    Equal("word", 120, 0, Load<uint32_t>(record_ + 120));
    CheckBounds();
  }

 private:
  uint64_t Start() const { return Load<uint64_t>(record_ + 20); }
  uint64_t End() const { return Start() + Load<uint64_t>(record_ + 28); }

  void Tell(const std::string& field, size_t at, const std::string& expected, const std::string& found) {
    check_.Damage("CPR-INVALID", *check_.group.ssd(), offset_ + at,
                  fmt::format("checkpoint record {}: the {} breaks a rule", copy_ + 1, field), expected, found);
  }

  void Equal(const char* field, size_t at, uint64_t expected, uint64_t found) {
    if (found != expected) Tell(field, at, fmt::format("{:#x}", expected), fmt::format("{:#x}", found));
  }

  // First block, last block and presence word of a log. An empty one has neither block.
  void CheckLog(const char* log, size_t at) {
    const auto first = Load<uint64_t>(record_ + at);
    const auto last = Load<uint64_t>(record_ + at + 8);
    const auto present = Load<uint64_t>(record_ + at + 16);
    const auto tell = [&](const char* field, size_t place, const std::string& expected, uint64_t found) {
      Tell(fmt::format("{}'s {}", log, field), place, expected, fmt::format("{:#x}", found));
    };
    if (first == KAB_INVALID_BLK) {
      if (last != KAB_INVALID_BLK) tell("last block", at + 8, "none, as the first", last);
      if (present != 0) tell("presence word", at + 16, "0", present);
      return;
    }
    if (last == KAB_INVALID_BLK || last >= End()) tell("last block", at + 8, fmt::format("below {:#x}", End()), last);
    if (present == 0) tell("presence word", at + 16, "not 0", present);
    if (first < Start()) tell("first block", at, fmt::format("at least {:#x}", Start()), first);
  }

  void CheckBounds() {
    const KABDiskCtx& ssd = *check_.group.ssd();
    const uint64_t blocks = (ssd.diskSize - ssd.dataOffset) / KAB_LOG_BLOCK_SIZE;
    if (Start() <= blocks && End() >= Start() && End() <= blocks) return;
    Tell("write buffer", 20, fmt::format("within {} blocks", blocks), fmt::format("{} to {}", Start(), End()));
  }

  Check& check_;
  uint64_t copy_;
  const uint8_t* record_;
  uint64_t offset_;
};

}  // namespace

bool CheckCheckpoints(Check& check) {
  KABDiskCtx* ssd = check.group.ssd();
  LineTrap trap;
  for (uint64_t copy = 0; copy < 2; ++copy) {
    uint8_t block[KAB_LOG_BLOCK_SIZE];
    uint64_t offset = 0;
    if (KABReadSSDLOGBlk(ssd, copy, block, &offset) != KAB_OK) {
      trap.Take(ssd->uuidText);
      check.Damage("CPR-UNREADABLE", *ssd, offset, fmt::format("checkpoint record {} cannot be read", copy + 1));
      continue;
    }
    KABSSDLOGCheckCPR(ssd, block);
    RecordCheck(check, copy, block, offset).Run(trap.Take(ssd->uuidText));
  }
  // The library chooses by the checksum and the first words alone.
  if (KABSSDLOGGetValidCheckPointRecord(ssd) == KAB_OK) return true;
  check.TakeLines(trap, "CPR-NONE", *ssd, ssd->dataOffset);
  return false;
}

}  // namespace tool
