#include "vision/model3d/object_model_3d_io.h"

#include <algorithm>
#include <bit>
#include <cctype>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>
#include <memory>
#include <sstream>

#include "vision/core/param.h"
#include "vision/model3d/model3d_util.h"
#include "vision/model3d/object_model_3d.h"

namespace vision {

namespace {

constexpr const char* kColour[3] = {"&coord_r", "&coord_g", "&coord_b"};

template <class T>
void Put(std::string* out, T v) {
  char b[sizeof(T)];
  std::memcpy(b, &v, sizeof(T));  // the writer runs on little-endian hosts only
  out->append(b, sizeof(T));
}

void AppendNumber(std::string* out, double v) {
  char b[32];
  auto r = std::to_chars(b, b + sizeof b, v);
  out->append(b, r.ptr);
}

}  // namespace

void write_object_model_3d(const HTuple& ObjectModel3D, const HTuple& FileType,
                           const HTuple& FileName, const HTuple& GenParamName,
                           const HTuple& GenParamValue) {
  const char* op = "write_object_model_3d";
  static_assert(std::endian::native == std::endian::little);
  ParamCount(ObjectModel3D, op, "ObjectModel3D", 1);
  const ObjectModel3DData& m = *ObjectModel3DCast(ObjectModel3D, op);
  ParamStringIn(FileType, op, "FileType", {"ply"});
  ParamString(FileName, op, "FileName");
  const model3d::GenParams gp(GenParamName, GenParamValue, op, {"binary"});
  const bool binary = gp.Bool("binary", true);
  const bool colour = m.attribs.count(kColour[0]) && m.attribs.count(kColour[1]) &&
                      m.attribs.count(kColour[2]);
  const bool normals = m.HasNormals();

  std::string out = "ply\nformat ";
  out += binary ? "binary_little_endian 1.0\n" : "ascii 1.0\n";
  out += "element vertex " + std::to_string(m.NumPoints()) + "\n";
  out += "property float x\nproperty float y\nproperty float z\n";
  if (normals) out += "property float nx\nproperty float ny\nproperty float nz\n";
  if (colour) out += "property uchar red\nproperty uchar green\nproperty uchar blue\n";
  if (m.HasTriangles()) {
    out += "element face " + std::to_string(m.triangles.size()) + "\n";
    out += "property list uchar int vertex_indices\n";
  }
  out += "end_header\n";

  const std::vector<double>* col[3] = {};
  if (colour)
    for (int c = 0; c < 3; ++c) col[c] = &m.attribs.at(kColour[c]);
  auto colour_byte = [&](int c, size_t i) {
    const double v = (*col[c])[i];
    return uint8_t(std::isfinite(v) ? std::clamp(std::lround(v), 0L, 255L) : 0);
  };
  out.reserve(out.size() + m.NumPoints() * (binary ? 27 : 64) + m.triangles.size() * 13);
  for (size_t i = 0; i < m.NumPoints(); ++i) {
    float v[6] = {m.points[i].x(), m.points[i].y(), m.points[i].z(), 0, 0, 0};
    if (normals) std::copy(m.normals[i].data(), m.normals[i].data() + 3, v + 3);
    const int nv = normals ? 6 : 3;
    if (binary) {
      for (int k = 0; k < nv; ++k) Put(&out, v[k]);
      if (colour)
        for (int c = 0; c < 3; ++c) Put(&out, colour_byte(c, i));
    } else {
      for (int k = 0; k < nv; ++k) {
        if (k) out += ' ';
        AppendNumber(&out, v[k]);
      }
      if (colour)
        for (int c = 0; c < 3; ++c) out += ' ' + std::to_string(colour_byte(c, i));
      out += '\n';
    }
  }
  for (const auto& t : m.triangles) {
    if (binary) {
      Put(&out, uint8_t(3));
      for (int32_t k : t) Put(&out, k);
    } else {
      out += "3 " + std::to_string(t[0]) + ' ' + std::to_string(t[1]) + ' ' +
             std::to_string(t[2]) + '\n';
    }
  }

  const std::string& path = FileName.S(0);
  std::unique_ptr<FILE, int (*)(FILE*)> f(std::fopen(path.c_str(), "wb"), std::fclose);
  if (!f) throw HException(op, "Cannot open file for writing: " + path, kErrFile);
  if (std::fwrite(out.data(), 1, out.size(), f.get()) != out.size() ||
      std::fclose(f.release()) != 0)
    throw HException(op, "Cannot write file: " + path, kErrFile);
}

namespace {

enum class PlyType { Int8, UInt8, Int16, UInt16, Int32, UInt32, Float32, Float64 };

bool ParseType(const std::string& s, PlyType* t) {
  static const std::pair<const char*, PlyType> kTypes[] = {
      {"char", PlyType::Int8},      {"int8", PlyType::Int8},     {"uchar", PlyType::UInt8},
      {"uint8", PlyType::UInt8},    {"short", PlyType::Int16},   {"int16", PlyType::Int16},
      {"ushort", PlyType::UInt16},  {"uint16", PlyType::UInt16}, {"int", PlyType::Int32},
      {"int32", PlyType::Int32},    {"uint", PlyType::UInt32},   {"uint32", PlyType::UInt32},
      {"float", PlyType::Float32},  {"float32", PlyType::Float32},
      {"double", PlyType::Float64}, {"float64", PlyType::Float64}};
  for (const auto& [n, v] : kTypes)
    if (s == n) { *t = v; return true; }
  return false;
}

size_t TypeSize(PlyType t) {
  switch (t) {
    case PlyType::Int8: case PlyType::UInt8: return 1;
    case PlyType::Int16: case PlyType::UInt16: return 2;
    case PlyType::Int32: case PlyType::UInt32: case PlyType::Float32: return 4;
    case PlyType::Float64: return 8;
  }
  return 1;
}

struct Property {
  std::string name;
  PlyType type = PlyType::Float32;
  bool list = false;
  PlyType count_type = PlyType::UInt8;
};

struct Element {
  std::string name;
  uint64_t count = 0;
  std::vector<Property> props;
};

// Reads values from the body of a PLY file, binary or ASCII, never past its
// end: every step checks what is left and raises on a short file.
class BodyReader {
 public:
  BodyReader(const std::string& data, size_t pos, bool binary, const char* op)
      : p_(data.data() + pos), end_(data.data() + data.size()), binary_(binary), op_(op) {}

  double Read(PlyType t) {
    return binary_ ? ReadBinary(t) : ReadAscii(t);
  }
  size_t Left() const { return size_t(end_ - p_); }
  // Only whitespace may follow the last element of an ASCII file.
  bool AtEnd() {
    if (binary_) return p_ == end_;
    while (p_ < end_ && std::isspace(static_cast<unsigned char>(*p_))) ++p_;
    return p_ == end_;
  }

 private:
  [[noreturn]] void Short() const {
    throw HException(op_, "PLY file is truncated or damaged", kErrFileFormat);
  }
  template <class T>
  double Get() {
    if (Left() < sizeof(T)) Short();
    T v;
    std::memcpy(&v, p_, sizeof(T));
    p_ += sizeof(T);
    return double(v);
  }
  double ReadBinary(PlyType t) {
    switch (t) {
      case PlyType::Int8: return Get<int8_t>();
      case PlyType::UInt8: return Get<uint8_t>();
      case PlyType::Int16: return Get<int16_t>();
      case PlyType::UInt16: return Get<uint16_t>();
      case PlyType::Int32: return Get<int32_t>();
      case PlyType::UInt32: return Get<uint32_t>();
      case PlyType::Float32: return Get<float>();
      case PlyType::Float64: return Get<double>();
    }
    Short();
  }
  double ReadAscii(PlyType t) {
    while (p_ < end_ && std::isspace(static_cast<unsigned char>(*p_))) ++p_;
    if (p_ == end_) Short();
    double v = 0;
    std::from_chars_result r;
    if (t == PlyType::Float32 || t == PlyType::Float64) {
      r = std::from_chars(p_, end_, v);
    } else {
      int64_t i = 0;
      r = std::from_chars(p_, end_, i);
      v = double(i);
    }
    if (r.ec != std::errc() || (r.ptr < end_ && !std::isspace(static_cast<unsigned char>(*r.ptr))))
      throw HException(op_, "PLY file holds a malformed number", kErrFileFormat);
    p_ = r.ptr;
    return v;
  }

  const char* p_;
  const char* end_;
  bool binary_;
  const char* op_;
};

double ScaleFactor(const HTuple& scale, const char* op) {
  ParamCount(scale, op, "Scale", 1);
  if (scale.IsNumber(0)) {
    const double s = ParamReal(scale, op, "Scale");
    if (!(s > 0)) ThrowParamValue(op, "Scale", "not positive");
    return s;
  }
  const std::string& unit = ParamString(scale, op, "Scale");
  static const std::pair<const char*, double> kUnits[] = {
      {"m", 1.0}, {"km", 1e3}, {"dm", 0.1}, {"cm", 1e-2}, {"mm", 1e-3},
      {"um", 1e-6}, {"microns", 1e-6}, {"nm", 1e-9}};
  for (const auto& [n, f] : kUnits)
    if (unit == n) return f;
  ThrowParamValue(op, "Scale", "unknown unit '" + unit + "'");
}

}  // namespace

void read_object_model_3d(const HTuple& FileName, const HTuple& Scale,
                          const HTuple& GenParamName, const HTuple& GenParamValue,
                          HTuple* ObjectModel3D, HTuple* Status) {
  const char* op = "read_object_model_3d";
  ParamString(FileName, op, "FileName");
  const double scale = ScaleFactor(Scale, op);
  const model3d::GenParams gp(GenParamName, GenParamValue, op, {"file_type"});
  const std::string file_type = gp.Str("file_type", "ply");
  if (file_type != "ply") ThrowParamValue(op, "'file_type'", "only PLY files can be read");

  const std::string& path = FileName.S(0);
  std::ifstream in(path, std::ios::binary);
  if (!in) throw HException(op, "Cannot open file: " + path, kErrFile);
  const std::string data((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  if (in.bad()) throw HException(op, "Cannot read file: " + path, kErrFile);

  // Header: lines up to "end_header".
  auto bad = [&](const std::string& why) {
    return HException(op, "Not a valid PLY file (" + why + "): " + path, kErrFileFormat);
  };
  size_t pos = 0;
  auto next_line = [&](std::string* line) {
    const size_t nl = data.find('\n', pos);
    if (nl == std::string::npos) throw bad("header not terminated");
    *line = data.substr(pos, nl - pos);
    if (!line->empty() && line->back() == '\r') line->pop_back();
    pos = nl + 1;
  };
  std::string line;
  next_line(&line);
  if (line != "ply") throw bad("no 'ply' signature");
  bool binary = false, have_format = false;
  std::vector<Element> elements;
  for (;;) {
    next_line(&line);
    std::istringstream ls(line);
    std::string kw;
    ls >> kw;
    if (kw == "end_header") break;
    if (kw.empty() || kw == "comment" || kw == "obj_info") continue;
    if (kw == "format") {
      std::string fmt, ver;
      ls >> fmt >> ver;
      if (fmt == "ascii") binary = false;
      else if (fmt == "binary_little_endian") binary = true;
      else throw bad("unsupported format '" + fmt + "'");
      have_format = true;
    } else if (kw == "element") {
      Element e;
      long long count = -1;
      if (!(ls >> e.name >> count) || count < 0) throw bad("bad element line");
      e.count = uint64_t(count);
      elements.push_back(std::move(e));
    } else if (kw == "property") {
      if (elements.empty()) throw bad("property before any element");
      Property p;
      std::string t;
      ls >> t;
      if (t == "list") {
        std::string ct, vt;
        ls >> ct >> vt >> p.name;
        p.list = true;
        if (!ParseType(ct, &p.count_type) || !ParseType(vt, &p.type)) throw bad("bad list type");
        if (p.count_type == PlyType::Float32 || p.count_type == PlyType::Float64)
          throw bad("list count must be an integer");
      } else {
        ls >> p.name;
        if (!ParseType(t, &p.type)) throw bad("unknown type '" + t + "'");
      }
      if (p.name.empty()) throw bad("property without name");
      elements.back().props.push_back(std::move(p));
    } else {
      throw bad("unknown header line");
    }
  }
  if (!have_format) throw bad("no format line");

  BodyReader body(data, pos, binary, op);
  auto m = NewObjectModel3D();
  bool have_vertices = false;
  for (const Element& e : elements) {
    // Each instance takes at least one byte (binary: the size of its fixed
    // part; ASCII: one character per value): a larger count is a lie.
    size_t min_size = 0;
    for (const Property& p : e.props) min_size += p.list ? TypeSize(p.count_type) : TypeSize(p.type);
    if (!binary) min_size = std::max<size_t>(e.props.size(), 1) * 2 - 1;
    if (!e.props.empty() && e.count > body.Left() / std::max<size_t>(min_size, 1))
      throw bad("element count exceeds the file size");
    if (e.name == "vertex") {
      if (have_vertices) throw bad("two vertex elements");
      have_vertices = true;
      const size_t n = size_t(e.count);
      int xyz[3] = {-1, -1, -1}, nrm[3] = {-1, -1, -1}, col[3] = {-1, -1, -1};
      static const char* kXyz[] = {"x", "y", "z"};
      static const char* kNrm[] = {"nx", "ny", "nz"};
      static const char* kCol[][2] = {{"red", "diffuse_red"}, {"green", "diffuse_green"},
                                      {"blue", "diffuse_blue"}};
      for (int i = 0; i < int(e.props.size()); ++i) {
        const std::string& pn = e.props[size_t(i)].name;
        if (e.props[size_t(i)].list) throw bad("list property in vertex element");
        for (int c = 0; c < 3; ++c) {
          if (pn == kXyz[c]) xyz[c] = i;
          if (pn == kNrm[c]) nrm[c] = i;
          if (pn == kCol[c][0] || pn == kCol[c][1]) col[c] = i;
        }
      }
      if (xyz[0] < 0 || xyz[1] < 0 || xyz[2] < 0) throw bad("vertices without x, y, z");
      const bool normals = nrm[0] >= 0 && nrm[1] >= 0 && nrm[2] >= 0;
      std::vector<std::vector<double>*> extra(e.props.size(), nullptr);
      for (size_t i = 0; i < e.props.size(); ++i) {
        const int ii = int(i);
        const bool known = ii == xyz[0] || ii == xyz[1] || ii == xyz[2] ||
                           (normals && (ii == nrm[0] || ii == nrm[1] || ii == nrm[2]));
        if (known) continue;
        std::string an = "&" + e.props[i].name;
        for (int c = 0; c < 3; ++c)
          if (ii == col[c]) an = kColour[c];
        extra[i] = &m->attribs[an];
        extra[i]->reserve(n);
      }
      m->points.resize(n);
      if (normals) m->normals.resize(n);
      double v[64];
      std::vector<double> big;
      double* vals = v;
      if (e.props.size() > 64) {
        big.resize(e.props.size());
        vals = big.data();
      }
      for (size_t k = 0; k < n; ++k) {
        for (size_t i = 0; i < e.props.size(); ++i) vals[i] = body.Read(e.props[i].type);
        m->points[k] = Eigen::Vector3f(float(vals[xyz[0]] * scale), float(vals[xyz[1]] * scale),
                                       float(vals[xyz[2]] * scale));
        if (normals)
          m->normals[k] = Eigen::Vector3f(float(vals[nrm[0]]), float(vals[nrm[1]]), float(vals[nrm[2]]));
        for (size_t i = 0; i < e.props.size(); ++i) {
          if (!extra[i]) continue;
          double x = vals[i];
          // Colours stored as reals lie in 0..1; the model keeps 0-255.
          if ((int(i) == col[0] || int(i) == col[1] || int(i) == col[2]) &&
              (e.props[i].type == PlyType::Float32 || e.props[i].type == PlyType::Float64))
            x *= 255.0;
          extra[i]->push_back(x);
        }
      }
    } else if (e.name == "face") {
      if (!have_vertices) throw bad("faces before vertices");
      int idx = -1;
      for (int i = 0; i < int(e.props.size()); ++i) {
        const Property& p = e.props[size_t(i)];
        if (p.list && (p.name == "vertex_indices" || p.name == "vertex_index")) idx = i;
      }
      if (idx < 0) throw bad("faces without vertex_indices");
      const int64_t nv = int64_t(m->NumPoints());
      std::vector<int32_t> poly;
      for (uint64_t k = 0; k < e.count; ++k) {
        for (int i = 0; i < int(e.props.size()); ++i) {
          const Property& p = e.props[size_t(i)];
          if (!p.list) { body.Read(p.type); continue; }
          const double cnt = body.Read(p.count_type);
          if (cnt < 0 || cnt > double(body.Left())) throw bad("bad list length");
          poly.clear();
          for (int64_t j = 0; j < int64_t(cnt); ++j) {
            const double x = body.Read(p.type);
            if (i != idx) continue;
            if (!(x >= 0 && x < double(nv)) || x != std::floor(x))
              throw bad("face refers to a missing vertex");
            poly.push_back(int32_t(x));
          }
          // Polygons become fans of triangles.
          for (size_t j = 2; j < poly.size(); ++j) m->triangles.push_back({poly[0], poly[j - 1], poly[j]});
        }
      }
    } else {
      for (uint64_t k = 0; k < e.count; ++k)
        for (const Property& p : e.props) {
          if (!p.list) { body.Read(p.type); continue; }
          const double cnt = body.Read(p.count_type);
          if (cnt < 0 || cnt > double(body.Left())) throw bad("bad list length");
          for (int64_t j = 0; j < int64_t(cnt); ++j) body.Read(p.type);
        }
    }
  }
  if (!have_vertices) throw bad("no vertex element");
  if (!body.AtEnd() && !binary) throw bad("data after the last element");
  ObjectModel3D->Clear();
  model3d::AppendModel(ObjectModel3D, std::move(m));
  *Status = HTuple();
}

}  // namespace vision
