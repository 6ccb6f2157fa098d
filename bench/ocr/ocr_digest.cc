// bench_ocr_digest: prints everything the recognition produces for a fixed
// set of generated markings and settings (texts, boxes, every candidate's
// confidence to the last bit, a hash of the classified image and of the cut
// character regions, and the preview's bytes), so that a change meant to
// alter only how the pipeline uses memory or time can be checked to leave
// every result as it was: run before and after, and compare the outputs.
//
//   bench_ocr_digest [--markings N] [--canvas SIDE] > digest.txt
#include <malloc.h>

#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <cstdio>
#include <random>
#include <string>

#include <opencv2/imgproc.hpp>

#include "archive/archive.h"
#include "centred_marking.h"
#include "markings.h"
#include "platform_image.h"
#include "ocr/ocr_filtered_image.h"
#include "ocr/ocr_image.h"
#include "ocr/ocr_segment.h"
#include "sample_cut.h"

namespace {

using namespace velmora::ocrgen;
using vision::HObject;
namespace archive = velmora::archive;

struct Fnv {
  uint64_t h = 1469598103934665603ull;
  void Add(const void* p, size_t n) {
    for (const auto* b = static_cast<const uint8_t*>(p); n--; ++b) h = (h ^ *b) * 1099511628211ull;
  }
};

uint64_t HashObject(const HObject& o) {
  Fnv f;
  for (long i = 0; i < o.Count(); ++i) {
    if (o.IsImage(i)) {
      const vision::Image& im = o.ImageAt(i);
      f.Add(&im.width, sizeof im.width);
      f.Add(&im.height, sizeof im.height);
      f.Add(&im.type, sizeof im.type);
      for (const cv::Mat& p : im.planes)
        for (int r = 0; r < p.rows; ++r) f.Add(p.ptr(r), p.cols * p.elemSize());
      f.Add(im.domain.Runs().data(), im.domain.Runs().size() * sizeof(vision::Run));
    } else {
      const auto& runs = o.RegionAt(i).Runs();
      f.Add(runs.data(), runs.size() * sizeof(vision::Run));
      const int32_t sep = -1;
      f.Add(&sep, sizeof sep);
    }
  }
  return f.h;
}

void PrintRecords(const std::vector<velmora::OcrTextRecord>& recs) {
  for (const auto& r : recs) {
    std::printf("  text \"%s\" angle %d\n", r.text.c_str(), r.angle);
    for (size_t k = 0; k < r.rects.size(); ++k) {
      std::printf("   [%d %d %d %d]", r.rects[k].top, r.rects[k].left, r.rects[k].bottom, r.rects[k].right);
      for (const auto& c : r.candidates[k]) std::printf(" %s:%a", c.klass.c_str(), c.confidence);
      std::printf("\n");
    }
  }
}

// One request of the integration bench in this process (for memory
// profilers): the marking in the middle of a light canvas of side x side.
int Probe(int side, bool text_window) {
  mallopt(M_MMAP_THRESHOLD, 32 << 20);
  mallopt(M_TRIM_THRESHOLD, 128 << 20);
  const auto image = CentredMarkingImage(side);
  auto attr = archive::MakeDictionary();
  attr->Set("fontName", archive::MakeString("Industrial"));
  if (text_window) attr->Set("text_window", archive::MakeBool(true));
  const auto t0 = std::chrono::steady_clock::now();
  const auto reply = velmora::ocrImage(image, attr, true);
  const double ms = std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - t0).count();
  std::string text = "(none)";
  if (const auto records = archive::AsArray(reply); records && !records->items.empty())
    text = archive::ReadString(records->items[0], "ocr_text").value_or("");
  std::printf("probe %d x %d%s: %.0f ms, read \"%s\"\n", side, side, text_window ? " (text window)" : "", ms,
              text.c_str());
  return 0;
}

// The segmentation of a large canvas (marking in the middle, a faint noise
// and a second, lighter marking), both passes: hashes of its results, for
// the strip and block boundaries of the whole-frame steps.
int ProbeSegment(int width, int height) {
  MarkingRenderer renderer;
  std::mt19937 rng(11);
  const Marking m = renderer.Render("LOT-4711", Families()[0].eval_faces[0], 64, Grade::Moderate, rng);
  const Marking m2 = renderer.Render("A1B2C3", Families()[1].eval_faces[0], 30, Grade::Hard, rng);
  cv::Mat canvas(height, width, CV_8UC3, cv::Scalar(200, 205, 210));
  cv::Mat noise(canvas.size(), CV_8UC3);
  cv::randn(noise, cv::Scalar(0, 0, 0), cv::Scalar(5, 5, 5));
  canvas += noise;
  // A gradient of the lighting across the frame.
  for (int r = 0; r < height; ++r) canvas.row(r) -= cv::Scalar::all(30.0 * r / height);
  m.rgb.copyTo(canvas(cv::Rect((width - m.rgb.cols) / 2, (height - m.rgb.rows) / 2, m.rgb.cols, m.rgb.rows)));
  m2.rgb.copyTo(canvas(cv::Rect(width / 7, height / 5, m2.rgb.cols, m2.rgb.rows)));
  const HObject img = ToVisionImage(canvas);
  canvas.release();
  velmora::OcrPassParams p;
  p.width = width;
  p.height = height;
  for (int pass = 0; pass < 2; ++pass) {
    p.angle = pass * 180.0;
    const auto t0 = std::chrono::steady_clock::now();
    const auto seg = velmora::SegmentOcrLine(img, p);
    const double ms = std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - t0).count();
    std::printf("segment %d x %d pass %d: smoothed %016llx characters %016llx lines %ld (%.0f ms)\n", width,
                height, pass, (unsigned long long)HashObject(seg.smoothed),
                (unsigned long long)HashObject(seg.characters), seg.line_count, ms);
  }
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  // The build's classifier files, unless another vision folder is given:
  // without them every recognition would end in a missing-file exception.
  ::setenv("VELMORA_VISION_DIR", VELMORA_BUILD_VISION_DIR, 0);
  int markings = 6, canvas = 900;
  for (int i = 1; i + 1 < argc; i += 2) {
    const std::string a = argv[i];
    if (a == "--markings") markings = std::stoi(argv[i + 1]);
    if (a == "--canvas") canvas = std::stoi(argv[i + 1]);
    if (a == "--probe") return Probe(std::stoi(argv[i + 1]), false);
    if (a == "--probe-window") return Probe(std::stoi(argv[i + 1]), true);
    if (a == "--segment" && i + 2 < argc) return ProbeSegment(std::stoi(argv[i + 1]), std::stoi(argv[i + 2]));
  }
  setvbuf(stdout, nullptr, _IOFBF, 1 << 16);
  MarkingRenderer renderer;
  std::mt19937 rng(424242);
  int index = 0;
  for (const auto& fam : Families()) {
    for (Grade g : {Grade::Clean, Grade::Moderate, Grade::Hard}) {
      for (int i = 0; i < markings; ++i, ++index) {
        const Face& face = fam.eval_faces[size_t(i) % fam.eval_faces.size()];
        const int len = std::uniform_int_distribution<int>(4, 14)(rng);
        const int height = std::uniform_int_distribution<int>(18, 60)(rng);
        const std::string text = MarkingText(fam, len, rng);
        Marking m = renderer.Render(text, face, height, g, rng);
        // Every third marking sits on a larger, textured canvas (a second,
        // fainter line above it), so that whole-frame steps see many runs
        // and the text window has something to find.
        if (index % 3 == 2) {
          const int w = std::max(canvas, m.rgb.cols + 40), h = std::max(canvas * 2 / 3, m.rgb.rows + 80);
          const int x = std::uniform_int_distribution<int>(0, w - m.rgb.cols)(rng);
          const int y = std::uniform_int_distribution<int>(0, h - m.rgb.rows)(rng);
          Marking big = MarkingRenderer::OnCanvas(m, w, h, x, y);
          cv::Mat noise(big.rgb.size(), CV_8UC3);
          cv::randn(noise, cv::Scalar(0, 0, 0), cv::Scalar(6, 6, 6));
          cv::Mat t = big.rgb.clone();
          cv::add(t, noise, big.rgb);
          m = big;
        }
        std::printf("marking %d %s %s \"%s\" %dx%d cap %d\n", index, fam.name.c_str(), GradeName(g),
                    text.c_str(), m.rgb.cols, m.rgb.rows, height);
        const HObject img = ToVisionImage(m.rgb);
        // Settings: one of several variants per marking, in turn.
        velmora::OcrSettings s;
        s.font_name = fam.name;
        double w = m.rgb.cols, h = m.rgb.rows;
        switch (index % 7) {
          case 1: s.reverse = true; break;
          case 2: s.text_window = true; break;
          case 3: s.stretch = 1.3f; break;
          case 4: s.black_level = 3; s.num = 10; break;
          case 5: s.expected_count = long(text.size()) + 1; break;
          case 6: w -= 7; h -= 5; s.stretch = 0.8f; break;  // nominal smaller than the bitmap
          default: break;
        }
        velmora::OcrPassParams p;
        p.width = w;
        p.height = h;
        p.stretch = s.stretch;
        p.black_level = s.black_level;
        p.expected_count = s.expected_count;
        for (int pass = 0; pass < 2; ++pass) {
          p.angle = pass * 180.0;
          try {
            const auto seg = velmora::SegmentOcrLine(img, p);
            std::printf("  seg %d: smoothed %016llx characters %016llx lines %ld\n", pass,
                        (unsigned long long)HashObject(seg.smoothed),
                        (unsigned long long)HashObject(seg.characters), seg.line_count);
          } catch (const vision::HException& e) {
            std::printf("  seg %d: exception %s\n", pass, e.ErrorMessage().c_str());
          }
        }
        PrintRecords(velmora::RecognizeText(img, w, h, s));
        // The preview, with both stretches.
        auto attr = archive::MakeDictionary();
        attr->Set("black_level", archive::MakeInt64(index % 4));
        if (index % 5 == 1) attr->Set("stretch_width_level", archive::MakeDouble(1.4));
        if (index % 5 == 3) attr->Set("stretch_height_level", archive::MakeDouble(0.7));
        const auto preview = velmora::ocrFilteredImage(velmora::testing::PlatformImage(m.rgb), attr, true);
        Fnv f;
        if (preview) f.Add(preview->data(), preview->size());
        std::printf("  preview %s %016llx\n", preview ? "bytes" : "none", (unsigned long long)f.h);
      }
    }
  }
  // Flat and tiny images: the preview's empty-range branch, and operators
  // on the smallest inputs.
  for (cv::Size sz : {cv::Size(64, 48), cv::Size(7, 5), cv::Size(1, 1)}) {
    const cv::Mat flat(sz, CV_8UC3, cv::Scalar(120, 120, 120));
    velmora::OcrSettings s;
    s.font_name = "Industrial";
    std::printf("flat %dx%d\n", sz.width, sz.height);
    PrintRecords(velmora::RecognizeText(ToVisionImage(flat), sz.width, sz.height, s));
    const auto preview = velmora::ocrFilteredImage(velmora::testing::PlatformImage(flat), nullptr, true);
    Fnv f;
    if (preview) f.Add(preview->data(), preview->size());
    std::printf("  preview %s %016llx\n", preview ? "bytes" : "none", (unsigned long long)f.h);
  }
  return 0;
}
