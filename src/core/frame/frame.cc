#include <bit>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>

#include "core/frame/log.h"
#include "kab/checksum.h"
#include "kab/core.h"

const char* kabReturnStatus[KAB_STATUS_COUNT] = {
    "Successful",
    "IO Error",
    "General failure",
    "Out of memory",
    "Failed to create file",
    "Failed to open disk",
    "Device or Resource busy",
    "Not Supported",
    "Address not mapped",
    "Block is invalid",
    "End of the log reached",
    "No valid SSDLOG CheckPoint record found",
    "Invalid Argument",
    "Not found",
    "Failed to decrypt block",
    "Failed to encrypt block",
    "Magic Mismatch",
    "Version mismatch",
    "Failed to decompress",
};

const uint32_t ArvoOpSizeTable[KAB_ARVO_OP_TYPES] = {40, 112, 56, 80, 48, 40, 64,  48,  56, 72, 56,  144, 136,
                                                     80, 72,  72, 80, 64, 88, 104, 144, 64, 96, 144, 64,  128};

uint32_t kabLogLevel;
FILE* kabLogStrm;

namespace kab {
namespace {

constexpr uint32_t kCrcScratchSize = 131072;

}  // namespace

void Log(const char* format, ...) {
  if (kabLogStrm == nullptr) return;
  va_list args;
  va_start(args, format);
  vfprintf(kabLogStrm, format, args);
  va_end(args);
}

}  // namespace kab

uint32_t KABInit(uint32_t logLevel, FILE* logStream) {
  static const uint8_t kZeros[kab::kCrcScratchSize] = {};
  ARVO_InitCRC(kZeros, sizeof kZeros);
  kabLogLevel = logLevel;
  kabLogStrm = logStream;
  return KAB_OK;
}

const char* KABErrorStr(uint32_t status) { return kabReturnStatus[status]; }

uint32_t KABARVOOpTypeToSize(uint32_t opType) { return ArvoOpSizeTable[opType]; }

uint32_t KABLog2(uint32_t value) { return value == 0 ? 0 : static_cast<uint32_t>(std::bit_width(value)) - 1; }

void* KABAlloc(uint64_t size) {
  // A size of 0 still gives a block: null means that memory is exhausted, and nothing else.
  return std::calloc(1, size != 0 ? size : 1);
}

void KABFree(void* slot) {
  auto* block = static_cast<void**>(slot);
  std::free(*block);
  *block = nullptr;
}

void* KABExprAlloc(uint64_t /*owner*/, uint64_t size) { return KABAlloc(size); }

void KABExprFree(uint64_t /*owner*/, void* block) { std::free(block); }

void* KABCompressAlloc(void* /*opaque*/, uint32_t items, uint32_t size) {
  // 32-bit product, on purpose: zlib never asks for more.
  const uint32_t product = items * size;
  return KABAlloc(product);
}

void KABCompressFree(void* /*opaque*/, void* block) { KABFree(&block); }
