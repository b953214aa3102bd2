#pragma once
// Disk groups to damage: small whole ones, with the place of every structure on them.

#include <cstdint>
#include <span>
#include <string>
#include <vector>

namespace damage {

using Bytes = std::vector<uint8_t>;

/// Who makes a structure valid again after a change that shall not be noticed.
enum class Seal {
  kNone,        // it has no checksum
  kBlock,       // CRC-32C at byte 16 of its 4096-byte block
  kCheckpoint,  // the checksum of a checkpoint record
  kLogChain,    // its log block's checksum, and the links of the blocks behind that
};

struct Field {
  const char* name;
  uint32_t offset;
  uint32_t width;  // bytes; above 8 it is no number
};

/// One structure on one file, at one place or, told twice, at several that are changed alike.
struct Structure {
  std::string name;
  std::span<const Field> fields;
  Seal seal = Seal::kNone;
  size_t file = 0;
  uint64_t size = 0;                // bytes
  std::vector<uint64_t> places;     // byte offsets in the file
  std::vector<uint64_t> borders{};  // values to try in every number
  /// What breaks its checksum must be told by `kab check`.
  bool checked = false;
};

struct File {
  std::string path;
  Bytes bytes;
};

/// What may stand under the name of an output after a command that failed.
enum class Leaves {
  kNothing,
  kPartial,     // nothing, but what could be had when the disks are at fault (status 3 or 4)
  kUnfinished,  // a dump that says so itself
  kSpoilt,      // what was there, written over in part
};

struct Command {
  std::string name;
  std::vector<std::string> arguments;
  std::string output{};
  Leaves leaves = Leaves::kNothing;
  /// Prints findings, the last of which is the verdict.
  bool findings = false;
};

struct Seed {
  std::string name;
  std::string folder;  // for outputs
  std::vector<File> files;
  std::vector<Structure> structures;
  std::vector<std::vector<uint64_t>> chains{};  // byte offsets of log blocks on file 0, by chain
  std::vector<Command> commands;
};

/// The names that MakeSeed knows.
std::span<const char* const> SeedNames();
/// Writes the files of a seed into a folder that exists.
Seed MakeSeed(const std::string& name, const std::string& folder);

uint64_t Number(const Bytes& bytes, uint64_t offset, uint32_t width);
void PutNumber(uint8_t* bytes, uint32_t width, uint64_t value);

}  // namespace damage
