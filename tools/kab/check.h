#pragma once
// The parts of kab check: each judges one layer of a group and never stops at its first finding.

#include <string>

#include "findings.h"
#include "group.h"
#include "kab/core.h"
#include "progress.h"

namespace tool {

struct Check {
  Tool& tool;
  Findings& findings;
  Group& group;
  bool quick = false;
  bool complete = true;                 // false once something could not be judged
  uint64_t memory = uint64_t{1} << 30;  // bytes that bitmaps may take

  void Damage(const char* code, const KABDiskCtx& disk, std::optional<uint64_t> offset, std::string text,
              std::string expected = {}, std::string found = {}) {
    findings.Add(
        {code, Severity::kDamage, disk.uuidText, offset, std::move(expected), std::move(found), std::move(text)});
  }
  void Warn(const char* code, const KABDiskCtx& disk, std::string text) { Warn(code, disk, {}, std::move(text)); }
  void Warn(const char* code, const KABDiskCtx& disk, std::optional<uint64_t> offset, std::string text) {
    findings.Add({code, Severity::kWarning, disk.uuidText, offset, {}, {}, std::move(text)});
  }
  void Inform(const char* code, const KABDiskCtx& disk, std::optional<uint64_t> offset, std::string text) {
    findings.Add({code, Severity::kInfo, disk.uuidText, offset, {}, {}, std::move(text)});
  }
  /// Every line that the library wrote becomes a finding.
  void TakeLines(LineTrap& trap, const char* code, const KABDiskCtx& disk, std::optional<uint64_t> offset) {
    for (std::string& line : trap.Take(disk.uuidText)) Damage(code, disk, offset, std::move(line));
  }
};

/// The Arvo metadata of all disks against each other.
void CheckMeta(Check& check);
/// Both checkpoint records. False when neither serves.
bool CheckCheckpoints(Check& check);
/// Checkpoint records, both logs block by block, PLOG replay. False when there is no replay to build on.
bool CheckLog(Check& check);
/// Dedup superblocks, every metadata block and its copy, and bitmaps, translation maps and hash maps against each
/// other.
void CheckDedup(Check& check);
/// Block 0, registry, map trees and component superblocks of Orlo disks; after a replay.
void CheckOrlo(Check& check);
/// All of them in order.
void CheckGroup(Check& check);

}  // namespace tool
