#include "damage/seed.h"

#include <openssl/evp.h>
#include <zlib.h>

#include <algorithm>
#include <cstring>
#include <stdexcept>

#include "sample/dedup_image.h"
#include "sample/log_image.h"
#include "sample/orlo_group_image.h"
#include "support/temp_dir.h"

namespace damage {
namespace {

using sample::kDataOffset;
using sample::kMetaOffset;

constexpr uint64_t kBlock = 4096;

// Structures by bare offsets.

constexpr Field kArvoMeta[] = {{"type", 8, 1},       {"state", 11, 1},    {"uuid", 12, 16},
                               {"slot0", 60, 16},    {"slot1", 76, 16},   {"slot6", 156, 16},
                               {"altUuid", 172, 16}, {"version", 468, 1}, {"encrypted", 1032, 1}};

constexpr Field kCheckpoint[] = {
    {"version", 0, 2},   {"kind", 2, 2},          {"magic", 4, 8},      {"generation", 12, 8},   {"start", 20, 8},
    {"length", 28, 8},   {"llogFirst", 36, 8},    {"llogLast", 44, 8},  {"llogPresence", 52, 8}, {"plogFirst", 60, 8},
    {"plogLast", 68, 8}, {"plogPresence", 76, 8}, {"blockSize", 84, 4}, {"geometry", 92, 8},     {"end", 100, 8},
    {"nonZero", 108, 8}, {"zero", 120, 4},        {"checksum", 132, 8}};

constexpr Field kLogBlock[] = {{"version", 0, 2},     {"kind", 2, 2},          {"magic", 4, 8},
                               {"entryCount", 12, 1}, {"logType", 13, 1},      {"next", 16, 8},
                               {"prev", 24, 8},       {"prevChecksum", 32, 8}, {"checksum", 56, 8}};

constexpr Field kWriteEntry[] = {{"uuid", 0, 16},       {"payloadLength", 16, 4}, {"entryLength", 20, 4},
                                 {"operation", 24, 4},  {"version", 28, 2},       {"headerVersion", 48, 2},
                                 {"one", 50, 2},        {"type", 52, 4},          {"lsn", 56, 8},
                                 {"lba", 64, 8},        {"length", 72, 4},        {"extents", 76, 2},
                                 {"extentHigh", 78, 2}, {"extentMiddle", 80, 1},  {"extentLow", 81, 4}};

constexpr Field kReleaseEntry[] = {
    {"payloadLength", 16, 4}, {"entryLength", 20, 4}, {"type", 52, 4}, {"lsnCount", 56, 4}, {"lsn", 60, 8}};

constexpr Field kDedupSuperBlk[] = {{"magic", 0, 4},
                                    {"blkType", 4, 4},
                                    {"checksum", 16, 4},
                                    {"owner", 20, 8},
                                    {"tag", 28, 8},
                                    {"id", 56, 8},
                                    {"flags", 80, 2},
                                    {"txnSBStart", 84, 8},
                                    {"txnSBSize", 92, 8},
                                    {"resrvStart", 100, 8},
                                    {"resrvSize", 108, 8},
                                    {"hmapStart", 116, 8},
                                    {"hmapSize", 124, 8},
                                    {"bmapStart", 132, 8},
                                    {"bmapSize", 140, 8},
                                    {"xmapStart", 148, 8},
                                    {"xmapSize", 156, 8},
                                    {"dataStart", 164, 8},
                                    {"dataSize", 172, 8},
                                    {"metaBmapHmapStart", 180, 8},
                                    {"metaBmapHmapSize", 188, 8},
                                    {"metaBmapBmapStart", 196, 8},
                                    {"metaBmapBmapSize", 204, 8},
                                    {"metaBmapXmapStart", 212, 8},
                                    {"metaBmapXmapSize", 220, 8},
                                    {"hmapBlksPerBit", 249, 1},
                                    {"bmapBlksPerBit", 250, 1},
                                    {"xmapBlksPerBit", 251, 1},
                                    {"ddpRatio", 252, 1},
                                    {"softReserveSize", 253, 8},
                                    {"expansion1Size", 261, 8},
                                    {"expansion2Start", 269, 8},
                                    {"expansion2Size", 277, 8},
                                    {"expansion3Start", 285, 8},
                                    {"expansion3Size", 293, 8}};

constexpr Field kDedupHeader[] = {
    {"magic", 0, 4}, {"blkType", 4, 4}, {"checksum", 16, 4}, {"owner", 20, 8}, {"tag", 28, 8}};
constexpr Field kBitmapBits[] = {{"bits", 40, 8}};
constexpr Field kHashEntry[] = {{"hash", 0, 20}, {"value", 20, 4}, {"pbn", 24, 8}, {"tag", 32, 2}};
constexpr Field kXmapRecord[] = {{"typeAndDisk", 0, 1}, {"unit1", 1, 4}, {"middle", 5, 1}, {"unit2", 6, 4}};
constexpr Field kPackedUnit[] = {{"lz4Token", 0, 2}, {"lz4Body", 2, 8}, {"length", 2046, 2}};

constexpr Field kOrloBlock0[] = {
    {"magic", 0, 4}, {"version", 4, 4}, {"registryOffset", 48, 8}, {"registryBufferLength", 72, 8}};
constexpr Field kOrloRegistry[] = {{"length", 16, 8}, {"vdisks", 36, 4}};
constexpr Field kVdiskEntry[] = {{"id", 0, 4}, {"superBlockPresent", 12, 4}, {"mapBlock", 16, 8}, {"uuid", 24, 16}};
constexpr Field kVdiskEntryV6[] = {{"id", 0, 4}, {"mapBlock", 12, 4}, {"superBlockPresent", 16, 4}, {"uuid", 20, 16}};
constexpr Field kLeaf[] = {
    {"count", 16, 2},           {"key0", 18, 4},        {"key1", 22, 4},           {"physical0", 1034, 8},
    {"countAndType0", 1042, 4}, {"physical1", 1046, 8}, {"countAndType1", 1054, 4}};
constexpr Field kLeafV6[] = {
    {"count", 16, 2},           {"key0", 18, 4},        {"key1", 22, 4},           {"physical0", 1374, 4},
    {"countAndType0", 1378, 4}, {"physical1", 1382, 4}, {"countAndType1", 1386, 4}};
constexpr Field kInterior[] = {{"count", 16, 2}, {"key0", 18, 4}, {"child0", 1374, 8}, {"child1", 1382, 8}};
constexpr Field kInteriorV6[] = {{"count", 16, 2}, {"key0", 18, 4}, {"child0", 2054, 4}, {"child1", 2058, 4}};
constexpr Field kComponentSuperBlk[] = {{"magic", 0, 8},          {"majorVersion", 8, 4}, {"policyLen", 24, 4},
                                        {"attributesLen", 28, 4}, {"configLen", 32, 4},   {"componentPolicyLen", 36, 4},
                                        {"extraParamsLen", 40, 4}};

constexpr Field kDumpHeader[] = {{"magic", 0, 4},     {"version", 4, 4},      {"records", 8, 8},
                                 {"diskSize", 16, 8}, {"totalLength", 24, 8}, {"created", 32, 8},
                                 {"sha256", 40, 32},  {"deviceName", 72, 16}};

void AddGroupFiles(Seed& seed, const sample::GroupPaths& paths) {
  seed.files.push_back({paths.ssd, kab_test::ReadFile(paths.ssd)});
  for (const std::string& path : paths.disks) seed.files.push_back({path, kab_test::ReadFile(path)});
}

std::string FileName(const Seed& seed, size_t file) {
  const std::string& path = seed.files[file].path;
  return path.substr(path.rfind('/') + 1);
}

void AddStructure(Seed& seed, const std::string& name, std::span<const Field> fields, Seal seal, size_t file,
                  uint64_t size, std::vector<uint64_t> places, std::vector<uint64_t> borders = {}) {
  const bool checked = seal == Seal::kBlock || seal == Seal::kCheckpoint;
  seed.structures.push_back(
      {FileName(seed, file) + "/" + name, fields, seal, file, size, std::move(places), std::move(borders), checked});
}

void AddMetadata(Seed& seed) {
  for (size_t file = 0; file < seed.files.size(); ++file) {
    AddStructure(seed, "metadata", kArvoMeta, Seal::kNone, file, kBlock, {kMetaOffset}, {2, 6, 7, 8, 11, 20, 21});
  }
}

// Every command over the group; `component` is the one to look at.
void AddGroupCommands(Seed& seed, const std::string& component, const std::vector<std::string>& options = {}) {
  std::vector<std::string> group;
  for (const File& file : seed.files) group.push_back(file.path);
  const auto add = [&](Command command) {
    command.arguments.insert(command.arguments.begin(), options.begin(), options.end());
    command.arguments.insert(command.arguments.end(), group.begin(), group.end());
    seed.commands.push_back(std::move(command));
  };
  const std::string out = seed.folder + "/out";
  const std::string dump = seed.folder + "/out.kabdump";
  add({"info", {"info"}});
  add({"check", {"--json", "check"}, "", Leaves::kNothing, true});
  add({"check --quick", {"--json", "check", "--quick"}, "", Leaves::kNothing, true});
  add({"log", {"log"}});
  add({"read", {"read", "-d", "0", "-r", "1M:2M", "-o", out}, out});
  add({"read --hex", {"read", "--hex", "-d", "ssd", "-r", "3M:32K"}});
  add({"read --logical", {"read", "--logical", "-d", "0", "-r", "0:1M", "-o", out}, out, Leaves::kPartial});
  add({"read --as-group", {"read", "--as-group", "-d", "0", "-r", "0:1M", "-o", out}, out, Leaves::kPartial});
  add({"read --explain", {"--json", "read", "--as-group", "--explain", "-d", "0", "-r", "0:1M"}});
  add({"component list", {"component", "list"}});
  add({"component info", {"component", "info", "-u", component}});
  add({"component map", {"component", "map", "-u", component}});
  add({"component read", {"component", "read", "-u", component, "-o", out}, out, Leaves::kPartial});
  add({"dump", {"dump", "-d", "0", "-o", dump}, dump, Leaves::kUnfinished});
  seed.commands.push_back({"verify", {"verify", dump}});
  seed.commands.push_back({"extract", {"extract", dump, out}, out});
}

std::vector<uint64_t> LogBorders(const Bytes& ssd) {
  const uint64_t record = kDataOffset;
  const uint64_t start = Number(ssd, record + 20, 8);
  const uint64_t length = Number(ssd, record + 28, 8);
  const uint64_t blks = (ssd.size() - kDataOffset) / kBlock;
  return {1,        start - 1, start,          start + length - 1, start + length,
          blks - 1, blks,      sample::kNoBlk, 1ULL << 51,         1ULL << 52};
}

void AddCheckpoints(Seed& seed) {
  const std::vector<uint64_t> borders = LogBorders(seed.files[0].bytes);
  AddStructure(seed, "checkpoint0", kCheckpoint, Seal::kCheckpoint, 0, 140, {kDataOffset}, borders);
  AddStructure(seed, "checkpoints", kCheckpoint, Seal::kCheckpoint, 0, 140, {kDataOffset, kDataOffset + kBlock},
               borders);
}

/// Byte offset in the file of a block's first entry of a type; 0 when there is none.
uint64_t FindEntry(const Bytes& ssd, uint64_t block, uint32_t type) {
  uint64_t at = block + 64;
  for (uint64_t i = 0; i < ssd[block + 12]; ++i) {
    const bool wanted = Number(ssd, at + 52, 4) == type;
    if (wanted && (type != 1 || Number(ssd, at + 76, 2) != 0)) return at;
    at += Number(ssd, at + 20, 4);
  }
  return 0;
}

void AddChain(Seed& seed, const char* name, const std::vector<uint64_t>& blks) {
  const Bytes& ssd = seed.files[0].bytes;
  std::vector<uint64_t> chain;
  for (const uint64_t blk : blks) chain.push_back(sample::LogImage::BlkOffset(blk));
  seed.chains.push_back(chain);
  std::vector<uint64_t> borders = LogBorders(ssd);
  for (const size_t pick : {size_t{0}, chain.size() / 2, chain.size() - 1}) {
    const std::string number = std::string(name) + std::to_string(pick);
    AddStructure(seed, number, kLogBlock, Seal::kLogChain, 0, kBlock, {chain[pick]}, borders);
  }
  for (const uint64_t block : {chain.front(), chain[chain.size() / 2]}) {
    const std::vector<uint64_t> entryBorders = {47, 48, 55, 56, 76, 511, 512, 513, 4032, 4096, 67, 68, 3, 4, 5};
    if (const uint64_t at = FindEntry(ssd, block, 1)) {
      AddStructure(seed, std::string(name) + "/write", kWriteEntry, Seal::kLogChain, 0, 85, {at}, entryBorders);
    }
    if (const uint64_t at = FindEntry(ssd, block, 2)) {
      AddStructure(seed, std::string(name) + "/release", kReleaseEntry, Seal::kLogChain, 0, 68, {at}, entryBorders);
    }
  }
}

void PutEmptyLog(sample::DiskImage& ssd) {
  const uint64_t blks = (ssd.size() - kDataOffset - sample::kGptSize) / sample::kLogBlock;
  sample::LogImage(ssd, 16, blks - 32).Write(sample::LogChain(1));
}

// A random PLOG over two disks.
void MakeLog(Seed& seed) {
  sample::LoggedGroup group(
      {.seed = 7, .disks = 2, .entries = 200, .diskBytes = 1 << 20, .writeBufferBlks = 1024, .oddEntries = false});
  AddGroupFiles(seed, group.Group().Write(seed.folder));
  AddMetadata(seed);
  AddCheckpoints(seed);
  AddChain(seed, "plog", group.Log().PlogBlks());
  AddGroupCommands(seed, sample::UuidText(sample::MakeUuid(1)));
}

// Both logs, a few entries each.
void MakeLlog(Seed& seed) {
  sample::GroupImage group(1, 4 << 20, 4 << 20);
  const sample::Uuid& disk = group.Disk(0).uuid();
  sample::LogChain plog(1);
  sample::LogChain llog(2);
  for (uint64_t lsn = 1; lsn <= 6; ++lsn) {
    plog.Add(sample::WriteEntry(disk, lsn, lsn * 8192, 4096, {{1200 + 8 * lsn, 4}, {1204 + 8 * lsn, 4}}));
    llog.Add(sample::BareEntry(disk, 1));
    if (lsn % 2 == 0) plog.Add(sample::ReleaseEntry(disk, {lsn - 1})).EndBlock();
    if (lsn % 3 == 0) llog.EndBlock();
  }
  sample::LogImage log(group.Ssd(), 16, 200);
  log.Write(plog, llog);
  AddGroupFiles(seed, group.Write(seed.folder));
  AddCheckpoints(seed);
  AddChain(seed, "plog", log.PlogBlks());
  AddChain(seed, "llog", log.LlogBlks());
  AddGroupCommands(seed, sample::UuidText(sample::MakeUuid(1)));
}

template <uint32_t kMode>
void MakeDedup(Seed& seed) {
  const bool redundant = kMode == 2;
  sample::DedupImage image({.mode = kMode,
                            .disks = 2,
                            .diskSize = 8 << 20,
                            .mdr = redundant,
                            .expansion = redundant ? 5U : 0U,
                            .ssdSize = 4 << 20});
  image.StoreMixture(250, 3);
  image.Seal();
  PutEmptyLog(image.Group().Ssd());
  AddGroupFiles(seed, image.Group().Write(seed.folder));
  if (kMode == 2) AddMetadata(seed);

  const sample::DedupImage::Layout& at = image.Place();
  const auto byte = [](uint64_t blk) { return sample::DedupImage::At(blk); };
  const std::vector<uint64_t> blkBorders = {1,          2,         16, at.blks - 1, at.blks, at.blks + 1, at.dataStart,
                                            1ULL << 40, 1ULL << 52};
  const std::vector<uint64_t> unitBorders = {2 * at.dataStart - 1, 2 * at.dataStart, 2 * at.blks - 1, 2 * at.blks};
  const size_t disk = 1;
  AddStructure(seed, "superblock", kDedupSuperBlk, Seal::kBlock, disk, kBlock, {byte(0)}, blkBorders);
  if (redundant) {
    AddStructure(seed, "superblocks", kDedupSuperBlk, Seal::kBlock, disk, kBlock, {byte(0), byte(at.secondary)},
                 blkBorders);
  }
  struct Region {
    const char* name;
    uint64_t blk;
    uint64_t size;
  };
  const Region regions[] = {{"txnSuperblock", 1, 1},
                            {"bitmap", at.bmapStart, at.bmapSize},
                            {"hashMap", at.hmapStart, at.hmapSize},
                            {"xmap", at.xmapStart, at.xmapSize},
                            {"hashMapBitmap", at.metaBmapStart[0], at.metaBmapSize[0]},
                            {"bitmapBitmap", at.metaBmapStart[1], at.metaBmapSize[1]},
                            {"xmapBitmap", at.metaBmapStart[2], at.metaBmapSize[2]}};
  for (const Region& region : regions) {
    if (region.size == 0) continue;
    AddStructure(seed, region.name, kDedupHeader, Seal::kBlock, disk, kBlock, {byte(region.blk)});
  }
  AddStructure(seed, "bitmapBits", kBitmapBits, Seal::kBlock, disk, kBlock, {byte(at.bmapStart)});
  const Bytes& image0 = seed.files[disk].bytes;
  for (uint64_t blk = 0, found = 0; blk < at.hmapSize && found < 2; ++blk) {
    const uint64_t entry = byte(at.hmapStart + blk) + 50;
    if (Number(image0, entry + 24, 8) == 0) continue;
    AddStructure(seed, "hashEntry", kHashEntry, Seal::kBlock, disk, 34, {entry}, unitBorders);
    ++found;
  }
  for (const uint64_t logical : {0, 5, 120, 230}) {
    AddStructure(seed, "xmapRecord" + std::to_string(logical), kXmapRecord, Seal::kBlock, disk, 10,
                 {image.EntryAt(logical) + 8}, unitBorders);
  }
  for (const uint64_t unit : {uint64_t{0}, uint64_t{3}, uint64_t{10}}) {
    const uint64_t first = image.UnitAt(4 * image.shape().expansion + unit);
    AddStructure(seed, "unit" + std::to_string(unit), kPackedUnit, Seal::kNone, disk, 2048, {first},
                 {2046, 2047, 2048});
  }
  AddGroupCommands(seed, sample::UuidText(sample::MakeUuid(1)));
}

struct OrloWalk {
  const Bytes& disk;
  uint32_t version;

  bool Old() const { return version == 6; }
  static uint64_t At(uint64_t block) { return kDataOffset + block * kBlock; }
  uint64_t Entry(uint64_t number) const { return kDataOffset + 65536 + 52 + number * (Old() ? 44 : 48); }
  uint64_t Root(uint64_t number) const { return Number(disk, Entry(number) + (Old() ? 12 : 16), Old() ? 4 : 8); }
  bool IsLeaf(uint64_t block) const { return (Number(disk, At(block) + 16, 2) & 0x8000) != 0; }
  uint64_t Child(uint64_t block, uint64_t i) const {
    return Old() ? Number(disk, At(block) + 2054 + 4 * i, 4) : Number(disk, At(block) + 1374 + 8 * i, 8);
  }
  uint64_t Physical(uint64_t block) const { return Number(disk, At(block) + (Old() ? 1374 : 1034), Old() ? 4 : 8); }
};

void MakeOrlo(Seed& seed) {
  sample::OrloGroupImage image({.seed = 2, .disks = 2, .ssdSize = 4 << 20, .diskSize = 16 << 20});
  AddGroupFiles(seed, image.Group().Write(seed.folder));
  for (size_t file = 1; file < seed.files.size(); ++file) {
    const OrloWalk walk{seed.files[file].bytes, file == 1 ? 7U : 6U};
    const uint64_t blocks = (seed.files[file].bytes.size() - kDataOffset) / kBlock;
    AddStructure(seed, "block0", kOrloBlock0, Seal::kNone, file, 96, {kDataOffset},
                 {6, 7, 8, 4096, 65535, 131072, seed.files[file].bytes.size(), 1ULL << 62});
    AddStructure(seed, "registry", kOrloRegistry, Seal::kNone, file, 52, {kDataOffset + 65536}, {51, 52, 100, 131072});
    const std::span<const Field> entry = walk.Old() ? std::span<const Field>(kVdiskEntryV6) : kVdiskEntry;
    for (const uint64_t number : {0, 2}) {
      const std::string name = "vdisk" + std::to_string(number);
      const uint64_t root = walk.Root(number);
      std::vector<uint64_t> borders = {root, blocks - 1, blocks, 1ULL << 31, 1ULL << 32, 1ULL << 51, 1ULL << 52};
      AddStructure(seed, name, entry, Seal::kNone, file, 48, {walk.Entry(number)}, borders);
      borders.insert(borders.end(), {1, 2, 254, 255, 339, 340, 341, 510, 511, 0x7FFF, 0x8000, 0x8001, 0x80FE, 0x8153});
      uint64_t block = root;
      for (uint32_t level = 0; !walk.IsLeaf(block); block = walk.Child(block, 0), ++level) {
        AddStructure(seed, name + "/interior" + std::to_string(level),
                     walk.Old() ? std::span<const Field>(kInteriorV6) : kInterior, Seal::kNone, file, kBlock,
                     {OrloWalk::At(block)}, borders);
      }
      AddStructure(seed, name + "/leaf", walk.Old() ? std::span<const Field>(kLeafV6) : kLeaf, Seal::kNone, file,
                   kBlock, {OrloWalk::At(block)}, borders);
      AddStructure(seed, name + "/superblock", kComponentSuperBlk, Seal::kNone, file, 44,
                   {OrloWalk::At(walk.Physical(block))}, {0x10000, 0x20000, 0x40000, 0x80000, 0x100000});
    }
  }
  AddGroupCommands(seed, sample::UuidText(image.Components().at(2).uuid));
}

// The same with a third of it in the write buffer: the log's structures alone, for what lies behind them.
void MakeOrloLog(Seed& seed) {
  sample::OrloGroupImage image({.seed = 2, .disks = 2, .logged = true});
  AddGroupFiles(seed, image.Group().Write(seed.folder));
  const Bytes& ssd = seed.files[0].bytes;
  std::vector<uint64_t> blks;
  for (uint64_t blk = Number(ssd, kDataOffset + 60, 8), last = Number(ssd, kDataOffset + 68, 8); blk <= last; ++blk) {
    blks.push_back(blk);
  }
  AddChain(seed, "plog", blks);
  AddGroupCommands(seed, sample::UuidText(image.Components().at(2).uuid));
}

void MakeEncrypted(Seed& seed) {
  sample::LoggedGroup logged(
      {.seed = 9, .disks = 1, .entries = 60, .diskBytes = 1 << 20, .writeBufferBlks = 256, .oddEntries = false});
  sample::GroupImage& group = logged.Group();
  const sample::Dek dek = sample::MakeDek(1);
  group.Disk(0).Encrypt(dek);
  AddGroupFiles(seed, group.Write(seed.folder));
  AddMetadata(seed);
  AddChain(seed, "plog", logged.Log().PlogBlks());
  const std::string key = seed.folder + "/disk0.key";
  kab_test::WriteFile(key, Bytes(dek.begin(), dek.end()));
  AddGroupCommands(seed, sample::UuidText(sample::MakeUuid(1)),
                   {"--key-file", sample::UuidText(group.Disk(0).uuid()) + "=" + key});
  // The key file last: no disk, but a file that can be short, long or wrong.
  static constexpr Field kKey[] = {{"first", 0, 8}, {"second", 32, 8}};
  seed.files.push_back({key, Bytes(dek.begin(), dek.end())});
  AddStructure(seed, "key", kKey, Seal::kNone, seed.files.size() - 1, 64, {0});
}

void Append(Bytes& bytes, uint64_t value, uint32_t width) {
  bytes.resize(bytes.size() + width);
  PutNumber(bytes.data() + bytes.size() - width, width, value);
}

// A dump of three records, made by its format alone.
void MakeDump(Seed& seed) {
  Bytes raw;
  for (const uint64_t offset : {0, 8192, 1 << 20}) {
    Append(raw, offset, 8);
    Append(raw, 6000, 4);
    for (uint32_t i = 0; i < 6000; ++i) raw.push_back(static_cast<uint8_t>(i * offset >> 7));
  }
  Bytes dump;
  Append(dump, 0xCC0000CC, 4);
  Append(dump, 1, 4);
  Append(dump, 3, 8);
  Append(dump, 4 << 20, 8);
  Append(dump, raw.size(), 8);
  Append(dump, 1700000000000000, 8);
  dump.resize(72);
  if (EVP_Digest(raw.data(), raw.size(), dump.data() + 40, nullptr, EVP_sha256(), nullptr) != 1) {
    throw std::runtime_error("SHA-256 is not available");
  }
  dump.resize(kBlock);
  std::memcpy(dump.data() + 72, "seed.img", 8);
  uLongf length = compressBound(raw.size());
  dump.resize(kBlock + length);
  if (compress(dump.data() + kBlock, &length, raw.data(), raw.size()) != Z_OK) throw std::runtime_error("zlib");
  dump.resize(kBlock + length);

  const std::string path = seed.folder + "/seed.kabdump";
  const std::string image = seed.folder + "/target.img";
  const std::string out = seed.folder + "/out";
  kab_test::WriteFile(path, dump);
  kab_test::WriteFile(image, Bytes(4 << 20));
  seed.files.push_back({path, dump});
  AddStructure(seed, "header", kDumpHeader, Seal::kNone, 0, 200, {0}, {2, 3, 4, 1 << 20, 1ULL << 62});
  static constexpr Field kStream[] = {{"zlibHeader", 0, 2}, {"deflate", 2, 8}};
  AddStructure(seed, "stream", kStream, Seal::kNone, 0, length, {kBlock});
  static constexpr Field kAdler[] = {{"adler32", 0, 4}};
  AddStructure(seed, "end", kAdler, Seal::kNone, 0, 4, {dump.size() - 4});
  seed.commands = {{"verify", {"verify", path}},
                   {"verify --json", {"--json", "verify", path}},
                   {"extract", {"extract", path, out}, out},
                   {"extract --no-verify", {"extract", "--no-verify", path, out}, out},
                   {"extract --in-place", {"extract", "--in-place", path, image}, image, Leaves::kSpoilt},
                   {"info", {"info", path}},
                   {"check", {"check", path}},
                   {"read", {"read", "-r", "0:1", path}},
                   {"dump", {"dump", "-f", "-o", out, path}, out, Leaves::kUnfinished}};
}

constexpr struct {
  const char* name;
  void (*make)(Seed& seed);
} kSeeds[] = {{"log", MakeLog},   {"llog", MakeLlog},        {"dedup", MakeDedup<2>},      {"compress", MakeDedup<1>},
              {"orlo", MakeOrlo}, {"orlo-log", MakeOrloLog}, {"encrypted", MakeEncrypted}, {"dump", MakeDump}};

}  // namespace

uint64_t Number(const Bytes& bytes, uint64_t offset, uint32_t width) {
  uint64_t value = 0;
  for (uint32_t i = 0; i < width; ++i) value |= uint64_t{bytes.at(offset + i)} << (8 * i);
  return value;
}

void PutNumber(uint8_t* bytes, uint32_t width, uint64_t value) {
  for (uint32_t i = 0; i < width; ++i) bytes[i] = static_cast<uint8_t>(value >> (8 * i));
}

std::span<const char* const> SeedNames() {
  static const std::vector<const char*> names = [] {
    std::vector<const char*> all;
    for (const auto& seed : kSeeds) all.push_back(seed.name);
    return all;
  }();
  return names;
}

Seed MakeSeed(const std::string& name, const std::string& folder) {
  for (const auto& known : kSeeds) {
    if (name != known.name) continue;
    Seed seed{.name = name, .folder = folder, .files = {}, .structures = {}, .commands = {}};
    known.make(seed);
    return seed;
  }
  throw std::runtime_error("no such seed: " + name);
}

}  // namespace damage
