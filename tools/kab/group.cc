#include "group.h"

namespace tool {

void AddGroupOptions(CLI::App* command, GroupOptions& options) {
  command->add_option("SSD", options.ssd, "the group's cache SSD: block device or image file")->required();
  command->add_option("DISK", options.disks, "its capacity disks");
  command->add_flag("--skip-unmount-check", options.skipUnmountCheck, "open disks that were not cleanly unmounted");
}

void AddDiskChoice(CLI::App* command, GroupOptions& options) {
  command
      ->add_option("-d,--disk", options.disk,
                   "which disk: ssd, a slot number, a UUID or a path as given (default: the only DISK, or the SSD "
                   "when it is alone)")
      ->type_name("DISK");
}

}  // namespace tool
