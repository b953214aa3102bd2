// CRC-32C of buffers and the arithmetic that combines CRCs without the data: advancing a register over zero bytes is
// a linear map over GF(2), so a run of n zero bytes is one 32x32 bit matrix.

#include <array>

#include "kab/checksum.h"
#include "plinth/crc32c.h"

uint32_t crc32MatrixZero[ARVO_CRC_ZERO_MATRICES][32];
uint32_t crc32MatrixSector[ARVO_CRC_SECTOR_MATRICES][32];

namespace kab {
namespace {

constexpr uint32_t kPolynomial = 0x82F63B78;  // Castagnoli, reflected

constexpr int32_t kSmallBlock = 4096;
constexpr int32_t kLargeBlock = 0x20000;
constexpr uint32_t kSmallBlockZeroCrc = 0x98F94189;  // CRC-32C of 4096 zero bytes
constexpr uint32_t kLargeBlockZeroCrc = 0x5D87814F;  // CRC-32C of 131072 zero bytes

constexpr std::array<uint8_t, 4> LittleEndian(uint32_t value) {
  return {static_cast<uint8_t>(value), static_cast<uint8_t>(value >> 8), static_cast<uint8_t>(value >> 16),
          static_cast<uint8_t>(value >> 24)};
}
constexpr auto kSmallBlockZeroCrcBytes = LittleEndian(kSmallBlockZeroCrc);
constexpr auto kLargeBlockZeroCrcBytes = LittleEndian(kLargeBlockZeroCrc);

constexpr uint32_t AdvanceOverZeroByte(uint32_t state) {
  for (int bit = 0; bit < 8; ++bit) state = (state >> 1) ^ ((state & 1) != 0 ? kPolynomial : 0);
  return state;
}

// Entry k-1: the CRC-32C of k zero bytes.
constexpr auto kZeroRunCrc = [] {
  std::array<uint32_t, ARVO_CRC_ZERO_MATRICES> table{};
  uint32_t state = 0xFFFFFFFF;
  for (uint32_t& entry : table) {
    state = AdvanceOverZeroByte(state);
    entry = ~state;
  }
  return table;
}();
static_assert(kZeroRunCrc[0] == 0x527D5351 && kZeroRunCrc[3] == 0x48674BC7);

void OneZeroBitOperator(uint32_t* matrix) {
  matrix[0] = kPolynomial;
  for (uint32_t i = 1; i < 32; ++i) matrix[i] = uint32_t{1} << (i - 1);
}

}  // namespace
}  // namespace kab

void ARVO_InitCRC(const void* buf, uint32_t len) { ARVOCrc32_Init(buf, len); }

void ARVOCrc32_Init(const void* buf, uint32_t len) {
  kab::plinth::Crc32cInit(buf, len);
  ARVOCrc32PreCalcMatrix(crc32MatrixZero, crc32MatrixSector);
}

void ARVOCrc32PreCalcMatrix(uint32_t (*zeroMatrices)[32], uint32_t (*sectorMatrices)[32]) {
  uint32_t odd[32];
  uint32_t even[32];
  kab::OneZeroBitOperator(odd);
  ARVO_gf2_matrix_square(even, odd);  // 2 bits
  ARVO_gf2_matrix_square(odd, even);  // 4 bits
  ARVO_gf2_matrix_square(zeroMatrices[0], odd);
  for (uint32_t k = 1; k < ARVO_CRC_ZERO_MATRICES; ++k) {
    ARVO_gf2_matrix_times_matrix(zeroMatrices[k], zeroMatrices[k - 1], zeroMatrices[0]);
  }
  ARVO_gf2_matrix_times_matrix(sectorMatrices[0], zeroMatrices[ARVO_CRC_ZERO_MATRICES - 1], zeroMatrices[0]);
  for (uint32_t s = 1; s < ARVO_CRC_SECTOR_MATRICES; ++s) {
    ARVO_gf2_matrix_times_matrix(sectorMatrices[s], sectorMatrices[s - 1], sectorMatrices[0]);
  }
}

uint32_t ARVOCrc32_Compute(uint32_t crc, const void* buf, uint32_t len) { return kab::plinth::Crc32c(crc, buf, len); }

uint32_t ARVO_ComputeCRC32(const void* buf, uint32_t len, int32_t blockSize) {
  const uint32_t crc = ARVOCrc32_Compute(0, buf, len);
  if (blockSize == kab::kSmallBlock) return crc ^ kab::kSmallBlockZeroCrc;
  if (blockSize == kab::kLargeBlock) return crc ^ kab::kLargeBlockZeroCrc;
  return crc;
}

uint32_t ARVO_FakeCRC32(uint32_t crc, int32_t blockSize) {
  // Every size but the large one takes the small block's constant, also those that ARVO_ComputeCRC32 leaves alone.
  const auto& bytes = blockSize == kab::kLargeBlock ? kab::kLargeBlockZeroCrcBytes : kab::kSmallBlockZeroCrcBytes;
  return ARVOCrc32_Compute(crc, bytes.data(), static_cast<uint32_t>(bytes.size()));
}

uint32_t ARVO_CombineCRC32(uint32_t crc1, uint32_t crc2, uint32_t len2) {
  if (len2 == 0) return crc1;
  uint32_t odd[32];
  uint32_t even[32];
  kab::OneZeroBitOperator(odd);
  ARVO_gf2_matrix_square(even, odd);
  ARVO_gf2_matrix_square(odd, even);
  for (;;) {
    ARVO_gf2_matrix_square(even, odd);
    if ((len2 & 1) != 0) crc1 = ARVO_gf2_matrix_times(even, crc1);
    if (len2 < 2) break;
    ARVO_gf2_matrix_square(odd, even);
    if ((len2 & 2) != 0) crc1 = ARVO_gf2_matrix_times(odd, crc1);
    if (len2 < 4) break;
    len2 >>= 2;
  }
  return crc1 ^ crc2;
}

uint32_t ARVO_CombineCRC32_Sector(uint32_t crc1, uint32_t crc2, uint8_t sectors) {
  return ARVO_gf2_matrix_times(crc32MatrixSector[sectors - 1], crc1) ^ crc2;
}

uint32_t ARVO_CombineCRC32_Zero(uint32_t crc1, uint32_t zeroBytes) {
  return ARVO_gf2_matrix_times(crc32MatrixZero[zeroBytes - 1], crc1) ^ kab::kZeroRunCrc[zeroBytes - 1];
}

uint32_t ARVO_gf2_matrix_times(const uint32_t* mat, uint32_t vec) {
  // A table in place of a test: the bits of a CRC are as good as random to a branch predictor.
  static constexpr uint32_t kMask[2] = {0x00000000, 0xFFFFFFFF};
  uint32_t product = 0;
#pragma GCC unroll 32
  for (uint32_t i = 0; i < 32; ++i) product ^= mat[i] & kMask[(vec >> i) & 1];
  return product;
}

void ARVO_gf2_matrix_times_matrix(uint32_t* out, const uint32_t* mat, const uint32_t* vecs) {
  for (uint32_t i = 0; i < 32; ++i) out[i] = ARVO_gf2_matrix_times(mat, vecs[i]);
}

void ARVO_gf2_matrix_square(uint32_t* out, const uint32_t* mat) { ARVO_gf2_matrix_times_matrix(out, mat, mat); }
