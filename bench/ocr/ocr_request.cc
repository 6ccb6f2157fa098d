// bench_ocr_request: request 101 over the real request port of the real
// add-in on a 640x480 image, one pass; the time is the host's whole send
// (archive, transport, conversion, loading the three classifier files,
// segmentation, classification, reply). Prints median and spread.
//
//   bench_ocr_request [--runs N] [--family NAME]
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>

#include <opencv2/imgcodecs.hpp>
#include <string>
#include <vector>

#include "addin_process.h"
#include "platform_image.h"
#include "markings.h"

namespace {

using namespace velmora;

using velmora::testing::PlatformImage;

}  // namespace

int main(int argc, char** argv) {
  int runs = 40;
  std::string family = "Industrial";
  for (int i = 1; i + 1 < argc; i += 2) {
    const std::string a = argv[i];
    if (a == "--runs") runs = std::stoi(argv[i + 1]);
    if (a == "--family") family = argv[i + 1];
  }
  // A two-line label filling the frame as an inspection camera sees it; the
  // service reads the taller line.
  ocrgen::MarkingRenderer renderer;
  std::mt19937 rng(31337);
  const auto& fam = ocrgen::FamilyByName(family);
  const std::string text = "LOT4711";
  ocrgen::Marking big = renderer.Render(text, fam.eval_faces[0], 96, ocrgen::Grade::Clean, rng);
  ocrgen::Marking m = ocrgen::MarkingRenderer::OnCanvas(big, 640, 480, (640 - big.rgb.cols) / 2, 40);
  for (int line = 0; line < 2; ++line) {
    ocrgen::Marking small = renderer.Render(line ? "EXP2026-11" : "MFG2025-11", fam.eval_faces[0], 40,
                                            ocrgen::Grade::Clean, rng);
    const cv::Rect at((640 - small.rgb.cols) / 2, 250 + 100 * line, small.rgb.cols, small.rgb.rows);
    if (at.x >= 0 && at.br().x <= 640 && at.br().y <= 480) small.rgb.copyTo(m.rgb(at));
  }
  if (std::getenv("BENCH_OCR_SAVE")) cv::imwrite(std::getenv("BENCH_OCR_SAVE"), m.rgb);
  const archive::ObjectPtr image = PlatformImage(m.rgb);
  auto attr = archive::MakeDictionary();
  attr->Set("fontName", archive::MakeString(family));
  attr->Set("ocr_proc", archive::MakeInt32(0));
  attr->Set("stretch_width_level", archive::MakeFloat(1.0f));

  testing::AddinProcess addin;
  std::vector<double> ms;
  std::string read;
  for (int i = 0; i < runs + 3; ++i) {
    const auto t0 = std::chrono::steady_clock::now();
    auto reply = addin.Request(101, {{"image", image}, {"attribute", attr}});
    const auto t1 = std::chrono::steady_clock::now();
    if (i < 3) continue;  // warm-up: page cache, first allocations
    ms.push_back(std::chrono::duration<double, std::milli>(t1 - t0).count());
    auto recs = reply ? archive::AsArray(*reply) : nullptr;
    read = recs && !recs->items.empty() ? archive::ReadString(recs->items[0], "ocr_text").value_or("") : "";
  }
  std::sort(ms.begin(), ms.end());
  auto pct = [&](double q) { return ms[size_t(q * double(ms.size() - 1) + 0.5)]; };
  std::printf("bench_ocr_request: request 101, %s, 640x480 RGB, one pass, %d runs\n", family.c_str(), runs);
  std::printf("  median %.1f ms, p10 %.1f ms, p90 %.1f ms, min %.1f ms, max %.1f ms\n", pct(0.5),
              pct(0.1), pct(0.9), ms.front(), ms.back());
  std::printf("  text read: \"%s\" (printed: \"%s\")\n", read.c_str(), text.c_str());
  return 0;
}
