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

bool CutMarkingCharacters(const Marking& m, CutMarking* out) {
  OcrPassParams p;
  p.width = m.rgb.cols;
  p.height = m.rgb.rows;
  const OcrLineSegmentation seg = SegmentOcrLine(ToVisionImage(m.rgb), p);
  vision::HTuple n;
  vision::count_obj(seg.characters, &n);
  // The service skips characters whose box is less than two pixels wide or
  // high (empty intersections among them); so does the cut.
  vision::HObject kept;
  std::vector<Rect> rects;
  for (long j = 1; j <= n.L(); ++j) {
    vision::HObject c;
    vision::select_obj(seg.characters, &c, vision::HTuple(j));
    Rect r;
    HRegion2Rect(c, &r);
    if (r.right - r.left < 1 || r.bottom - r.top < 1) continue;
    kept.Append(c);
    rects.push_back(r);
  }
  if (rects.size() != m.boxes.size()) return false;
  for (size_t j = 0; j < rects.size(); ++j) {
    const Rect& r = rects[j];
    // The cut's centre must lie in the rendered character's box (one pixel of
    // slack for blur), and the box's centre in the cut.
    const cv::Rect& b = m.boxes[j];
    const int cx = (r.left + r.right) / 2, cy = (r.top + r.bottom) / 2;
    const int bx = b.x + b.width / 2, by = b.y + b.height / 2;
    if (cx < b.x - 1 || cx > b.br().x || cy < b.y - 1 || cy > b.br().y) return false;
    if (bx < r.left - 1 || bx > r.right + 1 || by < r.top - 1 || by > r.bottom + 1) return false;
  }
  out->characters = std::move(kept);
  out->smoothed = seg.smoothed;
  out->classes = m.text;
  return true;
}

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
