#pragma once
// The disks that a command's arguments name.

#include <CLI/CLI.hpp>

#include "disk_group.h"
#include "tool.h"

namespace tool {

/// SSD, DISK... and --skip-unmount-check.
void AddGroupOptions(CLI::App* command, GroupOptions& options);
/// --disk.
void AddDiskChoice(CLI::App* command, GroupOptions& options);

/// The opened group; `options` must outlive it.
class Group : public DiskGroup {
 public:
  Group(Tool& tool, const GroupOptions& options, const TakeRefusal& takeRefusal = {})
      : DiskGroup(tool.log, tool.keyFiles, options, takeRefusal) {}
};

}  // namespace tool
