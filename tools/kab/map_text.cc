// A picture for terminals: a column stands for an equal part of a disk.

#include <fmt/format.h>

#include <algorithm>
#include <cmath>

#include "map_render.h"
#include "progress.h"

namespace tool {
namespace {

constexpr const char* kLevels[] = {"▁", "▂", "▃", "▄", "▅", "▆", "▇", "█"};
constexpr size_t kNameWidth = 12;
constexpr size_t kMostRegions = 24;
constexpr size_t kMostFindings = 40;

// Which letter a component has in the bar; many share one.
std::string Letter(size_t component) { return {static_cast<char>('A' + component % 26)}; }

// Which digit or letter a region has in the bar.
std::string Mark(size_t region) { return {"123456789abcdefghijklmnopqrstuvwxyz"[std::min<size_t>(region, 34)]}; }

class DiskText {
 public:
  DiskText(const MapModel& model, size_t index, size_t width)
      : model_(model), index_(index), disk_(model.disks[index]), width_(width) {}

  std::string Draw() {
    text_ = fmt::format("{}  {}  {}{}{}  {}\n", disk_.title, disk_.uuid, HumanBytes(disk_.size), ", " + disk_.layout,
                        disk_.encrypted ? ", encrypted" : "", disk_.path);
    Pins();
    Line("regions", [this](uint64_t offset, uint64_t length) { return RegionCell(offset, length); });
    for (const char* kind : {"allocation", "density", "newer", "held"}) Strip(kind);
    if (!disk_.extents.empty()) {
      Line("components", [this](uint64_t offset, uint64_t length) { return ExtentCell(offset, length); });
    }
    for (const MapChain& chain : disk_.chains) Chain(chain);
    Regions();
    return text_;
  }

 private:
  template <class Cell>
  void Line(const std::string& name, Cell cell) {
    text_ += fmt::format("{:>{}} ", name, kNameWidth);
    for (size_t i = 0; i < width_; ++i) {
      const uint64_t start = Position(i);
      text_ += cell(start, std::max<uint64_t>(Position(i + 1) - start, 1));
    }
    text_ += "\n";
  }

  // Sizes beyond 2^53 lose bytes that no column shows.
  uint64_t Position(size_t column) const {
    return static_cast<uint64_t>(static_cast<double>(disk_.size) * static_cast<double>(column) /
                                 static_cast<double>(width_));
  }

  void Pins() {
    std::vector<std::string> cells(width_, " ");
    bool any = false;
    for (auto pin = model_.findings.rbegin(); pin != model_.findings.rend(); ++pin) {  // damage last, above the others
      if (pin->disk != index_ || !pin->offset) continue;
      const double share =
          static_cast<double>(std::min(*pin->offset, disk_.size - 1)) / static_cast<double>(disk_.size);
      const auto column = std::min(static_cast<size_t>(share * static_cast<double>(width_)), width_ - 1);
      cells[column] = pin->severity == Severity::kDamage ? "✖" : pin->severity == Severity::kWarning ? "▲" : "•";
      any = true;
    }
    if (!any) return;
    text_ += fmt::format("{:>{}} ", "findings", kNameWidth);
    for (const std::string& cell : cells) text_ += cell;
    text_ += "\n";
  }

  // The mark of the region that most of a column belongs to.
  std::string RegionCell(uint64_t offset, uint64_t length) const {
    size_t best = 0;
    uint64_t most = 0;
    for (size_t i = 0; i < disk_.regions.size(); ++i) {
      const MapRegion& region = disk_.regions[i];
      const uint64_t start = std::max(offset, region.offset);
      const uint64_t end = std::min(offset + length, region.offset + region.length);
      if (start < end && end - start > most) {
        best = i;
        most = end - start;
      }
    }
    return Mark(best);
  }

  void Strip(const char* kind) {
    std::vector<const MapStrip*> strips;
    for (const MapStrip& strip : disk_.strips) {
      if (std::string_view(strip.kind) == kind && !strip.cells.empty()) strips.push_back(&strip);
    }
    if (strips.empty()) return;
    Line(kind, [&strips](uint64_t offset, uint64_t length) -> std::string {
      for (const MapStrip* strip : strips) {
        if (offset + length <= strip->offset || offset >= strip->offset + strip->length) continue;
        const uint64_t from = offset < strip->offset ? 0 : (offset - strip->offset) / strip->cellSize;
        const uint64_t to = (offset + length - 1 - strip->offset) / strip->cellSize;
        double sum = 0;
        size_t known = 0;
        for (uint64_t i = from; i <= to && i < strip->cells.size(); ++i) {
          if (strip->cells[i] < 0) continue;
          sum += strip->cells[i];
          ++known;
        }
        if (known == 0) return " ";
        const double share = sum / static_cast<double>(known) / strip->scale;
        return share <= 0 ? "·" : kLevels[std::min<size_t>(static_cast<size_t>(share * 8), 7)];
      }
      return " ";
    });
  }

  std::string ExtentCell(uint64_t offset, uint64_t length) const {
    const MapExtent* best = nullptr;
    uint64_t most = 0;
    for (const MapExtent& extent : disk_.extents) {
      if (extent.offset >= offset + length) break;
      const uint64_t start = std::max(offset, extent.offset);
      const uint64_t end = std::min(offset + length, extent.offset + extent.length);
      if (start >= end || end - start <= most) continue;
      best = &extent;
      most = end - start;
    }
    return best != nullptr ? Letter(best->component) : "·";
  }

  // Age as height: the newest blocks stand tallest.
  void Chain(const MapChain& chain) {
    if (chain.segments.empty()) return;
    Line(chain.log + " age", [&chain](uint64_t offset, uint64_t length) -> std::string {
      const MapSegment* newest = nullptr;
      for (const MapSegment& segment : chain.segments) {
        if (segment.offset < offset + length && segment.offset + segment.blocks * 4096 > offset) newest = &segment;
      }
      if (newest == nullptr) return " ";
      // The part of a long segment that the column shows.
      const uint64_t within = offset > newest->offset ? (offset - newest->offset) / 4096 : 0;
      return kLevels[std::min<uint64_t>((newest->index + within) * 8 / chain.blocks, 7)];
    });
  }

  void Regions() {
    for (size_t i = 0; i < disk_.regions.size() && i < kMostRegions; ++i) {
      const MapRegion& region = disk_.regions[i];
      text_ +=
          fmt::format("{:>{}} {:<30} {:>15} {:>15}\n", Mark(i), kNameWidth, region.name, region.offset, region.length);
    }
    for (const MapStrip& strip : disk_.strips) {
      if (strip.cells.empty()) continue;
      text_ += fmt::format("{:>{}} {}{}\n", strip.kind, kNameWidth, strip.name,
                           strip.scale > 1 ? fmt::format(", full from {:.1f} on", strip.scale) : "");
    }
    for (const MapChain& chain : disk_.chains) {
      text_ += fmt::format("{:>{}} {} blocks, {} entries", chain.log, kNameWidth, chain.blocks, chain.entries);
      if (chain.firstLsn) text_ += fmt::format(", LSN {} to {}", *chain.firstLsn, *chain.lastLsn);
      text_ += ": " + chain.end + "\n";
    }
    if (disk_.held != 0) {
      text_ += fmt::format("{:>{}} {} have their newest copy in the write buffer\n", "newer", kNameWidth,
                           HumanBytes(disk_.held));
    }
  }

  const MapModel& model_;
  size_t index_;
  const MapDisk& disk_;
  size_t width_;
  std::string text_;
};

std::string FindingLine(const MapModel& model, const MapFinding& finding) {
  std::string line = fmt::format("  {:<7} {}", SeverityName(finding.severity), finding.code);
  if (finding.disk) line += " " + model.disks[*finding.disk].title;
  if (finding.offset) line += fmt::format(" at {} ({})", *finding.offset, finding.region);
  line += ": " + finding.text;
  if (!finding.expected.empty() || !finding.found.empty()) {
    line += fmt::format(" (expected {}, found {})", finding.expected, finding.found);
  }
  return line + "\n";
}

}  // namespace

std::string MapText(const MapModel& model, unsigned columns) {
  const size_t width = std::max(columns, 40U) - kNameWidth - 1;
  std::string text = fmt::format("{}: {} damage, {} warnings, {} notes{}\n\n", model.verdict, model.counts[2],
                                 model.counts[1], model.counts[0], model.complete ? "" : "; not all could be checked");
  for (size_t i = 0; i < model.disks.size(); ++i) text += DiskText(model, i, width).Draw() + "\n";
  if (!model.components.empty()) text += "Components\n";
  for (size_t i = 0; i < model.components.size(); ++i) {
    const MapComponent& component = model.components[i];
    text += fmt::format("  {} {}  {}, {} in {} runs{}\n", Letter(i), component.uuid, model.disks[component.disk].title,
                        HumanBytes(component.allocated), component.extents, component.whole ? "" : ", map broken");
  }
  if (model.componentsLeftOut != 0) text += fmt::format("  and {} more\n", model.componentsLeftOut);
  if (!model.findings.empty()) text += "Findings\n";
  for (size_t i = 0; i < model.findings.size() && i < kMostFindings; ++i) {
    text += FindingLine(model, model.findings[i]);
  }
  if (model.findings.size() > kMostFindings) {
    text += fmt::format("  and {} more: kab check lists them all\n", model.findings.size() - kMostFindings);
  }
  for (const auto& [code, count] : model.leftOut) text += fmt::format("  and {} more of {}\n", count, code);
  for (const std::string& note : model.notes) text += "  note: " + note + "\n";
  return text;
}

}  // namespace tool
