#pragma once
// A dump file, little-endian:
//
//    0         4096
//    | header  | one zlib stream of records, in the order in which they were added
//
// The header is written at close, in full; until then its bytes are zero.

#include <cstddef>

#include "core/frame/bytes.h"
#include "kab/dump.h"

namespace kab::dump {

inline constexpr uint64_t kStreamOffset = 4096;
inline constexpr size_t kDeviceNameSize = 128;

//    0      4        8        16         24           32                40       72 .. 200
//    | magic | version | records | disk size | total length | created, us | SHA-256 | device name |
struct Header {
  le32 magic;
  le32 version;
  le64 records;
  le64 diskSize;                     // bytes, of the source
  le64 totalLength;                  // bytes of the stream before compression: 12 and the data of every record
  le64 created;                      // microseconds since the epoch
  uint8_t sha256[32];                // of the stream before compression
  char deviceName[kDeviceNameSize];  // not terminated when it fills the field
};
static_assert(OnDisk<Header> && sizeof(Header) == KAB_DUMP_HEADER_READ);
static_assert(offsetof(Header, sha256) == 40 && offsetof(Header, deviceName) == 72);

//    0             8        12
//    | disk offset | length | data ...
struct RecordHead {
  le64 offset;  // bytes, on the source disk
  le32 length;  // bytes of data
};
static_assert(OnDisk<RecordHead> && sizeof(RecordHead) == 12);

}  // namespace kab::dump
