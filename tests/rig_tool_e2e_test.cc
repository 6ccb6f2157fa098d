// velmora-3d as a user runs it: synth output, rig import/show round trips,
// and one-line errors with a non-zero exit for bad input.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include <opencv2/imgcodecs.hpp>

#include "archive/property_list.h"
#include "child_process.h"
#include "stereo/calibration_3d_prefs.h"
#include "stereo/rig_description.h"
#include "stereo/synthetic_rig.h"

namespace velmora {
namespace {

namespace fs = std::filesystem;
using testing::PrivateFolders;

using Result = testing::RunResult;

std::string ReadText(const std::string& path) {
  std::ifstream in(path);
  std::stringstream s;
  s << in.rdbuf();
  return s.str();
}

class RigTool : public ::testing::Test {
 protected:
  void SetUp() override { ::setenv("XDG_DATA_HOME", folders_.data.c_str(), 1); }

  Result Run(const std::vector<std::string>& args) {
    return testing::RunToEnd(VELMORA_3D_PATH, args, folders_, 120);
  }
  std::string Write(const std::string& name, const std::string& text) {
    const std::string path = folders_.root + "/" + name;
    std::ofstream(path) << text;
    return path;
  }

  PrivateFolders folders_;
};

std::string ExampleRigJson() {
  RigDescription rig;
  for (int i = 0; i < 8; ++i) {
    RigCameraEntry e;
    e.params = vision::HTuple::Reals({0.025, -120.0 - i, 7.4e-06, 7.4e-06, 321.5, 238.0}).Append(vision::HTuple(640)).Append(vision::HTuple(480));
    e.pose = vision::HTuple::Reals({0.0513, 0.0243 + i * 0.001, -0.0755, 18.01, 326.90, 300.77 - i}).Append(vision::HTuple(i % 2 ? 2 : 0));
    rig.cameras.push_back(e);
  }
  return RigJson(rig);
}

TEST_F(RigTool, ImportThenShowGivesTheSameRig) {
  const std::string json = ExampleRigJson();
  const std::string path = Write("rig.json", json);
  // Default: the data folder; a file's other top-level keys are kept.
  fs::create_directories(folders_.data + "/velmora_AOI");
  auto other = archive::MakeDictionary();
  other->Set("operator", archive::MakeString("line 3"));
  ASSERT_TRUE(WritePropertyListFile(Calibration_3D_Prefs::filePath(), other));
  Result r = Run({"rig", "import", path});
  ASSERT_EQ(r.exit_code, 0) << r.err;
  r = Run({"rig", "show"});
  ASSERT_EQ(r.exit_code, 0) << r.err;
  EXPECT_EQ(r.out, json);
  Calibration_3D_Prefs prefs;
  ASSERT_TRUE(prefs.readData());
  EXPECT_EQ(archive::ReadString(prefs.calibrationInfo(), "operator"), "line 3");
  // -o: a file of one's choosing.
  const std::string out = folders_.root + "/elsewhere.plist";
  r = Run({"rig", "import", path, "-o", out});
  ASSERT_EQ(r.exit_code, 0) << r.err;
  r = Run({"rig", "show", out});
  ASSERT_EQ(r.exit_code, 0) << r.err;
  EXPECT_EQ(r.out, json);
}

TEST_F(RigTool, BadInputEndsWithOneLineAndNonZeroExit) {
  const std::string good = ExampleRigJson();
  auto replace = [&](const std::string& from, const std::string& to) {
    std::string s = good;
    s.replace(s.find(from), from.size(), to);
    return s;
  };
  const std::string no_file = folders_.root + "/missing.json";
  // A calibration file with damaged camera data, and one whose root is an array.
  const auto model = SerializeRigModel(*ParseRigJson(good, nullptr));
  std::vector<uint8_t> damaged = model;
  damaged[damaged.size() / 2] ^= 0x5a;
  const std::string damaged_path = folders_.root + "/damaged.plist";
  ASSERT_TRUE(WritePropertyListFile(damaged_path, CalibrationDictionary(damaged)));
  const auto array_bytes = archive::EncodePropertyList(archive::MakeArray({archive::MakeInt32(1)}), archive::PlistFormat::kXml);
  const std::string array_path = Write("array.plist", std::string(array_bytes.begin(), array_bytes.end()));
  auto no_key = archive::MakeDictionary();
  no_key->Set("hcalibDatas", archive::MakeDictionary());
  const std::string no_key_path = folders_.root + "/nokey.plist";
  ASSERT_TRUE(WritePropertyListFile(no_key_path, no_key));

  struct Case {
    std::vector<std::string> args;
    int code;
    const char* message;
  };
  const Case cases[] = {
      {{"rig", "import", no_file}, 1, "cannot read"},
      {{"rig", "import", Write("bad.json", "{\"cameras\": [")}, 1, "bad JSON"},
      {{"rig", "import", Write("seven.json", replace("  {\"params\"", "  "))}, 1, "bad JSON"},
      {{"rig", "import", Write("three.json", "{\"cameras\": [{}, {}, {}]}")}, 1, "the rig has 3 cameras, expected 8"},
      {{"rig", "import", Write("pose6.json", replace(",0]}", "]}"))}, 1, "camera 0 pose has 6 values, expected 7"},
      {{"rig", "import", Write("text.json", replace("0.025", "\"f\""))}, 1, "camera 0 params value 0 is not a number"},
      {{"rig", "import", Write("nocams.json", "[1, 2]")}, 1, "no \"cameras\" list"},
      {{"rig", "import", Write("focus0.json", replace("0.025", "0.0"))}, 1, "camera parameters"},
      {{"rig", "show", no_file}, 1, "no calibration file"},
      {{"rig", "show", array_path}, 1, "not a property list dictionary"},
      {{"rig", "show", no_key_path}, 1, "has no hcalibDatas/hCameraModelData"},
      {{"rig", "show", damaged_path}, 1, "damaged camera model"},
      {{"rig", "show"}, 1, "no calibration file"},
      {{"rig", "frobnicate"}, 2, "expected"},
      {{"rig", "import"}, 2, "expected RIG.json"},
      {{"synth"}, 2, "expected one output folder"},
      {{"synth", folders_.root, "--variant", "7"}, 2, "--variant takes"},
      {{"launch"}, 2, "unknown command"},
      {{}, 2, "usage"},
  };
  for (const Case& c : cases) {
    const Result r = Run(c.args);
    const std::string what = c.args.empty() ? "(none)" : c.args.back();
    EXPECT_EQ(r.exit_code, c.code) << what << ": " << r.err;
    EXPECT_NE(r.err.find(c.message), std::string::npos) << what << ": " << r.err;
    if (c.code == 1) EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 1) << what << ": " << r.err;
  }
}

TEST_F(RigTool, SynthWritesViewsRigAndTrueSurface) {
  const std::string dir = folders_.root + "/synth";
  const Result r = Run({"synth", dir, "--variant", "1", "--seed", "5"});
  ASSERT_EQ(r.exit_code, 0) << r.err;
  const synth::Rig rig = synth::MakeRig(1, 5);
  for (int i = 0; i < 8; ++i) {
    char name[32];
    std::snprintf(name, sizeof name, "/sideImage_%02d.png", i);
    const cv::Mat view = cv::imread(dir + name, cv::IMREAD_UNCHANGED);
    ASSERT_FALSE(view.empty()) << name;
    EXPECT_EQ(view.size(), cv::Size(640, 480));
    EXPECT_EQ(view.type(), CV_8UC3);
  }
  std::string error;
  const auto desc = ParseRigJson(ReadText(dir + "/rig.json"), &error);
  ASSERT_TRUE(desc) << error;
  for (int i = 0; i < 8; ++i) {
    EXPECT_EQ(desc->cameras[i].params, rig.cameras[i].ParamTuple()) << i;
    EXPECT_EQ(desc->cameras[i].pose, rig.cameras[i].PoseTuple()) << i;
  }
  const auto surface = synth::ReadSurface(dir + "/surface.npy", dir + "/surface.json", &error);
  ASSERT_TRUE(surface) << error;
  EXPECT_EQ(surface->z, rig.surface.z);
  EXPECT_EQ(surface->step, rig.surface.step);
}

}  // namespace
}  // namespace velmora
