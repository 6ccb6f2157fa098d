#include "ocr/ocr_blobs.h"

#include <algorithm>
#include <cstring>
#include <numeric>
#include <vector>

#include <opencv2/imgproc.hpp>

namespace velmora {

namespace {

struct Run {
  int row, cb, ce;
};

// The runs of set pixels of a row, eight bytes at a time through the ground.
void RowRuns(const uint8_t* p, int w, int row, std::vector<Run>* out) {
  int c = 0;
  while (c < w) {
    while (c + 8 <= w) {
      uint64_t word;
      std::memcpy(&word, p + c, 8);
      if (word) break;
      c += 8;
    }
    while (c < w && !p[c]) ++c;
    if (c >= w) break;
    const int cb = c;
    while (c < w && p[c]) ++c;
    out->push_back({row, cb, c - 1});
  }
}

int Find(std::vector<int>& parent, int i) {
  while (parent[size_t(i)] != i) i = parent[size_t(i)] = parent[size_t(parent[size_t(i)])];
  return i;
}

}  // namespace

int BlobStats(const cv::Mat& binary, cv::Mat* stats) {
  CV_Assert(binary.type() == CV_8U);
  const int h = binary.rows, w = binary.cols;
  std::vector<Run> runs;
  std::vector<size_t> row_start(size_t(h) + 1, 0);
  for (int r = 0; r < h; ++r) {
    row_start[size_t(r)] = runs.size();
    RowRuns(binary.ptr<uint8_t>(r), w, r, &runs);
  }
  row_start[size_t(h)] = runs.size();
  // Runs of neighbouring rows touch (8 connectivity) when their columns,
  // each widened by one, overlap.
  std::vector<int> parent(runs.size());
  std::iota(parent.begin(), parent.end(), 0);
  for (int r = 1; r < h; ++r) {
    size_t a = row_start[size_t(r - 1)];
    const size_t a_end = row_start[size_t(r)], b_end = row_start[size_t(r + 1)];
    for (size_t b = a_end; b < b_end; ++b) {
      while (a < a_end && runs[a].ce + 1 < runs[b].cb) ++a;
      for (size_t k = a; k < a_end && runs[k].cb <= runs[b].ce + 1; ++k) {
        const int x = Find(parent, int(k)), y = Find(parent, int(b));
        if (x != y) parent[size_t(std::max(x, y))] = std::min(x, y);
      }
    }
  }
  // One blob per root: its box, area, and first 2 x 2 block (block row,
  // block column) for the order.
  struct Blob {
    int left, top, right, bottom;
    int64_t area;
    int key_row, key_col;
  };
  std::vector<int> blob_of(runs.size(), -1);
  std::vector<Blob> blobs;
  for (size_t i = 0; i < runs.size(); ++i) {
    const int root = Find(parent, int(i));
    int& b = blob_of[size_t(root)];
    const Run& x = runs[i];
    if (b < 0) {
      b = int(blobs.size());
      blobs.push_back({x.cb, x.row, x.ce, x.row, 0, x.row / 2, x.cb / 2});
    }
    Blob& o = blobs[size_t(b)];
    o.left = std::min(o.left, x.cb);
    o.right = std::max(o.right, x.ce);
    o.top = std::min(o.top, x.row);
    o.bottom = std::max(o.bottom, x.row);
    o.area += x.ce - x.cb + 1;
    if (x.row / 2 < o.key_row || (x.row / 2 == o.key_row && x.cb / 2 < o.key_col)) {
      o.key_row = x.row / 2;
      o.key_col = x.cb / 2;
    }
  }
  // Two blobs never share a block (its pixels all touch), so the order is
  // strict.
  std::sort(blobs.begin(), blobs.end(), [](const Blob& a, const Blob& b) {
    return a.key_row != b.key_row ? a.key_row < b.key_row : a.key_col < b.key_col;
  });
  const int n = int(blobs.size()) + 1;
  stats->create(n, cv::CC_STAT_MAX, CV_32S);
  int64_t set = 0;
  for (const Blob& b : blobs) set += b.area;
  // The ground, as OpenCV counts it: the box of the unset pixels.
  int* g = stats->ptr<int>(0);
  const int64_t ground = int64_t(h) * w - set;
  if (ground == 0) {
    g[cv::CC_STAT_LEFT] = w, g[cv::CC_STAT_TOP] = h;
    g[cv::CC_STAT_WIDTH] = -w, g[cv::CC_STAT_HEIGHT] = -h;
  } else {
    int left = w, right = -1, top = h, bottom = -1;
    for (int r = 0; r < h; ++r) {
      // A row has ground unless its runs cover it.
      int covered = 0, first_gap = 0, last_gap = w - 1;
      bool starts_set = false, ends_set = false;
      for (size_t i = row_start[size_t(r)]; i < row_start[size_t(r + 1)]; ++i) {
        covered += runs[i].ce - runs[i].cb + 1;
        if (runs[i].cb == 0) starts_set = true, first_gap = runs[i].ce + 1;
        if (runs[i].ce == w - 1) ends_set = true, last_gap = runs[i].cb - 1;
      }
      if (covered == w) continue;
      top = std::min(top, r), bottom = r;
      left = std::min(left, starts_set ? first_gap : 0);
      right = std::max(right, ends_set ? last_gap : w - 1);
    }
    g[cv::CC_STAT_LEFT] = left, g[cv::CC_STAT_TOP] = top;
    g[cv::CC_STAT_WIDTH] = right - left + 1, g[cv::CC_STAT_HEIGHT] = bottom - top + 1;
  }
  g[cv::CC_STAT_AREA] = int(ground);
  for (int i = 1; i < n; ++i) {
    const Blob& b = blobs[size_t(i - 1)];
    int* s = stats->ptr<int>(i);
    s[cv::CC_STAT_LEFT] = b.left;
    s[cv::CC_STAT_TOP] = b.top;
    s[cv::CC_STAT_WIDTH] = b.right - b.left + 1;
    s[cv::CC_STAT_HEIGHT] = b.bottom - b.top + 1;
    s[cv::CC_STAT_AREA] = int(b.area);
  }
  return n;
}

}  // namespace velmora
