// The side-camera server velmora-sidecam as a rig integrator runs it, over its
// real port, talked to with the add-in's own client (sideCamServerController).
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include <opencv2/imgcodecs.hpp>

#include "child_process.h"
#include "messaging/side_cam_server_controller.h"
#include "stereo/calibration_3d_prefs.h"
#include "stereo/rig_description.h"
#include "stereo/synthetic_rig.h"

namespace velmora {
namespace {

namespace fs = std::filesystem;
using testing::ChildProcess;
using testing::ExitCode;
using testing::PrivateFolders;

constexpr size_t kViewBytes = 640 * 480 * 4;

class SideCamServer : public ::testing::Test {
 protected:
  void SetUp() override {
    // This process talks to the server's private port folder and reads its data folder.
    ::setenv("XDG_RUNTIME_DIR", folders_.runtime.c_str(), 1);
    ::setenv("XDG_DATA_HOME", folders_.data.c_str(), 1);
    views_ = folders_.root + "/views";
    fs::create_directories(views_);
  }

  std::unique_ptr<ChildProcess> Start(const std::vector<std::string>& args) {
    auto p = std::make_unique<ChildProcess>(VELMORA_SIDECAM_PATH, args, folders_.Env(), folders_.root);
    EXPECT_TRUE(p->WaitForLog("serving jp.co.velmora.sidecamserver.message", 15)) << p->Stderr();
    return p;
  }

  // A 640 x 480 view with a distinct pattern per index.
  cv::Mat WriteView(int index, cv::Size size = {640, 480}) {
    cv::Mat image(size, CV_8UC3);
    cv::randu(image, cv::Scalar::all(0), cv::Scalar::all(256));
    image.at<cv::Vec3b>(0, 0) = cv::Vec3b(10, 20, static_cast<uint8_t>(30 + index));  // B, G, R
    char name[32];
    std::snprintf(name, sizeof name, "/sideImage_%02d.png", index);
    EXPECT_TRUE(cv::imwrite(views_ + name, image));
    return image;
  }

  static archive::ObjectPtr Exchange(int32_t id, const archive::ObjectPtr& request, int32_t* status) {
    archive::ObjectPtr reply;
    *status = sideCamServerController::sharedController()->sendMessageWithArchivedDictReply(id, request, &reply, 5.0);
    return reply;
  }

  // View `index` of an images reply.
  static std::shared_ptr<archive::Data> View(const archive::ObjectPtr& reply, int index) {
    char key[16];
    std::snprintf(key, sizeof key, "sideImage_%02d", index);
    return archive::AsData(archive::ReadObject(reply, key));
  }

  static archive::ObjectPtr ImagesRequest() {
    auto d = archive::MakeDictionary();
    d->Set(kSideCalibImageType, archive::MakeInt32(0));
    return d;
  }

  PrivateFolders folders_;
  std::string views_;
};

TEST_F(SideCamServer, FolderModeServesEachRequestFromTheFilesAsTheyAre) {
  std::vector<cv::Mat> images;
  for (int i = 0; i < 8; ++i) images.push_back(WriteView(i));
  auto server = Start({"--images", views_});

  int32_t status = -99;
  auto reply = Exchange(MessageIdSide3DCheck, nullptr, &status);
  ASSERT_EQ(status, 0);
  EXPECT_EQ(archive::ReadInt(reply, kSide3DErrorResult, -1), 0);

  reply = Exchange(MessageIdSide3DImages, ImagesRequest(), &status);
  ASSERT_EQ(status, 0);
  EXPECT_EQ(archive::ReadInt(reply, kSide3DErrorResult, -1), 0);
  for (int i = 0; i < 8; ++i) {
    const auto data = View(reply, i);
    ASSERT_TRUE(data && data->bytes.size() == kViewBytes) << i;
    // Alpha first, then red, green, blue; every pixel.
    const cv::Mat& bgr = images[i];
    size_t wrong = 0;
    for (int r = 0; r < 480; ++r)
      for (int c = 0; c < 640; ++c) {
        const uint8_t* p = &data->bytes[(static_cast<size_t>(r) * 640 + c) * 4];
        const cv::Vec3b v = bgr.at<cv::Vec3b>(r, c);
        wrong += p[0] != 255 || p[1] != v[2] || p[2] != v[1] || p[3] != v[0];
      }
    EXPECT_EQ(wrong, 0u) << i;
    EXPECT_EQ(data->bytes[1], 30 + i) << i;
  }

  // Bad files: a non-zero result and a log line naming the file, never a crash;
  // every request reads the folder afresh.
  struct Case {
    const char* what;
    std::function<void()> spoil;
    int32_t code;
    const char* log;
  };
  const Case cases[] = {
      {"missing", [&] { fs::remove(views_ + "/sideImage_03.png"); }, 1, "sideImage_03.png is missing"},
      {"wrong size", [&] { WriteView(5, {320, 240}); }, 2, "sideImage_05.png is 320 x 240"},
      {"not an image", [&] { std::ofstream(views_ + "/sideImage_07.png") << "no picture"; }, 1,
       "sideImage_07.png is missing or not an image"},
  };
  for (const Case& c : cases) {
    for (int i = 0; i < 8; ++i) images[i] = WriteView(i);
    c.spoil();
    for (int32_t id : {MessageIdSide3DCheck, MessageIdSide3DImages}) {
      reply = Exchange(id, id == MessageIdSide3DImages ? ImagesRequest() : nullptr, &status);
      ASSERT_EQ(status, 0) << c.what;
      EXPECT_EQ(archive::ReadInt(reply, kSide3DErrorResult, -1), c.code) << c.what;
      EXPECT_FALSE(archive::ReadObject(reply, "sideImage_00")) << c.what;
    }
    EXPECT_TRUE(server->WaitForLog(c.log, 2)) << c.what << "\n" << server->Stderr();
  }
  // Repaired: served again.
  for (int i = 0; i < 8; ++i) WriteView(i);
  reply = Exchange(MessageIdSide3DImages, ImagesRequest(), &status);
  EXPECT_EQ(archive::ReadInt(reply, kSide3DErrorResult, -1), 0);
  EXPECT_TRUE(server->Stop().has_value());
}

TEST_F(SideCamServer, LogsTheOtherMessagesAndEndsOnSignals) {
  for (int i = 0; i < 8; ++i) WriteView(i);
  auto server = Start({"--images", views_});
  {
    sideCamServerController client;
    client.setRecvier("inspection-7");
    auto info = archive::MakeDictionary();
    info->Set("stage", archive::MakeInt32(4));
    client.setCurrentPositionInfo(info);
    client.setImagesDone();
    client.doCapture();
    std::vector<uint8_t> reply;
    // An unknown message is not answered.
    EXPECT_EQ(client.sendMessageWithReply(FourCharCode("zzzz"), nullptr, &reply, 2.0), kSideCamNoReply);
  }  // its end sends 'quit'
  for (const char* line : {"srcv: receiver \"inspection-7\"", "simg: position info {", "\"stage\": 4",
                           "scap: capture requested", "quit: the client has gone", "unknown message 'zzzz'"})
    EXPECT_TRUE(server->WaitForLog(line, 3)) << line << "\n" << server->Stderr();

  // One server per user: a second one ends at once.
  ChildProcess second(VELMORA_SIDECAM_PATH, {"--images", views_}, folders_.Env(), folders_.root);
  EXPECT_EQ(ExitCode(second, 10), 1);
  EXPECT_NE(second.Stderr().find("another side-camera server"), std::string::npos);

  server->Signal(SIGINT);
  EXPECT_EQ(ExitCode(*server, 5), 0);
  EXPECT_FALSE(PortIsRegistered(kSideCamServerPortName));
  // SIGTERM as well, and the name is free for the next one.
  auto again = Start({"--images", views_});
  again->Signal(SIGTERM);
  EXPECT_EQ(ExitCode(*again, 5), 0);
}

TEST_F(SideCamServer, BadCommandLinesAreRefused) {
  const std::vector<std::vector<std::string>> cases = {
      {}, {"--images"}, {"--images", views_ + "/nowhere"}, {"--synthetic", "--variant", "9"},
      {"--synthetic", "--seed", "x"}, {"--images", views_, "--synthetic"}, {"--bogus"}};
  for (const auto& args : cases) {
    ChildProcess p(VELMORA_SIDECAM_PATH, args, folders_.Env(), folders_.root);
    EXPECT_EQ(ExitCode(p, 10), 2) << (args.empty() ? "(none)" : args.back());
  }
}

TEST_F(SideCamServer, SyntheticModeServesTheDemoRigAndWritesItsCalibration) {
  auto server = Start({"--synthetic", "--variant", "0", "--seed", "3"});
  int32_t status = -99;
  // Views may still be rendering: "not ready" (3) until they are.
  archive::ObjectPtr reply;
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(90);
  int64_t code = -1;
  do {
    reply = Exchange(MessageIdSide3DCheck, nullptr, &status);
    ASSERT_EQ(status, 0);
    code = archive::ReadInt(reply, kSide3DErrorResult, -1);
    if (code == 0) break;
    EXPECT_EQ(code, 3);
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
  } while (std::chrono::steady_clock::now() < deadline);
  ASSERT_EQ(code, 0) << server->Stderr();
  reply = Exchange(MessageIdSide3DImages, ImagesRequest(), &status);
  ASSERT_EQ(status, 0);
  EXPECT_EQ(archive::ReadInt(reply, kSide3DErrorResult, -1), 0);
  for (int i = 0; i < 8; ++i) {
    const auto data = View(reply, i);
    ASSERT_TRUE(data && data->bytes.size() == kViewBytes) << i;
    EXPECT_EQ(data->bytes[0], 255);
  }

  // The calibration in the data folder is the demo rig's.
  Calibration_3D_Prefs prefs;
  ASSERT_TRUE(prefs.readData());
  const auto model = CameraModelData(prefs.calibrationInfo());
  ASSERT_TRUE(model);
  const RigDescription stored = DeserializeRigModel(model->bytes);
  const synth::Rig rig = synth::MakeRig(0, 3);
  ASSERT_EQ(stored.cameras.size(), 8u);
  for (int i = 0; i < 8; ++i) {
    EXPECT_EQ(stored.cameras[i].params, rig.cameras[i].ParamTuple()) << i;
    EXPECT_EQ(stored.cameras[i].pose, rig.cameras[i].PoseTuple()) << i;
  }
  server->Stop();

  // An existing calibration is kept unless --force.
  ASSERT_TRUE(prefs.writeData(CalibrationDictionary({1, 2, 3})));
  {
    auto keep = Start({"--synthetic"});
    EXPECT_TRUE(keep->WaitForLog("keeping the calibration file", 10)) << keep->Stderr();
  }
  ASSERT_TRUE(prefs.readData());
  EXPECT_EQ(CameraModelData(prefs.calibrationInfo())->bytes, (std::vector<uint8_t>{1, 2, 3}));
  {
    auto force = Start({"--synthetic", "--force"});
    EXPECT_TRUE(force->WaitForLog("wrote the demo rig's calibration", 10)) << force->Stderr();
  }
  ASSERT_TRUE(prefs.readData());
  EXPECT_EQ(DeserializeRigModel(CameraModelData(prefs.calibrationInfo())->bytes).cameras.size(), 8u);
}

}  // namespace
}  // namespace velmora
