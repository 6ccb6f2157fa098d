// The side-camera client against test servers on the real port transport:
// each method's status convention, the fixed commands' bytes, and servers
// that are absent, silent, or answer garbage.
#include "messaging/side_cam_server_controller.h"

#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <QCoreApplication>
#include <QMetaObject>
#include <chrono>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <functional>
#include <thread>

#include "archive/property_list.h"
#include "messaging/local_port.h"
#include "messaging/unique_fd.h"

namespace velmora {
namespace {

using Bytes = std::vector<uint8_t>;
using Clock = std::chrono::steady_clock;

QCoreApplication& App() {
  static int argc = 1;
  static char name[] = "sidecam_client_tests";
  static char* argv[] = {name, nullptr};
  static QCoreApplication app(argc, argv);
  return app;
}

double SecondsSince(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

class SideCamClient : public ::testing::Test {
 protected:
  void SetUp() override {
    App();
    char tmpl[] = "/tmp/sidecam_client.XXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    dir_ = tmpl;
    setenv("XDG_RUNTIME_DIR", dir_.c_str(), 1);
  }
  void TearDown() override { std::filesystem::remove_all(dir_); }

  // A server on the side-camera port that records every message and answers
  // with `reply` (nullopt: "no reply").
  std::unique_ptr<LocalPort> Serve(std::function<std::optional<Bytes>(int32_t, const Bytes&)> reply) {
    auto port = LocalPort::Create(kSideCamServerPortName, [this, reply](int32_t id, const Bytes& data) {
      seen_.emplace_back(id, data);
      return reply(id, data);
    });
    EXPECT_TRUE(port);
    return port;
  }

  // Runs `client` on a thread while this thread serves the event loop.
  static void WithClient(const std::function<void()>& client) {
    std::thread t([&] {
      client();
      QMetaObject::invokeMethod(&App(), [] { QCoreApplication::quit(); }, Qt::QueuedConnection);
    });
    QCoreApplication::exec();
    t.join();
  }

  std::string dir_;
  std::vector<std::pair<int32_t, Bytes>> seen_;
};

// A server that owns the name and lets connections queue, never reading or answering.
struct SilentServer {
  UniqueFd lock, listener;
  SilentServer() {
    lock = UniqueFd(::open(PortPath(kSideCamServerPortName, ".lock", true).c_str(), O_RDWR | O_CREAT, 0600));
    ::flock(lock.get(), LOCK_EX | LOCK_NB);
    listener = UniqueFd(::socket(AF_UNIX, SOCK_STREAM, 0));
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    const std::string path = PortPath(kSideCamServerPortName, ".sock", true);
    ::unlink(path.c_str());  // left by the previous owner, as a registration does
    std::strncpy(addr.sun_path, path.c_str(), sizeof addr.sun_path - 1);
    ::bind(listener.get(), reinterpret_cast<sockaddr*>(&addr), sizeof addr);
    ::listen(listener.get(), 16);
  }
};

// A server that reads one request and writes `raw` bytes as its answer
// (connections that close before a request, such as a port lookup's, are skipped).
struct RawServer : SilentServer {
  std::thread thread;
  explicit RawServer(Bytes raw) {
    thread = std::thread([this, raw] {
      for (;;) {
        UniqueFd c(::accept(listener.get(), nullptr, nullptr));
        if (!c.valid()) return;
        uint8_t header[16];
        if (::recv(c.get(), header, sizeof header, MSG_WAITALL) != sizeof header) continue;
        ::send(c.get(), raw.data(), raw.size(), MSG_NOSIGNAL);
        return;
      }
    });
  }
  ~RawServer() { thread.join(); }
};

Bytes ReplyFrame(const Bytes& body) {
  Bytes frame(12 + body.size());
  const uint8_t head[8] = {'V', 'M', 'P', 'R', 1, 0, 0, 0};
  std::copy(head, head + 8, frame.begin());
  wire::PutU32(frame.data() + 8, static_cast<uint32_t>(body.size()));
  std::copy(body.begin(), body.end(), frame.begin() + 12);
  return frame;
}

archive::ObjectPtr ErrorResult(int32_t code) {
  auto d = archive::MakeDictionary();
  d->Set(kSide3DErrorResult, archive::MakeInt32(code));
  return d;
}

// Each method's answer to a reply, to "no reply", to an empty reply block, and
// to no server at all (at once).
TEST_F(SideCamClient, RepliesAndTheirAbsenceFollowEachConvention) {
  struct Case {
    int32_t id;
    bool answered;
  };
  const auto check = [](sideCamServerController& c, const Case& k) {
    Bytes reply{9};
    EXPECT_EQ(c.sendMessageWithReply(k.id, nullptr, &reply), k.answered) << k.id;
    EXPECT_EQ(c.sendMessageWithReply(k.id, nullptr, &reply, 1.0), k.answered ? 0 : kSideCamNoReply) << k.id;
    if (!k.answered) EXPECT_EQ(reply, Bytes{9}) << k.id;
    // Without a place for the reply, an answer counts as none.
    EXPECT_FALSE(c.sendMessageWithReply(k.id, nullptr, nullptr));
    EXPECT_EQ(c.sendMessageWithReply(k.id, nullptr, nullptr, 1.0), kSideCamNoReply);
    archive::ObjectPtr dict = ErrorResult(42);
    EXPECT_EQ(c.sendMessageWithArchivedDictReply(k.id, nullptr, &dict), k.answered);
    EXPECT_EQ(c.sendMessageWithArchivedDictReply(k.id, nullptr, &dict, 1.0), k.answered ? 0 : kSideCamNoReply);
    // No reply leaves the caller's dictionary as it was.
    EXPECT_EQ(archive::ReadInt(dict, kSide3DErrorResult), k.answered ? 0 : 42);
  };
  {
    sideCamServerController c;
    const auto start = Clock::now();
    EXPECT_FALSE(c.sendMessageSendData(MessageIdSideCapture, nullptr));
    check(c, {MessageIdSide3DCheck, false});
    EXPECT_LT(SecondsSince(start), 0.5);
  }
  auto port = Serve([](int32_t id, const Bytes&) -> std::optional<Bytes> {
    if (id == MessageIdSide3DCheck) return archive::Archive(ErrorResult(0));
    if (id == FourCharCode("empt")) return Bytes{};
    return std::nullopt;  // "no reply"
  });
  WithClient([&] {
    sideCamServerController c;
    for (const Case& k : {Case{MessageIdSide3DCheck, true}, Case{FourCharCode("none"), false},
                          Case{FourCharCode("empt"), false}})
      check(c, k);
  });
}

TEST_F(SideCamClient, MessagesCarryExactlyTheirBytes) {
  auto port = Serve([](int32_t, const Bytes&) -> std::optional<Bytes> { return archive::Archive(ErrorResult(0)); });
  auto info = archive::MakeDictionary();
  info->Set("position", archive::MakeInt32(3));
  info->Set("name", archive::MakeString("stage A"));
  auto request = archive::MakeDictionary();
  request->Set(kSideCalibImageType, archive::MakeInt32(0));
  WithClient([&] {
    sideCamServerController c;
    c.setRecvier("abc");
    c.setRecvier("");
    c.doCapture();
    c.setImagesDone();  // no position info: no data
    c.setCurrentPositionInfo(info);
    c.setImagesDone();
    EXPECT_TRUE(c.sendMessageSendDictionary(FourCharCode("dict"), info));
    archive::ObjectPtr reply;
    EXPECT_TRUE(c.sendMessageWithArchivedDictReply(MessageIdSide3DCheck, nullptr, &reply));
    EXPECT_EQ(c.sendMessageWithArchivedDictReply(MessageIdSide3DImages, request, &reply, 5.0), 0);
    EXPECT_EQ(archive::ReadInt(reply, kSide3DErrorResult, -1), 0);
    Bytes big(3 << 20, 0xab);
    EXPECT_TRUE(c.sendMessageSendData(FourCharCode("big "), &big));
  });
  ASSERT_EQ(seen_.size(), 10u);
  EXPECT_EQ(seen_[0], std::pair(MessageIdSideReceiver, Bytes{'a', 'b', 'c'}));
  EXPECT_EQ(seen_[1], std::pair(MessageIdSideReceiver, Bytes{}));
  EXPECT_EQ(seen_[2], std::pair(MessageIdSideCapture, Bytes{}));
  EXPECT_EQ(seen_[3], std::pair(MessageIdSideImagesDone, Bytes{}));
  for (int i : {4, 5}) {
    EXPECT_EQ(seen_[i].first, i == 4 ? MessageIdSideImagesDone : FourCharCode("dict"));
    ASSERT_GE(seen_[i].second.size(), 8u);
    EXPECT_EQ(std::string(seen_[i].second.begin(), seen_[i].second.begin() + 6), "bplist");
    const auto back = archive::DecodePropertyList(seen_[i].second.data(), seen_[i].second.size());
    EXPECT_EQ(archive::ReadInt(back, "position"), 3);
    EXPECT_EQ(archive::ReadString(back, "name"), "stage A");
  }
  EXPECT_EQ(seen_[6], std::pair(MessageIdSide3DCheck, Bytes{}));
  EXPECT_EQ(seen_[7].first, MessageIdSide3DImages);
  EXPECT_EQ(archive::ReadInt(archive::Unarchive(seen_[7].second), kSideCalibImageType, -1), 0);
  EXPECT_EQ(seen_[8].first, FourCharCode("big "));
  EXPECT_EQ(seen_[8].second.size(), 3u << 20);
  // The destruction of the controller tells the server 'quit'.
  EXPECT_EQ(seen_[9], std::pair(MessageIdSideQuit, Bytes{}));
}

TEST_F(SideCamClient, SilentServerEndsInTheTimeoutAsked) {
  SilentServer server;
  sideCamServerController c;
  Bytes reply;
  auto start = Clock::now();
  EXPECT_EQ(c.sendMessageWithReply(MessageIdSide3DCheck, nullptr, &reply, 0.3), kPortReceiveTimeout);
  EXPECT_LT(SecondsSince(start), 1.5);
  archive::ObjectPtr dict;
  start = Clock::now();
  EXPECT_EQ(c.sendMessageWithArchivedDictReply(MessageIdSide3DCheck, nullptr, &dict, 0.3), kPortReceiveTimeout);
  EXPECT_LT(SecondsSince(start), 1.5);
  EXPECT_EQ(dict, nullptr);
  // The boolean form waits its fixed five seconds, no longer.
  start = Clock::now();
  EXPECT_FALSE(c.sendMessageWithReply(MessageIdSide3DCheck, nullptr, &reply));
  EXPECT_GT(SecondsSince(start), 4.5);
  EXPECT_LT(SecondsSince(start), 7.0);
}

TEST_F(SideCamClient, GarbageRepliesFailWithoutHanging) {
  sideCamServerController c;
  archive::ObjectPtr dict;
  {
    // A reply block that is no archive: the caller gets the archive's exception.
    RawServer server(ReplyFrame({'n', 'o', 't', ' ', 'a', 'n', ' ', 'a', 'r', 'c', 'h', 'i', 'v', 'e'}));
    EXPECT_THROW(c.sendMessageWithArchivedDictReply(MessageIdSide3DCheck, nullptr, &dict, 2.0), archive::ArchiveError);
  }
  {
    // An archive of another shape comes back as it is, for the caller to judge.
    RawServer server(ReplyFrame(archive::Archive(archive::MakeArray({archive::MakeInt32(1)}))));
    EXPECT_EQ(c.sendMessageWithArchivedDictReply(MessageIdSide3DCheck, nullptr, &dict, 2.0), 0);
    EXPECT_TRUE(archive::AsArray(dict));
  }
  struct Case {
    const char* what;
    Bytes raw;
    int32_t status;
  };
  const Case cases[] = {
      {"bad reply magic", {'X', 'X', 'X', 'X', 1, 0, 0, 0, 0, 0, 0, 0}, kPortTransportError},
      {"reply cut short", {'V', 'M', 'P', 'R', 1, 0, 0, 0, 100, 0, 0, 0, 1, 2}, kPortBecameInvalid},
      {"closed at once", {}, kPortBecameInvalid},
  };
  for (const Case& k : cases) {
    RawServer server(k.raw);
    Bytes reply;
    const auto start = Clock::now();
    EXPECT_EQ(c.sendMessageWithReply(MessageIdSide3DCheck, nullptr, &reply, 2.0), k.status) << k.what;
    EXPECT_LT(SecondsSince(start), 1.5) << k.what;
  }
}

TEST_F(SideCamClient, MatchingTimeResetsAndSharedControllerStays) {
  sideCamServerController* shared = sideCamServerController::sharedController();
  ASSERT_TRUE(shared);
  EXPECT_EQ(sideCamServerController::sharedController(), shared);
  ::testing::internal::CaptureStderr();
  shared->resetDoMatchingTime();
  const std::string log = ::testing::internal::GetCapturedStderr();
  EXPECT_NE(log.find("-[sideCamServerController resetDoMatchingTime]"), std::string::npos) << log;
  EXPECT_EQ(shared->doMatchingTime(), 0u);
}

}  // namespace
}  // namespace velmora
