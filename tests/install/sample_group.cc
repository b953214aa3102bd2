// sample_group FOLDER: a group of an SSD and two capacity disks, whose data areas begin with noise of their own.

#include <cstdio>
#include <exception>

#include "sample/group_image.h"

int main(int argc, char** argv) {
  if (argc != 2) return 2;
  try {
    sample::GroupImage group(2);
    for (uint32_t i = 0; i < group.DiskCount(); i++) group.Disk(i).FillNoise(sample::kDataOffset, 100000, i + 1);
    group.Write(argv[1]);
  } catch (const std::exception& failure) {
    std::fprintf(stderr, "sample_group: %s\n", failure.what());
    return 1;
  }
  return 0;
}
