// velmora-3d reconstruct as a user runs it: a surface from a folder of views,
// and a one-line error with a non-zero exit for every kind of bad input.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

#include "child_process.h"
#include "stereo/calibration_3d_prefs.h"
#include "stereo/rig_description.h"
#include "stereo/synthetic_rig.h"

namespace velmora {
namespace {

namespace fs = std::filesystem;
using testing::PrivateFolders;

using Result = testing::RunResult;

class ReconstructTool : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    rig_ = new synth::Rig(synth::MakeRig(0));
    views_ = new std::vector<cv::Mat>(synth::RenderViews(*rig_));
  }
  static void TearDownTestSuite() {
    delete views_;
    delete rig_;
  }

  Result Run(const std::vector<std::string>& args) {
    return testing::RunToEnd(VELMORA_3D_PATH, args, folders_, 300);
  }
  // A folder with the given views (index -> image).
  std::string Views(const std::string& name, const std::vector<cv::Mat>& views) {
    const std::string dir = folders_.root + "/" + name;
    fs::create_directories(dir);
    for (size_t i = 0; i < views.size(); ++i) {
      char file[32];
      std::snprintf(file, sizeof file, "/sideImage_%02zu.png", i);
      cv::imwrite(dir + file, views[i]);
    }
    return dir;
  }
  std::string Calibration(const std::string& name, const RigDescription& rig) {
    const std::string path = folders_.root + "/" + name;
    EXPECT_TRUE(WritePropertyListFile(path, CalibrationDictionary(SerializeRigModel(rig))));
    return path;
  }
  static RigDescription Description() {
    RigDescription d;
    for (const auto& cam : rig_->cameras) d.cameras.push_back({cam.ParamTuple(), cam.PoseTuple()});
    return d;
  }

  PrivateFolders folders_;
  static synth::Rig* rig_;
  static std::vector<cv::Mat>* views_;
};
synth::Rig* ReconstructTool::rig_ = nullptr;
std::vector<cv::Mat>* ReconstructTool::views_ = nullptr;

TEST_F(ReconstructTool, WritesTheSurfaceAsPlyWithStageTimes) {
  const std::string calib = Calibration("Calibration3D.plist", Description());
  const std::string dir = Views("views", *views_);
  const std::string out = folders_.root + "/surface.ply";
  const Result r = Run({"reconstruct", "--calibration", calib, "--images", dir, "-o", out, "--quality", "fast"});
  ASSERT_EQ(r.exit_code, 0) << r.err;
  EXPECT_NE(r.out.find("disparity"), std::string::npos);
  EXPECT_NE(r.out.find("triangulation"), std::string::npos);
  std::ifstream ply(out, std::ios::binary);
  std::string header((std::istreambuf_iterator<char>(ply)), {});
  header = header.substr(0, header.find("end_header"));
  EXPECT_NE(header.find("format binary_little_endian 1.0"), std::string::npos);
  EXPECT_NE(header.find("property uchar red"), std::string::npos);
  EXPECT_NE(header.find("element face"), std::string::npos);
}

TEST_F(ReconstructTool, BadInputEndsWithOneLineError) {
  const std::string calib = Calibration("good.plist", Description());
  RigDescription away = Description();
  // Camera 1 turned to look back over the board's edge: no overlap with 0.
  away.cameras[1].pose = rig_->cameras[0].PoseTuple();
  away.cameras[1].pose[4] = vision::HValue(rig_->cameras[0].PoseTuple().D(4) + 180.0);
  const std::string apart = Calibration("apart.plist", away);
  const std::string damaged = folders_.root + "/damaged.plist";
  {
    std::vector<uint8_t> bytes = SerializeRigModel(Description());
    bytes[bytes.size() / 2] ^= 0x5a;
    ASSERT_TRUE(WritePropertyListFile(damaged, CalibrationDictionary(bytes)));
  }
  const std::string good = Views("good", *views_);
  const std::string seven = Views("seven", std::vector<cv::Mat>(views_->begin(), views_->begin() + 7));
  std::vector<cv::Mat> big = *views_;
  cv::resize(big[5], big[5], cv::Size(800, 600));
  const std::string wrong_size = Views("wrong_size", big);
  const std::string flat = Views("flat", std::vector<cv::Mat>(8, cv::Mat(480, 640, CV_8UC3, cv::Scalar(128, 128, 128))));
  const std::string out = folders_.root + "/x.ply";
  struct Case {
    const char* what;
    std::vector<std::string> args;
    const char* says;
  };
  const Case cases[] = {
      {"no calibration file", {"--calibration", folders_.root + "/none.plist", "--images", good}, "calibration"},
      {"seven views", {"--calibration", calib, "--images", seven}, "sideImage_07"},
      {"a view of the wrong size", {"--calibration", calib, "--images", wrong_size}, "640 x 480"},
      {"a damaged setup", {"--calibration", damaged, "--images", good}, "reconstruct:"},
      {"cameras apart", {"--calibration", apart, "--images", good}, "gen_binocular_rectification_map"},
      {"views without texture", {"--calibration", calib, "--images", flat}, "no surface"},
  };
  for (const Case& c : cases) {
    std::vector<std::string> args = {"reconstruct"};
    args.insert(args.end(), c.args.begin(), c.args.end());
    args.insert(args.end(), {"-o", out, "--quality", "very fast"});
    if (std::string(c.what) == "cameras apart") args.back() = "Default";
    const Result r = Run(args);
    EXPECT_EQ(r.exit_code, 1) << c.what << ": " << r.err;
    // One error line; the procedure's own log lines may stand before it.
    size_t errors = 0;
    std::istringstream lines(r.err);
    for (std::string line; std::getline(lines, line);) errors += line.rfind("velmora-3d: ", 0) == 0;
    EXPECT_EQ(errors, 1u) << c.what << ": " << r.err;
    EXPECT_EQ(r.err.find("WARN"), std::string::npos) << c.what << ": " << r.err;
    EXPECT_NE(r.err.find(c.says), std::string::npos) << c.what << ": " << r.err;
    EXPECT_FALSE(fs::exists(out)) << c.what;
  }
}

}  // namespace
}  // namespace velmora
