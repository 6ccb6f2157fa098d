#include "sample_cut.h"

#include "imaging/halcon_utility.h"
#include "ocr/ocr_segment.h"
#include "vision/region/region_ops.h"

namespace velmora::ocrgen {

vision::HObject ToVisionImage(const cv::Mat& rgb) {
  std::vector<cv::Mat> planes;
  cv::split(rgb, planes);
  return vision::HObject(vision::Image::FromPlanes(vision::PixelType::Byte, std::move(planes)));
}

namespace {

// The service's cut of the marking, without the characters it skips (a box
// less than two pixels wide or high, empty intersections among them).
struct Cut {
  vision::HObject kept, smoothed;
  std::vector<Rect> rects;
};

Cut CutLine(const Marking& m) {
  OcrPassParams p;
  p.width = m.rgb.cols;
  p.height = m.rgb.rows;
  const OcrLineSegmentation seg = SegmentOcrLine(ToVisionImage(m.rgb), p);
  Cut cut;
  cut.smoothed = seg.smoothed;
  vision::HTuple n;
  vision::count_obj(seg.characters, &n);
  for (long j = 1; j <= n.L(); ++j) {
    vision::HObject c;
    vision::select_obj(seg.characters, &c, vision::HTuple(j));
    Rect r;
    HRegion2Rect(c, &r);
    if (r.right - r.left < 1 || r.bottom - r.top < 1) continue;
    cut.kept.Append(c);
    cut.rects.push_back(r);
  }
  return cut;
}

}  // namespace

bool CutMarkingCharacters(const Marking& m, CutMarking* out) {
  Cut cut = CutLine(m);
  if (cut.rects.size() != m.boxes.size()) return false;
  for (size_t j = 0; j < cut.rects.size(); ++j) {
    const Rect& r = cut.rects[j];
    // The cut's centre must lie in the rendered character's box (one pixel of
    // slack for blur), and the box's centre in the cut.
    const cv::Rect& b = m.boxes[j];
    const int cx = (r.left + r.right) / 2, cy = (r.top + r.bottom) / 2;
    const int bx = b.x + b.width / 2, by = b.y + b.height / 2;
    if (cx < b.x - 1 || cx > b.br().x || cy < b.y - 1 || cy > b.br().y) return false;
    if (bx < r.left - 1 || bx > r.right + 1 || by < r.top - 1 || by > r.bottom + 1) return false;
  }
  out->characters = std::move(cut.kept);
  out->smoothed = std::move(cut.smoothed);
  out->classes = m.text;
  return true;
}

std::vector<Rect> CutPieces(const Marking& m) { return CutLine(m).rects; }

std::string NameCutPieces(const Marking& m, const std::vector<Rect>& pieces) {
  std::string text;
  for (const Rect& r : pieces) {
    const cv::Rect piece(r.left, r.top, r.right - r.left + 1, r.bottom - r.top + 1);
    int best = 0;
    char named = kNoCharacter;
    for (size_t k = 0; k < m.boxes.size(); ++k) {
      const int overlap = (piece & m.boxes[k]).area();
      if (overlap > best) {
        best = overlap;
        named = m.text[k];
      }
    }
    text += named;
  }
  return text;
}

}  // namespace velmora::ocrgen
