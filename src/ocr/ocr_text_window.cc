#include "ocr/ocr_text_window.h"

#include <algorithm>
#include <vector>

#include <opencv2/imgproc.hpp>

#include "ocr/ocr_blobs.h"
#include "ocr/ocr_piece_split.h"
#include "vision/filter/filters.h"
#include "vision/filter/image_ops.h"
#include "vision/region/region_ops.h"

namespace velmora {

bool FindTextLine(const cv::Mat& gray, cv::Rect* line) {
  if (gray.empty() || gray.type() != CV_8U || gray.cols < 8 || gray.rows < 8) return false;
  // Edges of print: gradient magnitude of the lightly smoothed image against
  // a threshold above the noise (the median magnitude is the ground's).
  cv::Mat smooth, gx, gy, mag;
  cv::GaussianBlur(gray, smooth, cv::Size(0, 0), 1.2);
  cv::Sobel(smooth, gx, CV_16S, 1, 0);
  cv::Sobel(smooth, gy, CV_16S, 0, 1);
  cv::convertScaleAbs(gx, gx);
  cv::convertScaleAbs(gy, gy);
  cv::add(gx, gy, mag);
  // Whole-frame intermediates go as soon as they are used: on a large image
  // each is a plane of the frame's size.
  smooth.release();
  gx.release();
  gy.release();
  std::vector<int> hist(256, 0);
  for (int r = 0; r < mag.rows; ++r)
    for (const uint8_t* p = mag.ptr<uint8_t>(r); p != mag.ptr<uint8_t>(r) + mag.cols; ++p) ++hist[*p];
  const long half = long(mag.total()) / 2;
  int median = 0;
  for (long acc = 0; median < 255 && (acc += hist[size_t(median)]) < half;) ++median;
  const double level = std::max(24.0, 4.0 * median + 8.0);
  cv::Mat edges = mag > level;
  mag.release();
  // The print's height: the median height of the edge blobs that are not
  // specks (a character's edges form one blob or a few).
  // Boxes and areas alone, from the runs (OpenCV's table without a label
  // image): a third of the line finding's time before.
  cv::Mat stats;
  int n = BlobStats(edges, &stats);
  std::vector<int> heights;
  for (int i = 1; i < n; ++i)
    if (stats.at<int>(i, cv::CC_STAT_HEIGHT) >= 6) heights.push_back(stats.at<int>(i, cv::CC_STAT_HEIGHT));
  if (heights.empty()) return false;
  std::nth_element(heights.begin(), heights.begin() + long(heights.size() / 2), heights.end());
  const int text_h = heights[heights.size() / 2];
  // Characters of a line join along the line (gaps up to a character
  // height), not across lines.
  cv::morphologyEx(edges, edges, cv::MORPH_CLOSE,
                   cv::getStructuringElement(cv::MORPH_RECT, cv::Size(std::max(9, text_h), 3)));
  // Thin lines (the border of a part or a label) are not print.
  cv::morphologyEx(edges, edges, cv::MORPH_OPEN,
                   cv::getStructuringElement(cv::MORPH_RECT, cv::Size(3, 3)));
  n = BlobStats(edges, &stats);
  int best = -1;
  double best_score = 0;
  for (int i = 1; i < n; ++i) {
    const int w = stats.at<int>(i, cv::CC_STAT_WIDTH), h = stats.at<int>(i, cv::CC_STAT_HEIGHT);
    const int area = stats.at<int>(i, cv::CC_STAT_AREA);
    // A line of print is wider than high, at least a few pixels high, and
    // fills a fair part of its box with edges.
    if (h < 8 || w < h || double(area) < 0.25 * w * h) continue;
    const double score = double(area);
    if (score > best_score) {
      best_score = score;
      best = i;
    }
  }
  if (best < 0) return false;
  int x = stats.at<int>(best, cv::CC_STAT_LEFT), y = stats.at<int>(best, cv::CC_STAT_TOP);
  int x2 = x + stats.at<int>(best, cv::CC_STAT_WIDTH), y2 = y + stats.at<int>(best, cv::CC_STAT_HEIGHT);
  // Parts of the same line further apart (a blank, wide spacing) join it:
  // blobs beside it that share most of its rows, up to three heights away.
  for (bool grew = true; grew;) {
    grew = false;
    for (int i = 1; i < n; ++i) {
      const int bx = stats.at<int>(i, cv::CC_STAT_LEFT), by = stats.at<int>(i, cv::CC_STAT_TOP);
      const int bx2 = bx + stats.at<int>(i, cv::CC_STAT_WIDTH);
      const int by2 = by + stats.at<int>(i, cv::CC_STAT_HEIGHT);
      if (bx >= x && bx2 <= x2) continue;
      const int overlap = std::min(y2, by2) - std::max(y, by);
      const int gap = std::max(bx - x2, x - bx2);
      if (overlap < 0.5 * std::min(y2 - y, by2 - by) || gap > 3 * (y2 - y)) continue;
      if (by2 - by > 2 * (y2 - y)) continue;
      x = std::min(x, bx);
      x2 = std::max(x2, bx2);
      y = std::min(y, by);
      y2 = std::max(y2, by2);
      grew = true;
    }
  }
  *line = cv::Rect(x, y, x2 - x, y2 - y);
  return true;
}

namespace {

// The line's box grown by `margin` times its height on each side (at least 4
// pixels), clipped to the image.
cv::Rect GrowLine(const cv::Rect& line, double margin, cv::Size image) {
  const int m = std::max(4, int(line.height * margin));
  return cv::Rect(line.x - m, line.y - m, line.width + 2 * m, line.height + 2 * m) &
         cv::Rect(cv::Point(), image);
}

}  // namespace

std::vector<TextWindowReading> TextWindowReadingsFor(const std::string& family) {
  // Measured on markings of the independent benchmark's generator with a
  // seed of its own (not the published set), text window, characters read
  // clean / moderate / hard: half a line height for every family read
  // Document 94.3 / 87.3 / 61.0 %, Industrial 92.1 / 95.8 / 75.4 %; a third
  // with lines enlarged to 56 pixels 97.9 / 93.8 / 76.5 % and 94.8 / 96.9 /
  // 83.9 %; adding the readings at 0.15 and 0.5 95.1 / 80.5 and 95.6 / 96.9 /
  // 89.6 %. A third of a line height cost dot print a tenth of its clean
  // characters (cells split into their dot columns).
  const bool dots = family == "DotPrint";
  std::vector<TextWindowReading> v;
  for (double margin : dots ? std::vector<double>{0.5, 0.7} : std::vector<double>{0.3, 0.15, 0.5}) {
    TextWindowReading r;
    r.margin = margin;
    v.push_back(r);
  }
  return v;
}

bool CutTextWindow(vision::HObject* image, double width, double height, const cv::Rect& line,
                   const TextWindowReading& how, TextWindowCut* cut) {
  using vision::HObject;
  using vision::HTuple;
  const cv::Size size = image->ImageAt(0).planes[0].size();
  const cv::Rect window = GrowLine(line, how.margin, size);
  if (window.width <= 0 || window.height <= 0 || window.width > width || window.height > height)
    return false;
  HObject ho_Rect, ho_Reduced, ho_Window;
  vision::gen_rectangle1(&ho_Rect, HTuple(window.y), HTuple(window.x), HTuple(window.br().y - 1),
                         HTuple(window.br().x - 1));
  vision::reduce_domain(*image, ho_Rect, &ho_Reduced);
  vision::crop_domain(ho_Reduced, &ho_Window);
  cut->window = window;
  cut->zoom = 1.0;
  cut->width = window.width;
  cut->height = window.height;
  if (line.height > 0 && line.height < how.min_line_height) {
    cut->zoom = std::min(how.max_zoom, double(how.min_line_height) / line.height);
    HObject ho_Zoomed;
    vision::zoom_image_factor(ho_Window, &ho_Zoomed, HTuple(cut->zoom), HTuple(cut->zoom),
                              HTuple("weighted"));
    ho_Window = std::move(ho_Zoomed);
    const cv::Mat& plane = ho_Window.ImageAt(0).planes[0];
    cut->width = plane.cols;
    cut->height = plane.rows;
  }
  *image = std::move(ho_Window);
  return true;
}

namespace {

// The character of the other kind that looks like `c`, or 0 (a 0 looks
// like O first).
char LookAlike(char c) {
  static constexpr const char* kPairs = "O0U0I1Z2S5G6B8";
  for (const char* p = kPairs; *p; p += 2) {
    if (c == p[0]) return p[1];
    if (c == p[1]) return p[0];
  }
  return 0;
}

bool IsDigitChar(char c) { return c >= '0' && c <= '9'; }
bool IsLetterChar(char c) { return c >= 'A' && c <= 'Z'; }
bool IsAlnumChar(char c) { return IsDigitChar(c) || IsLetterChar(c); }

}  // namespace

void ReadLookAlikesByNeighbours(std::string* text, std::vector<std::vector<Candidate>>* candidates) {
  std::string& t = *text;
  const size_t n = t.size();
  if (candidates->size() != n) return;
  // What a character tells of its place: 'D' a digit (the classifiers
  // rather take a digit for a letter than the other way round, so every
  // digit counts), 'L' a letter that looks like no digit, 0 nothing (a
  // look-alike letter, a special, a rejected piece).
  auto kind = [&](size_t k) -> char {
    if (IsDigitChar(t[k])) return 'D';
    return IsLetterChar(t[k]) && !LookAlike(t[k]) ? 'L' : 0;
  };
  auto change = [&](size_t i, char to) {
    t[i] = to;
    PutFirst(&(*candidates)[i], to);
  };
  for (size_t i = 0; i < n; ++i) {
    const char twin = LookAlike(t[i]);
    if (!twin) continue;
    // The run of letters and digits that holds i (specials part runs).
    size_t b, e;
    RunAround([&](size_t k) { return IsAlnumChar(t[k]); }, n, i, &b, &e);
    if (IsDigitChar(t[i])) {
      // Only a zero becomes a letter, and only between two letters that
      // look like no digit.
      if (t[i] == '0' && i > b && i + 1 < e && kind(i - 1) == 'L' && kind(i + 1) == 'L')
        change(i, twin);
      continue;
    }
    // A look-alike letter: the nearest telling characters on either side in
    // its run decide when they agree; at the run's end (or with nothing
    // telling on one side) the run decides when all it tells is one kind;
    // a run of two or more that tells nothing goes with the line when the
    // line tells one kind at least twice (a lone letter before = is a
    // letter: O=253*58).
    char left, right;
    char want = KindByNeighbours(kind, i, b, e, &left, &right);
    if (!left && !right && e - b > 1) {
      size_t telling = 0;
      for (size_t k = 0; k < n; ++k) telling += kind(k) != 0;
      if (telling >= 2) want = SharedKind(kind, 0, n);
    }
    if (want == 'D') change(i, twin);
  }
}

bool ReadsLookAlikesByNeighbours(const std::string& family) { return family == "DotPrint"; }

}  // namespace velmora
