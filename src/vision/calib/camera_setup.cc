#include "vision/calib/camera_setup.h"

#include <array>
#include <cmath>
#include <cstring>
#include <fstream>
#include <iterator>

#include "vision/core/param.h"
#include "vision/core/serialized_item.h"
#include "vision/geometry/pose_types.h"

namespace vision {

namespace {

// Far above any rig, low enough that a forged count cannot exhaust memory.
constexpr Hlong kMaxCameras = 4096;

Hlong CameraIndex(const HTuple& idx, const char* op, const char* name = "CameraIdx") {
  return ParamInt(idx, op, name);
}

SetupCamera& MutableCamera(CameraSetupModelData* m, const HTuple& idx, const char* op) {
  const Hlong i = CameraIndex(idx, op);
  if (i < 0 || i >= Hlong(m->cameras.size()))
    ThrowParamValue(op, "CameraIdx", "no camera " + std::to_string(i));
  return m->cameras[size_t(i)];
}

const std::string& OneString(const HTuple& t, const char* op, const char* name) { return ParamString(t, op, name); }

// Poses are kept with reals for the six values and an integer code, whatever
// mix of numbers they were given as.
// Non-finite values are refused here, so that every model can be serialized
// and read back.
HTuple NormalisedPose(const HTuple& pose, const char* op) {
  const int code = CheckPose(pose, op);  // finite values, a valid code
  return HTuple::Reals({pose.D(0), pose.D(1), pose.D(2), pose.D(3), pose.D(4), pose.D(5)}).Append(HTuple(code));
}

CamParams FiniteCamParams(const HTuple& params, const char* op) {
  CamParams c = CamParams::FromTuple(params, op);
  for (double v : {c.focus, c.kappa, c.sx, c.sy, c.cx, c.cy})
    if (!std::isfinite(v)) throw HException(op, "Camera parameter not finite", kErrWrongParamValue);
  return c;
}

void CheckCameraType(const HTuple& type, const HTuple& params, const char* op) {
  if (type.Length() == 0 || (type.Length() == 1 && type.IsString(0) && type.S(0).empty())) {
    if (params.Length() != 8) throw HException(op, "Camera type of these camera parameters not supported", kErrNotImplemented);
    return;
  }
  if (OneString(type, op, "CameraType") != kAreaScanDivision)
    throw HException(op, "Camera type not supported: " + type.S(0), kErrNotImplemented);
}

void MoveWorld(CameraSetupModelData* m, const Eigen::Isometry3d& new_world_in_old, const char* op) {
  const Eigen::Isometry3d inv = new_world_in_old.inverse();
  for (SetupCamera& c : m->cameras)
    if (c.has_pose) c.pose = IsometryToPose(inv * PoseToIsometry(c.pose, op), int(c.pose.L(6)));
  m->coord_transf_pose = IsometryToPose(PoseToIsometry(m->coord_transf_pose, op) * new_world_in_old,
                                        int(m->coord_transf_pose.L(6)));
}

// ---- Byte format (see CAMERA_SETUP_FORMAT.md) ----

constexpr uint8_t kMagic[4] = {'V', 'C', 'S', 'M'};
constexpr uint16_t kVersion = 1;
constexpr size_t kHeaderSize = 16;

uint32_t Crc32(const uint8_t* p, size_t n) {
  static const std::array<uint32_t, 256> table = [] {
    std::array<uint32_t, 256> t{};
    for (uint32_t i = 0; i < 256; ++i) {
      uint32_t c = i;
      for (int k = 0; k < 8; ++k) c = (c & 1) ? 0xEDB88320u ^ (c >> 1) : c >> 1;
      t[i] = c;
    }
    return t;
  }();
  uint32_t c = 0xFFFFFFFFu;
  for (size_t i = 0; i < n; ++i) c = table[(c ^ p[i]) & 0xFF] ^ (c >> 8);
  return c ^ 0xFFFFFFFFu;
}

class Writer {
 public:
  void U8(uint8_t v) { b_.push_back(v); }
  void U16(uint16_t v) { Le(v, 2); }
  void U32(uint32_t v) { Le(v, 4); }
  void I32(int32_t v) { Le(uint32_t(v), 4); }
  void F64(double v) { uint64_t u; std::memcpy(&u, &v, 8); Le(u, 8); }
  void Str(const std::string& s) { U8(uint8_t(s.size())); b_.insert(b_.end(), s.begin(), s.end()); }
  void Pose(const HTuple& p) { for (int i = 0; i < 6; ++i) F64(p.D(i)); I32(int32_t(p.L(6))); }
  std::vector<uint8_t>& Bytes() { return b_; }

 private:
  void Le(uint64_t v, int n) { for (int i = 0; i < n; ++i) b_.push_back(uint8_t(v >> (8 * i))); }
  std::vector<uint8_t> b_;
};

class Reader {
 public:
  Reader(const uint8_t* p, size_t n, const char* op) : p_(p), n_(n), op_(op) {}
  uint8_t U8() { return uint8_t(Le(1)); }
  uint16_t U16() { return uint16_t(Le(2)); }
  uint32_t U32() { return uint32_t(Le(4)); }
  int32_t I32() { return int32_t(uint32_t(Le(4))); }
  double F64() {
    uint64_t u = Le(8);
    double v;
    std::memcpy(&v, &u, 8);
    if (!std::isfinite(v)) Fail("value not finite");
    return v;
  }
  std::string Str() {
    const size_t len = U8();
    Need(len);
    std::string s(reinterpret_cast<const char*>(p_ + pos_), len);
    pos_ += len;
    return s;
  }
  HTuple Pose() {
    std::vector<double> v(6);
    for (double& x : v) x = F64();
    const int32_t code = I32();
    if (!IsPoseTypeCode(code)) Fail("pose type code");
    return HTuple::Reals(v).Append(HTuple(code));
  }
  bool AtEnd() const { return pos_ == n_; }
  [[noreturn]] void Fail(const std::string& what) const {
    throw HException(op_, "Invalid serialized camera setup model (" + what + ")", kErrFileFormat);
  }

 private:
  void Need(size_t k) { if (n_ - pos_ < k) Fail("truncated"); }
  uint64_t Le(int k) {
    Need(size_t(k));
    uint64_t v = 0;
    for (int i = 0; i < k; ++i) v |= uint64_t(p_[pos_ + size_t(i)]) << (8 * i);
    pos_ += size_t(k);
    return v;
  }
  const uint8_t* p_;
  size_t n_, pos_ = 0;
  const char* op_;
};

}  // namespace

Eigen::Isometry3d SetupCamera::WorldFromCamera() const { return PoseToIsometry(pose, "camera_setup_model"); }

const SetupCamera& CameraSetupModelData::Camera(Hlong index, const char* op) const {
  if (index < 0 || index >= Hlong(cameras.size())) throw HException(op, "Camera index out of range", kErrWrongParamValue);
  const SetupCamera& c = cameras[size_t(index)];
  if (!c.Defined()) throw HException(op, "Camera " + std::to_string(index) + " of the setup is not defined", kErrWrongParamValue);
  return c;
}

std::vector<uint8_t> SerializeCameraSetup(const CameraSetupModelData& m) {
  Writer w;
  w.U32(uint32_t(m.cameras.size()));
  w.I32(int32_t(m.reference_camera));
  w.Pose(m.coord_transf_pose);
  for (const SetupCamera& c : m.cameras) {
    w.U8(uint8_t((c.has_params ? 1 : 0) | (c.has_pose ? 2 : 0)));
    w.Str(c.type);
    const HTuple params = c.has_params ? c.params.ToTuple() : HTuple();
    w.U8(uint8_t(params.Length()));
    for (Hlong i = 0; i < params.Length(); ++i) w.F64(params.D(i));
    w.Pose(c.has_pose ? c.pose : HTuple::Reals({0, 0, 0, 0, 0, 0}).Append(HTuple(0)));
  }
  const std::vector<uint8_t>& payload = w.Bytes();
  Writer h;
  for (uint8_t b : kMagic) h.U8(b);
  h.U16(kVersion);
  h.U16(0);
  h.U32(uint32_t(payload.size()));
  h.U32(Crc32(payload.data(), payload.size()));
  std::vector<uint8_t> out = std::move(h.Bytes());
  out.insert(out.end(), payload.begin(), payload.end());
  return out;
}

CameraSetupModelPtr DeserializeCameraSetup(const uint8_t* data, size_t size, const char* op) {
  Reader head(data, std::min(size, kHeaderSize), op);
  if (size < kHeaderSize) head.Fail("truncated header");
  for (uint8_t b : kMagic)
    if (head.U8() != b) head.Fail("not a camera setup model");
  const uint16_t version = head.U16();
  if (version != kVersion) head.Fail("unknown version " + std::to_string(version));
  if (head.U16() != 0) head.Fail("reserved field");
  const uint32_t length = head.U32();
  const uint32_t crc = head.U32();
  if (size - kHeaderSize != length) head.Fail(size - kHeaderSize < length ? "truncated" : "trailing bytes");
  const uint8_t* payload = data + kHeaderSize;
  if (Crc32(payload, length) != crc) head.Fail("checksum mismatch");

  Reader r(payload, length, op);
  auto m = std::make_shared<CameraSetupModelData>();
  const uint32_t n = r.U32();
  if (n < 1 || n > kMaxCameras) r.Fail("number of cameras");
  m->reference_camera = r.I32();
  if (m->reference_camera < -1 || m->reference_camera >= Hlong(n)) r.Fail("reference camera");
  m->coord_transf_pose = r.Pose();
  m->cameras.resize(n);
  for (SetupCamera& c : m->cameras) {
    const uint8_t flags = r.U8();
    if (flags > 3) r.Fail("camera flags");
    c.has_params = flags & 1;
    c.has_pose = flags & 2;
    c.type = r.Str();
    if (c.type != kAreaScanDivision) r.Fail("camera type");
    const uint8_t count = r.U8();
    if (count != (c.has_params ? 8 : 0)) r.Fail("number of camera parameters");
    std::vector<double> v(count);
    for (double& x : v) x = r.F64();
    if (c.has_params) {
      HTuple t = HTuple::Reals({v[0], v[1], v[2], v[3], v[4], v[5]});
      if (v[6] != std::floor(v[6]) || v[7] != std::floor(v[7])) r.Fail("image size");
      t.Append(HTuple(Hlong(v[6]))).Append(HTuple(Hlong(v[7])));
      try {
        c.params = CamParams::FromTuple(t, op);
      } catch (const HException&) {
        r.Fail("camera parameters");
      }
    }
    c.pose = r.Pose();
    if (!c.has_pose) c.pose = HTuple();
  }
  if (!r.AtEnd()) r.Fail("trailing bytes");
  return m;
}

void create_camera_setup_model(const HTuple& num_cameras, HTuple* camera_setup_model_id) {
  constexpr const char* op = "create_camera_setup_model";
  const Hlong n = ParamIntIn(num_cameras, op, "NumCameras", 1, kMaxCameras);
  auto m = std::make_shared<CameraSetupModelData>();
  m->cameras.resize(size_t(n));
  *camera_setup_model_id = HTuple(HHandle(m));
}

void set_camera_setup_cam_param(const HTuple& camera_setup_model_id, const HTuple& camera_idx,
                                const HTuple& camera_type, const HTuple& camera_param,
                                const HTuple& camera_pose) {
  constexpr const char* op = "set_camera_setup_cam_param";
  CameraSetupModelData* m = CameraSetupModelCast(camera_setup_model_id, op);
  SetupCamera& c = MutableCamera(m, camera_idx, op);
  CheckCameraType(camera_type, camera_param, op);
  CamParams params = FiniteCamParams(camera_param, op);
  HTuple pose = NormalisedPose(camera_pose, op);
  c.type = kAreaScanDivision;
  c.params = params;
  c.pose = std::move(pose);
  c.has_params = c.has_pose = true;
}

void set_camera_setup_param(const HTuple& camera_setup_model_id, const HTuple& camera_idx,
                            const HTuple& gen_param_name, const HTuple& gen_param_value) {
  constexpr const char* op = "set_camera_setup_param";
  CameraSetupModelData* m = CameraSetupModelCast(camera_setup_model_id, op);
  const std::string& name = OneString(gen_param_name, op, "GenParamName");
  if (name == "params") {
    SetupCamera& c = MutableCamera(m, camera_idx, op);
    c.params = FiniteCamParams(gen_param_value, op);
    c.has_params = true;
  } else if (name == "pose") {
    SetupCamera& c = MutableCamera(m, camera_idx, op);
    c.pose = NormalisedPose(gen_param_value, op);
    c.has_pose = true;
  } else if (name == "type" || name == "camera_type") {
    MutableCamera(m, camera_idx, op);
    if (OneString(gen_param_value, op, "GenParamValue") != kAreaScanDivision)
      throw HException(op, "Camera type not supported: " + gen_param_value.S(0), kErrNotImplemented);
  } else if (name == "coord_transf_pose") {
    MoveWorld(m, PoseToIsometry(NormalisedPose(gen_param_value, op), op), op);
    m->reference_camera = -1;
  } else if (name == "reference_camera") {
    const Hlong i = CameraIndex(gen_param_value, op, "GenParamValue");
    const SetupCamera& c = m->Camera(i, op);
    MoveWorld(m, PoseToIsometry(c.pose, op), op);
    m->reference_camera = i;
  } else {
    ThrowParamValue(op, "GenParamName", "'" + name + "'");
  }
}

void get_camera_setup_param(const HTuple& camera_setup_model_id, const HTuple& camera_idx,
                            const HTuple& gen_param_name, HTuple* gen_param_value) {
  constexpr const char* op = "get_camera_setup_param";
  const CameraSetupModelData* m = CameraSetupModelCast(camera_setup_model_id, op);
  const std::string& name = OneString(gen_param_name, op, "GenParamName");
  if (name == "num_cameras") {
    *gen_param_value = HTuple(Hlong(m->cameras.size()));
  } else if (name == "reference_camera") {
    *gen_param_value = HTuple(m->reference_camera);
  } else if (name == "coord_transf_pose") {
    *gen_param_value = m->coord_transf_pose;
  } else if (name == "params" || name == "pose" || name == "type" || name == "camera_type") {
    const Hlong i = CameraIndex(camera_idx, op);
    if (i < 0 || i >= Hlong(m->cameras.size())) ThrowParamValue(op, "CameraIdx", "no camera " + std::to_string(i));
    const SetupCamera& c = m->cameras[size_t(i)];
    if (name == "params") {
      if (!c.has_params) throw HException(op, "Camera " + std::to_string(i) + " has no parameters", kErrWrongParamValue);
      *gen_param_value = c.params.ToTuple();
    } else if (name == "pose") {
      if (!c.has_pose) throw HException(op, "Camera " + std::to_string(i) + " has no pose", kErrWrongParamValue);
      *gen_param_value = c.pose;
    } else {
      if (!c.has_params) throw HException(op, "Camera " + std::to_string(i) + " has no parameters", kErrWrongParamValue);
      *gen_param_value = HTuple(c.type);
    }
  } else {
    ThrowParamValue(op, "GenParamName", "'" + name + "'");
  }
}

void clear_camera_setup_model(const HTuple& camera_setup_model_id) {
  for (Hlong i = 0; i < camera_setup_model_id.Length(); ++i)
    CameraSetupModelCast(camera_setup_model_id, "clear_camera_setup_model", i)->Clear();
}

void serialize_camera_setup_model(const HTuple& camera_setup_model_id, HTuple* serialized_item_handle) {
  const CameraSetupModelData* m = CameraSetupModelCast(camera_setup_model_id, "serialize_camera_setup_model");
  *serialized_item_handle = NewSerializedItem(SerializeCameraSetup(*m));
}

void deserialize_camera_setup_model(const HTuple& serialized_item_handle, HTuple* camera_setup_model_id) {
  constexpr const char* op = "deserialize_camera_setup_model";
  const SerializedItemData* item = SerializedItemCast(serialized_item_handle, op);
  *camera_setup_model_id = HTuple(HHandle(DeserializeCameraSetup(item->bytes.data(), item->bytes.size(), op)));
}

void write_camera_setup_model(const HTuple& camera_setup_model_id, const HTuple& file_name) {
  constexpr const char* op = "write_camera_setup_model";
  const CameraSetupModelData* m = CameraSetupModelCast(camera_setup_model_id, op);
  const std::string& path = OneString(file_name, op, "FileName");
  const std::vector<uint8_t> bytes = SerializeCameraSetup(*m);
  std::ofstream f(path, std::ios::binary | std::ios::trunc);
  f.write(reinterpret_cast<const char*>(bytes.data()), std::streamsize(bytes.size()));
  if (!f.flush()) throw HException(op, "Cannot write file " + path, kErrFile);
}

void read_camera_setup_model(const HTuple& file_name, HTuple* camera_setup_model_id) {
  constexpr const char* op = "read_camera_setup_model";
  const std::string& path = OneString(file_name, op, "FileName");
  std::ifstream f(path, std::ios::binary);
  if (!f) throw HException(op, "Cannot open file " + path, kErrFile);
  const std::vector<uint8_t> bytes((std::istreambuf_iterator<char>(f)), std::istreambuf_iterator<char>());
  *camera_setup_model_id = HTuple(HHandle(DeserializeCameraSetup(bytes.data(), bytes.size(), op)));
}

}  // namespace vision
