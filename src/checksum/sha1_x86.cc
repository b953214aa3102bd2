// SHA-1's block function with the SHA instructions, and with sixteen lanes of 32 bits. Everything here is compiled for
// processors that have them, function by function, and called only where they were found.

#include "checksum/sha1_blocks.h"

#if defined(__x86_64__)

#include <cpuid.h>
#include <immintrin.h>

#if !defined(__clang__)
// The compiler's own header leaves the unused operand of its masked instructions undefined, and is warned about it.
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#endif

#define KAB_SHA_TARGET __attribute__((target("sha,sse4.1,ssse3")))
#define KAB_LANES_TARGET __attribute__((target("avx512f,avx512bw")))
#define KAB_INLINE inline __attribute__((always_inline))

namespace kab::checksum {
namespace {

// ---- SHA instructions: four rounds each, N messages interleaved

template <int N>
struct Rounds {
  __m128i abcd[N];
  __m128i before[N];  // abcd before the last four rounds, from which the next e comes
  __m128i w[4][N];    // the last sixteen message words
};

template <int Group, int N>
KAB_SHA_TARGET KAB_INLINE void FourRounds(Rounds<N>& r, const __m128i (&e)[N]) {
  if constexpr (Group < 20) {
    for (int n = 0; n < N; ++n) {
      const __m128i now = r.w[Group % 4][n];
      const __m128i sum = Group == 0 ? _mm_add_epi32(e[n], now) : _mm_sha1nexte_epu32(r.before[n], now);
      r.before[n] = r.abcd[n];
      r.abcd[n] = _mm_sha1rnds4_epu32(r.abcd[n], sum, Group / 5);
      if constexpr (Group < 16) {
        const __m128i mixed = _mm_xor_si128(_mm_sha1msg1_epu32(now, r.w[(Group + 1) % 4][n]), r.w[(Group + 2) % 4][n]);
        r.w[Group % 4][n] = _mm_sha1msg2_epu32(mixed, r.w[(Group + 3) % 4][n]);
      }
    }
    FourRounds<Group + 1, N>(r, e);
  }
}

template <int N>
KAB_SHA_TARGET KAB_INLINE void BlocksNi(uint32_t (*states)[5], const uint8_t* const* data, uint64_t blocks) {
  const __m128i reverse = _mm_set_epi64x(0x0001020304050607, 0x08090A0B0C0D0E0F);
  Rounds<N> r;
  __m128i e[N];
  for (int n = 0; n < N; ++n) {
    r.abcd[n] = _mm_shuffle_epi32(_mm_loadu_si128(reinterpret_cast<const __m128i*>(states[n])), 0x1B);
    e[n] = _mm_set_epi32(static_cast<int>(states[n][4]), 0, 0, 0);
  }
  for (uint64_t block = 0; block < blocks; ++block) {
    __m128i saved[N];
    for (int n = 0; n < N; ++n) {
      saved[n] = r.abcd[n];
      const auto* in = reinterpret_cast<const __m128i*>(data[n] + block * 64);
      for (int i = 0; i < 4; ++i) r.w[i][n] = _mm_shuffle_epi8(_mm_loadu_si128(in + i), reverse);
    }
    FourRounds<0, N>(r, e);
    for (int n = 0; n < N; ++n) {
      e[n] = _mm_sha1nexte_epu32(r.before[n], e[n]);
      r.abcd[n] = _mm_add_epi32(r.abcd[n], saved[n]);
    }
  }
  for (int n = 0; n < N; ++n) {
    _mm_storeu_si128(reinterpret_cast<__m128i*>(states[n]), _mm_shuffle_epi32(r.abcd[n], 0x1B));
    states[n][4] = static_cast<uint32_t>(_mm_extract_epi32(e[n], 3));
  }
}

// ---- Sixteen lanes

// 16 blocks of 16 big-endian words, one a lane, to 16 vectors of one word each.
KAB_LANES_TARGET KAB_INLINE void LoadWords(const uint8_t* const* data, uint64_t offset, __m512i w[16]) {
  const __m512i reverse = _mm512_broadcast_i32x4(_mm_set_epi64x(0x0C0D0E0F08090A0B, 0x0405060700010203));
  __m512i a[16];
  __m512i b[16];
  for (int i = 0; i < 16; ++i) a[i] = _mm512_shuffle_epi8(_mm512_loadu_si512(data[i] + offset), reverse);
  for (int i = 0; i < 16; i += 2) {
    b[i] = _mm512_unpacklo_epi32(a[i], a[i + 1]);
    b[i + 1] = _mm512_unpackhi_epi32(a[i], a[i + 1]);
  }
  for (int i = 0; i < 16; i += 4) {  // a[i + j]: words j, 4 + j, 8 + j, 12 + j of lanes i .. i + 3
    a[i] = _mm512_unpacklo_epi64(b[i], b[i + 2]);
    a[i + 1] = _mm512_unpackhi_epi64(b[i], b[i + 2]);
    a[i + 2] = _mm512_unpacklo_epi64(b[i + 1], b[i + 3]);
    a[i + 3] = _mm512_unpackhi_epi64(b[i + 1], b[i + 3]);
  }
  for (int j = 0; j < 4; ++j) {
    const __m512i low01 = _mm512_shuffle_i32x4(a[j], a[4 + j], 0x44);
    const __m512i high01 = _mm512_shuffle_i32x4(a[j], a[4 + j], 0xEE);
    const __m512i low23 = _mm512_shuffle_i32x4(a[8 + j], a[12 + j], 0x44);
    const __m512i high23 = _mm512_shuffle_i32x4(a[8 + j], a[12 + j], 0xEE);
    w[j] = _mm512_shuffle_i32x4(low01, low23, 0x88);
    w[4 + j] = _mm512_shuffle_i32x4(low01, low23, 0xDD);
    w[8 + j] = _mm512_shuffle_i32x4(high01, high23, 0x88);
    w[12 + j] = _mm512_shuffle_i32x4(high01, high23, 0xDD);
  }
}

struct LaneState {
  __m512i a, b, c, d, e;
};

template <int T>
KAB_LANES_TARGET KAB_INLINE void LaneRounds(LaneState& s, __m512i w[16]) {
  if constexpr (T < 80) {
    constexpr uint32_t kConstants[4] = {0x5A827999, 0x6ED9EBA1, 0x8F1BBCDC, 0xCA62C1D6};
    // Truth tables of choose, parity and majority over b, c, d.
    constexpr int kFunctions[4] = {0xCA, 0x96, 0xE8, 0x96};
    constexpr int kFunction = kFunctions[T / 20];  // an immediate also in a build without optimisation
    if constexpr (T >= 16) {
      const __m512i mixed = _mm512_ternarylogic_epi32(w[(T + 13) % 16], w[(T + 8) % 16], w[(T + 2) % 16], 0x96);
      w[T % 16] = _mm512_rol_epi32(_mm512_xor_si512(mixed, w[T % 16]), 1);
    }
    const __m512i f = _mm512_ternarylogic_epi32(s.b, s.c, s.d, kFunction);
    const __m512i input = _mm512_add_epi32(w[T % 16], _mm512_set1_epi32(static_cast<int>(kConstants[T / 20])));
    const __m512i sum = _mm512_add_epi32(_mm512_add_epi32(s.e, input), f);
    s.e = s.d;
    s.d = s.c;
    s.c = _mm512_rol_epi32(s.b, 30);
    s.b = s.a;
    s.a = _mm512_add_epi32(sum, _mm512_rol_epi32(s.a, 5));
    LaneRounds<T + 1>(s, w);
  }
}

}  // namespace

KAB_SHA_TARGET void Sha1BlocksNi(uint32_t state[5], const uint8_t* data, uint64_t blocks) {
  BlocksNi<1>(reinterpret_cast<uint32_t(*)[5]>(state), &data, blocks);
}

KAB_SHA_TARGET void Sha1BlocksNi2(uint32_t states[2][5], const uint8_t* const data[2], uint64_t blocks) {
  BlocksNi<2>(states, data, blocks);
}

bool HasSha1Instructions() {
  unsigned eax = 0;
  unsigned ebx = 0;
  unsigned ecx = 0;
  unsigned edx = 0;
  if (__get_cpuid_count(7, 0, &eax, &ebx, &ecx, &edx) == 0 || (ebx & bit_SHA) == 0) return false;
  return __builtin_cpu_supports("sse4.1") != 0 && __builtin_cpu_supports("ssse3") != 0;
}

KAB_LANES_TARGET void Sha1BlocksLanes16(uint32_t state[5][16], const uint8_t* const data[16], uint64_t blocks) {
  LaneState s{_mm512_loadu_si512(state[0]), _mm512_loadu_si512(state[1]), _mm512_loadu_si512(state[2]),
              _mm512_loadu_si512(state[3]), _mm512_loadu_si512(state[4])};
  for (uint64_t block = 0; block < blocks; ++block) {
    const LaneState saved = s;
    __m512i w[16];
    LoadWords(data, block * 64, w);
    LaneRounds<0>(s, w);
    s.a = _mm512_add_epi32(s.a, saved.a);
    s.b = _mm512_add_epi32(s.b, saved.b);
    s.c = _mm512_add_epi32(s.c, saved.c);
    s.d = _mm512_add_epi32(s.d, saved.d);
    s.e = _mm512_add_epi32(s.e, saved.e);
  }
  _mm512_storeu_si512(state[0], s.a);
  _mm512_storeu_si512(state[1], s.b);
  _mm512_storeu_si512(state[2], s.c);
  _mm512_storeu_si512(state[3], s.d);
  _mm512_storeu_si512(state[4], s.e);
}

// Asks for the registers' upkeep by the system as well.
bool HasSixteenLanes() { return __builtin_cpu_supports("avx512f") != 0 && __builtin_cpu_supports("avx512bw") != 0; }

}  // namespace kab::checksum

#else

namespace kab::checksum {

bool HasSha1Instructions() { return false; }
bool HasSixteenLanes() { return false; }
void Sha1BlocksNi(uint32_t state[5], const uint8_t* data, uint64_t blocks) { Sha1BlocksPlain(state, data, blocks); }
void Sha1BlocksNi2(uint32_t states[2][5], const uint8_t* const data[2], uint64_t blocks) {
  for (int n = 0; n < 2; ++n) Sha1BlocksPlain(states[n], data[n], blocks);
}
void Sha1BlocksLanes16(uint32_t state[5][16], const uint8_t* const data[16], uint64_t blocks) {
  for (int lane = 0; lane < 16; ++lane) {
    uint32_t one[5];
    for (int i = 0; i < 5; ++i) one[i] = state[i][lane];
    Sha1BlocksPlain(one, data[lane], blocks);
    for (int i = 0; i < 5; ++i) state[i][lane] = one[i];
  }
}

}  // namespace kab::checksum

#endif
