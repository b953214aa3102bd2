// kab sample: a disk group on image files, to try things on.

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <memory>
#include <stdexcept>

#include "commands.h"
#include "out_file.h"
#include "ranges.h"
#include "sample/dedup_image.h"
#include "sample/group_image.h"
#include "sample/log_image.h"
#include "sample/orlo_group_image.h"

namespace tool {
namespace {

constexpr const char* kDetails =
    "Makes ssd.img, disk0.img, disk1.img ... in a folder, which is created when it is not there. The same arguments\n"
    "make the same bytes. An encrypted disk's key goes to diskN.key, for --key-file.\n\n"
    "Examples:\n"
    "  kab sample --disks 3 --encrypt 1 group\n"
    "  kab info --key-file \"$(cat group/disk1.uuid)=group/disk1.key\" group/ssd.img group/disk*.img\n";

struct Options {
  std::string folder;
  std::string layout = "plain";
  uint32_t disks = 2;
  std::string ssdSize = "16M";
  std::string diskSize = "16M";
  std::vector<uint32_t> encrypt;
  uint64_t seed = 1;
  uint32_t scale = 1;
  bool withClear = false;
  bool withPicture = false;
  bool force = false;
};

uint64_t DiskSize(const std::string& option, const std::string& text) {
  const uint64_t size = SizeArgument(option, text);
  if (size <= sample::kDataOffset + sample::kGptSize || size > INT64_MAX) {
    throw Failure(Exit::kUsage, fmt::format("{} {}: a disk has more than {} bytes", option, text,
                                            sample::kDataOffset + sample::kGptSize));
  }
  return size;
}

sample::GroupImage EmptyGroup(const Options& options) {
  return sample::GroupImage(options.disks, DiskSize("--ssd-size", options.ssdSize),
                            DiskSize("--disk-size", options.diskSize));
}

// A group and what a reader should get from it: files that are written beside the images with --with-picture.
struct Made {
  sample::GroupImage group;
  std::vector<std::pair<std::string, std::vector<uint8_t>>> pictures;
};

// What lies on a group's disks.
struct Layout {
  const char* name;
  const char* summary;
  Made (*make)(const Options& options);
};

constexpr uint64_t kLogStart = 16;  // first block of the write buffer

void PutEmptyLog(sample::DiskImage& ssd) {
  const uint64_t blocks = (ssd.size() - sample::kDataOffset - sample::kGptSize) / sample::kLogBlock;
  if (blocks < 64) throw Failure(Exit::kUsage, "--ssd-size: too small for a log");
  sample::LogImage(ssd, kLogStart, blocks - 2 * kLogStart).Write(sample::LogChain(1));
}

// Under an empty log some of everything: noise, text that compresses well, and zeros.
Made MakePlain(const Options& options) {
  Made made{EmptyGroup(options), {}};
  sample::GroupImage& group = made.group;
  const uint64_t seed = options.seed;
  const auto fill = [seed](sample::DiskImage& disk, uint64_t number, const std::string& name) {
    const uint64_t end = disk.size() - sample::kGptSize;
    const uint64_t part = std::min<uint64_t>((end - sample::kDataOffset) / 4, 1 << 20);
    disk.FillNoise(sample::kDataOffset, part, seed * 1000 + number);
    std::string text;
    for (uint64_t line = 0; text.size() < part; line++) {
      text += fmt::format("{} line {} of seed {}\n", name, line, seed);
    }
    disk.PutBytes(sample::kDataOffset + part, {reinterpret_cast<const uint8_t*>(text.data()), part});
  };
  fill(group.Ssd(), 0, "ssd");
  for (uint32_t i = 0; i < group.DiskCount(); i++) {
    fill(group.Disk(i), i + 1, fmt::format("disk {}", i));
  }
  PutEmptyLog(group.Ssd());
  return made;
}

// A log that fills its SSD; a picture is a disk's data area as the group sees it.
Made MakeLog(const Options& options) {
  const uint64_t room = DiskSize("--ssd-size", options.ssdSize) - sample::kDataOffset - sample::kGptSize;
  if (options.disks == 0) throw Failure(Exit::kUsage, "--layout log: needs a capacity disk");
  if (room < 4 << 20) throw Failure(Exit::kUsage, "--layout log: the SSD is too small for a log");
  sample::LoggedGroupOptions logged;
  logged.seed = options.seed;
  logged.disks = options.disks;
  logged.oddEntries = false;
  logged.writeBufferBlks = room / sample::kLogBlock - 2 * kLogStart;
  // As many as fill the data half of the write buffer, at some 32 KiB each.
  logged.entries = static_cast<uint32_t>(std::min<uint64_t>(100000, logged.writeBufferBlks / 16));
  logged.diskBytes = (DiskSize("--disk-size", options.diskSize) - sample::kDataOffset - sample::kGptSize) / 4096 * 4096;
  if (logged.diskBytes < 1 << 20) throw Failure(Exit::kUsage, "--layout log: the disks are too small");
  sample::LoggedGroup group(logged);
  Made made{group.Group(), {}};
  for (uint32_t i = 0; i < options.disks; i++) {
    made.pictures.emplace_back(fmt::format("disk{}.picture", i), group.Picture(i));
  }
  return made;
}

// Components on disks of both versions. A picture is a component's address space from its superblock on.
template <bool kLogged>
Made MakeOrlo(const Options& options) {
  sample::OrloGroupImage image({.seed = options.seed,
                                .disks = options.disks,
                                .ssdSize = DiskSize("--ssd-size", options.ssdSize),
                                .diskSize = DiskSize("--disk-size", options.diskSize),
                                .logged = kLogged,
                                .scale = options.scale});
  Made made{image.Group(), {}};
  for (const sample::SampleComponent& component : image.Components()) {
    if (component.superBlockPresent) {
      made.pictures.emplace_back(sample::UuidText(component.uuid) + ".picture", component.picture);
    }
  }
  return made;
}

// Holes, zero blocks, duplicates, text and noise behind a translation map, as much as surely fits, under an empty log.
// A picture is a disk's logical bytes.
template <uint32_t kMode>
Made MakeDedup(const Options& options) {
  Made made{EmptyGroup(options), {}};
  if (options.disks == 0) return made;
  try {
    sample::DedupImage image({.mode = kMode,
                              .disks = options.disks,
                              .diskSize = made.group.Disk(0).size(),
                              .ssdSize = made.group.Ssd().size()});
    image.StoreMixture(std::min<uint64_t>(image.Place().dataSize / 4, 2000 * uint64_t{options.scale}), options.seed);
    image.Seal();
    made.group = image.Group();
    for (uint32_t i = 0; i < options.disks; i++) {
      made.pictures.emplace_back(fmt::format("disk{}.picture", i), image.Plain(i));
    }
  } catch (const std::invalid_argument& reason) {
    throw Failure(Exit::kUsage, fmt::format("--disk-size: {}", reason.what()));
  }
  PutEmptyLog(made.group.Ssd());
  return made;
}

constexpr Layout kLayouts[] = {
    {"plain", "noise, text and zeros in the data area, an empty log, no dedup layer", MakePlain},
    {"dedup", "a dedup layer over all disks: shared, compressed, plain and zero blocks, and holes", MakeDedup<2>},
    {"compress", "the same, but each disk compressed for itself", MakeDedup<1>},
    {"log", "a PLOG that fills the SSD: writes, zero writes and releases over all disks, with a torn end", MakeLog},
    {"orlo", "components on Orlo disks of versions 7 and 6, under maps of one to three levels", MakeOrlo<false>},
    {"orlo-log", "the same, with a third of their map blocks and data in the write buffer", MakeOrlo<true>},
};

const Layout& FindLayout(const std::string& name) {
  // The parser has let only these names pass.
  return *std::find_if(std::begin(kLayouts), std::end(kLayouts), [&](const Layout& one) { return name == one.name; });
}

// Writes key files and the other small companions.
void WriteSmall(const std::string& path, const void* data, size_t size, mode_t mode, bool force) {
  const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC | (force ? O_TRUNC : O_EXCL), mode);
  if (fd < 0) throw SystemFailure(path, errno);
  const ssize_t written = write(fd, data, size);
  const int error = errno;
  if (close(fd) != 0 || written != static_cast<ssize_t>(size)) throw SystemFailure(path, error);
}

class SampleWriter {
 public:
  SampleWriter(const Options& options) : options_(options) {}

  Json Write(Made& made) {
    sample::GroupImage& group = made.group;
    RefuseLeftovers(made);
    if (mkdir(options_.folder.c_str(), 0777) != 0 && errno != EEXIST) throw SystemFailure(options_.folder, errno);
    for (const uint32_t slot : options_.encrypt) Encipher(group.Disk(slot), slot);
    const sample::GroupPaths paths = group.Write(options_.folder);
    Json object = Tool::Header("sample");
    object["layout"] = options_.layout;
    object["ssd"] = DiskJson(paths.ssd, group.Ssd());
    object["disks"] = Json::array();
    for (uint32_t i = 0; i < group.DiskCount(); i++) {
      StopIfInterrupted();
      Json disk = DiskJson(paths.disks[i], group.Disk(i));
      disk["keyFile"] = group.Disk(i).encrypted() ? Json(Path(i, ".key")) : Json(nullptr);
      object["disks"].push_back(disk);
      const std::string uuid = sample::UuidText(group.Disk(i).uuid()) + "\n";
      WriteSmall(Path(i, ".uuid"), uuid.data(), uuid.size(), 0666, options_.force);
    }
    for (const auto& [name, bytes] : made.pictures) {
      if (options_.withPicture) {
        WriteSmall(options_.folder + "/" + name, bytes.data(), bytes.size(), 0666, options_.force);
      }
    }
    return object;
  }

 private:
  std::string Path(uint32_t slot, const char* ending) const {
    return fmt::format("{}/disk{}{}", options_.folder, slot, ending);
  }

  void RefuseLeftovers(const Made& made) const {
    const sample::GroupImage& group = made.group;
    for (const auto& picture : made.pictures) RefuseExisting(options_.folder + "/" + picture.first, options_.force);
    RefuseExisting(options_.folder + "/ssd.img", options_.force);
    for (uint32_t i = 0; i < group.DiskCount(); i++) {
      for (const char* ending : {".img", ".uuid", ".key", ".clear.img"}) {
        RefuseExisting(Path(i, ending), options_.force);
      }
    }
  }

  void Encipher(sample::DiskImage& disk, uint32_t slot) {
    sample::Dek dek = sample::MakeDek(static_cast<uint32_t>(options_.seed * 100 + slot));
    // The flag first: the clear picture then differs from the deciphered disk in no byte.
    disk.EncryptedFlag(true);
    if (options_.withClear) disk.Write(Path(slot, ".clear.img"));
    disk.Encrypt(dek);
    WriteSmall(Path(slot, ".key"), dek.data(), dek.size(), 0600, options_.force);
  }

  static Json DiskJson(const std::string& path, const sample::DiskImage& disk) {
    Json object = Json::object();
    object["path"] = path;
    object["uuid"] = sample::UuidText(disk.uuid());
    object["size"] = disk.size();
    object["encrypted"] = disk.encrypted();
    return object;
  }

  const Options& options_;
};

Exit Run(Tool& tool, const Options& options) {
  const Layout& layout = FindLayout(options.layout);
  if (options.disks > sample::kGroupSlots) throw Failure(Exit::kUsage, "--disks: a group has at most 7 disks");
  for (const uint32_t slot : options.encrypt) {
    if (slot >= options.disks) throw Failure(Exit::kUsage, fmt::format("--encrypt {}: no such disk", slot));
  }
  Made made = layout.make(options);
  const Json object = SampleWriter(options).Write(made);

  if (tool.json) {
    Tool::PrintJson(object);
  } else if (!tool.quiet) {
    std::string text = fmt::format("SSD    {}  {}\n", object["ssd"]["uuid"].get<std::string>(),
                                   object["ssd"]["path"].get<std::string>());
    for (const Json& disk : object["disks"]) {
      text +=
          fmt::format("disk   {}  {}{}\n", disk["uuid"].get<std::string>(), disk["path"].get<std::string>(),
                      disk["encrypted"].get<bool>() ? "  encrypted, key in " + disk["keyFile"].get<std::string>() : "");
    }
    Tool::Print(text);
  }
  return Exit::kClean;
}

}  // namespace

void AddSample(CLI::App& app, Tool& tool) {
  auto options = std::make_shared<Options>();
  std::string layouts = "Layouts:\n";
  std::vector<std::string> names;
  for (const Layout& layout : kLayouts) {
    layouts += fmt::format("  {:<8}  {}\n", layout.name, layout.summary);
    names.emplace_back(layout.name);
  }
  CLI::App* command = AddCommand(app, tool, "sample", "Make a sample disk group on image files",
                                 layouts + "\n" + kDetails, [&tool, options] { return Run(tool, *options); });
  command->add_option("FOLDER", options->folder, "where to make it")->required();
  command->add_option("--layout", options->layout, "what lies on the disks")
      ->type_name("NAME")
      ->check(CLI::IsMember(names))
      ->capture_default_str();
  command->add_option("--disks", options->disks, "capacity disks, 0 to 7")->capture_default_str();
  command->add_option("--ssd-size", options->ssdSize, "size of the SSD")->type_name("SIZE")->capture_default_str();
  command->add_option("--disk-size", options->diskSize, "size of each capacity disk")
      ->type_name("SIZE")
      ->capture_default_str();
  command->add_option("--encrypt", options->encrypt, "slot of a disk to encipher; repeatable")
      ->type_name("SLOT")
      ->allow_extra_args(false);
  command->add_option("--seed", options->seed, "what the contents are drawn from")->capture_default_str();
  command
      ->add_option("--scale", options->scale, "times as much in components and dedup layers; the disks must have room")
      ->check(CLI::Range(1, 1000))
      ->capture_default_str();
  command->add_flag("--with-clear", options->withClear, "also write diskN.clear.img, an enciphered disk in clear");
  command->add_flag("--with-picture", options->withPicture,
                    "also write what a reader should get: a disk as its group sees it, a component's bytes");
  command->add_flag("-f,--force", options->force, "replace existing files");
}

}  // namespace tool
