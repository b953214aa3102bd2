// A picture as one image. Each disk has two bars: one in which every region can be seen, and one to scale, under which
// the strips and the paths of the logs lie.

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <iterator>

#include "map_page.h"
#include "map_render.h"
#include "progress.h"

namespace tool {
namespace {

constexpr double kWidth = 1200;
constexpr double kLeft = 150;  // lane names
constexpr double kRight = 24;
constexpr double kBar = kWidth - kLeft - kRight;
constexpr double kBarHeight = 26;
constexpr double kLaneHeight = 14;
constexpr double kLaneGap = 6;
constexpr double kChainHeight = 64;
constexpr double kFan = 16;    // height of what leads from a bar to its magnification
constexpr double kLeast = 22;  // a region's width in the bar that is not to scale
constexpr uint64_t kBlock = 4096;
constexpr int kLevels = 8;
constexpr size_t kColours = 12;
constexpr size_t kMostRows = 16;  // of the lists below

constexpr const char* kStyle =
    "text{font-family:system-ui,sans-serif;font-size:12px;fill:var(--ink)}"
    ".t{font-size:15px;font-weight:600}.h{font-size:20px;font-weight:650}.m{fill:var(--muted)}"
    ".b{fill:var(--bg)}.l{font-size:10.5px;fill:var(--on)}.d{fill:var(--ink)}"
    ".edge{stroke:var(--bg);stroke-width:1}.fan{fill:var(--line);opacity:.45}"
    ".path{fill:none;stroke-width:2.4;stroke-linecap:round;stroke-linejoin:round}"
    ".jump{fill:none;stroke:var(--muted);stroke-width:.7;stroke-dasharray:2 3;opacity:.7}"
    ".pin{stroke:var(--bg);stroke-width:1}";

std::string Xml(const std::string& text) {
  std::string safe;
  for (const char c : text) {
    switch (c) {
      case '&':
        safe += "&amp;";
        break;
      case '<':
        safe += "&lt;";
        break;
      case '>':
        safe += "&gt;";
        break;
      case '"':
        safe += "&quot;";
        break;
      default:
        safe += c;
    }
  }
  return safe;
}

// Whether labels on a kind's colour are light.
bool IsDeep(std::string_view kind) {
  return kind == "meta" || kind == "superblock" || kind == "bitmap" || kind == "xmap" || kind == "hmap";
}

class Canvas {
 public:
  template <class... Args>
  void Put(fmt::format_string<Args...> format, Args&&... args) {
    fmt::format_to(std::back_inserter(text_), format, std::forward<Args>(args)...);
  }
  void Text(double x, double y, const char* classes, const std::string& text, const char* anchor = "start") {
    Put("<text x=\"{:.1f}\" y=\"{:.1f}\" class=\"{}\" text-anchor=\"{}\">{}</text>\n", x, y, classes, anchor,
        Xml(text));
  }
  const std::string& text() const { return text_; }

 private:
  std::string text_;
};

class DiskImage {
 public:
  DiskImage(Canvas& canvas, const MapModel& model, size_t index, double top)
      : canvas_(canvas), model_(model), index_(index), disk_(model.disks[index]), y_(top) {}

  /// Where the next disk begins.
  double Draw() {
    canvas_.Put("<g role=\"group\" aria-label=\"{} {}\">\n", Xml(disk_.title), Xml(disk_.uuid));
    canvas_.Text(kLeft, y_ + 14, "t", Title());
    canvas_.Text(kWidth - kRight, y_ + 14, "m", disk_.uuid, "end");
    y_ += 26;
    Widths();
    Pins();
    Magnified();
    ToScale();
    for (const char* kind : {"allocation", "density", "newer", "held"}) Strips(kind);
    if (!disk_.extents.empty()) Extents();
    for (const MapChain& chain : disk_.chains) Chain(chain);
    canvas_.Put("</g>\n");
    return y_ + 26;
  }

 private:
  std::string Title() const {
    return fmt::format("{}  ·  {}  ·  {}{}", disk_.title, HumanBytes(disk_.size), disk_.layout,
                       disk_.encrypted ? "  ·  encrypted" : "");
  }

  double X(uint64_t offset) const {
    const double share = static_cast<double>(offset) / static_cast<double>(disk_.size);
    return kLeft + kBar * std::min(share, 1.0);
  }

  static double Root(const MapRegion& region) { return std::pow(static_cast<double>(region.length), 0.25); }

  // Every region gets its least width, the rest is shared out by the fourth root of size.
  void Widths() {
    double roots = 0;
    for (const MapRegion& region : disk_.regions) roots += Root(region);
    const auto count = static_cast<double>(disk_.regions.size());
    const double least = std::min(kLeast, kBar / std::max(count, 1.0));
    double x = kLeft;
    for (const MapRegion& region : disk_.regions) {
      starts_.push_back(x);
      x += least + (kBar - least * count) * Root(region) / roots;
    }
    starts_.push_back(x);
  }

  // In the bar that is not to scale.
  double MagnifiedX(uint64_t offset) const {
    for (size_t i = 0; i < disk_.regions.size(); ++i) {
      const MapRegion& region = disk_.regions[i];
      if (offset < region.offset || offset - region.offset >= region.length) continue;
      const double share = static_cast<double>(offset - region.offset) / static_cast<double>(region.length);
      return starts_[i] + share * (starts_[i + 1] - starts_[i]);
    }
    return kLeft + kBar;
  }

  void Pins() {
    bool any = false;
    for (auto pin = model_.findings.rbegin(); pin != model_.findings.rend(); ++pin) {  // damage on top
      if (pin->disk != index_ || !pin->offset) continue;
      if (!any) {
        canvas_.Text(kLeft - 10, y_ + 12, "m", "findings", "end");
        any = true;
      }
      const char* name = SeverityName(pin->severity);
      const char* shape = pin->severity == Severity::kDamage    ? "M0 0l-7-14h14z"
                          : pin->severity == Severity::kWarning ? "M0 0l-6-7 6-7 6 7z"
                                                                : "M0 0v-5m-4-4a4 4 0 1 0 8 0a4 4 0 1 0-8 0z";
      canvas_.Put(
          "<path transform=\"translate({:.1f} {:.1f})\" class=\"pin f-{}\" role=\"img\" d=\"{}\" "
          "aria-label=\"{} {}\"><title>{} {} at {} ({}): {}</title></path>\n",
          MagnifiedX(*pin->offset), y_ + 16, name, shape, name, Xml(pin->code), name, Xml(pin->code), *pin->offset,
          Xml(pin->region), Xml(pin->text));
    }
    y_ += any ? 18 : 2;
  }

  void Magnified() {
    canvas_.Text(kLeft - 10, y_ + 17, "m", "regions", "end");
    for (size_t i = 0; i < disk_.regions.size(); ++i) {
      const MapRegion& region = disk_.regions[i];
      const double width = starts_[i + 1] - starts_[i];
      canvas_.Put(
          "<rect x=\"{:.1f}\" y=\"{:.1f}\" width=\"{:.1f}\" height=\"{}\" rx=\"3\" class=\"edge k-{}\" role=\"img\" "
          "aria-label=\"{}\"><title>{}: {} from {}</title></rect>\n",
          starts_[i], y_, width, kBarHeight, region.kind, Xml(region.name), Xml(region.name), HumanBytes(region.length),
          region.offset);
      // About six pixels a letter; what does not fit is left to the title and the list.
      const auto fits = static_cast<size_t>(std::max(0.0, (width - 8) / 5.8));
      std::string label = region.name;
      if (label.size() > fits) label = fits >= 5 ? label.substr(0, fits - 1) + "…" : "";
      if (!label.empty()) {
        canvas_.Text(starts_[i] + width / 2, y_ + 17, IsDeep(region.kind) ? "l" : "l d", label, "middle");
      }
    }
    y_ += kBarHeight;
  }

  void ToScale() {
    const double top = y_;
    const double bottom = y_ + kFan;
    for (size_t i = 0; i < disk_.regions.size(); i += 2) {
      const MapRegion& region = disk_.regions[i];
      canvas_.Put("<path class=\"fan\" d=\"M{:.1f} {:.1f}H{:.1f}L{:.1f} {:.1f}H{:.1f}z\"/>\n", starts_[i], top,
                  starts_[i + 1], X(region.offset + region.length), bottom, X(region.offset));
    }
    y_ = bottom;
    canvas_.Text(kLeft - 10, y_ + 11, "m", "to scale", "end");
    for (const MapRegion& region : disk_.regions) {
      canvas_.Put("<rect x=\"{:.2f}\" y=\"{:.1f}\" width=\"{:.2f}\" height=\"{}\" class=\"k-{}\"/>\n", X(region.offset),
                  y_, std::max(X(region.offset + region.length) - X(region.offset), 0.6), kLaneHeight, region.kind);
    }
    y_ += kLaneHeight + kLaneGap;
  }

  void Lane(const std::string& name) {
    canvas_.Text(kLeft - 10, y_ + 11, "m", name, "end");
    canvas_.Put("<rect x=\"{}\" y=\"{:.1f}\" width=\"{}\" height=\"{}\" rx=\"2\" class=\"lane\"/>\n", kLeft, y_, kBar,
                kLaneHeight);
  }

  void Strips(std::string_view kind) {
    bool any = false;
    for (const MapStrip& strip : disk_.strips) {
      if (kind != strip.kind || strip.cells.empty()) continue;
      if (!any) Lane(strip.scale > 1 ? fmt::format("{} (to {:.1f})", kind, strip.scale) : strip.kind);
      any = true;
      Strip(strip);
    }
    if (any) y_ += kLaneHeight + kLaneGap;
  }

  // One path for each level, runs of equal cells in one piece.
  void Strip(const MapStrip& strip) {
    struct Key {
      int level;
      int owner;
      bool operator==(const Key&) const = default;
      auto operator<=>(const Key&) const = default;
    };
    const auto keyOf = [&strip](size_t i) -> Key {
      if (strip.cells[i] <= 0) return {0, -1};
      const int level = std::clamp(static_cast<int>(std::ceil(strip.cells[i] / strip.scale * kLevels)), 1, kLevels);
      return {level, strip.owners.empty() ? -1 : strip.owners[i]};
    };
    std::map<Key, std::string> paths;
    for (size_t i = 0, next = 0; i < strip.cells.size(); i = next) {
      const Key key = keyOf(i);
      for (next = i + 1; next < strip.cells.size() && keyOf(next) == key;) ++next;
      if (key.level == 0) continue;
      const double from = X(strip.offset + i * strip.cellSize);
      const double to = X(std::min(strip.offset + next * strip.cellSize, strip.offset + strip.length));
      paths[key] += fmt::format("M{:.1f} {:.1f}h{:.1f}v{}h-{:.1f}z", from, y_, std::max(to - from, 0.3), kLaneHeight,
                                std::max(to - from, 0.3));
    }
    canvas_.Put("<g role=\"img\" aria-label=\"{}\"><title>{}</title>\n", Xml(strip.name), Xml(strip.name));
    for (const auto& [key, path] : paths) {
      const std::string colour = key.owner < 0 ? fmt::format("s-{}", strip.kind)
                                               : fmt::format("c{}", static_cast<size_t>(key.owner) % kColours);
      canvas_.Put("<path class=\"{}\" opacity=\"{:.2f}\" d=\"{}\"/>\n", colour, 0.2 + 0.8 * key.level / kLevels, path);
    }
    canvas_.Put("</g>\n");
  }

  // Runs nearer than a pixel are one: a few thousand would not be told apart.
  void Extents() {
    Lane("components");
    std::map<size_t, std::string> paths;
    size_t last = 0;
    double end = -1;
    for (const MapExtent& extent : disk_.extents) {
      const double from = X(extent.offset);
      const double to = std::max(X(extent.offset + extent.length), from + 0.4);
      if (extent.component == last && to <= end) continue;
      paths[extent.component] +=
          fmt::format("M{:.1f} {:.1f}h{:.1f}v{}h-{:.1f}z", from, y_, to - from, kLaneHeight, to - from);
      last = extent.component;
      end = to;
    }
    for (const auto& [component, path] : paths) {
      const std::string& uuid = model_.components[component].uuid;
      canvas_.Put(
          "<path class=\"c{}\" role=\"img\" aria-label=\"component {}\" d=\"{}\"><title>component {}</title></path>\n",
          component % kColours, Xml(uuid), path, Xml(uuid));
    }
    y_ += kLaneHeight + kLaneGap;
  }

  // Place from left to right, age from top to bottom; the lane is spread over the part of the disk that the log uses.
  void Chain(const MapChain& chain) {
    if (chain.segments.empty()) return;
    uint64_t first = disk_.size;
    uint64_t last = 0;
    for (const MapSegment& segment : chain.segments) {
      first = std::min(first, segment.offset);
      last = std::max(last, segment.offset + segment.blocks * kBlock);
    }
    canvas_.Put("<path class=\"fan\" d=\"M{:.1f} {:.1f}H{:.1f}L{:.1f} {:.1f}H{}z\"/>\n", X(first), y_ - kLaneGap,
                std::max(X(last), X(first) + 1), kLeft + kBar, y_ + kFan, kLeft);
    y_ += kFan;
    const double top = y_ + 18;
    const auto xOf = [&](uint64_t offset) {
      return kLeft + 10 + (kBar - 20) * static_cast<double>(offset - first) / static_cast<double>(last - first);
    };
    const auto yOf = [&](uint64_t index) {
      return top + kChainHeight * static_cast<double>(index) / static_cast<double>(std::max<uint64_t>(chain.blocks, 1));
    };
    canvas_.Text(kLeft - 10, top + 4, "m", chain.log + ", oldest", "end");
    canvas_.Text(kLeft - 10, top + kChainHeight, "m", "newest", "end");
    canvas_.Put("<rect x=\"{}\" y=\"{:.1f}\" width=\"{}\" height=\"{}\" rx=\"2\" class=\"lane\"/>\n", kLeft, y_, kBar,
                kChainHeight + 26);
    const std::string id = fmt::format("age{}{}", index_, chain.log);
    canvas_.Put(
        "<linearGradient id=\"{}\" gradientUnits=\"userSpaceOnUse\" x1=\"0\" x2=\"0\" y1=\"{:.1f}\" y2=\"{:.1f}\">"
        "<stop offset=\"0\" style=\"stop-color:var(--old)\"/><stop offset=\"1\" style=\"stop-color:var(--new)\"/>"
        "</linearGradient>\n",
        id, top, top + kChainHeight);
    std::string runs;
    std::string jumps;
    for (size_t i = 0; i < chain.segments.size(); ++i) {
      const MapSegment& segment = chain.segments[i];
      const double toX = xOf(segment.offset + segment.blocks * kBlock);
      const double toY = yOf(segment.index + segment.blocks);
      runs += fmt::format("M{:.1f} {:.1f}L{:.1f} {:.1f}", xOf(segment.offset), yOf(segment.index), toX, toY);
      if (i + 1 < chain.segments.size()) {
        const MapSegment& next = chain.segments[i + 1];
        jumps += fmt::format("M{:.1f} {:.1f}L{:.1f} {:.1f}", toX, toY, xOf(next.offset), yOf(next.index));
      }
    }
    const std::string label =
        fmt::format("{}: {} blocks, {} entries; {}", chain.log, chain.blocks, chain.entries, chain.end);
    canvas_.Put(
        "<g role=\"img\" aria-label=\"{}\"><title>{}</title><path class=\"jump\" d=\"{}\"/>"
        "<path class=\"path\" stroke=\"url(#{})\" d=\"{}\"/></g>\n",
        Xml(label), Xml(label), jumps, id, runs);
    canvas_.Text(kLeft + kBar - 8, y_ + 15, "m", label, "end");
    canvas_.Text(kLeft + 8, top + kChainHeight, "m", fmt::format("{} to {}", first, last));
    y_ += kChainHeight + 26 + kLaneGap;
  }

  Canvas& canvas_;
  const MapModel& model_;
  size_t index_;
  const MapDisk& disk_;
  double y_;
  std::vector<double> starts_;
};

// What the colours of regions stand for.
double Legend(Canvas& canvas, double y) {
  constexpr std::pair<const char*, const char*> kKinds[] = {
      {"gpt", "partition tables"}, {"meta", "metadata"},        {"superblock", "superblocks, checkpoints"},
      {"bitmap", "bitmaps"},       {"xmap", "translation map"}, {"hmap", "hash map"},
      {"copy", "second copy"},     {"log", "write buffer"},     {"data", "data"}};
  double x = kLeft;
  for (const auto& [kind, name] : kKinds) {
    canvas.Put("<rect x=\"{:.1f}\" y=\"{:.1f}\" width=\"11\" height=\"11\" rx=\"2\" class=\"k-{}\"/>\n", x, y - 10,
               kind);
    canvas.Text(x + 16, y, "m", name);
    x += 36 + 6.3 * static_cast<double>(std::string_view(name).size());
  }
  return y + 28;
}

double ComponentList(Canvas& canvas, const MapModel& model, double y) {
  if (model.components.empty()) return y;
  canvas.Text(kLeft, y + 12, "t", "Components");
  y += 24;
  const size_t shown = std::min(model.components.size(), kMostRows);
  for (size_t i = 0; i < shown; ++i) {
    const MapComponent& component = model.components[i];
    const double x = kLeft + (i % 2 == 0 ? 0 : kBar / 2);
    canvas.Put("<rect x=\"{:.1f}\" y=\"{:.1f}\" width=\"12\" height=\"12\" rx=\"2\" class=\"c{}\"/>\n", x, y,
               i % kColours);
    canvas.Text(x + 20, y + 10, "",
                fmt::format("{}  {}, {}{}", component.uuid, model.disks[component.disk].title,
                            HumanBytes(component.allocated), component.whole ? "" : ", map broken"));
    if (i % 2 != 0 || i + 1 == shown) y += 20;
  }
  const uint64_t more = model.components.size() - shown + model.componentsLeftOut;
  if (more != 0) {
    canvas.Text(kLeft, y + 10, "m", fmt::format("and {} more", more));
    y += 20;
  }
  return y + 12;
}

double FindingList(Canvas& canvas, const MapModel& model, double y) {
  if (model.findings.empty()) return y;
  canvas.Text(kLeft, y + 12, "t", "Findings");
  y += 24;
  const size_t shown = std::min(model.findings.size(), kMostRows);
  for (size_t i = 0; i < shown; ++i) {
    const MapFinding& finding = model.findings[i];
    std::string line = finding.code + "  " + (finding.disk ? model.disks[*finding.disk].title : std::string("group"));
    if (finding.offset) line += fmt::format(" at {}, {}", *finding.offset, finding.region);
    line += ": " + finding.text;
    if (line.size() > 150) line = Clean(line.substr(0, 148)) + "…";
    canvas.Put("<circle cx=\"{}\" cy=\"{:.1f}\" r=\"5\" class=\"f-{}\"/>\n", kLeft + 6, y + 6,
               SeverityName(finding.severity));
    canvas.Text(kLeft + 20, y + 10, "", line);
    y += 20;
  }
  if (model.findings.size() > shown) {
    canvas.Text(kLeft, y + 10, "m",
                fmt::format("and {} more: kab check lists them all", model.findings.size() - shown));
    y += 20;
  }
  return y + 12;
}

}  // namespace

std::string MapSvg(const MapModel& model) {
  Canvas canvas;
  const std::string summary = fmt::format("{} damage, {} warnings, {} notes{}", model.counts[2], model.counts[1],
                                          model.counts[0], model.complete ? "" : "; not all could be checked");
  canvas.Text(kLeft, 36, "h", "Disk group: " + model.verdict);
  canvas.Text(kWidth - kRight, 36, "m", summary, "end");
  double y = Legend(canvas, 62);
  for (size_t i = 0; i < model.disks.size(); ++i) y = DiskImage(canvas, model, i, y).Draw();
  y = ComponentList(canvas, model, y);
  y = FindingList(canvas, model, y);
  for (const std::string& note : model.notes) {
    canvas.Text(kLeft, y + 10, "m", note);
    y += 18;
  }
  return fmt::format(
             "<svg xmlns=\"http://www.w3.org/2000/svg\" viewBox=\"0 0 {} {:.0f}\" width=\"{}\" height=\"{:.0f}\" "
             "role=\"graphics-document document\" aria-labelledby=\"title desc\">\n"
             "<title id=\"title\">Map of a disk group: {}</title><desc id=\"desc\">{}</desc>\n<style>{}{}</style>\n"
             "<rect width=\"100%\" height=\"100%\" class=\"b\"/>\n",
             kWidth, y + 16, kWidth, y + 16, model.verdict, summary, kMapPalette, kStyle) +
         canvas.text() + "</svg>\n";
}

}  // namespace tool
