// The scanline aggregation and the winner selection of the disparity search
// for processors with AVX2 and SSE4.1: two pixels' eight disparities in one
// 256-bit vector, and the lowest of a pixel's eight sums and its lane by one
// instruction. Each lane goes through the same saturating 16-bit operations
// as the 128-bit path, so the results are the same, bit for bit.
#include "vision/stereo/disparity_internal.h"

#include <algorithm>
#include <cstdint>
#include <vector>

#include <opencv2/core.hpp>

#if defined(__x86_64__)
#include <immintrin.h>
#endif

namespace vision::disparity_internal {

#if defined(__x86_64__)

bool WideAggregation() {
  static const bool ok = __builtin_cpu_supports("avx2");
  return ok;
}

bool MinPosWinner() {
  static const bool ok = __builtin_cpu_supports("sse4.1");
  return ok;
}

namespace {

// Byte shuffles of the previous pixel's path costs to this pixel's
// disparities d - 1, d and d + 1, for each jump between the two pixels'
// first disparities (-9 .. 9; the ends stand for every larger jump, which
// leaves nothing reachable but by the jump penalty). Bytes 0x80 where the
// previous pixel did not test the disparity (the shuffle yields 0 there).
struct Shuffles {
  alignas(16) uint8_t m[19][3][16];
  Shuffles() {
    for (int d = -9; d <= 9; ++d)
      for (int s = 0; s < 3; ++s)
        for (int lane = 0; lane < 8; ++lane) {
          const int src = lane + d + s - 1;
          const bool in = d > -9 && d < 9 && src >= 0 && src < 8;
          m[d + 9][s][2 * lane] = in ? uint8_t(2 * src) : 0x80;
          m[d + 9][s][2 * lane + 1] = in ? uint8_t(2 * src + 1) : 0x80;
        }
  }
};

// Vectors in a buffer of 16-bit lanes, 32-byte aligned by hand (the heap
// promises 16).
struct Lanes {
  __m256i v;
};
class LaneBuffer {
 public:
  explicit LaneBuffer(size_t n) : raw_(n * 16 + 16) {}
  Lanes* data() {
    const uintptr_t p = reinterpret_cast<uintptr_t>(raw_.data());
    return reinterpret_cast<Lanes*>((p + 31) & ~uintptr_t(31));
  }

 private:
  std::vector<int16_t> raw_;
};

struct Consts {
  __m256i p1, p2, pad, inf, rot16;
};

#define VISION_AVX2 __attribute__((target("avx2"), always_inline)) inline

VISION_AVX2 Consts MakeConsts(int k, int p1, int p2) {
  Consts c;
  c.p1 = _mm256_set1_epi16(int16_t(p1));
  c.p2 = _mm256_set1_epi16(int16_t(p2));
  alignas(32) int16_t pad[16];
  for (int i = 0; i < 16; ++i) pad[i] = i % 8 < k ? 0 : kPathInf;
  c.pad = _mm256_load_si256(reinterpret_cast<const __m256i*>(pad));
  c.inf = _mm256_set1_epi16(kPathInf);
  // Swaps the two 16-bit halves of every 32-bit element.
  c.rot16 = _mm256_setr_epi8(2, 3, 0, 1, 6, 7, 4, 5, 10, 11, 8, 9, 14, 15, 12, 13, 2, 3, 0, 1, 6, 7, 4, 5, 10, 11,
                             8, 9, 14, 15, 12, 13);
  return c;
}

// The eight costs of two pixels (at lo and hi) as 16-bit lanes.
VISION_AVX2 __m256i Costs(const uint8_t* lo, const uint8_t* hi) {
  const __m128i a = _mm_loadl_epi64(reinterpret_cast<const __m128i*>(lo));
  const __m128i b = _mm_loadl_epi64(reinterpret_cast<const __m128i*>(hi));
  return _mm256_cvtepu8_epi16(_mm_unpacklo_epi64(a, b));
}
// Of two neighbouring pixels.
VISION_AVX2 __m256i Costs(const uint8_t* c) {
  return _mm256_cvtepu8_epi16(_mm_loadu_si128(reinterpret_cast<const __m128i*>(c)));
}

VISION_AVX2 __m256i First(__m256i cost, const Consts& c) { return _mm256_max_epi16(cost, c.pad); }

// The lowest of each half's eight lanes, in all eight.
VISION_AVX2 __m256i HalfMin(__m256i v, const Consts& c) {
  __m256i m = _mm256_min_epi16(v, _mm256_shuffle_epi32(v, 0x4E));
  m = _mm256_min_epi16(m, _mm256_shuffle_epi32(m, 0xB1));
  return _mm256_min_epi16(m, _mm256_shuffle_epi8(m, c.rot16));
}

VISION_AVX2 __m256i Pick(__m256i prev, const uint8_t* lo, const uint8_t* hi, const Consts& c) {
  const __m256i m = _mm256_inserti128_si256(
      _mm256_castsi128_si256(_mm_load_si128(reinterpret_cast<const __m128i*>(lo))),
      _mm_load_si128(reinterpret_cast<const __m128i*>(hi)), 1);
  // The shuffle's zero lanes (bytes 0x80) take kPathInf.
  return _mm256_blendv_epi8(_mm256_shuffle_epi8(prev, m), c.inf, m);
}

// Path costs at two pixels whose disparities start d0 and d1 above those of
// their previous pixels on the path.
VISION_AVX2 __m256i Step(__m256i cost, __m256i prev, int d0, int d1, const Consts& c, const Shuffles& t) {
  const __m256i minq = HalfMin(prev, c);
  __m256i q, qm, qp;  // previous costs at d, d - 1 and d + 1
  if ((d0 | d1) == 0) {
    q = prev;
    // Shifted by a lane within each pixel, kPathInf shifted in.
    qm = _mm256_alignr_epi8(prev, c.inf, 14);
    qp = _mm256_alignr_epi8(c.inf, prev, 2);
  } else {
    const int i0 = std::clamp(d0, -9, 9) + 9, i1 = std::clamp(d1, -9, 9) + 9;
    qm = Pick(prev, t.m[i0][0], t.m[i1][0], c);
    q = Pick(prev, t.m[i0][1], t.m[i1][1], c);
    qp = Pick(prev, t.m[i0][2], t.m[i1][2], c);
  }
  const __m256i best = _mm256_min_epi16(_mm256_min_epi16(q, _mm256_adds_epi16(minq, c.p2)),
                                        _mm256_adds_epi16(_mm256_min_epi16(qm, qp), c.p1));
  return _mm256_max_epi16(_mm256_subs_epi16(_mm256_adds_epi16(cost, best), minq), c.pad);
}

VISION_AVX2 void Store2(uint16_t* lo, uint16_t* hi, __m256i v) {
  _mm_storeu_si128(reinterpret_cast<__m128i*>(lo), _mm256_castsi256_si128(v));
  _mm_storeu_si128(reinterpret_cast<__m128i*>(hi), _mm256_extracti128_si256(v, 1));
}

// Rows g0 * 4 .. g1 * 4 - 1, four at a time in two chains of two rows (one
// chain runs while the other waits for its minimum); past the last row the
// last one again, which writes the same sums.
__attribute__((target("avx2"))) void RowsAvx2(const uint8_t* cost, const int* base, uint16_t* sum, int w, int h,
                                              int k, int p1, int p2, int g0, int g1) {
  const Consts c = MakeConsts(k, p1, p2);
  static const Shuffles tables;
  const Shuffles& t = tables;
  LaneBuffer right_buf(size_t(2) * w);  // left-to-right costs of both chains
  Lanes* right = right_buf.data();
  for (int g = g0; g < g1; ++g) {
    size_t r[4];
    for (int j = 0; j < 4; ++j) r[j] = size_t(std::min(4 * g + j, h - 1)) * w;
    __m256i a = First(Costs(cost + r[0] * 8, cost + r[1] * 8), c);
    __m256i b = First(Costs(cost + r[2] * 8, cost + r[3] * 8), c);
    right[0].v = a;
    right[1].v = b;
    for (int x = 1; x < w; ++x) {
      const size_t p0 = r[0] + x, p1x = r[1] + x, p2x = r[2] + x, p3 = r[3] + x;
      a = Step(Costs(cost + p0 * 8, cost + p1x * 8), a, base[p0] - base[p0 - 1], base[p1x] - base[p1x - 1], c, t);
      b = Step(Costs(cost + p2x * 8, cost + p3 * 8), b, base[p2x] - base[p2x - 1], base[p3] - base[p3 - 1], c, t);
      right[2 * size_t(x)].v = a;
      right[2 * size_t(x) + 1].v = b;
    }
    for (int x = w - 1; x >= 0; --x) {
      const size_t p0 = r[0] + x, p1x = r[1] + x, p2x = r[2] + x, p3 = r[3] + x;
      if (x == w - 1) {
        a = First(Costs(cost + p0 * 8, cost + p1x * 8), c);
        b = First(Costs(cost + p2x * 8, cost + p3 * 8), c);
      } else {
        a = Step(Costs(cost + p0 * 8, cost + p1x * 8), a, base[p0] - base[p0 + 1], base[p1x] - base[p1x + 1], c,
                 t);
        b = Step(Costs(cost + p2x * 8, cost + p3 * 8), b, base[p2x] - base[p2x + 1], base[p3] - base[p3 + 1], c,
                 t);
      }
      Store2(sum + p0 * 8, sum + p1x * 8, _mm256_adds_epu16(right[2 * size_t(x)].v, a));
      Store2(sum + p2x * 8, sum + p3 * 8, _mm256_adds_epu16(right[2 * size_t(x) + 1].v, b));
    }
  }
}

// Columns in blocks of 32, two neighbouring columns a vector; a block of
// odd width has its last column in both halves (only one stored).
__attribute__((target("avx2"))) void ColumnsAvx2(const uint8_t* cost, const int* base, uint16_t* sum, int w,
                                                 int h, int k, int p1, int p2, int b0, int b1) {
  constexpr int kBlock = 32;
  const Consts c = MakeConsts(k, p1, p2);
  static const Shuffles tables;
  const Shuffles& t = tables;
  LaneBuffer down_buf(size_t(kBlock / 2) * h);
  Lanes* down = down_buf.data();  // top-to-bottom costs of the block
  for (int bi = b0; bi < b1; ++bi) {
    const int x0 = bi * kBlock, x1 = std::min(w, x0 + kBlock);
    const int pairs = (x1 - x0) / 2, slots = (x1 - x0 + 1) / 2;
    const int xl = x1 - 1;  // the odd block's last column
    for (int s = 0; s < pairs; ++s) down[s].v = First(Costs(cost + size_t(x0 + 2 * s) * 8), c);
    if (slots > pairs) down[pairs].v = First(Costs(cost + size_t(xl) * 8, cost + size_t(xl) * 8), c);
    for (int y = 1; y < h; ++y) {
      const Lanes* q = &down[size_t(y - 1) * slots];
      Lanes* o = &down[size_t(y) * slots];
      const size_t row = size_t(y) * w;
      for (int s = 0; s < pairs; ++s) {
        const size_t pix = row + x0 + 2 * s;
        o[s].v = Step(Costs(cost + pix * 8), q[s].v, base[pix] - base[pix - w], base[pix + 1] - base[pix + 1 - w], c, t);
      }
      if (slots > pairs) {
        const size_t pix = row + xl;
        const int d = base[pix] - base[pix - w];
        o[pairs].v = Step(Costs(cost + pix * 8, cost + pix * 8), q[pairs].v, d, d, c, t);
      }
    }
    __m256i up[kBlock / 2];
    for (int y = h - 1; y >= 0; --y) {
      const Lanes* d = &down[size_t(y) * slots];
      const size_t row = size_t(y) * w;
      for (int s = 0; s < pairs; ++s) {
        const size_t pix = row + x0 + 2 * s;
        up[s] = y == h - 1 ? First(Costs(cost + pix * 8), c)
                           : Step(Costs(cost + pix * 8), up[s], base[pix] - base[pix + w],
                                  base[pix + 1] - base[pix + 1 + w], c, t);
        __m256i* o = reinterpret_cast<__m256i*>(sum + pix * 8);
        _mm256_storeu_si256(o, _mm256_adds_epu16(_mm256_adds_epu16(_mm256_loadu_si256(o), d[s].v), up[s]));
      }
      if (slots > pairs) {
        const size_t pix = row + xl;
        const int dd = y == h - 1 ? 0 : base[pix] - base[pix + w];
        up[pairs] = y == h - 1 ? First(Costs(cost + pix * 8, cost + pix * 8), c)
                               : Step(Costs(cost + pix * 8, cost + pix * 8), up[pairs], dd, dd, c, t);
        __m128i* o = reinterpret_cast<__m128i*>(sum + pix * 8);
        const __m128i v = _mm_adds_epu16(_mm_adds_epu16(_mm_loadu_si128(o), _mm256_castsi256_si128(d[pairs].v)),
                                         _mm256_castsi256_si128(up[pairs]));
        _mm_storeu_si128(o, v);
      }
    }
  }
}

}  // namespace

void AggregateWide(const uint8_t* cost, const int* base, uint16_t* sum, int w, int h, int k, int p1, int p2) {
  // Each sum is written once by the rows' pass and read and written once
  // more by the columns' pass, in the order of the four directions.
  cv::parallel_for_(cv::Range(0, (h + 3) / 4), [&](const cv::Range& rg) {
    RowsAvx2(cost, base, sum, w, h, k, p1, p2, rg.start, rg.end);
  });
  cv::parallel_for_(cv::Range(0, (w + 31) / 32), [&](const cv::Range& rg) {
    ColumnsAvx2(cost, base, sum, w, h, k, p1, p2, rg.start, rg.end);
  });
}

__attribute__((target("avx2"))) void CensusRowWide(const float* c, size_t step, int w, uint64_t* o) {
  // Eight centres at a time, their two halves of the signature kept in
  // registers over all 48 neighbours (a set bit: the neighbour is darker).
  constexpr int R = 3;
  std::ptrdiff_t off[48];
  int n = 0;
  for (int dy = -R; dy <= R; ++dy)
    for (int dx = -R; dx <= R; ++dx)
      if (dx != 0 || dy != 0) off[n++] = std::ptrdiff_t(dy) * std::ptrdiff_t(step) + dx;
  int x = 0;
  for (; x + 8 <= w; x += 8) {
    const float* p = c + x;
    const __m256 centre = _mm256_loadu_ps(p);
    // The comparison's all-ones lanes are -1: h * 2 + 1 where darker.
    __m256i first = _mm256_setzero_si256(), second = _mm256_setzero_si256();
#pragma GCC unroll 24
    for (int i = 0; i < 24; ++i)
      first = _mm256_sub_epi32(_mm256_slli_epi32(first, 1),
                               _mm256_castps_si256(_mm256_cmp_ps(_mm256_loadu_ps(p + off[i]), centre, _CMP_LT_OQ)));
#pragma GCC unroll 24
    for (int i = 24; i < 48; ++i)
      second = _mm256_sub_epi32(_mm256_slli_epi32(second, 1),
                                _mm256_castps_si256(_mm256_cmp_ps(_mm256_loadu_ps(p + off[i]), centre, _CMP_LT_OQ)));
    for (int j = 0; j < 2; ++j) {
      const __m256i hi = _mm256_cvtepu32_epi64(j ? _mm256_extracti128_si256(first, 1) : _mm256_castsi256_si128(first));
      const __m256i lo = _mm256_cvtepu32_epi64(j ? _mm256_extracti128_si256(second, 1) : _mm256_castsi256_si128(second));
      _mm256_storeu_si256(reinterpret_cast<__m256i*>(o + x + 4 * j), _mm256_or_si256(_mm256_slli_epi64(hi, 24), lo));
    }
  }
  for (; x < w; ++x) {
    uint32_t half[2] = {0, 0};
    int bit = 0;
    for (int dy = -R; dy <= R; ++dy)
      for (int dx = -R; dx <= R; ++dx) {
        if (dx == 0 && dy == 0) continue;
        uint32_t& h = half[bit++ < 24 ? 0 : 1];
        h = (h << 1) | uint32_t(c[std::ptrdiff_t(dy) * std::ptrdiff_t(step) + x + dx] < c[x]);
      }
    o[x] = (uint64_t(half[0]) << 24) | half[1];
  }
}

bool WideCoarse() {
  static const bool ok = __builtin_cpu_supports("avx512f") && __builtin_cpu_supports("avx512bw");
  return ok;
}

namespace {

// The aggregation of up to 32 disparities a pixel (the coarsest level's
// full range): one 512-bit vector of 16-bit path costs a pixel, lanes past
// K at kPathInf as in the eight-lane paths.
#define VISION_AVX512 __attribute__((target("avx512f,avx512bw"), always_inline)) inline

struct Consts32 {
  __m512i p1, p2, pad, inf, iota, rot16;
};

VISION_AVX512 Consts32 MakeConsts32(int k, int p1, int p2) {
  Consts32 c;
  c.p1 = _mm512_set1_epi16(int16_t(p1));
  c.p2 = _mm512_set1_epi16(int16_t(p2));
  c.inf = _mm512_set1_epi16(kPathInf);
  alignas(64) int16_t pad[32], iota[32];
  for (int i = 0; i < 32; ++i) {
    pad[i] = i < k ? 0 : kPathInf;
    iota[i] = int16_t(i);
  }
  c.pad = _mm512_load_si512(pad);
  c.iota = _mm512_load_si512(iota);
  alignas(64) int8_t rot[64];
  for (int i = 0; i < 64; ++i) rot[i] = int8_t((i & ~3) | ((i + 2) & 3));  // swaps 16-bit halves in lanes
  c.rot16 = _mm512_load_si512(rot);
  return c;
}

VISION_AVX512 __m512i Costs32(const uint8_t* c) {
  return _mm512_cvtepu8_epi16(_mm256_loadu_si256(reinterpret_cast<const __m256i*>(c)));
}

VISION_AVX512 __m512i AllMin(__m512i v, const Consts32& c) {
  __m512i m = _mm512_min_epi16(v, _mm512_shuffle_i64x2(v, v, 0x4E));
  m = _mm512_min_epi16(m, _mm512_shuffle_i64x2(m, m, 0xB1));
  m = _mm512_min_epi16(m, _mm512_shuffle_epi32(m, _MM_PERM_BADC));
  m = _mm512_min_epi16(m, _mm512_shuffle_epi32(m, _MM_PERM_CDAB));
  return _mm512_min_epi16(m, _mm512_shuffle_epi8(m, c.rot16));
}

// The previous costs at lane + s, kPathInf past either end.
VISION_AVX512 __m512i Shifted(__m512i prev, int s, const Consts32& c) {
  const __m512i idx = _mm512_add_epi16(c.iota, _mm512_set1_epi16(int16_t(s)));
  const __mmask32 in = _mm512_cmplt_epu16_mask(idx, _mm512_set1_epi16(32));
  return _mm512_mask_permutexvar_epi16(c.inf, in, idx, prev);
}

VISION_AVX512 __m512i Step32(__m512i cost, __m512i prev, int delta, const Consts32& c) {
  const __m512i minq = AllMin(prev, c);
  // Jumps past the 32 lanes leave nothing reachable but by the jump penalty.
  const int d = std::clamp(delta, -40, 40);
  const __m512i qm = Shifted(prev, d - 1, c), q = Shifted(prev, d, c), qp = Shifted(prev, d + 1, c);
  const __m512i best = _mm512_min_epi16(_mm512_min_epi16(q, _mm512_adds_epi16(minq, c.p2)),
                                        _mm512_adds_epi16(_mm512_min_epi16(qm, qp), c.p1));
  return _mm512_max_epi16(_mm512_subs_epi16(_mm512_adds_epi16(cost, best), minq), c.pad);
}

struct Lanes32 {
  __m512i v;
};

// Rows g0 * 4 .. g1 * 4 - 1 in four chains (past the last row the last one
// again, which writes the same sums).
__attribute__((target("avx512f,avx512bw"))) void Rows32(const uint8_t* cost, const int* base, uint16_t* sum, int w,
                                                        int h, int k, int p1, int p2, int g0, int g1) {
  const Consts32 c = MakeConsts32(k, p1, p2);
  std::vector<int16_t> raw(size_t(4) * w * 32 + 32);
  Lanes32* right = reinterpret_cast<Lanes32*>((reinterpret_cast<uintptr_t>(raw.data()) + 63) & ~uintptr_t(63));
  for (int g = g0; g < g1; ++g) {
    size_t r[4];
    __m512i l[4];
    for (int j = 0; j < 4; ++j) {
      r[j] = size_t(std::min(4 * g + j, h - 1)) * w;
      right[j].v = l[j] = _mm512_max_epi16(Costs32(cost + r[j] * 32), c.pad);
    }
    for (int x = 1; x < w; ++x)
      for (int j = 0; j < 4; ++j) {
        const size_t pix = r[j] + x;
        l[j] = Step32(Costs32(cost + pix * 32), l[j], base[pix] - base[pix - 1], c);
        right[size_t(x) * 4 + j].v = l[j];
      }
    for (int x = w - 1; x >= 0; --x)
      for (int j = 0; j < 4; ++j) {
        const size_t pix = r[j] + x;
        l[j] = x == w - 1 ? _mm512_max_epi16(Costs32(cost + pix * 32), c.pad)
                          : Step32(Costs32(cost + pix * 32), l[j], base[pix] - base[pix + 1], c);
        _mm512_storeu_si512(sum + pix * 32, _mm512_adds_epu16(right[size_t(x) * 4 + j].v, l[j]));
      }
  }
}

// Columns in blocks of 16.
__attribute__((target("avx512f,avx512bw"))) void Columns32(const uint8_t* cost, const int* base, uint16_t* sum,
                                                           int w, int h, int k, int p1, int p2, int b0, int b1) {
  constexpr int kBlock = 16;
  const Consts32 c = MakeConsts32(k, p1, p2);
  std::vector<int16_t> raw(size_t(kBlock) * h * 32 + 32);
  Lanes32* down = reinterpret_cast<Lanes32*>((reinterpret_cast<uintptr_t>(raw.data()) + 63) & ~uintptr_t(63));
  for (int bi = b0; bi < b1; ++bi) {
    const int x0 = bi * kBlock, x1 = std::min(w, x0 + kBlock), bw = x1 - x0;
    for (int x = x0; x < x1; ++x) down[x - x0].v = _mm512_max_epi16(Costs32(cost + size_t(x) * 32), c.pad);
    for (int y = 1; y < h; ++y)
      for (int x = x0; x < x1; ++x) {
        const size_t pix = size_t(y) * w + x;
        down[size_t(y) * bw + (x - x0)].v =
            Step32(Costs32(cost + pix * 32), down[size_t(y - 1) * bw + (x - x0)].v, base[pix] - base[pix - w], c);
      }
    __m512i up[kBlock];
    for (int y = h - 1; y >= 0; --y)
      for (int x = x0; x < x1; ++x) {
        const size_t pix = size_t(y) * w + x;
        __m512i& l = up[x - x0];
        l = y == h - 1 ? _mm512_max_epi16(Costs32(cost + pix * 32), c.pad)
                       : Step32(Costs32(cost + pix * 32), l, base[pix] - base[pix + w], c);
        uint16_t* o = sum + pix * 32;
        _mm512_storeu_si512(o, _mm512_adds_epu16(_mm512_adds_epu16(_mm512_loadu_si512(o),
                                                                   down[size_t(y) * bw + (x - x0)].v), l));
      }
  }
}

}  // namespace

void AggregateWide32(const uint8_t* cost, const int* base, uint16_t* sum, int w, int h, int k, int p1, int p2) {
  cv::parallel_for_(cv::Range(0, (h + 3) / 4), [&](const cv::Range& rg) {
    Rows32(cost, base, sum, w, h, k, p1, p2, rg.start, rg.end);
  });
  cv::parallel_for_(cv::Range(0, (w + 15) / 16), [&](const cv::Range& rg) {
    Columns32(cost, base, sum, w, h, k, p1, p2, rg.start, rg.end);
  });
}

bool WideCost() {
  static const bool ok = __builtin_cpu_supports("avx512f") && __builtin_cpu_supports("avx512bw") &&
                         __builtin_cpu_supports("avx512vl") && __builtin_cpu_supports("avx512vpopcntdq");
  return ok;
}

__attribute__((target("avx512f,avx512bw,avx512vl,avx512vpopcntdq"))) void CostRowWide(
    const uint64_t* a, const uint64_t* b, const uint8_t* m2, int w, int w2, int k, const int* base,
    uint8_t outside, uint8_t* cost) {
  const __m128i out = _mm_set1_epi8(char(outside));
  const unsigned lanes = (1u << k) - 1;
  for (int x = 0; x < w; ++x) {
    // The disparities whose column of image 2 lies in the row (masked
    // loads read nothing outside it) and in its domain.
    const int start = x + base[x];
    const int lo = std::max(0, -start), hi = std::min(8, w2 - start);
    const unsigned in = hi > lo ? lanes & ((1u << hi) - 1) & ~((1u << lo) - 1) : 0u;
    const std::ptrdiff_t at = start;
    const __m128i m = _mm_maskz_loadu_epi8(__mmask16(in), m2 + at);
    const __mmask8 valid = __mmask8(_mm_mask_test_epi8_mask(__mmask16(in), m, m));
    const __m512i d = _mm512_xor_si512(_mm512_maskz_loadu_epi64(valid, b + at), _mm512_set1_epi64(int64_t(a[x])));
    const __m128i bits = _mm512_cvtepi64_epi8(_mm512_popcnt_epi64(d));
    _mm_storel_epi64(reinterpret_cast<__m128i*>(cost + size_t(x) * 8), _mm_mask_blend_epi8(__mmask16(valid), out, bits));
  }
}

__attribute__((target("sse4.1"))) void WinnerRowMinPos(const uint16_t* sum, const int* base, int n, int k,
                                                       float* d, int* best) {
  for (int x = 0; x < n; ++x) {
    const uint16_t* v = sum + size_t(x) * 8;
    // The lowest sum and its first lane.
    const unsigned m =
        unsigned(_mm_cvtsi128_si32(_mm_minpos_epu16(_mm_loadu_si128(reinterpret_cast<const __m128i*>(v)))));
    const int i = int(m >> 16);
    // The parabola through the neighbours where both exist and it opens
    // upwards (the lanes either side of the first and the last read, but
    // not used).
    const float a = v[std::max(i - 1, 0)], b = float(m & 0xffff), c = v[std::min(i + 1, 7)];
    const float den = a - 2 * b + c;
    const float sub = i > 0 && i < k - 1 && den > 0 ? 0.5f * (a - c) / den : 0.f;
    d[x] = float(base[x] + i) + sub;
    best[x] = int(m & 0xffff);
  }
}

#else

bool WideAggregation() { return false; }
bool MinPosWinner() { return false; }
void AggregateWide(const uint8_t*, const int*, uint16_t*, int, int, int, int, int) {}
void WinnerRowMinPos(const uint16_t*, const int*, int, int, float*, int*) {}
void CensusRowWide(const float*, size_t, int, uint64_t*) {}
bool WideCost() { return false; }
bool WideCoarse() { return false; }
void AggregateWide32(const uint8_t*, const int*, uint16_t*, int, int, int, int, int) {}
void CostRowWide(const uint64_t*, const uint64_t*, const uint8_t*, int, int, int, const int*, uint8_t, uint8_t*) {}

#endif

}  // namespace vision::disparity_internal
