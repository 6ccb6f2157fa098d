#pragma once
// Parts of binocular_disparity_ms open to its tests.
#include <cstddef>
#include <cstdint>
#include <vector>

namespace vision::disparity_internal {

// Whether the vector path of the scanline aggregation takes K disparities a
// pixel with a jump penalty of P2 (else the scalar path runs).
bool VectorAggregation(int k, int p2);

// Path costs no step can pick (the vector paths' lanes past K).
constexpr int16_t kPathInf = 16000;

// Whether the processor runs the vector path two pixels a vector
// (AggregateWide), and the winner selection by its minimum-position
// instruction (WinnerRowMinPos).
bool WideAggregation();
bool MinPosWinner();

// The vector path two pixels a vector: `cost` and `sum` hold eight lanes a
// pixel (lanes past K: costs as any, sums written as kPathInf's).
void AggregateWide(const uint8_t* cost, const int* base, uint16_t* sum, int w, int h, int k, int p1, int p2);

// The winner of n pixels' eight sums (lanes past K above any real sum) with
// the parabola through its neighbours, as the generic path finds it.
void WinnerRowMinPos(const uint16_t* sum, const int* base, int n, int k, float* d, int* best);

// One row of 7 x 7 census signatures (as the generic path makes them) from
// the row of centres `c` of a padded image with `step` floats a row, eight
// centres a vector; for processors with AVX2 (WideAggregation).
void CensusRowWide(const float* c, size_t step, int w, uint64_t* o);

// Whether the processor runs the aggregation of 9 to 32 disparities a
// pixel in 512-bit vectors (AggregateWide32).
bool WideCoarse();

// AggregateWide for up to 32 disparities a pixel, `cost` and `sum` with 32
// lanes a pixel.
void AggregateWide32(const uint8_t* cost, const int* base, uint16_t* sum, int w, int h, int k, int p1, int p2);

// Whether the processor has the 512-bit population count (CostRowWide).
bool WideCost();

// One row of census costs, eight lanes a pixel: the Hamming distance of
// a[x] to b[x + base[x] + i] for the K disparities i whose column lies in
// the row of w2 columns and in its domain (m2 non-zero), `outside` in the
// other lanes.
void CostRowWide(const uint64_t* a, const uint64_t* b, const uint8_t* m2, int w, int w2, int k, const int* base,
                 uint8_t outside, uint8_t* cost);

enum class AggregationPath { kScalar, kVector, kWide };

// The scanline aggregation on its own: `cost` holds K costs for each pixel
// of a w x h image (row by row), `base` each pixel's first disparity. The
// result holds the K path costs of every pixel summed over the four
// scanlines, through the given path where VectorAggregation (and for kWide
// WideAggregation) allows it, else through the scalar path.
std::vector<uint16_t> AggregateCosts(const std::vector<uint8_t>& cost, const std::vector<int>& base, int w,
                                     int h, int k, int p1, int p2, AggregationPath path);

// The sub-pixel refinement's resampling taps of pixels 0 .. d.size() - 1 at
// x + d[x] in a row of w2 columns, four pixels at a time where `vector`
// allows, else one at a time: per pixel the four source columns, the bit
// patterns of the four cubic weights, the two linear columns and the bit
// pattern of the linear weight (11 values).
std::vector<int32_t> ResamplingTaps(const std::vector<float>& d, int w2, bool vector);

// The column of image 2 nearest to x (0 <= x <= 2^23) for the consistency
// check, halves rounded up as std::lround does.
int NearestColumn(float x);

}  // namespace vision::disparity_internal
