// kab read: bytes of one disk, decrypted, as they are or as a hex listing.

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <memory>

#include "as_group.h"
#include "commands.h"
#include "dump_file.h"
#include "group.h"
#include "kab/ddp.h"
#include "out_file.h"
#include "ranges.h"
#include "view.h"

namespace tool {
namespace {

constexpr const char* kDetails =
    "OFF and LEN are bytes, 0x... or with K, M, G, T (powers of 1024) or s (sectors of 512); an empty LEN goes to the\n"
    "disk's end. The bytes go to stdout (also -o -) or to a file; on a terminal, or with --hex, as a listing. With\n"
    "--json each line is an object with up to 4096 bytes as hexadecimal digits.\n\n"
    "--logical reads what a disk's dedup layer holds: OFF counts logical bytes, and what is not mapped is zero.\n"
    "With --as-group the log is replayed first, OFF counts from the start of the data area (on a dedup disk: of the\n"
    "logical bytes), and the newest copy of every byte is read; --explain tells for every piece where that copy is.\n\n"
    "Examples:\n"
    "  kab read --range 1M:4K --hex ssd.img\n"
    "  kab read --as-group --explain --disk 1 --range 0: ssd.img disk0.img disk1.img\n"
    "  kab read --disk 1 --range 3M:1M -o data.bin --key-file UUID=disk1.key ssd.img disk0.img disk1.img\n";

constexpr uint64_t kPiece = 1 << 20;
constexpr uint64_t kJsonPiece = 4096;

struct Options {
  GroupOptions group;
  std::vector<std::string> ranges;
  std::string out = "-";
  bool hex = false;
  bool logical = false;
  bool force = false;
  bool asGroup = false;
  bool explain = false;
};

/// Reads a piece into a buffer; a library status.
using Reader = std::function<uint32_t(void* buffer, uint32_t length, uint64_t offset)>;
using Writer = std::function<void(const std::vector<uint8_t>& bytes, uint64_t offset)>;

void ForEachPiece(const KABDiskCtx& disk, const Range& range, uint64_t pieceSize, const Reader& reader,
                  Progress& progress, const Writer& writer) {
  std::vector<uint8_t> buffer;
  for (uint64_t done = 0; done < range.length;) {
    StopIfInterrupted();
    const uint64_t offset = range.offset + done;
    buffer.resize(std::min(range.length - done, pieceSize));
    const uint32_t status = reader(buffer.data(), static_cast<uint32_t>(buffer.size()), offset);
    if (status != KAB_OK) {
      throw Failure(ExitOfStatus(status), fmt::format("reading {} bytes at {} of disk {}: {}", buffer.size(), offset,
                                                      disk.uuidText, StatusText(status)));
    }
    writer(buffer, offset);
    progress.Add(buffer.size());
    done += buffer.size();
  }
}

std::string HexListing(const std::vector<uint8_t>& bytes, uint64_t offset) {
  std::string text;
  for (size_t line = 0; line < bytes.size(); line += 16) {
    const size_t count = std::min<size_t>(16, bytes.size() - line);
    text += fmt::format("{:012x} ", offset + line);
    for (size_t i = 0; i < 16; i++) {
      if (i == 8) text += ' ';
      text += i < count ? fmt::format(" {:02x}", bytes[line + i]) : "   ";
    }
    text += "  |";
    for (size_t i = 0; i < count; i++) {
      const uint8_t c = bytes[line + i];
      text += c >= 0x20 && c < 0x7f ? static_cast<char>(c) : '.';
    }
    text += "|\n";
  }
  return text;
}

// Where every piece of the ranges lives, in place of its bytes.
Exit Explain(Tool& tool, const KABDiskCtx& disk, const std::vector<Range>& ranges) {
  if (tool.json) {
    Json header = Tool::Header("explain");
    header["disk"] = disk.uuidText;
    Tool::PrintJson(header);
  }
  for (const Range& range : ranges) {
    ForEachSource(disk, range, [&](const Piece& piece) {
      StopIfInterrupted();
      if (tool.json) {
        Tool::PrintJson({{"offset", piece.offset},
                         {"length", piece.length},
                         {"source", piece.source},
                         {"place", piece.placed ? Json(piece.place) : Json(nullptr)}});
      } else {
        Tool::Print(fmt::format("{:>14} {:>10}  {}{}\n", piece.offset, piece.length, piece.source,
                                piece.placed ? fmt::format(" at {}", piece.place) : ""));
      }
    });
  }
  return Exit::kClean;
}

Exit Run(Tool& tool, const Options& options) {
  if (options.logical && options.asGroup) throw Failure(Exit::kUsage, "--logical and --as-group exclude each other");
  if (options.explain && !options.asGroup) throw Failure(Exit::kUsage, "--explain needs --as-group");
  if (tool.json && options.out != "-") throw Failure(Exit::kUsage, "--json and -o exclude each other");
  if (options.out != "-") {
    RefuseInput(options.out, options.group.Paths());
    RefuseExisting(options.out, options.force);
  }
  Group group(tool, options.group);
  KABDiskCtx* ctx = group.Chosen();
  if (options.asGroup) {
    if (ctx->group == nullptr) throw Failure(Exit::kUsage, "--as-group: choose a capacity disk of the group");
    ReplayLog(group);
  }
  const std::unique_ptr<View> view = options.asGroup ? ViewOfDisk(ctx) : nullptr;
  const uint64_t limit = view != nullptr ? view->size() : options.logical ? LogicalSize(*ctx) : ctx->diskSize;
  const std::vector<Range> ranges = RangeArguments(options.ranges, limit);
  if (options.explain) return Explain(tool, *ctx, ranges);
  const Reader reader = [ctx, &options, &view](void* buffer, uint32_t length, uint64_t offset) {
    if (view != nullptr) return view->Read(buffer, length, offset);
    if (options.logical) return DDPRead(ctx, buffer, length, offset);
    return KABRead(ctx, buffer, length, static_cast<int64_t>(offset));
  };
  Progress progress(tool, "read", TotalLength(ranges));

  if (tool.json) {
    Json header = Tool::Header("read");
    header["disk"] = ctx->uuidText;
    header["ranges"] = Json::array();
    for (const Range& range : ranges) header["ranges"].push_back({{"offset", range.offset}, {"length", range.length}});
    Tool::PrintJson(header);
    for (const Range& range : ranges) {
      ForEachPiece(*ctx, range, kJsonPiece, reader, progress, [](const std::vector<uint8_t>& bytes, uint64_t offset) {
        Tool::PrintJson({{"offset", offset}, {"length", bytes.size()}, {"data", HexText(bytes.data(), bytes.size())}});
      });
    }
    progress.Finish();
    return Exit::kClean;
  }

  OutFile out(options.out, options.force);
  const bool hex = options.hex || (options.out == "-" && isatty(STDOUT_FILENO) != 0);
  for (const Range& range : ranges) {
    ForEachPiece(*ctx, range, kPiece, reader, progress, [&](const std::vector<uint8_t>& bytes, uint64_t offset) {
      if (hex) {
        const std::string text = HexListing(bytes, offset);
        out.Write(text.data(), text.size());
      } else {
        out.Write(bytes.data(), bytes.size());
      }
    });
  }
  out.Commit();
  progress.Finish();
  return Exit::kClean;
}

}  // namespace

void AddRead(CLI::App& app, Tool& tool) {
  auto options = std::make_shared<Options>();
  CLI::App* command = AddCommand(app, tool, "read", "Read ranges of a disk, decrypted", kDetails,
                                 [&tool, options] { return Run(tool, *options); });
  command->add_option("-r,--range", options->ranges, "OFF:LEN, a range to read; repeatable")
      ->required()
      ->allow_extra_args(false);
  command->add_option("-o,--output", options->out, "where to write, - for stdout")->type_name("FILE");
  command->add_flag("--hex", options->hex, "a listing for people instead of the bytes");
  command->add_flag("--logical", options->logical, "read through the disk's dedup layer");
  command->add_flag("-f,--force", options->force, "replace an existing output file");
  command->add_flag("--as-group", options->asGroup, "read a capacity disk as its group sees it");
  command->add_flag("--explain", options->explain, "with --as-group: tell where each piece comes from instead");
  AddDiskChoice(command, options->group);
  AddGroupOptions(command, options->group);
}

}  // namespace tool
