#include "vision/filter/image_ops.h"

#include <algorithm>
#include <cfloat>
#include <cstring>
#include <span>
#include <vector>

#include "vision/filter/filter_util.h"

namespace vision {

using namespace filter_detail;

namespace filter_detail {

std::vector<const Image*> Images(const HObject& obj, const char* op) {
  std::vector<const Image*> v;
  v.reserve(size_t(obj.Count()));
  for (long i = 0; i < obj.Count(); ++i) v.push_back(&obj.ImageAt(i, op));
  return v;
}

double TypeMin(PixelType t) {
  switch (t) {
    case PixelType::Byte: return 0;
    case PixelType::UInt2: return 0;
    case PixelType::Int2: return -32768;
    case PixelType::Int4: return -2147483648.0;
    default: return -FLT_MAX;
  }
}
double TypeMax(PixelType t) {
  switch (t) {
    case PixelType::Byte: return 255;
    case PixelType::UInt2: return 65535;
    case PixelType::Int2: return 32767;
    case PixelType::Int4: return 2147483647.0;
    default: return FLT_MAX;
  }
}

namespace {

template <class S, class T, bool kRound>
void ConvertRows(const cv::Mat& src, cv::Mat& dst, double lo, double hi) {
  for (int r = 0; r < src.rows; ++r) {
    const S* s = src.ptr<S>(r);
    T* d = dst.ptr<T>(r);
    for (int c = 0; c < src.cols; ++c) {
      double v = kRound ? std::round(double(s[c])) : std::trunc(double(s[c]));
      v = v < lo ? lo : (v > hi ? hi : v);
      d[c] = T(v);
    }
  }
}

template <class S, bool kRound>
cv::Mat ConvertFrom(const cv::Mat& src, PixelType t) {
  cv::Mat out(src.size(), PixelTypeCvDepth(t));
  const double lo = TypeMin(t), hi = TypeMax(t);
  switch (t) {
    case PixelType::Byte: ConvertRows<S, uint8_t, kRound>(src, out, lo, hi); break;
    case PixelType::UInt2: ConvertRows<S, uint16_t, kRound>(src, out, lo, hi); break;
    case PixelType::Int2: ConvertRows<S, int16_t, kRound>(src, out, lo, hi); break;
    case PixelType::Int4: ConvertRows<S, int32_t, kRound>(src, out, lo, hi); break;
    default: src.convertTo(out, CV_32F); break;
  }
  return out;
}

template <bool kRound>
cv::Mat Convert(const cv::Mat& src, PixelType t) {
  switch (src.depth()) {
    case CV_64F: return ConvertFrom<double, kRound>(src, t);
    case CV_32F: return ConvertFrom<float, kRound>(src, t);
    case CV_8U: return ConvertFrom<uint8_t, kRound>(src, t);
    case CV_16U: return ConvertFrom<uint16_t, kRound>(src, t);
    case CV_16S: return ConvertFrom<int16_t, kRound>(src, t);
    default: return ConvertFrom<int32_t, kRound>(src, t);
  }
}

}  // namespace

cv::Mat FromDouble(const cv::Mat& d64, PixelType t) { return Convert<true>(d64, t); }
cv::Mat FromDoubleTruncate(const cv::Mat& d64, PixelType t) { return Convert<false>(d64, t); }

}  // namespace filter_detail

namespace {

void Put(HTuple& t, const HTuple& v) { t.Append(v); }

size_t PixelBytes(PixelType t) { return CV_ELEM_SIZE(PixelTypeCvDepth(t)); }

PixelType PlainType(const HTuple& type, const char* op) {
  PixelType t = PixelTypeFromName(ParamString(type, op, "Type"), op);
  if (t == PixelType::VectorField)
    throw HException(op, "Wrong pixel type 'vector_field'", kErrWrongParamValue);
  return t;
}

void Size(const HTuple& width, const HTuple& height, const char* op, int* w, int* h) {
  const Hlong W = ParamInt(width, op, "Width"), H = ParamInt(height, op, "Height");
  if (W < 1 || H < 1 || W > 32768 || H > 32768)
    throw HException(op, "Wrong value of control parameter Width or Height", kErrWrongParamValue);
  *w = int(W);
  *h = int(H);
}

cv::Mat PlaneFromPointer(const HTuple& ptr, PixelType t, int w, int h, const char* op,
                         const char* name) {
  const Hlong p = ParamInt(ptr, op, name);
  if (p == 0) throw HException(op, std::string("Null pointer in ") + name, kErrWrongParamValue);
  cv::Mat plane(h, w, PixelTypeCvDepth(t));
  std::memcpy(plane.data, reinterpret_cast<const void*>(p), size_t(w) * size_t(h) * PixelBytes(t));
  return plane;
}

// Real to a narrow integer type: clipping before the truncating conversion
// gives the same value as truncating first (both ends of the range are
// integers), and everything stays in single precision, which vectorises.
// NaN has no integer value; it becomes 0.
template <class T>
cv::Mat TruncateReal(const cv::Mat& src, PixelType t) {
  const float lo = float(TypeMin(t)), hi = float(TypeMax(t));
  cv::Mat out(src.size(), PixelTypeCvDepth(t));
  const int w = src.cols;  // a local bound: byte stores could alias the matrix header
  for (int r = 0; r < src.rows; ++r) {
    const float* s = src.ptr<float>(r);
    T* d = out.ptr<T>(r);
    for (int c = 0; c < w; ++c) {
      float v = s[c] > lo ? s[c] : (s[c] == s[c] ? lo : 0.0f);
      v = v < hi ? v : hi;
      d[c] = T(int32_t(v));
    }
  }
  return out;
}

Hlong PointerOf(const cv::Mat& plane, const char* op) {
  if (!plane.isContinuous())
    throw HException(op, "Image planes are not contiguous", kErrWrongObject);
  return Hlong(reinterpret_cast<intptr_t>(plane.data));
}

}  // namespace

void gen_image1(HObject* image, const HTuple& type, const HTuple& width, const HTuple& height,
                const HTuple& pixel_pointer) {
  const char* op = "gen_image1";
  const PixelType t = PlainType(type, op);
  int w, h;
  Size(width, height, op, &w, &h);
  *image = HObject(Image::FromPlanes(t, {PlaneFromPointer(pixel_pointer, t, w, h, op, "PixelPointer")}));
}

void gen_image3(HObject* image_rgb, const HTuple& type, const HTuple& width, const HTuple& height,
                const HTuple& pointer_red, const HTuple& pointer_green, const HTuple& pointer_blue) {
  const char* op = "gen_image3";
  const PixelType t = PlainType(type, op);
  int w, h;
  Size(width, height, op, &w, &h);
  *image_rgb = HObject(Image::FromPlanes(
      t, {PlaneFromPointer(pointer_red, t, w, h, op, "PixelPointerRed"),
          PlaneFromPointer(pointer_green, t, w, h, op, "PixelPointerGreen"),
          PlaneFromPointer(pointer_blue, t, w, h, op, "PixelPointerBlue")}));
}

void gen_image_const(HObject* image, const HTuple& type, const HTuple& width, const HTuple& height) {
  const char* op = "gen_image_const";
  const PixelType t = PlainType(type, op);
  int w, h;
  Size(width, height, op, &w, &h);
  *image = HObject(Image::FromPlanes(t, {cv::Mat::zeros(h, w, PixelTypeCvDepth(t))}));
}

void get_image_pointer1(const HObject& image, HTuple* pointer, HTuple* type, HTuple* width,
                        HTuple* height) {
  const char* op = "get_image_pointer1";
  HTuple p, t, w, h;
  for (const Image* img : Images(image, op)) {
    RequireNotVectorField(*img, op);
    Put(p, PointerOf(img->planes.at(0), op));
    Put(t, PixelTypeName(img->type));
    Put(w, img->width);
    Put(h, img->height);
  }
  *pointer = p;
  *type = t;
  *width = w;
  *height = h;
}

void get_image_pointer3(const HObject& image_rgb, HTuple* pointer_red, HTuple* pointer_green,
                        HTuple* pointer_blue, HTuple* type, HTuple* width, HTuple* height) {
  const char* op = "get_image_pointer3";
  HTuple r, g, b, t, w, h;
  for (const Image* img : Images(image_rgb, op)) {
    if (img->type == PixelType::VectorField || img->planes.size() != 3)
      throw HException(op, "Image must have three channels", kErrWrongObject);
    Put(r, PointerOf(img->planes[0], op));
    Put(g, PointerOf(img->planes[1], op));
    Put(b, PointerOf(img->planes[2], op));
    Put(t, PixelTypeName(img->type));
    Put(w, img->width);
    Put(h, img->height);
  }
  *pointer_red = r;
  *pointer_green = g;
  *pointer_blue = b;
  *type = t;
  *width = w;
  *height = h;
}

void count_channels(const HObject& multi_channel_image, HTuple* channels) {
  HTuple c;
  for (const Image* img : Images(multi_channel_image, "count_channels")) Put(c, img->Channels());
  *channels = c;
}

void access_channel(const HObject& multi_channel_image, HObject* image, const HTuple& channel) {
  const char* op = "access_channel";
  const Hlong k = ParamInt(channel, op, "Channel");
  HObject out;
  for (const Image* img : Images(multi_channel_image, op)) {
    RequireNotVectorField(*img, op);
    if (k < 1 || k > img->Channels())
      throw HException(op, "Wrong value of control parameter Channel", kErrWrongParamValue);
    out.Push(Derived(*img, img->type, {img->planes[size_t(k - 1)]}));
  }
  *image = out;
}

void append_channel(const HObject& multi_channel_image, const HObject& image,
                    HObject* image_extended) {
  const char* op = "append_channel";
  const auto multi = Images(multi_channel_image, op);
  const auto extra = Images(image, op);
  if (extra.size() != multi.size() && extra.size() != 1)
    throw HException(op, "Wrong number of images in Image", kErrWrongParamCount);
  HObject out;
  for (size_t i = 0; i < multi.size(); ++i) {
    const Image& a = *multi[i];
    const Image& b = *extra[extra.size() == 1 ? 0 : i];
    RequireNotVectorField(a, op);
    RequireNotVectorField(b, op);
    if (a.width != b.width || a.height != b.height)
      throw HException(op, "Images of different sizes", kErrImageSize);
    if (a.type != b.type) throw HException(op, "Images of different pixel types", kErrWrongObject);
    Image e = a;
    e.planes.insert(e.planes.end(), b.planes.begin(), b.planes.end());
    out.Push(std::move(e));
  }
  *image_extended = out;
}

void decompose3(const HObject& multi_channel_image, HObject* image1, HObject* image2,
                HObject* image3) {
  const char* op = "decompose3";
  HObject o[3];
  for (const Image* img : Images(multi_channel_image, op)) {
    if (img->type == PixelType::VectorField || img->planes.size() != 3)
      throw HException(op, "Image must have three channels", kErrWrongObject);
    for (int k = 0; k < 3; ++k) o[k].Push(Derived(*img, img->type, {img->planes[size_t(k)]}));
  }
  *image1 = o[0];
  *image2 = o[1];
  *image3 = o[2];
}

void compose3(const HObject& image1, const HObject& image2, const HObject& image3,
              HObject* multi_channel_image) {
  const char* op = "compose3";
  const auto a = Images(image1, op), b = Images(image2, op), c = Images(image3, op);
  if (a.size() != b.size() || a.size() != c.size())
    throw HException(op, "Different numbers of input images", kErrWrongParamCount);
  HObject out;
  for (size_t i = 0; i < a.size(); ++i) {
    for (const Image* p : {a[i], b[i], c[i]}) {
      RequireNotVectorField(*p, op);
      if (p->Channels() != 1) throw HException(op, "Input images must have one channel", kErrWrongObject);
      if (p->width != a[i]->width || p->height != a[i]->height)
        throw HException(op, "Images of different sizes", kErrImageSize);
      if (p->type != a[i]->type) throw HException(op, "Images of different pixel types", kErrWrongObject);
    }
    // The composed image is defined where all three channels are.
    Image m = Derived(*a[i], a[i]->type, {a[i]->planes[0], b[i]->planes[0], c[i]->planes[0]});
    m.domain = a[i]->domain.Intersection(b[i]->domain).Intersection(c[i]->domain);
    out.Push(std::move(m));
  }
  *multi_channel_image = out;
}

void copy_image(const HObject& image, HObject* dup_image) {
  HObject out;
  for (const Image* img : Images(image, "copy_image")) out.Push(img->Clone());
  *dup_image = out;
}

void convert_image_type(const HObject& image, HObject* image_converted, const HTuple& new_type) {
  const char* op = "convert_image_type";
  const PixelType t = PlainType(new_type, op);
  HObject out;
  for (const Image* img : Images(image, op)) {
    RequireNotVectorField(*img, op);
    std::vector<cv::Mat> planes;
    for (const cv::Mat& p : img->planes) {
      if (img->type == t) {
        planes.push_back(p.clone());
      } else if (t == PixelType::Real) {
        planes.push_back(ToFloat(p));
      } else if (img->type == PixelType::Real && t == PixelType::Byte) {
        planes.push_back(TruncateReal<uint8_t>(p, t));
      } else if (img->type == PixelType::Real && t == PixelType::UInt2) {
        planes.push_back(TruncateReal<uint16_t>(p, t));
      } else if (img->type == PixelType::Real && t == PixelType::Int2) {
        planes.push_back(TruncateReal<int16_t>(p, t));
      } else {
        planes.push_back(FromDoubleTruncate(p, t));
      }
    }
    out.Push(Derived(*img, t, std::move(planes)));
  }
  *image_converted = out;
}

void get_grayval(const HObject& image, const HTuple& row, const HTuple& column, HTuple* grayval) {
  const char* op = "get_grayval";
  if (row.Length() != column.Length())
    throw HException(op, "Row and Column have different lengths", kErrWrongParamCount);
  const Image& img = image.ImageAt(0, op);
  RequireNotVectorField(img, op);
  // Packed integer coordinates are read in place; anything else element by
  // element, with the same checks.
  const std::span<const Hlong> rs = row.IntSpan(), cs = column.IntSpan();
  const bool packed = !rs.empty() && !cs.empty();
  const size_t n = size_t(row.Length()), channels = img.planes.size();
  auto at = [&](size_t i, int* r, int* c) {
    const Hlong rl = packed ? rs[i] : ParamInt(row, op, "Row", Hlong(i));
    const Hlong cl = packed ? cs[i] : ParamInt(column, op, "Column", Hlong(i));
    if (rl < 0 || cl < 0 || rl >= img.height || cl >= img.width)
      throw HException(op, "Coordinates outside of the image", kErrWrongParamValue);
    *r = int(rl);
    *c = int(cl);
  };
  // Every value of one image has the pixel type's kind: integers for the
  // integer types, reals otherwise; built as one array, handed over whole.
  auto gather = [&](auto read, auto& out) {
    out.reserve(n * channels);
    int r, c;
    for (size_t i = 0; i < n; ++i) {
      at(i, &r, &c);
      for (const cv::Mat& p : img.planes) out.push_back(read(p, r, c));
    }
  };
  std::vector<Hlong> iv;
  switch (img.type) {
    case PixelType::Byte: gather([](const cv::Mat& p, int r, int c) { return Hlong(p.ptr<uint8_t>(r)[c]); }, iv); break;
    case PixelType::UInt2: gather([](const cv::Mat& p, int r, int c) { return Hlong(p.ptr<uint16_t>(r)[c]); }, iv); break;
    case PixelType::Int2: gather([](const cv::Mat& p, int r, int c) { return Hlong(p.ptr<int16_t>(r)[c]); }, iv); break;
    case PixelType::Int4: gather([](const cv::Mat& p, int r, int c) { return Hlong(p.ptr<int32_t>(r)[c]); }, iv); break;
    default: {
      std::vector<double> dv;
      gather([](const cv::Mat& p, int r, int c) { return double(p.at<float>(r, c)); }, dv);
      *grayval = HTuple::Reals(std::move(dv));
      return;
    }
  }
  *grayval = HTuple::Ints(std::move(iv));
}

void crop_domain(const HObject& image, HObject* image_part) {
  const char* op = "crop_domain";
  HObject out;
  for (const Image* img : Images(image, op)) {
    const Region dom = img->domain.Clipped(img->height, img->width);
    if (dom.Empty()) throw HException(op, "Empty domain", kErrEmptyInput);
    int r1, c1, r2, c2;
    dom.BoundingBox(&r1, &c1, &r2, &c2);
    const cv::Rect roi(c1, r1, c2 - c1 + 1, r2 - r1 + 1);
    // A crop to the whole image keeps the (immutable) planes.
    const bool whole = roi.width == img->width && roi.height == img->height;
    std::vector<cv::Mat> planes;
    for (const cv::Mat& p : img->planes) planes.push_back(whole ? p : p(roi).clone());
    Image part;
    part.width = roi.width;
    part.height = roi.height;
    part.type = img->type;
    part.planes = std::move(planes);
    part.vector_field_type = img->vector_field_type;
    part.domain = dom.Translated(-r1, -c1);
    out.Push(std::move(part));
  }
  *image_part = out;
}

void get_image_size(const HObject& image, HTuple* width, HTuple* height) {
  HTuple w, h;
  for (const Image* img : Images(image, "get_image_size")) {
    Put(w, img->width);
    Put(h, img->height);
  }
  *width = w;
  *height = h;
}

void get_image_type(const HObject& image, HTuple* type) {
  HTuple t;
  for (const Image* img : Images(image, "get_image_type")) Put(t, PixelTypeName(img->type));
  *type = t;
}

void full_domain(const HObject& image, HObject* image_full) {
  HObject out;
  for (const Image* img : Images(image, "full_domain")) {
    Image f = *img;
    f.domain = Region::Rectangle(0, 0, img->height - 1, img->width - 1);
    out.Push(std::move(f));
  }
  *image_full = out;
}

}  // namespace vision
