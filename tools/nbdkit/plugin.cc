// nbdkit-kab-plugin: a capacity disk or a component, as its disk group sees it, over the NBD protocol; read-only.

#define NBDKIT_API_VERSION 2
#include <nbdkit-plugin.h>

#include <cerrno>
#include <exception>
#include <memory>
#include <new>
#include <string>
#include <string_view>
#include <vector>

#include "failure.h"
#include "kab/core.h"
#include "log_relay.h"
#include "view.h"

// A disk group is used by one thread at a time, whichever connection asks.
#define THREAD_MODEL NBDKIT_THREAD_MODEL_SERIALIZE_ALL_REQUESTS

namespace {

constexpr const char* kHelp =
    "ssd=PATH            (required) the group's cache SSD\n"
    "disk=PATH           a capacity disk of the group; repeatable\n"
    "serve=DISK          which disk to serve: a slot number, a UUID or a path as given (default: the only one)\n"
    "component=UUID      the component to serve, in place of a disk\n"
    "key-file=UUID=FILE  a disk's key; repeatable\n"
    "skip-unmount-check=BOOL  open disks that were not cleanly unmounted\n";

void TakeLine(const std::string& line) {
  if (line.find("Error") != std::string::npos) {
    nbdkit_error("%s", line.c_str());
  } else {
    nbdkit_debug("%s", line.c_str());
  }
}

struct Server {
  std::vector<std::string> keyFiles;
  std::string component;
  tool::GroupOptions options;
  tool::LogRelay log{TakeLine};
  std::unique_ptr<tool::DiskGroup> group;
  std::unique_ptr<tool::View> view;

  void Open() {
    group = std::make_unique<tool::DiskGroup>(log, keyFiles, options);
    ReplayLog(*group);
    view = component.empty() ? tool::ViewOfDisk(group->Chosen())
                             : tool::ViewOfComponent(*group, tool::FindComponent(*group, component));
    if (!view->whole()) {
      nbdkit_error("component %s: its map is broken: only its first %llu bytes are served", component.c_str(),
                   static_cast<unsigned long long>(view->size()));
    }
  }
};

/// Made when it is first asked for, so after all globals and gone before them: nbdkit may exit without unloading.
std::unique_ptr<Server>& TheServer() {
  static std::unique_ptr<Server> server;
  return server;
}

/// Runs work that may throw; -1 with a line and an errno when it does.
template <class Work>
int Guarded(const Work& work) {
  try {
    return work();
  } catch (const std::bad_alloc&) {
    nbdkit_error("out of memory");
    nbdkit_set_error(ENOMEM);
  } catch (const std::exception& failure) {
    nbdkit_error("%s", failure.what());
    nbdkit_set_error(EIO);
  }
  return -1;
}

int Config(const char* key, const char* value) {
  return Guarded([&] {
    if (TheServer() == nullptr) {
      TheServer() = std::make_unique<Server>();
      KABInit(0, TheServer()->log.stream());
    }
    const std::string_view name = key;
    if (name == "ssd") {
      TheServer()->options.ssd = value;
    } else if (name == "disk") {
      TheServer()->options.disks.emplace_back(value);
    } else if (name == "serve") {
      TheServer()->options.disk = value;
    } else if (name == "component") {
      TheServer()->component = value;
    } else if (name == "key-file") {
      TheServer()->keyFiles.emplace_back(value);
    } else if (name == "skip-unmount-check") {
      const int yes = nbdkit_parse_bool(value);
      if (yes == -1) return -1;
      TheServer()->options.skipUnmountCheck = yes != 0;
    } else {
      nbdkit_error("%s: no such parameter", key);
      return -1;
    }
    return 0;
  });
}

int ConfigComplete() {
  if (TheServer() == nullptr || TheServer()->options.ssd.empty()) {
    nbdkit_error("ssd=PATH is missing");
    return -1;
  }
  const tool::GroupOptions& options = TheServer()->options;
  if (!TheServer()->component.empty() && !options.disk.empty()) {
    nbdkit_error("serve=DISK and component=UUID exclude each other");
    return -1;
  }
  if (TheServer()->component.empty() && options.disk.empty() && options.disks.size() != 1) {
    nbdkit_error("needs one disk=PATH, serve=DISK or component=UUID");
    return -1;
  }
  return 0;
}

int GetReady() {
  return Guarded([] {
    TheServer()->Open();
    return 0;
  });
}

void Unload() { TheServer() = nullptr; }

void* OpenConnection(int) { return NBDKIT_HANDLE_NOT_NEEDED; }

int64_t GetSize(void*) { return static_cast<int64_t>(TheServer()->view->size()); }

int CanMultiConn(void*) { return 1; }

// A request that cannot be read as a whole fails, but only when a block of it cannot be read by itself either.
int Pread(void*, void* buffer, uint32_t count, uint64_t offset, uint32_t) {
  return Guarded([&] {
    int result = 0;
    ReadAround(*TheServer()->view, static_cast<uint8_t*>(buffer), count, offset,
               [&result](uint64_t at, uint64_t length, uint32_t status) {
                 nbdkit_error("%llu bytes at %llu cannot be read: %s", static_cast<unsigned long long>(length),
                              static_cast<unsigned long long>(at), tool::StatusText(status));
                 nbdkit_set_error(status == KAB_OUT_OF_MEMORY ? ENOMEM : EIO);
                 result = -1;
               });
    return result;
  });
}

int Extents(void*, uint32_t count, uint64_t offset, uint32_t, nbdkit_extents* extents) {
  return Guarded([&] {
    int result = 0;
    TheServer()->view->ForEachRun(offset, count, [&](const tool::View::Run& run) {
      if (result == 0) {
        result =
            nbdkit_add_extent(extents, run.offset, run.length, run.hole ? NBDKIT_EXTENT_HOLE | NBDKIT_EXTENT_ZERO : 0);
      }
    });
    return result;
  });
}

nbdkit_plugin MakePlugin() {
  nbdkit_plugin plugin = {};
  plugin.name = "kab";
  plugin.longname = "Arvo disk group";
  plugin.version = KAB_VERSION;
  plugin.description = "a capacity disk or a component, as its disk group sees it";
  plugin.config_help = kHelp;
  plugin.unload = Unload;
  plugin.config = Config;
  plugin.config_complete = ConfigComplete;
  plugin.get_ready = GetReady;
  plugin.open = OpenConnection;
  plugin.get_size = GetSize;
  plugin.can_multi_conn = CanMultiConn;
  plugin.pread = Pread;
  plugin.extents = Extents;
  return plugin;
}

nbdkit_plugin plugin = MakePlugin();

}  // namespace

NBDKIT_REGISTER_PLUGIN(plugin)
