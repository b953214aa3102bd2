#include "map_model.h"

#include <algorithm>
#include <cmath>
#include <utility>

namespace tool {
namespace {

constexpr uint64_t kGrain = 4096;  // cells are whole blocks
constexpr size_t kMostText = 400;

template <class T>
Json OrNull(const std::optional<T>& value) {
  return value ? Json(*value) : Json(nullptr);
}

// Four digits are more than a cell can show.
Json CellJson(double value) { return value < 0 ? Json(nullptr) : Json(std::round(value * 1000) / 1000); }

Json StripJson(const MapStrip& strip) {
  Json object = {{"kind", strip.kind},     {"name", strip.name},         {"offset", strip.offset},
                 {"length", strip.length}, {"cellSize", strip.cellSize}, {"scale", CellJson(strip.scale)}};
  object["cells"] = Json::array();
  for (const double value : strip.cells) object["cells"].push_back(CellJson(value));
  object["owners"] = strip.owners;
  return object;
}

Json ChainJson(const MapChain& chain) {
  Json object = {{"log", chain.log},
                 {"blocks", chain.blocks},
                 {"entries", chain.entries},
                 {"firstLsn", OrNull(chain.firstLsn)},
                 {"lastLsn", OrNull(chain.lastLsn)},
                 {"end", chain.end},
                 {"step", chain.step}};
  object["segments"] = Json::array();
  for (const MapSegment& segment : chain.segments) {
    object["segments"].push_back({{"offset", segment.offset},
                                  {"blocks", segment.blocks},
                                  {"index", segment.index},
                                  {"entries", segment.entries}});
  }
  return object;
}

Json DiskJson(const MapDisk& disk) {
  Json object = {{"title", disk.title},
                 {"slot", OrNull(disk.slot)},
                 {"uuid", disk.uuid},
                 {"path", disk.path},
                 {"layout", disk.layout},
                 {"size", disk.size},
                 {"dataOffset", disk.dataOffset},
                 {"held", disk.held},
                 {"formatVersion", disk.formatVersion},
                 {"encrypted", disk.encrypted}};
  object["regions"] = Json::array();
  for (const MapRegion& region : disk.regions) {
    object["regions"].push_back(
        {{"name", region.name}, {"kind", region.kind}, {"offset", region.offset}, {"length", region.length}});
  }
  object["strips"] = Json::array();
  for (const MapStrip& strip : disk.strips) object["strips"].push_back(StripJson(strip));
  object["extents"] = Json::array();
  for (const MapExtent& extent : disk.extents) {
    object["extents"].push_back(
        {{"component", extent.component}, {"offset", extent.offset}, {"length", extent.length}});
  }
  object["extentsLeftOut"] = disk.extentsLeftOut;
  object["chains"] = Json::array();
  for (const MapChain& chain : disk.chains) object["chains"].push_back(ChainJson(chain));
  return object;
}

Json FindingJson(const MapFinding& finding) {
  return {{"code", finding.code},         {"severity", SeverityName(finding.severity)},
          {"disk", OrNull(finding.disk)}, {"offset", OrNull(finding.offset)},
          {"region", finding.region},     {"text", finding.text},
          {"expected", finding.expected}, {"found", finding.found}};
}

}  // namespace

MapRaster::MapRaster(uint64_t offset, uint64_t length) : offset_(offset), length_(length) {
  const uint64_t share = length / kMapCells + (length % kMapCells != 0 ? 1 : 0);
  cellSize_ = std::max(kGrain, (share + kGrain - 1) / kGrain * kGrain);
  cells_.resize(length / cellSize_ + (length % cellSize_ != 0 ? 1 : 0));
}

uint64_t MapRaster::CellLength(size_t index) const { return std::min(cellSize_, length_ - index * cellSize_); }

void MapRaster::Add(uint64_t offset, uint64_t length, int owner, uint64_t weight) {
  const uint64_t start = std::max(offset, offset_);
  const uint64_t before = start - offset;
  if (before >= length || start - offset_ >= length_) return;
  uint64_t at = start - offset_;
  const uint64_t end = at + std::min(length - before, length_ - at);
  while (at < end) {
    const size_t index = at / cellSize_;
    const uint64_t piece = std::min(end, (index + 1) * cellSize_) - at;
    Cell& cell = cells_[index];
    cell.bytes += piece * weight;
    if (cell.owner == owner) {
      cell.votes += piece;
    } else if (cell.votes < piece) {
      cell.owner = owner;
      cell.votes = piece - cell.votes;
    } else {
      cell.votes -= piece;
    }
    at += piece;
  }
}

MapStrip MapRaster::Empty(const char* kind, std::string name) const {
  return {kind, std::move(name), offset_, length_, cellSize_, 1, {}, {}};
}

MapStrip MapRaster::Shares(const char* kind, std::string name, bool withOwners) const {
  MapStrip strip = Empty(kind, std::move(name));
  for (size_t i = 0; i < cells_.size(); ++i) {
    const double share = static_cast<double>(cells_[i].bytes) / static_cast<double>(CellLength(i));
    strip.cells.push_back(std::min(share, 1.0));  // what is placed twice counts once
    if (withOwners) strip.owners.push_back(cells_[i].bytes != 0 ? cells_[i].owner : -1);
  }
  return strip;
}

MapStrip MapRaster::Ratios(const char* kind, std::string name, const MapRaster& base) const {
  MapStrip strip = Empty(kind, std::move(name));
  std::vector<double> known;
  for (size_t i = 0; i < cells_.size(); ++i) {
    const uint64_t stored = base.cells_[i].bytes;
    const double ratio = static_cast<double>(cells_[i].bytes) / static_cast<double>(stored);
    strip.cells.push_back(stored != 0 ? ratio : -1);
    if (stored != 0) known.push_back(ratio);
  }
  if (known.empty()) return strip;
  // A few blocks that all share, zeros above all, must not dim the rest.
  const auto most = known.begin() + static_cast<std::ptrdiff_t>(known.size() * 19 / 20);
  std::nth_element(known.begin(), most, known.end());
  strip.scale = std::max(1.0, *most);
  return strip;
}

std::string Clean(const std::string& text) {
  // The serialiser knows what is not UTF-8; a text cut within a character is mended as well.
  const Json mended = Json::parse(Json(text.substr(0, kMostText)).dump(-1, ' ', false, Json::error_handler_t::replace));
  std::string clean = mended.get<std::string>();
  for (size_t i = 0; i < clean.size(); ++i) {
    const auto byte = static_cast<unsigned char>(clean[i]);
    const auto next = i + 1 < clean.size() ? static_cast<unsigned char>(clean[i + 1]) : 0U;
    if (byte < 0x20 || byte == 0x7f) {
      clean[i] = ' ';
    } else if (byte == 0xc2 && next < 0xa0) {  // the second set of control characters
      clean.replace(i, 2, "  ");
    } else if (byte == 0xef && next == 0xbf && static_cast<unsigned char>(clean[i + 2]) >= 0xbe) {  // no characters
      clean.replace(i, 3, "   ");
    }
  }
  return clean;
}

const MapRegion* RegionAt(const MapDisk& disk, uint64_t offset) {
  for (const MapRegion& region : disk.regions) {
    if (offset >= region.offset && offset - region.offset < region.length) return &region;
  }
  return nullptr;
}

Json MapJson(const MapModel& model) {
  Json object = Tool::Header("map");
  object["verdict"] = model.verdict;
  object["complete"] = model.complete;
  for (const Severity severity : {Severity::kInfo, Severity::kWarning, Severity::kDamage}) {
    object["counts"][SeverityName(severity)] = model.counts[static_cast<size_t>(severity)];
  }
  object["disks"] = Json::array();
  for (const MapDisk& disk : model.disks) object["disks"].push_back(DiskJson(disk));
  object["components"] = Json::array();
  for (const MapComponent& component : model.components) {
    object["components"].push_back({{"uuid", component.uuid},
                                    {"disk", component.disk},
                                    {"allocated", component.allocated},
                                    {"extents", component.extents},
                                    {"whole", component.whole}});
  }
  object["componentsLeftOut"] = model.componentsLeftOut;
  object["findings"] = Json::array();
  for (const MapFinding& finding : model.findings) object["findings"].push_back(FindingJson(finding));
  object["findingsLeftOut"] = Json::object();
  for (const auto& [code, count] : model.leftOut) object["findingsLeftOut"][code] = count;
  object["notes"] = model.notes;
  return object;
}

}  // namespace tool
