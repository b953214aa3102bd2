#pragma once
// What a picture of a group shows: data first, every renderer works on it alone. Bounded whatever the disks say, and
// free of control characters: texts of disks come in through Clean.

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "findings.h"

namespace tool {

constexpr uint64_t kMapCells = 512;           // at most, a strip
constexpr size_t kMapExtents = 4096;          // at most, a disk
constexpr size_t kMapChainSegments = 1024;    // at most, a log
constexpr size_t kMapComponents = 256;        // at most, in the list
constexpr uint64_t kMapFindingsOfCode = 100;  // at most, pinned of each code

/// A part of a disk. All offsets are bytes from the start of the device.
struct MapRegion {
  std::string name;
  const char* kind;  // for colours: gpt, meta, superblock, log, bitmap, xmap, hmap, copy, data, free
  uint64_t offset;
  uint64_t length;
};

/// A strip of equal cells, each with the value of its part of the disk.
struct MapStrip {
  const char* kind;  // allocation, density, newer, held
  std::string name;
  uint64_t offset;
  uint64_t length;
  uint64_t cellSize;          // bytes; the last cell may be shorter
  double scale;               // what a full cell stands for; a few may hold more
  std::vector<double> cells;  // below 0: not known
  std::vector<int> owners;    // slot or component that most of a cell belongs to, -1: none; empty: no owners
};

/// A run of a component's bytes on its disk.
struct MapExtent {
  size_t component;
  uint64_t offset;
  uint64_t length;
};

/// Blocks of a log that follow one another on the SSD.
struct MapSegment {
  uint64_t offset;
  uint64_t blocks;
  uint64_t index;  // of its first block in the chain: 0 is the oldest
  uint64_t entries;
};

/// A log, oldest block first.
struct MapChain {
  std::string log;
  uint64_t blocks = 0;
  uint64_t entries = 0;
  std::optional<uint64_t> firstLsn;
  std::optional<uint64_t> lastLsn;
  std::string end;    // why it ends there
  uint64_t step = 1;  // segments are every so many of those on the disk
  std::vector<MapSegment> segments;
};

struct MapDisk {
  std::string title;  // "SSD", "disk 0"
  std::optional<int> slot;
  std::string uuid;
  std::string path;
  std::string layout;  // log, dedup, compression, orlo, plain
  uint64_t size = 0;
  uint64_t dataOffset = 0;
  uint64_t held = 0;  // bytes whose newest copy is in the write buffer
  unsigned formatVersion = 0;
  bool encrypted = false;
  std::vector<MapRegion> regions;  // cover the device, in order
  std::vector<MapStrip> strips;
  std::vector<MapExtent> extents;  // in order
  uint64_t extentsLeftOut = 0;
  std::vector<MapChain> chains;
};

struct MapComponent {
  std::string uuid;
  size_t disk;
  uint64_t allocated;  // bytes
  uint64_t extents;
  bool whole;
};

struct MapFinding {
  Severity severity;
  std::string code;
  std::optional<size_t> disk;
  std::optional<uint64_t> offset;
  std::string region;  // empty without an offset on a known disk
  std::string text;
  std::string expected;
  std::string found;
};

struct MapModel {
  std::string verdict;  // clean, incomplete, damaged
  bool complete = true;
  uint64_t counts[3] = {};     // findings by severity
  std::vector<MapDisk> disks;  // the SSD first
  std::vector<MapComponent> components;
  uint64_t componentsLeftOut = 0;
  std::vector<MapFinding> findings;         // damage first
  std::map<std::string, uint64_t> leftOut;  // findings by code that were counted only
  std::vector<std::string> notes;
};

/// Spreads byte ranges over the cells of a strip.
class MapRaster {
 public:
  MapRaster(uint64_t offset, uint64_t length);

  /// The part of a range that lies in the raster counts; `owner` is who it belongs to.
  void Add(uint64_t offset, uint64_t length, int owner = -1, uint64_t weight = 1);
  /// As shares of the cells' lengths.
  MapStrip Shares(const char* kind, std::string name, bool withOwners) const;
  /// As ratios of bytes to those of `base`, a raster of the same place; not known where that has none.
  MapStrip Ratios(const char* kind, std::string name, const MapRaster& base) const;

 private:
  struct Cell {
    uint64_t bytes = 0;
    int owner = -1;  // by majority vote
    uint64_t votes = 0;
  };
  MapStrip Empty(const char* kind, std::string name) const;
  uint64_t CellLength(size_t index) const;

  uint64_t offset_;
  uint64_t length_;
  uint64_t cellSize_;
  std::vector<Cell> cells_;
};

/// Valid UTF-8 without control characters, at most 400 bytes.
std::string Clean(const std::string& text);
/// The region that an offset lies in; null beyond the device.
const MapRegion* RegionAt(const MapDisk& disk, uint64_t offset);
/// As docs/schema/map.json says.
Json MapJson(const MapModel& model);

}  // namespace tool
