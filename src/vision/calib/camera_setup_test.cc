#include "vision/calib/camera_setup.h"

#include <cmath>
#include <cstring>
#include <random>
#include <functional>
#include <string>

#include <gtest/gtest.h>

#include "vision/core/serialized_item.h"

namespace vision {
namespace {

const HTuple kParams = HTuple{0.025, -120.0, 7.4e-06, 7.4e-06, 321.5, 238.0, 640, 480};

// A three-camera setup with poses of different type codes.
HTuple MakeSetup() {
  HTuple setup;
  create_camera_setup_model(3, &setup);
  set_camera_setup_cam_param(setup, 0, HTuple(), kParams, HTuple{0.0513, 0.0243, -0.0755, 18.01, 326.90, 300.77, 0});
  set_camera_setup_cam_param(setup, 1, "area_scan_division", kParams, HTuple{-0.05, 0.02, -0.08, 0.1, 0.2, 0.3, 5});
  set_camera_setup_param(setup, 2, "params", HTuple{0.012, 0.0, 5e-06, 5.5e-06, 300.0, 200.0, 600, 400});
  set_camera_setup_param(setup, 2, "pose", HTuple{0, 0, -0.1, 180, 0, 0, 10});
  return setup;
}

std::vector<uint8_t> Bytes(const HTuple& setup) {
  HTuple item, ptr, size;
  serialize_camera_setup_model(setup, &item);
  get_serialized_item_ptr(item, &ptr, &size);
  const auto* p = reinterpret_cast<const uint8_t*>(uintptr_t(ptr.L()));
  std::vector<uint8_t> b(p, p + size.L());
  clear_serialized_item(item);
  return b;
}

HTuple FromBytes(const std::vector<uint8_t>& b) {
  HTuple item, setup;
  create_serialized_item_ptr(Hlong(reinterpret_cast<uintptr_t>(b.data())), Hlong(b.size()), "true", &item);
  deserialize_camera_setup_model(item, &setup);
  return setup;
}

TEST(CameraSetupTest, ParametersReadBackAndSurviveSerialization) {
  HTuple setup = MakeSetup(), v;
  for (int round = 0; round < 2; ++round) {
    get_camera_setup_param(setup, "general", "num_cameras", &v);
    EXPECT_EQ(v, HTuple(3));
    get_camera_setup_param(setup, 0.0, "params", &v);  // an integral real is an index
    EXPECT_EQ(v, kParams);
    get_camera_setup_param(setup, 1, "pose", &v);
    EXPECT_EQ(v, (HTuple{-0.05, 0.02, -0.08, 0.1, 0.2, 0.3, 5}));
    get_camera_setup_param(setup, 2, "pose", &v);
    EXPECT_EQ(v, (HTuple{0.0, 0.0, -0.1, 180.0, 0.0, 0.0, 10}));
    get_camera_setup_param(setup, 2, "camera_type", &v);
    EXPECT_EQ(v, HTuple("area_scan_division"));
    get_camera_setup_param(setup, 2, "params", &v);
    EXPECT_EQ(v.D(3), 5.5e-06);
    EXPECT_EQ(CameraSetupModelCast(setup, "test")->Camera(1, "test").params.cx, 321.5);
    setup = FromBytes(Bytes(setup));  // second round reads the copy
  }
  // Same model, same bytes; a file holds the same bytes.
  EXPECT_EQ(Bytes(setup), Bytes(MakeSetup()));
  const std::string path = testing::TempDir() + "/setup.csm";
  write_camera_setup_model(setup, path.c_str());
  HTuple read;
  read_camera_setup_model(path.c_str(), &read);
  EXPECT_EQ(Bytes(read), Bytes(setup));
  EXPECT_THROW(read_camera_setup_model((path + ".missing").c_str(), &read), HException);
}

TEST(CameraSetupTest, WorldFrameMovesToTheReferenceCamera) {
  HTuple setup = MakeSetup(), pose0, pose1;
  set_camera_setup_param(setup, "general", "reference_camera", 1);
  get_camera_setup_param(setup, 1, "pose", &pose1);
  EXPECT_EQ(pose1.L(6), 5);  // the camera keeps its pose type
  for (int i = 0; i < 3; ++i) EXPECT_NEAR(pose1.D(i), 0.0, 1e-15);
  const Eigen::Isometry3d w0 = CameraSetupModelCast(MakeSetup(), "t")->Camera(0, "t").WorldFromCamera();
  const Eigen::Isometry3d w1 = CameraSetupModelCast(MakeSetup(), "t")->Camera(1, "t").WorldFromCamera();
  const Eigen::Isometry3d now0 = CameraSetupModelCast(setup, "t")->Camera(0, "t").WorldFromCamera();
  EXPECT_TRUE(now0.isApprox(w1.inverse() * w0, 1e-12));
  HTuple ref;
  get_camera_setup_param(setup, "general", "reference_camera", &ref);
  EXPECT_EQ(ref, HTuple(1));
  EXPECT_EQ(CameraSetupModelCast(FromBytes(Bytes(setup)), "t")->reference_camera, 1);
}

TEST(CameraSetupTest, BadCallsRaise) {
  HTuple setup, v;
  create_camera_setup_model(2, &setup);
  set_camera_setup_cam_param(setup, 0, HTuple(), kParams, HTuple{0, 0, 0, 0, 0, 0, 0});
  struct Case {
    const char* what;
    std::function<void()> run;
  } cases[] = {
      {"index out of range", [&] { get_camera_setup_param(setup, 2, "params", &v); }},
      {"camera not set", [&] { get_camera_setup_param(setup, 1, "pose", &v); }},
      {"unknown name", [&] { get_camera_setup_param(setup, 0, "focus", &v); }},
      {"other camera type", [&] { set_camera_setup_cam_param(setup, 1, "area_scan_polynomial", kParams, HTuple{0, 0, 0, 0, 0, 0, 0}); }},
      {"short params", [&] { set_camera_setup_param(setup, 1, "params", HTuple{0.01, 0.0, 1e-5}); }},
      {"bad pose code", [&] { set_camera_setup_param(setup, 1, "pose", HTuple{0, 0, 0, 0, 0, 0, 7}); }},
      // Values the serialization could not read back.
      {"pose not finite", [&] { set_camera_setup_param(setup, 1, "pose", HTuple{0.0, std::nan(""), 0.0, 0.0, 0.0, 0.0, 0}); }},
      {"kappa not finite", [&] { set_camera_setup_param(setup, 1, "params", HTuple{0.025, INFINITY, 7.4e-06, 7.4e-06, 321.5, 238.0, 640, 480}); }},
      {"fractional index", [&] { get_camera_setup_param(setup, 0.5, "params", &v); }},
      {"no cameras", [&] { create_camera_setup_model(0, &v); }},
      {"not a setup", [&] { serialize_camera_setup_model(HTuple(1), &v); }},
      {"reference camera not set", [&] { set_camera_setup_param(setup, "general", "reference_camera", 1); }},
  };
  for (auto& c : cases) EXPECT_THROW(c.run(), HException) << c.what;
  clear_camera_setup_model(setup);
  EXPECT_THROW(get_camera_setup_param(setup, 0, "params", &v), HException);
}

// Damaged bytes must raise the library's exception: every truncation, every
// single flipped bit, appended bytes; never a crash or a different model.
TEST(CameraSetupTest, DamagedOrTruncatedBytesRaise) {
  const std::vector<uint8_t> good = Bytes(MakeSetup());
  ASSERT_NO_THROW(FromBytes(good));
  for (size_t n = 0; n < good.size(); ++n) {
    std::vector<uint8_t> cut(good.begin(), good.begin() + long(n));
    try {
      FromBytes(cut);
      ADD_FAILURE() << "truncated to " << n << " bytes was accepted";
    } catch (const HException& e) {
      EXPECT_EQ(e.ErrorCode(), kErrFileFormat);
    }
  }
  for (size_t i = 0; i < good.size(); ++i)
    for (int bit = 0; bit < 8; ++bit) {
      std::vector<uint8_t> bad = good;
      bad[i] ^= uint8_t(1 << bit);
      EXPECT_THROW(FromBytes(bad), HException) << "bit " << bit << " of byte " << i;
    }
  std::vector<uint8_t> longer = good;
  longer.push_back(0);
  EXPECT_THROW(FromBytes(longer), HException);
}

// CRC-32 bit by bit, independent of the table in the code.
uint32_t Crc(const uint8_t* p, size_t n) {
  uint32_t crc = 0xFFFFFFFFu;
  for (size_t i = 0; i < n; ++i) {
    crc ^= p[i];
    for (int k = 0; k < 8; ++k) crc = (crc >> 1) ^ (0xEDB88320u & (0u - (crc & 1)));
  }
  return ~crc;
}

void PutU32(std::vector<uint8_t>* b, size_t o, uint32_t v) {
  for (int i = 0; i < 4; ++i) (*b)[o + size_t(i)] = uint8_t(v >> (8 * i));
}

// Length and CRC made right again after a change of the payload, so that the
// reader's checks of the content are reached.
void Reseal(std::vector<uint8_t>* b) {
  PutU32(b, 8, uint32_t(b->size() - 16));
  PutU32(b, 12, Crc(b->data() + 16, b->size() - 16));
}

// The bytes follow CAMERA_SETUP_FORMAT.md field by field.
TEST(CameraSetupTest, BytesFollowTheDocumentedLayout) {
  const std::vector<uint8_t> b = Bytes(MakeSetup());
  auto u32 = [&](size_t o) { return uint32_t(b[o]) | uint32_t(b[o + 1]) << 8 | uint32_t(b[o + 2]) << 16 | uint32_t(b[o + 3]) << 24; };
  auto f64 = [&](size_t o) {
    uint64_t u = uint64_t(u32(o)) | uint64_t(u32(o + 4)) << 32;
    double d;
    std::memcpy(&d, &u, 8);
    return d;
  };
  ASSERT_GT(b.size(), 16u);
  EXPECT_EQ(std::string(b.begin(), b.begin() + 4), "VCSM");
  EXPECT_EQ(b[4] | b[5] << 8, 1);
  EXPECT_EQ(u32(8), b.size() - 16);
  EXPECT_EQ(u32(12), Crc(b.data() + 16, b.size() - 16));
  EXPECT_EQ(u32(16), 3u);                  // cameras
  EXPECT_EQ(u32(20), 0xFFFFFFFFu);         // no reference camera
  EXPECT_EQ(u32(16 + 8 + 48), 0u);         // coordinate transformation pose: type 0
  size_t o = 16 + 8 + 52;                  // camera 0
  EXPECT_EQ(b[o], 3);                      // parameters and pose set
  EXPECT_EQ(b[o + 1], 18);
  EXPECT_EQ(std::string(b.begin() + long(o) + 2, b.begin() + long(o) + 20), "area_scan_division");
  EXPECT_EQ(b[o + 20], 8);
  EXPECT_EQ(f64(o + 21), 0.025);
  EXPECT_EQ(f64(o + 21 + 7 * 8), 480.0);
  EXPECT_EQ(f64(o + 21 + 64 + 3 * 8), 18.01);  // pose alpha
  EXPECT_EQ(u32(o + 21 + 64 + 48), 0u);        // pose type
  EXPECT_EQ(b.size(), 16 + 8 + 52 + 3 * (21 + 64 + 52));
}

// Content the format does not allow, behind a valid length and CRC.
TEST(CameraSetupTest, ForgedContentIsRefused) {
  const std::vector<uint8_t> good = Bytes(MakeSetup());
  const size_t cam0 = 16 + 8 + 52;
  auto f64 = [](std::vector<uint8_t>* b, size_t o, double d) {
    uint64_t u;
    std::memcpy(&u, &d, 8);
    PutU32(b, o, uint32_t(u));
    PutU32(b, o + 4, uint32_t(u >> 32));
  };
  struct Case {
    const char* what;
    std::function<void(std::vector<uint8_t>*)> forge;
  } cases[] = {
      {"no cameras", [](auto* b) { PutU32(b, 16, 0); }},
      {"more cameras than records", [](auto* b) { PutU32(b, 16, 4); }},
      {"absurd camera count", [](auto* b) { PutU32(b, 16, 0xFFFFFFFFu); }},
      {"reference camera out of range", [](auto* b) { PutU32(b, 20, 3); }},
      {"unknown flag bit", [&](auto* b) { (*b)[cam0] = 7; }},
      {"other camera type", [&](auto* b) { (*b)[cam0 + 2] = 'b'; }},
      {"parameter count", [&](auto* b) { (*b)[cam0 + 20] = 7; }},
      {"focus not a number", [&](auto* b) { f64(b, cam0 + 21, std::nan("")); }},
      {"negative focus", [&](auto* b) { f64(b, cam0 + 21, -0.025); }},
      {"fractional width", [&](auto* b) { f64(b, cam0 + 21 + 48, 640.5); }},
      {"pose type code 6", [&](auto* b) { PutU32(b, cam0 + 21 + 64 + 48, 6); }},
      {"infinite pose value", [&](auto* b) { f64(b, cam0 + 21 + 64, INFINITY); }},
      {"trailing byte", [](auto* b) { b->push_back(0); }},
      {"last record cut", [](auto* b) { b->resize(b->size() - 1); }},
  };
  for (auto& c : cases) {
    std::vector<uint8_t> b = good;
    c.forge(&b);
    Reseal(&b);
    try {
      FromBytes(b);
      ADD_FAILURE() << c.what << " was accepted";
    } catch (const HException& e) {
      EXPECT_EQ(e.ErrorCode(), kErrFileFormat) << c.what;
    }
  }
  // Random damage behind a valid CRC: refused or read, never a crash.
  std::mt19937 rng(7);
  for (int i = 0; i < 3000; ++i) {
    std::vector<uint8_t> b = good;
    for (int k = 0; k < 3; ++k) b[16 + rng() % (b.size() - 16)] = uint8_t(rng());
    Reseal(&b);
    try {
      FromBytes(b);
    } catch (const HException& e) {
      EXPECT_EQ(e.ErrorCode(), kErrFileFormat);
    }
  }
}

TEST(SerializedItemTest, TheItemKeepsItsOwnCopy) {
  std::vector<uint8_t> buf = {1, 2, 3, 4};
  HTuple item, ptr, size;
  create_serialized_item_ptr(Hlong(reinterpret_cast<uintptr_t>(buf.data())), 4, "false", &item);
  buf.assign(4, 9);
  get_serialized_item_ptr(item, &ptr, &size);
  ASSERT_EQ(size, HTuple(4));
  EXPECT_EQ(std::memcmp(reinterpret_cast<const void*>(uintptr_t(ptr.L())), "\x01\x02\x03\x04", 4), 0);
  clear_serialized_item(item);
  EXPECT_THROW(get_serialized_item_ptr(item, &ptr, &size), HException);
  EXPECT_THROW(create_serialized_item_ptr(0, 4, "true", &item), HException);
  EXPECT_THROW(create_serialized_item_ptr(Hlong(reinterpret_cast<uintptr_t>(buf.data())), -1, "true", &item), HException);
}

}  // namespace
}  // namespace vision
