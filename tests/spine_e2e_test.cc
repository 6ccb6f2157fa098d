// The add-in end to end: dispatcher replies byte for byte, bad input that must
// not stop it serving, and every way it starts and ends.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <chrono>
#include <cstring>
#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <thread>

#include "addin_process.h"

namespace velmora {
namespace {

using testing::AddinProcess;
using testing::Bytes;
using Clock = std::chrono::steady_clock;

Bytes DataBlock(uint64_t number) {
  auto d = archive::MakeDictionary();
  d->Set("messageId", archive::MakeInt64(static_cast<int64_t>(number)));
  return Envelope(archive::Archive(d));
}

Bytes Concat(Bytes a, const Bytes& b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}

// Request 1 answers and says the library is there: the add-in still serves.
void ExpectServing(AddinProcess& addin, const std::string& after) {
  const auto reply = addin.Request(RequestLibraryStatus);
  ASSERT_TRUE(reply.has_value()) << "after " << after;
  EXPECT_TRUE(archive::ReadBool(*reply, "isHalconExist")) << "after " << after;
}

int RawConnect(const std::string& path) {
  const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  std::strncpy(addr.sun_path, path.c_str(), sizeof addr.sun_path - 1);
  if (::connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
    ::close(fd);
    return -1;
  }
  return fd;
}

// True when the add-in closes the connection without writing anything.
bool ClosedUnanswered(int fd, int seconds) {
  timeval tv{seconds, 0};
  ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
  char byte;
  return ::recv(fd, &byte, 1, 0) == 0;
}

TEST(AddinDispatcher, RepliesOfEveryRow) {
  AddinProcess addin;
  EXPECT_NE(addin.Stderr().find("[VelmoraAddin] launch-12.0\n"), std::string::npos);
  // The log line's form: date, time with milliseconds, name[pid:tid], text.
  EXPECT_NE(addin.Stderr().find(" VelmoraAddin[" + std::to_string(addin.pid()) + ":"), std::string::npos);

  const Bytes archive102 = archive::Archive([] {
    auto d = archive::MakeDictionary();
    d->Set("messageId", archive::MakeInt32(102));
    return d;
  }());
  Bytes bad_magic = Concat({'X', 'c', 'r', '_', 0, 0, 0, 0}, archive102);
  Bytes wrong_length = Concat({0x5F, 0x72, 0x63, 0x6F, 0xff, 0xff, 0xff, 0xff}, archive102);
  auto no_id = archive::MakeDictionary();
  no_id->Set("attribute", archive::MakeDictionary());
  auto stereo = archive::MakeDictionary();
  stereo->Set(Stereo_Reconstruct_WindowFrame, archive::MakeRect(10, 20, 640, 480));

  struct Case {
    const char* what;
    int32_t msgid;
    Bytes data;
    bool replied;
  };
  const Case no_reply_cases[] = {
      {"wrong magic", MessageIdData, bad_magic, false},
      {"block shorter than the envelope", MessageIdData, {0x5F, 0x72, 0x63, 0x6F, 9}, false},
      {"empty block", MessageIdData, {}, false},
      {"103 without image", MessageIdData, DataBlock(RequestOcrFilteredImage), false},
      {"unknown request number", MessageIdData, DataBlock(4242), false},
      {"missing messageId", MessageIdData, Envelope(archive::Archive(no_id)), false},
      {"body that decodes to nothing", MessageIdData, Envelope(archive::Archive(nullptr)), false},
      {"3DM2 without a job", MessageIdStereoClose, {1, 2, 3}, false},
      {"unknown message id", FourCharCode("str "), {0}, false},
  };
  for (const Case& c : no_reply_cases) {
    PortReply reply;
    ASSERT_EQ(addin.Send(c.msgid, c.data, &reply), kPortSuccess) << c.what;
    EXPECT_FALSE(reply.present) << c.what;
    EXPECT_TRUE(reply.data.empty()) << c.what;
  }

  // 101 and 111 without image: an envelope around an empty array / dictionary.
  for (const uint64_t number : {RequestOcrImage, RequestDecodeImage}) {
    const auto result = addin.Request(number);
    ASSERT_TRUE(result.has_value()) << number;
    ASSERT_TRUE(*result) << number;
    if (number == RequestOcrImage) {
      ASSERT_EQ((*result)->kind(), archive::Kind::Array);
      EXPECT_TRUE(archive::AsArray(*result)->items.empty());
    } else {
      ASSERT_EQ((*result)->kind(), archive::Kind::Dictionary);
      EXPECT_EQ(archive::AsDictionary(*result)->size(), 0u);
    }
  }

  // 102: without a font service the reply is exactly the 8-byte header; with
  // one, an envelope around an array. A wrong length field is ignored.
  for (const Bytes& block : {Bytes(DataBlock(RequestInstalledFonts)), wrong_length}) {
    PortReply reply;
    ASSERT_EQ(addin.Send(MessageIdData, block, &reply), kPortSuccess);
    ASSERT_TRUE(reply.present);
    ASSERT_GE(reply.data.size(), 8u);
    const auto body = AddinProcess::CheckedEnvelopeBody(reply.data);
    if (body->empty()) {
      EXPECT_EQ(reply.data, (Bytes{0x5F, 0x72, 0x63, 0x6F, 8, 0, 0, 0}));
    } else {
      EXPECT_TRUE(archive::AsArray(archive::Unarchive(*body)));
    }
  }

  // '3DM1': a bare archive (no envelope) of {"Stereo_Reconstruct_ErrorResult": int32 -100},
  // whether the block holds parameters or unarchives to nothing.
  for (const Bytes& block : {archive::Archive(stereo), archive::Archive(nullptr), Bytes{}}) {
    PortReply reply;
    ASSERT_EQ(addin.Send(MessageIdStereoStart, block, &reply), kPortSuccess);
    ASSERT_TRUE(reply.present);
    ASSERT_FALSE(EnvelopeBody(reply.data).has_value());
    const auto dict = archive::AsDictionary(archive::Unarchive(reply.data));
    ASSERT_TRUE(dict);
    EXPECT_EQ(dict->size(), 1u);
    const auto code = archive::AsNumber(dict->Get(Stereo_Reconstruct_ErrorResult));
    ASSERT_TRUE(code);
    EXPECT_EQ(code->type(), 'i');
    EXPECT_EQ(code->AsInt64(), -100);
  }
  PortReply reply;
  EXPECT_EQ(addin.Send(MessageIdStereoClose, {}, &reply), kPortSuccess);
  EXPECT_FALSE(reply.present);

  // Request 1 with the build tree's library folder (version 12.0).
  const auto status = addin.Request(RequestLibraryStatus);
  ASSERT_TRUE(status.has_value());
  const auto flag = archive::AsNumber(archive::ReadObject(*status, "isHalconExist"));
  ASSERT_TRUE(flag);
  EXPECT_EQ(flag->type(), 'c');  // a boolean number
  EXPECT_TRUE(flag->AsBool());
}

TEST(AddinDispatcher, LibraryAbsentIsReported) {
  AddinProcess addin({.env = {{"VELMORA_VISION_DIR", "/nonexistent/velmora/vision"}}});
  const auto status = addin.Request(RequestLibraryStatus);
  ASSERT_TRUE(status.has_value());
  EXPECT_FALSE(archive::ReadBool(*status, "isHalconExist", true));
}

TEST(AddinDispatcher, BadInputLeavesItServing) {
  AddinProcess addin;
  const std::string sock = addin.socket_path();

  // Frames the transport must refuse, each closed without a reply.
  uint8_t oversized[16] = {'V', 'M', 'P', 'Q', 'a', 't', 'a', 'd', 1, 0, 0, 0};
  wire::PutU32(oversized + 12, kPortMaxFrameLength + 1);
  const uint8_t bad_frame[16] = {'Q', 'P', 'M', 'V', 'a', 't', 'a', 'd', 1, 0, 0, 0, 0, 0, 0, 0};
  const uint8_t truncated[18] = {'V', 'M', 'P', 'Q', 'a', 't', 'a', 'd', 1, 0, 0, 0, 200, 0, 0, 0, 0x5F, 0x72};
  struct Raw {
    const char* what;
    const uint8_t* bytes;
    size_t size;
  };
  for (const Raw& r : {Raw{"oversized frame header", oversized, 16}, Raw{"bad frame magic", bad_frame, 16},
                       Raw{"truncated request", truncated, 18}}) {
    const int fd = RawConnect(sock);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(::send(fd, r.bytes, r.size, MSG_NOSIGNAL), static_cast<ssize_t>(r.size));
    ::shutdown(fd, SHUT_WR);  // the truncated one can never complete
    EXPECT_TRUE(ClosedUnanswered(fd, 5)) << r.what;
    ::close(fd);
    ExpectServing(addin, r.what);
  }

  // Archives the dispatcher cannot use: no reply, one log line, still serving.
  const Bytes magic = {0x5F, 0x72, 0x63, 0x6F, 0, 0, 0, 0};
  const Bytes garbage = Concat(magic, {4, 11, 's', 't', 'r', 'e', 'a', 'm', 't', 'y', 'p', 'e', 'd', 0x81, 0xe8});
  const Bytes array_root = Concat(magic, archive::Archive(archive::MakeArray({archive::MakeInt32(1)})));
  Bytes cut = DataBlock(RequestLibraryStatus);
  cut.resize(cut.size() - 3);
  for (const auto& [what, block] : {std::pair{"undecodable archive", garbage}, std::pair{"non-dictionary root", array_root},
                                    std::pair{"truncated archive", cut}}) {
    PortReply reply;
    ASSERT_EQ(addin.Send(MessageIdData, block, &reply), kPortSuccess) << what;
    EXPECT_FALSE(reply.present) << what;
    ExpectServing(addin, what);
  }
  EXPECT_TRUE(addin.WaitForLog("MessageAction exception:", 2));

  // A client that connects and sends nothing delays nobody: the next request
  // is answered while it is still connected, and it is dropped at the read
  // deadline (5 s).
  const int idle = RawConnect(sock);
  ASSERT_GE(idle, 0);
  const auto start = Clock::now();
  PortReply reply;
  ASSERT_EQ(addin.Send(MessageIdData, DataBlock(RequestLibraryStatus), &reply, 2.0), kPortSuccess);
  EXPECT_TRUE(reply.present);
  EXPECT_LT(Clock::now() - start, std::chrono::seconds(2));
  EXPECT_TRUE(ClosedUnanswered(idle, 10));
  ::close(idle);
  ExpectServing(addin, "an idle client");
}

TEST(AddinLifecycle, TerminateRequestRepliesThenEnds) {
  AddinProcess addin;
  PortReply reply;
  ASSERT_EQ(addin.Send(MessageIdData, DataBlock(RequestTerminate), &reply), kPortSuccess);
  ASSERT_TRUE(reply.present);
  const auto body = AddinProcess::CheckedEnvelopeBody(reply.data);
  const auto dict = archive::AsDictionary(archive::Unarchive(*body));
  ASSERT_TRUE(dict);
  EXPECT_EQ(dict->size(), 0u);
  const auto status = addin.WaitExit(10);
  ASSERT_TRUE(status.has_value());
  EXPECT_TRUE(WIFEXITED(*status));
  EXPECT_EQ(WEXITSTATUS(*status), 0);
  EXPECT_FALSE(std::filesystem::exists(addin.socket_path()));
}

TEST(AddinLifecycle, SigtermClosesThePortAndExitsCleanly) {
  AddinProcess addin;
  addin.Signal(SIGTERM);
  const auto status = addin.WaitExit(10);
  ASSERT_TRUE(status.has_value());
  EXPECT_TRUE(WIFEXITED(*status)) << "ended by signal " << WTERMSIG(*status);
  EXPECT_EQ(WEXITSTATUS(*status), 0);
  EXPECT_FALSE(std::filesystem::exists(addin.socket_path()));
  EXPECT_EQ(SendMessage(kRequestPortName, MessageIdData, nullptr, 0), -1);
}

TEST(AddinLifecycle, SecondInstanceEndsSilently) {
  AddinProcess first;
  AddinProcess second({.wait_for_port = false, .runtime_dir = first.runtime_dir()});
  const auto status = second.WaitExit(10);
  ASSERT_TRUE(status.has_value());
  EXPECT_TRUE(WIFEXITED(*status));
  EXPECT_EQ(WEXITSTATUS(*status), 0);
  EXPECT_EQ(second.Stderr(), "");
  ::setenv("XDG_RUNTIME_DIR", first.runtime_dir().c_str(), 1);
  ExpectServing(first, "a second instance");
  // Ending the first frees the names for a new one.
  first.Stop();
  AddinProcess third({.runtime_dir = first.runtime_dir()});
  ExpectServing(third, "a restart");
}

// A port folder others can enter is refused: the add-in says so and fails,
// rather than pass for a second instance.
TEST(AddinLifecycle, UnsafePortFolderIsAnError) {
  char tmpl[] = "/tmp/velmora-e2e-unsafe-XXXXXX";
  ASSERT_NE(mkdtemp(tmpl), nullptr);
  const std::string runtime = tmpl;
  std::filesystem::create_directories(runtime + "/velmora");
  std::filesystem::permissions(runtime + "/velmora", std::filesystem::perms::owner_all |
                                                         std::filesystem::perms::group_read |
                                                         std::filesystem::perms::group_exec);
  {
    AddinProcess addin({.wait_for_port = false, .runtime_dir = runtime});
    const auto status = addin.WaitExit(10);
    ASSERT_TRUE(status.has_value());
    EXPECT_TRUE(WIFEXITED(*status));
    EXPECT_EQ(WEXITSTATUS(*status), 1);
    EXPECT_NE(addin.Stderr().find("not a private folder"), std::string::npos) << addin.Stderr();
  }
  std::filesystem::remove_all(runtime);
}

TEST(AddinLifecycle, StatusItemOnlyWithExactlyMetaAlt) {
  struct Case {
    const char* modifiers;
    bool shown;
  };
  for (const Case& c : {Case{"meta+alt", true}, Case{"meta+alt+shift", false}, Case{"alt", false},
                        Case{"none", false}}) {
    AddinProcess addin({.env = {{"VELMORA_LAUNCH_MODIFIERS", c.modifiers}, {"VELMORA_TEST_HOOKS", "1"}}});
    EXPECT_EQ(addin.Stderr().find("status item shown") != std::string::npos, c.shown) << c.modifiers;
    // The hook chooses the item's "Quit", as a user would.
    addin.Signal(SIGUSR1);
    if (c.shown) {
      const auto status = addin.WaitExit(10);
      ASSERT_TRUE(status.has_value()) << c.modifiers;
      EXPECT_TRUE(WIFEXITED(*status));
      EXPECT_EQ(WEXITSTATUS(*status), 0);
      EXPECT_FALSE(std::filesystem::exists(addin.socket_path()));
    } else {
      EXPECT_TRUE(addin.WaitForLog("test hook: no status item", 5)) << c.modifiers;
      ExpectServing(addin, c.modifiers);
    }
  }
}

#ifdef VELMORA_CLI_PATH
// The command-line client: its exit codes and JSON, against no add-in and a live one.
TEST(VelmoraClient, ExitCodesAndJson) {
  char tmpl[] = "/tmp/velmora-cli-XXXXXX";
  ASSERT_NE(mkdtemp(tmpl), nullptr);
  const std::string dir = tmpl;
  auto run = [&](const std::string& args, std::string* out, std::string* err) {
    const std::string cmd = std::string(VELMORA_CLI_PATH) + " --timeout 10 " + args + " >" + dir + "/out 2>" + dir + "/err";
    const int status = std::system(cmd.c_str());
    auto slurp = [](const std::string& path) {
      std::ifstream in(path);
      return std::string(std::istreambuf_iterator<char>(in), {});
    };
    *out = slurp(dir + "/out");
    *err = slurp(dir + "/err");
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  };
  std::string out, err;
  {
    AddinProcess addin;
    EXPECT_EQ(run("status", &out, &err), 0) << err;
    EXPECT_EQ(out, "{\n  \"isHalconExist\": true\n}\n");
    EXPECT_EQ(run("stereo-start --frame 0,0,640,480", &out, &err), 0) << err;
    EXPECT_EQ(out, "{\n  \"Stereo_Reconstruct_ErrorResult\": -100\n}\n");
    EXPECT_EQ(run("stereo-stop", &out, &err), 0) << err;
    // An image file goes out as an archived image; whatever the services find,
    // OCR answers an array and decoding a dictionary.
    archive::RawBitmap grey;
    grey.width = 64;
    grey.height = 32;
    grey.samples_per_pixel = 1;
    grey.bits_per_sample = 8;
    grey.bytes_per_row = 64;
    grey.color_space = archive::kCalibratedWhiteColorSpace;
    grey.data.assign(64 * 32, 220);
    const Bytes tiff = archive::EncodeTiff(grey);
    std::ofstream(dir + "/plain.tif", std::ios::binary).write(reinterpret_cast<const char*>(tiff.data()),
                                                            static_cast<std::streamsize>(tiff.size()));
    EXPECT_EQ(run("ocr " + dir + "/plain.tif --font Industrial", &out, &err), 0) << err;
    EXPECT_EQ(out.substr(0, 1), "[") << out;
    EXPECT_EQ(run("decode " + dir + "/plain.tif --kind qr", &out, &err), 0) << err;
    EXPECT_EQ(out.substr(0, 1), "{") << out;
    EXPECT_EQ(run("ocr /nonexistent.png", &out, &err), 1);
    EXPECT_EQ(run("frobnicate", &out, &err), 1);
    EXPECT_NE(err.find("unknown command"), std::string::npos);
    EXPECT_EQ(run("quit", &out, &err), 0) << err;
    EXPECT_EQ(out, "{}\n");
    ASSERT_TRUE(addin.WaitExit(10).has_value());
  }
  // No add-in: one line, exit code 2, at once.
  const auto start = Clock::now();
  EXPECT_EQ(run("status", &out, &err), 2);
  EXPECT_LT(Clock::now() - start, std::chrono::seconds(3));
  EXPECT_EQ(std::count(err.begin(), err.end(), '\n'), 1) << err;
  EXPECT_NE(err.find("not running"), std::string::npos);
  std::filesystem::remove_all(dir);
}
#endif

}  // namespace
}  // namespace velmora
