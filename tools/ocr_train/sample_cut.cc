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

bool CutMarkingCharacters(const Marking& m, CutMarking* out, bool rejects) {
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
  // Each piece is matched to the rendered character it stands on: the
  // piece's centre in the character's box (one pixel of slack for blur) and
  // the box's centre in the piece. Only pieces that match exactly one
  // character, which no other piece matches, are kept: a marking with a
  // merged pair, a broken stroke or a speck of noise still teaches its other
  // characters, as the segmentation cuts them from that noisy image.
  auto matches = [&](const Rect& r, const cv::Rect& b) {
    const int cx = (r.left + r.right) / 2, cy = (r.top + r.bottom) / 2;
    const int bx = b.x + b.width / 2, by = b.y + b.height / 2;
    return cx >= b.x - 1 && cx <= b.br().x && cy >= b.y - 1 && cy <= b.br().y &&
           bx >= r.left - 1 && bx <= r.right + 1 && by >= r.top - 1 && by <= r.bottom + 1;
  };
  // A piece that holds the centre of a second character is a merged pair,
  // even where its own centre stands on one of them.
  auto holds = [](const Rect& r, const cv::Rect& b) {
    const int bx = b.x + b.width / 2, by = b.y + b.height / 2;
    return bx >= r.left && bx <= r.right && by >= r.top && by <= r.bottom;
  };
  std::vector<int> piece_box(rects.size(), -1), box_pieces(m.boxes.size(), 0);
  // Pieces of no character: a merged pair (holds two characters' centres)
  // or a speck (touches no character's box).
  std::vector<bool> no_character(rects.size(), false);
  for (size_t j = 0; j < rects.size(); ++j) {
    const cv::Rect piece(rects[j].left, rects[j].top, rects[j].right - rects[j].left + 1,
                         rects[j].bottom - rects[j].top + 1);
    int touched = 0, centres = 0;
    for (const auto& b : m.boxes) {
      touched += (piece & b).area() > 0;
      centres += holds(rects[j], b);
    }
    no_character[j] = centres >= 2 || touched == 0;
  }
  for (size_t j = 0; j < rects.size(); ++j) {
    int found = -1, count = 0, held = 0;
    for (size_t k = 0; k < m.boxes.size(); ++k) {
      if (matches(rects[j], m.boxes[k])) {
        found = int(k);
        ++count;
      }
      if (holds(rects[j], m.boxes[k])) ++held;
    }
    if (count == 1 && held <= 1) {
      piece_box[j] = found;
      ++box_pieces[size_t(found)];
    }
  }
  vision::HObject chosen;
  std::string classes;
  out->rejects = 0;
  for (size_t j = 0; j < rects.size(); ++j) {
    char klass;
    if (piece_box[j] >= 0 && box_pieces[size_t(piece_box[j])] == 1) {
      klass = m.text[size_t(piece_box[j])];
    } else if (rejects && no_character[j]) {
      // A merged pair or a speck on the ground: pieces a reader must not name
      // with confidence. A part of a character cut in several is not taught
      // so: it looks like a narrow character (a bar of an H like an I), and
      // teaching it lowered the reading of those (DotPrint outside training:
      // 76.4 % of characters clean with parts, 77.5 % without, 77.2 % with
      // no rejection).
      klass = kRejectByte;
      ++out->rejects;
    } else {
      continue;
    }
    vision::HObject c;
    vision::select_obj(kept, &c, vision::HTuple(long(j + 1)));
    chosen.Append(c);
    classes += klass;
  }
  if (classes.size() == size_t(out->rejects)) return false;
  kept = std::move(chosen);
  out->characters = std::move(kept);
  out->smoothed = seg.smoothed;
  out->classes = classes;
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
