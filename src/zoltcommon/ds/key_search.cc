#include "zoltcommon/ds/key_search.h"

#include <algorithm>

#if defined(__x86_64__)
#include <immintrin.h>
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"  // the intrinsics' own don't-care operands
#endif
#endif

namespace kab::ds {
namespace {

// ---- plain

uint32_t PlainLowerBound(const uint64_t* keys, uint32_t count, uint64_t key) {
  const uint64_t* base = keys;
  while (count > 1) {  // no branch on a key: what is taken is a conditional move
    const uint32_t half = count / 2;
    base = base[half - 1] < key ? base + half : base;
    count -= half;
  }
  return static_cast<uint32_t>(base - keys) + (count == 1 && *base < key ? 1 : 0);
}

Scan PlainAtLeast(const uint64_t* keys, uint32_t count, uint64_t key) {
  Scan scan{0, count};
  for (uint32_t i = 0; i < count; ++i) {
    if (keys[i] < key) {
      ++scan.counted;
    } else if (scan.slot == count || keys[i] < keys[scan.slot]) {
      scan.slot = i;
    }
  }
  return scan;
}

Scan PlainAtMost(const uint64_t* keys, uint32_t count, uint64_t key) {
  Scan scan{0, count};
  for (uint32_t i = 0; i < count; ++i) {
    if (keys[i] > key) continue;
    ++scan.counted;
    if (scan.slot == count || keys[i] >= keys[scan.slot]) scan.slot = i;
  }
  return scan;
}

void PlainSort(const uint64_t* keys, uint32_t count, uint16_t* order) {
  for (uint32_t i = 0; i < count; ++i) order[i] = static_cast<uint16_t>(i);
  std::sort(order, order + count,
            [keys](uint16_t a, uint16_t b) { return keys[a] != keys[b] ? keys[a] < keys[b] : a < b; });
}

constexpr KeySearch kPlain{"plain", PlainLowerBound, PlainAtLeast, PlainAtMost, PlainSort};

#if defined(__x86_64__)

// Ranks by counting: no branch on a key. Beyond this many keys sorting by comparisons wins.
constexpr uint32_t kMaxCounted = 192;
constexpr uint16_t kFree = 0xFFFF;

// Equal keys get the same rank; the later ones move up to the next free place.
void PlaceByRank(uint16_t* order, uint32_t rank, uint32_t index) {
  while (order[rank] != kFree) ++rank;
  order[rank] = static_cast<uint16_t>(index);
}

// Where the narrowing by pivots ends and counting begins.
constexpr uint32_t kStride = 64;

// The block of kStride keys that holds the bound: independent loads instead of a chain of them.
inline uint32_t PivotBlock(const uint64_t* keys, uint32_t count, uint64_t key) {
  uint32_t block = 0;
  for (uint32_t i = kStride - 1; i < count; i += kStride) block += keys[i] < key ? 1 : 0;
  return block * kStride;
}

// ---- AVX2: unsigned order is signed order with the top bit flipped

__attribute__((target("avx2"))) inline __m256i Flipped(const uint64_t* keys) {
  return _mm256_xor_si256(_mm256_loadu_si256(reinterpret_cast<const __m256i*>(keys)),
                          _mm256_set1_epi64x(static_cast<int64_t>(uint64_t{1} << 63)));
}

__attribute__((target("avx2"))) inline __m256i FlippedBound(uint64_t key) {
  return _mm256_set1_epi64x(static_cast<int64_t>(key ^ (uint64_t{1} << 63)));
}

__attribute__((target("avx2"))) inline uint32_t CountBelowAvx2(const uint64_t* keys, uint32_t count, uint64_t key) {
  const __m256i bound = FlippedBound(key);
  __m256i sum = _mm256_setzero_si256();
  uint32_t i = 0;
  for (; i + 4 <= count; i += 4) sum = _mm256_sub_epi64(sum, _mm256_cmpgt_epi64(bound, Flipped(keys + i)));
  uint64_t lanes[4];
  _mm256_storeu_si256(reinterpret_cast<__m256i*>(lanes), sum);
  auto below = static_cast<uint32_t>(lanes[0] + lanes[1] + lanes[2] + lanes[3]);
  for (; i < count; ++i) below += keys[i] < key ? 1 : 0;
  return below;
}

__attribute__((target("avx2"))) uint32_t Avx2LowerBound(const uint64_t* keys, uint32_t count, uint64_t key) {
  const uint32_t base = PivotBlock(keys, count, key);
  return base + CountBelowAvx2(keys + base, std::min(count - base, kStride), key);
}

__attribute__((target("avx2"))) Scan Avx2AtLeast(const uint64_t* keys, uint32_t count, uint64_t key) {
  const __m256i bound = FlippedBound(key);
  __m256i sum = _mm256_setzero_si256();
  __m256i best = _mm256_set1_epi64x(INT64_MAX);
  uint32_t i = 0;
  for (; i + 4 <= count; i += 4) {
    const __m256i v = Flipped(keys + i);
    const __m256i below = _mm256_cmpgt_epi64(bound, v);
    sum = _mm256_sub_epi64(sum, below);
    const __m256i take = _mm256_andnot_si256(below, _mm256_cmpgt_epi64(best, v));
    best = _mm256_blendv_epi8(best, v, take);
  }
  uint64_t lanes[4];
  _mm256_storeu_si256(reinterpret_cast<__m256i*>(lanes), sum);
  Scan scan{static_cast<uint32_t>(lanes[0] + lanes[1] + lanes[2] + lanes[3]), count};
  int64_t low[4];
  _mm256_storeu_si256(reinterpret_cast<__m256i*>(low), best);
  const int64_t lowest = std::min(std::min(low[0], low[1]), std::min(low[2], low[3]));
  uint64_t smallest = static_cast<uint64_t>(lowest) ^ (uint64_t{1} << 63);
  for (; i < count; ++i) {
    if (keys[i] < key) {
      ++scan.counted;
    } else {
      smallest = std::min(smallest, keys[i]);
    }
  }
  if (scan.counted == count) return scan;
  for (scan.slot = 0; keys[scan.slot] != smallest;) ++scan.slot;
  return scan;
}

__attribute__((target("avx2"))) Scan Avx2AtMost(const uint64_t* keys, uint32_t count, uint64_t key) {
  const __m256i bound = FlippedBound(key);
  __m256i sum = _mm256_setzero_si256();
  __m256i best = _mm256_set1_epi64x(INT64_MIN);
  uint32_t i = 0;
  for (; i + 4 <= count; i += 4) {
    const __m256i v = Flipped(keys + i);
    const __m256i above = _mm256_cmpgt_epi64(v, bound);
    sum = _mm256_sub_epi64(sum, above);
    const __m256i take = _mm256_andnot_si256(above, _mm256_cmpgt_epi64(v, best));
    best = _mm256_blendv_epi8(best, v, take);
  }
  uint64_t lanes[4];
  _mm256_storeu_si256(reinterpret_cast<__m256i*>(lanes), sum);
  Scan scan{i - static_cast<uint32_t>(lanes[0] + lanes[1] + lanes[2] + lanes[3]), count};
  int64_t high[4];
  _mm256_storeu_si256(reinterpret_cast<__m256i*>(high), best);
  const int64_t highest = std::max(std::max(high[0], high[1]), std::max(high[2], high[3]));
  uint64_t largest = static_cast<uint64_t>(highest) ^ (uint64_t{1} << 63);
  for (; i < count; ++i) {
    if (keys[i] > key) continue;
    ++scan.counted;
    largest = std::max(largest, keys[i]);
  }
  if (scan.counted == 0) return scan;
  for (scan.slot = count - 1; keys[scan.slot] != largest;) --scan.slot;
  return scan;
}

__attribute__((target("avx2"))) void Avx2Sort(const uint64_t* keys, uint32_t count, uint16_t* order) {
  if (count > kMaxCounted) return PlainSort(keys, count, order);
  std::fill(order, order + count, kFree);
  for (uint32_t i = 0; i < count; ++i) PlaceByRank(order, CountBelowAvx2(keys, count, keys[i]), i);
}

constexpr KeySearch kAvx2{"avx2", Avx2LowerBound, Avx2AtLeast, Avx2AtMost, Avx2Sort};

// ---- AVX-512

#define KAB_AVX512 __attribute__((target("avx512f,popcnt")))

// The lanes of the keys from `i` on that exist.
KAB_AVX512 inline __mmask8 Lanes(uint32_t i, uint32_t count) {
  const uint32_t left = count - i;
  return left >= 8 ? static_cast<__mmask8>(0xFF) : static_cast<__mmask8>((1U << left) - 1);
}

KAB_AVX512 inline uint32_t CountBelowAvx512(const uint64_t* keys, uint32_t count, uint64_t key) {
  const __m512i bound = _mm512_set1_epi64(static_cast<int64_t>(key));
  uint32_t below = 0;
  uint32_t i = 0;
  for (; i + 8 <= count; i += 8) {
    below += static_cast<uint32_t>(_mm_popcnt_u32(_mm512_cmplt_epu64_mask(_mm512_loadu_si512(keys + i), bound)));
  }
  if (i < count) {
    const __mmask8 lanes = Lanes(i, count);
    const __m512i v = _mm512_maskz_loadu_epi64(lanes, keys + i);
    below += static_cast<uint32_t>(_mm_popcnt_u32(_mm512_mask_cmplt_epu64_mask(lanes, v, bound)));
  }
  return below;
}

KAB_AVX512 uint32_t Avx512LowerBound(const uint64_t* keys, uint32_t count, uint64_t key) {
  const uint32_t base = PivotBlock(keys, count, key);
  return base + CountBelowAvx512(keys + base, std::min(count - base, kStride), key);
}

KAB_AVX512 Scan Avx512AtLeast(const uint64_t* keys, uint32_t count, uint64_t key) {
  const __m512i bound = _mm512_set1_epi64(static_cast<int64_t>(key));
  __m512i best = _mm512_set1_epi64(-1);
  Scan scan{0, count};
  for (uint32_t i = 0; i < count; i += 8) {
    const __mmask8 lanes = Lanes(i, count);
    const __m512i v = _mm512_maskz_loadu_epi64(lanes, keys + i);
    const __mmask8 above = _mm512_mask_cmpge_epu64_mask(lanes, v, bound);
    scan.counted += static_cast<uint32_t>(_mm_popcnt_u32(static_cast<uint32_t>(lanes & ~above)));
    best = _mm512_mask_min_epu64(best, above, best, v);
  }
  if (scan.counted == count) return scan;
  const __m512i smallest = _mm512_set1_epi64(static_cast<int64_t>(_mm512_reduce_min_epu64(best)));
  for (uint32_t i = 0; i < count; i += 8) {
    const __mmask8 lanes = Lanes(i, count);
    const uint32_t hit = _mm512_mask_cmpeq_epu64_mask(lanes, _mm512_maskz_loadu_epi64(lanes, keys + i), smallest);
    if (hit != 0) {
      scan.slot = i + static_cast<uint32_t>(__builtin_ctz(hit));
      break;
    }
  }
  return scan;
}

KAB_AVX512 Scan Avx512AtMost(const uint64_t* keys, uint32_t count, uint64_t key) {
  const __m512i bound = _mm512_set1_epi64(static_cast<int64_t>(key));
  __m512i best = _mm512_setzero_si512();
  Scan scan{0, count};
  for (uint32_t i = 0; i < count; i += 8) {
    const __mmask8 lanes = Lanes(i, count);
    const __m512i v = _mm512_maskz_loadu_epi64(lanes, keys + i);
    const __mmask8 below = _mm512_mask_cmple_epu64_mask(lanes, v, bound);
    scan.counted += static_cast<uint32_t>(_mm_popcnt_u32(below));
    best = _mm512_mask_max_epu64(best, below, best, v);
  }
  if (scan.counted == 0) return scan;
  const __m512i largest = _mm512_set1_epi64(static_cast<int64_t>(_mm512_reduce_max_epu64(best)));
  for (uint32_t i = 0; i < count; i += 8) {  // the last of equal keys, as the plain form finds it
    const __mmask8 lanes = Lanes(i, count);
    const uint32_t hit = _mm512_mask_cmpeq_epu64_mask(lanes, _mm512_maskz_loadu_epi64(lanes, keys + i), largest);
    if (hit != 0) scan.slot = i + 31 - static_cast<uint32_t>(__builtin_clz(hit));
  }
  return scan;
}

KAB_AVX512 void Avx512Sort(const uint64_t* keys, uint32_t count, uint16_t* order) {
  if (count > kMaxCounted) return PlainSort(keys, count, order);
  std::fill(order, order + count, kFree);
  for (uint32_t i = 0; i < count; ++i) PlaceByRank(order, CountBelowAvx512(keys, count, keys[i]), i);
}

#undef KAB_AVX512

constexpr KeySearch kAvx512{"avx512", Avx512LowerBound, Avx512AtLeast, Avx512AtMost, Avx512Sort};

#endif

struct Usable {
  const KeySearch* forms[3];
  uint32_t count;

  Usable() : forms{&kPlain}, count(1) {
#if defined(__x86_64__)
    __builtin_cpu_init();
    if (__builtin_cpu_supports("avx2")) forms[count++] = &kAvx2;
    if (__builtin_cpu_supports("avx512f") && __builtin_cpu_supports("popcnt")) forms[count++] = &kAvx512;
#endif
  }
};

const Usable kUsable;

}  // namespace

const KeySearch& kKeySearch = *kUsable.forms[kUsable.count - 1];

std::span<const KeySearch* const> UsableKeySearches() { return {kUsable.forms, kUsable.count}; }

}  // namespace kab::ds
