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

#include "addin_process.h"

namespace velmora {
namespace {

using testing::AddinProcess;
using testing::Bytes;
using testing::ExitCode;
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

TEST(AddinDispatcher, RepliesOfEveryRow) {
  AddinProcess addin;
  EXPECT_NE(addin.Stderr().find("[VelmoraAddin] launch-12.0\n"), std::string::npos);
  // The log line's form: date, time with milliseconds, name[pid:tid], text.
  EXPECT_NE(addin.Stderr().find(" VelmoraAddin[" + std::to_string(addin.pid()) + ":"), std::string::npos);

  // Request 102 behind a wrong magic, and behind a wrong length field.
  Bytes bad_magic = DataBlock(RequestInstalledFonts), wrong_length = bad_magic;
  std::memcpy(bad_magic.data(), "Xcr_", 4);
  std::fill(wrong_length.begin() + 4, wrong_length.begin() + 8, 0xff);
  auto no_id = archive::MakeDictionary();
  no_id->Set("attribute", archive::MakeDictionary());
  auto stereo = archive::MakeDictionary();
  stereo->Set(Stereo_Reconstruct_WindowFrame, archive::MakeRect(10, 20, 640, 480));
  // Archives the dispatcher cannot use (the frames the transport refuses are
  // port_test's): no reply, and the failure logged.
  const Bytes magic = {0x5F, 0x72, 0x63, 0x6F, 0, 0, 0, 0};
  const Bytes garbage = Concat(magic, {4, 11, 's', 't', 'r', 'e', 'a', 'm', 't', 'y', 'p', 'e', 'd', 0x81, 0xe8});
  const Bytes array_root = Concat(magic, archive::Archive(archive::MakeArray({archive::MakeInt32(1)})));
  Bytes cut = DataBlock(RequestLibraryStatus);
  cut.resize(cut.size() - 3);

  struct Case {
    const char* what;
    int32_t msgid;
    Bytes data;
  };
  const Case no_reply_cases[] = {
      {"wrong magic", MessageIdData, bad_magic},
      {"block shorter than the envelope", MessageIdData, {0x5F, 0x72, 0x63, 0x6F, 9}},
      {"103 without image", MessageIdData, DataBlock(RequestOcrFilteredImage)},
      {"unknown request number", MessageIdData, DataBlock(4242)},
      {"missing messageId", MessageIdData, Envelope(archive::Archive(no_id))},
      {"body that decodes to nothing", MessageIdData, Envelope(archive::Archive(nullptr))},
      {"3DM2 without a job", MessageIdStereoClose, {1, 2, 3}},
      {"unknown message id", FourCharCode("str "), {0}},
      {"undecodable archive", MessageIdData, garbage},
      {"non-dictionary root", MessageIdData, array_root},
      {"truncated archive", MessageIdData, cut},
  };
  for (const Case& c : no_reply_cases) {
    PortReply reply;
    ASSERT_EQ(addin.Send(c.msgid, c.data, &reply), kPortSuccess) << c.what;
    EXPECT_FALSE(reply.present) << c.what;
    EXPECT_TRUE(reply.data.empty()) << c.what;
  }
  EXPECT_TRUE(addin.WaitForLog("MessageAction exception:", 2));

  // 101 and 111 without image: an envelope around an empty array / dictionary.
  const auto ocr = addin.Request(RequestOcrImage);
  ASSERT_TRUE(ocr && archive::AsArray(*ocr));
  EXPECT_TRUE(archive::AsArray(*ocr)->items.empty());
  const auto decode = addin.Request(RequestDecodeImage);
  ASSERT_TRUE(decode && archive::AsDictionary(*decode));
  EXPECT_EQ(archive::AsDictionary(*decode)->size(), 0u);

  // 102: an envelope around the list of the four fonts; a wrong length field
  // is ignored.
  for (const Bytes& block : {Bytes(DataBlock(RequestInstalledFonts)), wrong_length}) {
    PortReply reply;
    ASSERT_EQ(addin.Send(MessageIdData, block, &reply), kPortSuccess);
    ASSERT_TRUE(reply.present);
    const auto fonts = archive::AsArray(archive::Unarchive(*AddinProcess::CheckedEnvelopeBody(reply.data)));
    ASSERT_TRUE(fonts);
    EXPECT_EQ(fonts->items.size(), 4u);
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
  EXPECT_TRUE(addin.Serving()) << "after every row";
}

// A client that connects and sends nothing is closed unanswered at the
// add-in's read deadline (5 s); that it delays nobody meanwhile is port_test's.
TEST(AddinPort, IdleClientIsDroppedAtTheReadDeadline) {
  AddinProcess addin;
  const int idle = RawConnect(addin.socket_path());
  ASSERT_GE(idle, 0);
  timeval tv{10, 0};
  ::setsockopt(idle, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
  char byte;
  EXPECT_EQ(::recv(idle, &byte, 1, 0), 0) << "answered, or still open after 10 s";
  ::close(idle);
  EXPECT_TRUE(addin.Serving()) << "after an idle client";
}

TEST(AddinLifecycle, TerminateRequestRepliesThenEnds) {
  AddinProcess addin;
  const auto reply = addin.Request(RequestTerminate);
  ASSERT_TRUE(reply && archive::AsDictionary(*reply));
  EXPECT_EQ(archive::AsDictionary(*reply)->size(), 0u);
  EXPECT_EQ(ExitCode(addin, 10), 0);
  EXPECT_FALSE(std::filesystem::exists(addin.socket_path()));
}

TEST(AddinLifecycle, SecondInstanceEndsSilentlySigtermFreesTheNames) {
  AddinProcess first;
  AddinProcess second({.wait_for_port = false, .runtime_dir = first.runtime_dir()});
  EXPECT_EQ(ExitCode(second, 10), 0);
  EXPECT_EQ(second.Stderr(), "");
  ::setenv("XDG_RUNTIME_DIR", first.runtime_dir().c_str(), 1);
  EXPECT_TRUE(first.Serving()) << "after a second instance";
  // SIGTERM ends the first cleanly and closes its port, freeing the names for
  // a new one.
  first.Signal(SIGTERM);
  EXPECT_EQ(ExitCode(first, 10), 0);
  EXPECT_FALSE(std::filesystem::exists(first.socket_path()));
  AddinProcess third({.runtime_dir = first.runtime_dir()});
  EXPECT_TRUE(third.Serving()) << "after a restart";
}

// A port folder others can enter is refused: the add-in says so and fails,
// rather than pass for a second instance.
TEST(AddinLifecycle, UnsafePortFolderIsAnError) {
  char tmpl[] = "/tmp/velmora-e2e-unsafe-XXXXXX";
  ASSERT_NE(mkdtemp(tmpl), nullptr);
  const std::string runtime = tmpl;
  std::filesystem::create_directories(runtime + "/velmora");
  std::filesystem::permissions(runtime + "/velmora", std::filesystem::perms(0750));
  {
    AddinProcess addin({.wait_for_port = false, .runtime_dir = runtime});
    EXPECT_EQ(ExitCode(addin, 10), 1);
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
      EXPECT_EQ(ExitCode(addin, 10), 0) << c.modifiers;
      EXPECT_FALSE(std::filesystem::exists(addin.socket_path()));
    } else {
      EXPECT_TRUE(addin.WaitForLog("test hook: no status item", 5)) << c.modifiers;
      EXPECT_TRUE(addin.Serving()) << "after " << c.modifiers;
    }
  }
}

}  // namespace
}  // namespace velmora
