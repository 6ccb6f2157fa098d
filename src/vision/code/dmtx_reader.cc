// libdmtx as the second Data Matrix engine: slower than zxing-cpp, but its
// edge-following detector finds small, rotated and skewed symbols that
// zxing-cpp 1.4's detector gives up on.
#include "vision/code/code_reader.h"

#ifdef VELMORA_HAVE_DMTX
#include <dmtx.h>

#include <memory>

namespace vision::code {
namespace {

struct ImageDel { void operator()(DmtxImage* p) const { dmtxImageDestroy(&p); } };
struct DecodeDel { void operator()(DmtxDecode* p) const { dmtxDecodeDestroy(&p); } };
struct RegionDel { void operator()(DmtxRegion* p) const { dmtxRegionDestroy(&p); } };
struct MessageDel { void operator()(DmtxMessage* p) const { dmtxMessageDestroy(&p); } };

}  // namespace

std::vector<Found> ReadDataMatrixDmtx(const cv::Mat& gray, double budget_ms) {
  std::vector<Found> out;
  if (gray.empty() || gray.type() != CV_8UC1 || gray.cols < 8 || gray.rows < 8) return out;
  cv::Mat img = gray.isContinuous() ? gray.clone() : gray.clone();
  std::unique_ptr<DmtxImage, ImageDel> dimg(dmtxImageCreate(img.data, img.cols, img.rows, DmtxPack8bppK));
  if (!dimg) return out;
  dmtxImageSetProp(dimg.get(), DmtxPropImageFlip, DmtxFlipNone);
  std::unique_ptr<DmtxDecode, DecodeDel> dec(dmtxDecodeCreate(dimg.get(), 1));
  if (!dec) return out;
  dmtxDecodeSetProp(dec.get(), DmtxPropSymbolSize, DmtxSymbolSquareAuto);
  DmtxTime timeout = dmtxTimeAdd(dmtxTimeNow(), long(std::max(1.0, budget_ms)));
  for (;;) {
    std::unique_ptr<DmtxRegion, RegionDel> reg(dmtxRegionFindNext(dec.get(), &timeout));
    if (!reg) break;
    std::unique_ptr<DmtxMessage, MessageDel> msg(dmtxDecodeMatrixRegion(dec.get(), reg.get(), DmtxUndefined));
    if (!msg) continue;
    Found f;
    f.text.assign(reinterpret_cast<const char*>(msg->output), size_t(msg->outputIdx));
    f.format = 1 << 7;  // ZXing::BarcodeFormat::DataMatrix
    const double unit[4][2] = {{0, 1}, {1, 1}, {1, 0}, {0, 0}};
    for (int i = 0; i < 4; ++i) {
      DmtxVector2 p{unit[i][0], unit[i][1]};
      dmtxMatrix3VMultiplyBy(&p, reg->fit2raw);
      // libdmtx counts rows from the bottom of the image.
      f.corners[i] = cv::Point2d(p.X, img.rows - 1 - p.Y);
    }
    out.push_back(std::move(f));
    break;
  }
  return out;
}

}  // namespace vision::code

#else

namespace vision::code {
std::vector<Found> ReadDataMatrixDmtx(const cv::Mat&, double) { return {}; }
}  // namespace vision::code

#endif
