#include "vision/calib/camera_setup.h"

#include <cstring>
#include <functional>

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
    get_camera_setup_param(setup, 0, "params", &v);
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
  // Same model, same bytes.
  EXPECT_EQ(Bytes(setup), Bytes(MakeSetup()));
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
