// What an integrator meets, end to end against the real add-in and the real
// client: an installation into a temporary prefix run from there, every
// termination signal, hostile request headers, the image size limit, the
// request log, and the client's conversions, help and exit codes.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <future>
#include <opencv2/imgproc.hpp>
#include <random>
#include <regex>
#include <string>
#include <thread>

#include "addin_process.h"
#include "archive/archive.h"
#include "decode/symbol_gen.h"
#include "integ/hostile.h"
#include "markings.h"
#include "platform_image.h"

namespace velmora {
namespace {

namespace fs = std::filesystem;
using testing::AddinProcess;
using testing::ExitCode;
using testing::PrivateFolders;
using testing::ReadText;
using Clock = std::chrono::steady_clock;

void WriteFile(const std::string& path, const std::vector<uint8_t>& bytes) {
  std::ofstream(path, std::ios::binary).write(reinterpret_cast<const char*>(bytes.data()), std::streamsize(bytes.size()));
}

// A marking of `text` as an 8-bit grey picture, and its rendering as RGB.
cv::Mat GreyMarking(const std::string& text) {
  ocrgen::MarkingRenderer renderer;
  std::mt19937 rng(4242);
  const ocrgen::Marking m = renderer.Render(text, ocrgen::Families()[0].eval_faces[0], 32, ocrgen::Grade::Clean, rng);
  cv::Mat grey;
  cv::cvtColor(m.rgb, grey, cv::COLOR_RGB2GRAY);
  return grey;
}

archive::RawBitmap GreyBitmap(const cv::Mat& grey, int bits) {
  cv::Mat samples;  // a fresh, continuous copy
  grey.convertTo(samples, bits == 16 ? CV_16U : CV_8U, bits == 16 ? 257 : 1);
  archive::RawBitmap b;
  b.width = grey.cols;
  b.height = grey.rows;
  b.samples_per_pixel = 1;
  b.bits_per_sample = bits;
  b.bytes_per_row = size_t(grey.cols) * (bits / 8);
  b.color_space = archive::kCalibratedWhiteColorSpace;
  b.data.assign(samples.data, samples.data + samples.total() * samples.elemSize());
  return b;
}

// ---- installation ------------------------------------------------------------------

TEST(Install, IntoATemporaryPrefixAndRunFromThere) {
  PrivateFolders prefix;
  const std::string cmd = std::string(VELMORA_CMAKE_COMMAND) + " --install " + VELMORA_BINARY_DIR + " --prefix " +
                          prefix.root + " >" + prefix.root + "/install.log 2>&1";
  ASSERT_EQ(std::system(cmd.c_str()), 0) << ReadText(prefix.root + "/install.log");
  const std::string exe = prefix.root + "/bin/VelmoraAddin";
  ASSERT_TRUE(fs::exists(exe));
  ASSERT_TRUE(fs::exists(prefix.root + "/bin/velmora"));
  // The unit and the autostart entry name the installed executable, under the prefix.
  const std::string unit = ReadText(prefix.root + "/lib/systemd/user/velmora-addin.service");
  EXPECT_NE(unit.find("\nExecStart=" + exe + "\n"), std::string::npos) << unit;
  const std::string entry = ReadText(prefix.root + "/etc/xdg/autostart/velmora-addin.desktop");
  EXPECT_NE(entry.find("\nExec=" + exe + "\n"), std::string::npos) << entry;
  ASSERT_TRUE(fs::exists(prefix.root + "/share/velmora/vision/Info.plist"));

  // Run from there without VELMORA_VISION_DIR: the library is found beside
  // the executable, said so at launch, and the services work (the OCR reads
  // its font files from the same folder).
  AddinProcess addin({.env = {{"VELMORA_VISION_DIR", ""}}, .executable = exe});
  const std::string log = addin.Stderr();
  EXPECT_NE(log.find(prefix.root + "/share/velmora/vision (beside the executable): present, version 12.0"),
            std::string::npos)
      << log;
  EXPECT_TRUE(addin.Serving()) << "after an installed start";
  auto attribute = archive::MakeDictionary();
  attribute->Set("fontName", archive::MakeString("Industrial"));
  const auto reply = addin.Request(RequestOcrImage, {{"image", testing::PlatformImageFromGray(GreyMarking("LOT-4711"))},
                                                     {"attribute", attribute}});
  ASSERT_TRUE(reply && archive::AsArray(*reply));
  ASSERT_EQ(archive::AsArray(*reply)->items.size(), 1u) << addin.Stderr();
  EXPECT_EQ(archive::ReadString(archive::AsArray(*reply)->items[0], "ocr_text"), "LOT-4711");
}

TEST(VisionFolder, LaunchLineAndStatusSayWhereAndWhat) {
  PrivateFolders dir;
  struct Case {
    std::string folder;
    std::string says;
    bool present;  // what the status request answers
  } cases[] = {
      {dir.root + "/absent", "(VELMORA_VISION_DIR): no such folder", false},
      {dir.root + "/empty", "(VELMORA_VISION_DIR): no Info.plist", false},
      {dir.root + "/v13", "(VELMORA_VISION_DIR): version 13.1, not 12", false},
      {VELMORA_BUILD_VISION_DIR, "(VELMORA_VISION_DIR): present, version 12.0", true},
  };
  fs::create_directories(dir.root + "/empty");
  fs::create_directories(dir.root + "/v13");
  std::ofstream(dir.root + "/v13/Info.plist")
      << "<?xml version=\"1.0\"?><plist version=\"1.0\"><dict><key>CFBundleShortVersionString</key>"
         "<string>13.1</string></dict></plist>";
  for (const Case& c : cases) {
    AddinProcess addin({.env = {{"VELMORA_VISION_DIR", c.folder}}});
    EXPECT_NE(addin.Stderr().find("vision library: " + c.folder + " " + c.says), std::string::npos)
        << addin.Stderr();
    const auto status = addin.Request(RequestLibraryStatus);
    ASSERT_TRUE(status.has_value()) << c.folder;
    EXPECT_EQ(archive::ReadBool(*status, "isHalconExist", !c.present), c.present) << c.folder;
  }
}

// ---- signals -----------------------------------------------------------------------

TEST(Signals, EachTerminationSignalEndsCleanly) {
  for (const int sig : {SIGTERM, SIGINT, SIGHUP}) {
    AddinProcess addin;
    EXPECT_TRUE(addin.Serving()) << "after start";
    addin.Signal(sig);
    EXPECT_EQ(ExitCode(addin, 15), 0) << strsignal(sig);
    EXPECT_FALSE(fs::exists(addin.socket_path())) << strsignal(sig) << " left the socket file";
  }
}

// Whether a reply frame with a reply block comes back on `fd` within `seconds`.
bool ReplyArrives(int fd, int seconds) {
  timeval tv{seconds, 0};
  ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
  uint8_t header[12];
  size_t got = 0;
  while (got < sizeof header) {
    const ssize_t r = ::recv(fd, header + got, sizeof header - got, 0);
    if (r <= 0) return false;
    got += size_t(r);
  }
  return std::memcmp(header, "VMPR", 4) == 0 && header[4] == 1;
}

// A signal during a long request: that request is answered, no later one is.
TEST(Signals, DuringALongRequestNothingLaterIsServed) {
  for (const int sig : {SIGTERM, SIGINT}) {
    AddinProcess addin;
    // OCR of a large noisy picture keeps the add-in busy for a while.
    cv::Mat noise(2400, 2400, CV_8UC1);
    cv::randu(noise, 0, 255);
    auto attribute = archive::MakeDictionary();
    attribute->Set("fontName", archive::MakeString("Industrial"));
    auto request = archive::MakeDictionary();
    request->Set("messageId", archive::MakeInt64(RequestOcrImage));
    request->Set("image", testing::PlatformImageFromGray(noise));
    request->Set("attribute", attribute);
    const std::vector<uint8_t> body = Envelope(archive::Archive(request));
    // Sent in full by hand, so that the add-in surely has it before the signal.
    const int slow = testing::HostileConnection(addin.socket_path(), uint32_t(body.size()), 0);
    ASSERT_GE(slow, 0);
    size_t off = 0;
    while (off < body.size()) {
      const ssize_t w = ::send(slow, body.data() + off, body.size() - off, MSG_NOSIGNAL);
      ASSERT_GT(w, 0);
      off += size_t(w);
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    addin.Signal(sig);
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    auto late = std::async(std::launch::async, [&] {
      PortReply reply;
      const int32_t status =
          addin.Send(MessageIdData, Envelope(archive::Archive(archive::MakeDictionary())), &reply, 60);
      return status == kPortSuccess && reply.present;
    });
    EXPECT_TRUE(ReplyArrives(slow, 60)) << "the request in hand must still be answered";
    EXPECT_FALSE(late.get()) << "a request sent after " << strsignal(sig) << " was answered";
    ::close(slow);
    EXPECT_EQ(ExitCode(addin, 15), 0) << strsignal(sig);
    EXPECT_FALSE(fs::exists(addin.socket_path()));
  }
}

// ---- the port under hostile headers ------------------------------------------------

TEST(PortMemory, AnnouncedSizesAreNotAllocated) {
  AddinProcess addin({.env = {{"VELMORA_REQUEST_LOG", "1"}}});
  std::vector<int> fds;
  for (int i = 0; i < 8; ++i) {
    fds.push_back(testing::HostileConnection(addin.socket_path(), 512u << 20, 1000000));
    ASSERT_GE(fds.back(), 0);
  }
  // Served meanwhile, promptly (the figures are bench_integ's; this bound only
  // catches buffers of the announced size, which took seconds to clear).
  const auto t0 = Clock::now();
  EXPECT_TRUE(addin.Serving()) << "after eight hostile headers";
  EXPECT_LT(Clock::now() - t0, std::chrono::seconds(2));
  const long peak_kb = testing::ProcStatusKb(addin.pid(), "VmHWM");
  EXPECT_LT(peak_kb, 400 * 1024) << "peak " << peak_kb << " kB";
  // A bad magic and an oversized frame are refused and logged as such; the
  // eight time out at the read deadline.
  const int bad = testing::HostileConnection(addin.socket_path(), 4, 4);
  uint8_t junk[16] = {'X', 'X', 'X', 'X'};
  ::send(bad, junk, sizeof junk, MSG_NOSIGNAL);
  const int huge = testing::HostileConnection(addin.socket_path(), (512u << 20) + 1, 0);
  EXPECT_TRUE(addin.WaitForLog("refused: oversized frame", 5)) << addin.Stderr();
  EXPECT_TRUE(addin.WaitForLog("refused: timeout (1000000 of 536870912 bytes received)", 10)) << addin.Stderr();
  for (int fd : fds) ::close(fd);
  ::close(bad);
  ::close(huge);
  EXPECT_TRUE(addin.Serving()) << "after the hostile connections ended";
}

// ---- image size limit and the request log ------------------------------------------

TEST(ImageLimit, RefusedBeforeDecodingAndLogged) {
  AddinProcess addin({.env = {{"VELMORA_MAX_IMAGE_MEGAPIXELS", "1"}, {"VELMORA_REQUEST_LOG", "1"}}});
  auto attribute = archive::MakeDictionary();
  attribute->Set("fontName", archive::MakeString("Industrial"));
  const cv::Mat big(1000, 1001, CV_8UC1, cv::Scalar(230));
  // Refused: OCR answers an empty array, decoding an empty dictionary, the
  // preview no reply; each time the log names the size.
  const auto ocr = addin.Request(RequestOcrImage, {{"image", testing::PlatformImageFromGray(big)}, {"attribute", attribute}});
  ASSERT_TRUE(ocr && archive::AsArray(*ocr));
  EXPECT_TRUE(archive::AsArray(*ocr)->items.empty());
  const auto decode = addin.Request(RequestDecodeImage, {{"image", testing::PlatformImageFromGray(big)}});
  ASSERT_TRUE(decode && archive::AsDictionary(*decode));
  EXPECT_EQ(archive::AsDictionary(*decode)->size(), 0u);
  EXPECT_FALSE(addin.Request(RequestOcrFilteredImage, {{"image", testing::PlatformImageFromGray(big)}}).has_value());
  const std::string log = addin.Stderr();
  const std::string why = "image of 1001 x 1000 pixels (1.0 megapixels) is above the limit of 1.0 megapixels";
  size_t count = 0;
  for (size_t at = log.find("request refused: " + why); at != std::string::npos; at = log.find("request refused: " + why, at + 1)) ++count;
  EXPECT_EQ(count, 3u) << log;
  EXPECT_NE(log.find("'data' 101 (OCR), "), std::string::npos) << log;
  EXPECT_NE(log.find(": refused: " + why), std::string::npos) << log;

  // Below the limit: read as usual, and the request log says what was read.
  const cv::Mat fits = GreyMarking("W2619K");
  const auto read = addin.Request(RequestOcrImage, {{"image", testing::PlatformImageFromGray(fits)}, {"attribute", attribute}});
  ASSERT_TRUE(read && archive::AsArray(*read));
  ASSERT_EQ(archive::AsArray(*read)->items.size(), 1u);
  EXPECT_TRUE(addin.WaitForLog(": text read \"W2619K\"", 2)) << addin.Stderr();
  // Status, with the client's pid and the outcome.
  EXPECT_TRUE(addin.Serving()) << "after a refusal";
  const std::regex status_line("request log: pid " + std::to_string(getpid()) +
                               " 'data' 1 \\(status\\), \\d+ bytes, [0-9.]+ ms: vision library present");
  EXPECT_TRUE(std::regex_search(addin.Stderr(), status_line)) << addin.Stderr();
}

TEST(RequestLog, OffByDefault) {
  AddinProcess addin;
  EXPECT_TRUE(addin.Serving()) << "after start";
  const int bad = testing::HostileConnection(addin.socket_path(), 0, 0);
  ::send(bad, "XXXXXXXXXXXXXXXX", 16, MSG_NOSIGNAL);
  ::close(bad);
  EXPECT_TRUE(addin.Serving()) << "after a bad magic";
  EXPECT_EQ(addin.Stderr().find("request log:"), std::string::npos) << addin.Stderr();
}

// ---- the command-line client -------------------------------------------------------

struct ClientRun {
  int code = -1;
  std::string out, err;
};

ClientRun Client(const std::string& dir, const std::string& args) {
  const std::string cmd = std::string(VELMORA_CLI_PATH) + " " + args + " >" + dir + "/out 2>" + dir + "/err";
  const int status = std::system(cmd.c_str());
  return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, ReadText(dir + "/out"), ReadText(dir + "/err")};
}

TEST(Client, HelpAndUsageErrors) {
  PrivateFolders dir;
  struct Case {
    const char* args;
    int code;
    const char* says;  // in stdout for exit 0, else in stderr
  } cases[] = {
      {"help", 0, "Exit codes: 0"},
      {"--help", 0, "commands:"},
      {"help ocr", 0, "--match S"},
      {"ocr --help", 0, "$  a digit"},
      {"--compact help decode", 0, "try Data Matrix, QR, Micro QR and bar codes in turn"},
      {"help preview", 0, "--black-level N"},
      {"help frobnicate", 64, "no command \"frobnicate\""},
      {"frobnicate", 64, "unknown command \"frobnicate\""},
      {"", 64, "missing command"},
      {"status --timeout -1", 64, "--timeout must be more than 0"},
      {"--timeout nan status", 64, "--timeout needs a number"},
      {"ocr x.png --stretch-width 0", 64, "--stretch-width must be more than 0"},
      {"ocr x.png --stretch-width nan", 64, "--stretch-width needs a number"},
      {"ocr x.png --proc 2", 64, "--proc must be between 0 and 1"},
      {"ocr x.png --black-level 18", 64, "--black-level must be between -8 and 17"},
      {"ocr x.png --letters 4", 64, "--letters is only read with --proc 1 --by-number"},
      {"decode x.png --kind 7", 64, "--kind must be"},
      {"status --kind qr", 64, "status does not take --kind"},
      {"ocr", 64, "ocr: missing the image file"},
      {"ocr a.png b.png", 64, "unexpected argument \"b.png\""},
      {"status --bogus", 64, "unknown option --bogus"},
      {"send 12ab5 x", 64, "the message id must be"},
  };
  for (const Case& c : cases) {
    const ClientRun r = Client(dir.root, c.args);
    EXPECT_EQ(r.code, c.code) << c.args << "\n" << r.err;
    const std::string& text = c.code == 0 ? r.out : r.err;
    EXPECT_NE(text.find(c.says), std::string::npos) << c.args << ":\n" << text;
  }
}

TEST(Client, ConversionsReadsAndExitCodes) {
  PrivateFolders dir;
  const std::string d = dir.root;
  // The same marking as grey 8-bit, grey 16-bit and planar RGB TIFF, and PNG.
  const cv::Mat grey = GreyMarking("LOT-4711");
  WriteFile(d + "/grey8.tif", archive::EncodeTiff(GreyBitmap(grey, 8)));
  WriteFile(d + "/grey16.tif", archive::EncodeTiff(GreyBitmap(grey, 16)));
  archive::RawBitmap planar = GreyBitmap(grey, 8);
  planar.samples_per_pixel = 3;
  planar.planar = true;
  planar.color_space = archive::kCalibratedRGBColorSpace;
  std::vector<uint8_t> planes;
  for (int p = 0; p < 3; ++p) planes.insert(planes.end(), planar.data.begin(), planar.data.end());
  planar.data = planes;
  WriteFile(d + "/planar.tif", archive::EncodeTiff(planar));
  const cv::Mat blank(200, 300, CV_8UC1, cv::Scalar(230));
  WriteFile(d + "/blank.tif", archive::EncodeTiff(GreyBitmap(blank, 8)));
  const symgen::Sample qr = symgen::MakeSample(symgen::Kind::QR, symgen::Grade::Clean, 0);
  WriteFile(d + "/qr.tif", archive::EncodeTiff(GreyBitmap(qr.gray, 8)));
  WriteFile(d + "/notimage.png", {'n', 'o', 'p', 'e'});
  auto frame = archive::MakeDictionary();
  frame->Set(Stereo_Reconstruct_WindowFrame, archive::MakeRect(0, 0, 640, 480));
  WriteFile(d + "/3dm1.bin", archive::Archive(frame));

  {
    AddinProcess addin;
    for (const char* file : {"grey8.tif", "grey16.tif", "planar.tif"}) {
      const ClientRun r = Client(d, std::string("ocr ") + d + "/" + file + " --font Industrial");
      EXPECT_EQ(r.code, 0) << file << "\n" << r.err;
      EXPECT_NE(r.out.find("\"ocr_text\": \"LOT-4711\""), std::string::npos) << file << "\n" << r.out;
    }
    struct Case {
      std::string args;
      int code;
      std::string out;  // in stdout
      std::string err;  // in stderr
    } cases[] = {
        // An attribute option without --font: "Industrial" is sent and said.
        {"ocr " + d + "/grey8.tif --by-number --match 12345678", 0, "LOT-4711", "sending \"Industrial\""},
        {"ocr " + d + "/blank.tif --font Industrial", 3, "[]", ""},
        {"--compact status", 0, "{\"isHalconExist\":true}\n", ""},
        {"status --compact", 0, "{\"isHalconExist\":true}\n", ""},
        {"fonts --compact", 0, "\"Industrial\"", ""},
        {"decode " + d + "/qr.tif --kind any", 0, "\"kind\": \"qr\"", ""},
        {"decode " + d + "/qr.tif --kind qr --compact", 0, "{\"decode_text\":\"" + qr.text + "\"}\n", ""},
        {"decode " + d + "/blank.tif --kind any", 3, "{}", ""},
        {"ocr " + d + "/missing.png", 1, "", d + "/missing.png: No such file or directory"},
        {"ocr " + d + "/notimage.png", 1, "", d + "/notimage.png is not an image file"},
        {"stereo-start --frame 0,0,640,480", 0, "\"Stereo_Reconstruct_ErrorResult\": -100", "start a stereo reconstruction"},
        {"stereo-stop", 0, "", "end the stereo reconstruction"},
        {"send 3DM1 " + d + "/3dm1.bin", 0, "-100", ""},
        {"send 3DM2 " + d + "/3dm1.bin", 1, "", "no reply"},
    };
    for (const Case& c : cases) {
      const ClientRun r = Client(d, c.args);
      EXPECT_EQ(r.code, c.code) << c.args << "\n" << r.err;
      EXPECT_NE(r.out.find(c.out), std::string::npos) << c.args << ":\n" << r.out;
      EXPECT_NE(r.err.find(c.err), std::string::npos) << c.args << ":\n" << r.err;
    }
    // Confidences are rounded to 4 decimals.
    const ClientRun r = Client(d, "ocr " + d + "/grey8.tif --font Industrial --compact");
    EXPECT_TRUE(std::regex_search(r.out, std::regex("\"confidence\":[0-9]\\.[0-9]{1,4}[,}]"))) << r.out;
    EXPECT_FALSE(std::regex_search(r.out, std::regex("[0-9]\\.[0-9]{5,}"))) << r.out;
    EXPECT_EQ(std::count(r.out.begin(), r.out.end(), '\n'), 1) << r.out;
    EXPECT_EQ(Client(d, "quit").code, 0);
    ASSERT_TRUE(addin.WaitExit(10).has_value());
  }
  // No add-in: exit 2, at once.
  const auto start = Clock::now();
  const ClientRun r = Client(d, "status");
  EXPECT_EQ(r.code, 2);
  EXPECT_LT(Clock::now() - start, std::chrono::seconds(3));
  EXPECT_NE(r.err.find("not running"), std::string::npos);
}

}  // namespace
}  // namespace velmora
