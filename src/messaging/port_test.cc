// The port transport: names, status codes, round trips through a LocalPort
// served on a real Qt event loop, and the server's defences.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <QCoreApplication>
#include <QMetaObject>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <stdexcept>
#include <thread>

#include "messaging/local_port.h"
#include "messaging/port_client.h"
#include "messaging/unique_fd.h"

namespace velmora {
namespace {

using Clock = std::chrono::steady_clock;
using Bytes = std::vector<uint8_t>;

QCoreApplication& App() {
  static int argc = 1;
  static char name[] = "messaging_tests";
  static char* argv[] = {name, nullptr};
  static QCoreApplication app(argc, argv);
  return app;
}

class PortTest : public ::testing::Test {
 protected:
  void SetUp() override {
    App();
    char tmpl[] = "/tmp/port_test.XXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    dir_ = tmpl;
    setenv("XDG_RUNTIME_DIR", dir_.c_str(), 1);
  }
  void TearDown() override { std::filesystem::remove_all(dir_); }

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
};

// A raw connection for frames the client functions never produce.
UniqueFd RawConnect(const std::string& name) {
  UniqueFd fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  const std::string path = PortPath(name, ".sock", false);
  std::strncpy(addr.sun_path, path.c_str(), sizeof addr.sun_path - 1);
  if (::connect(fd.get(), reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) return UniqueFd();
  return fd;
}

// Waits for the server to close the connection; true when it closed with
// nothing written.
bool ClosedWithoutReply(int fd, int timeout_s) {
  timeval tv{timeout_s, 0};
  ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
  char byte;
  return ::recv(fd, &byte, 1, 0) == 0;
}

TEST_F(PortTest, LookupFailuresAreImmediate) {
  const auto start = Clock::now();
  EXPECT_EQ(SendMessage("nobody.registered", 1, nullptr, 0), -1);
  Bytes reply{1, 2, 3};
  EXPECT_EQ(SendMessageWait("nobody.registered", 1, nullptr, 0, &reply), -1);
  EXPECT_TRUE(reply.empty());
  EXPECT_EQ(SendMessage(nullptr, 1, nullptr, 0), -1);
  EXPECT_EQ(SendStringMessage("nobody.registered", nullptr), -1);
  EXPECT_EQ(SendMessage("", 1, nullptr, 0), -1);
  EXPECT_EQ(SendMessage("a/b", 1, nullptr, 0), -1);
  EXPECT_EQ(SendMessage(std::string(200, 'x').c_str(), 1, nullptr, 0), -1);
  // A socket file nobody listens on (a crashed owner) also means "no port".
  const std::string stale = PortPath("stale", ".sock", true);
  UniqueFd s(::socket(AF_UNIX, SOCK_STREAM, 0));
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  std::strcpy(addr.sun_path, stale.c_str());
  ASSERT_EQ(::bind(s.get(), reinterpret_cast<sockaddr*>(&addr), sizeof addr), 0);
  s.reset();
  EXPECT_EQ(SendMessage("stale", 1, nullptr, 0), -1);
  // None of this may wait for a timeout.
  EXPECT_LT(Clock::now() - start, std::chrono::seconds(1));
}

TEST_F(PortTest, NameIsOwnedOnceAndFreedOnClose) {
  auto first = LocalPort::Create("owner.test", nullptr);
  ASSERT_TRUE(first);
  EXPECT_FALSE(LocalPort::Create("owner.test", nullptr));
  first.reset();
  auto second = LocalPort::Create("owner.test", nullptr);
  EXPECT_TRUE(second);
  struct stat st {};
  ASSERT_EQ(::stat((dir_ + "/velmora").c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0700u);
}

TEST_F(PortTest, RoundTrips) {
  std::vector<std::pair<int32_t, Bytes>> seen;
  auto port = LocalPort::Create("rt.test", [&](int32_t msgid, const Bytes& data) -> std::optional<Bytes> {
    seen.emplace_back(msgid, data);
    if (msgid == 1) return data;                        // echo
    if (msgid == 2) return std::nullopt;                // no reply
    if (msgid == 3) return Bytes{};                     // an empty reply block
    if (msgid == 4) throw std::runtime_error("service failed");
    return Bytes{9};
  });
  ASSERT_TRUE(port);

  Bytes big(8 << 20);
  for (size_t i = 0; i < big.size(); ++i) big[i] = static_cast<uint8_t>(i * 7 + (i >> 12));
  WithClient([&] {
    PortReply reply;
    // Echo of a multi-megabyte block: it crosses the socket in many pieces.
    EXPECT_EQ(SendPortRequest("rt.test", 1, big.data(), big.size(), {}, &reply), 0);
    EXPECT_TRUE(reply.present);
    EXPECT_TRUE(reply.data == big);

    struct Case {
      int32_t msgid;
      bool present;
      size_t size;
    };
    for (const Case& c : {Case{2, false, 0}, Case{3, true, 0}, Case{4, false, 0}, Case{5, true, 1}}) {
      const uint8_t payload[3] = {1, 2, 3};
      EXPECT_EQ(SendPortRequest("rt.test", c.msgid, payload, 3, {}, &reply), 0) << c.msgid;
      EXPECT_EQ(reply.present, c.present) << c.msgid;
      EXPECT_EQ(reply.data.size(), c.size) << c.msgid;
    }

    // The classic functions. String messages are not waited for; the waited request after them
    // proves both were served (one at a time, in order).
    EXPECT_EQ(SendStringMessage("rt.test", ""), 0);
    EXPECT_EQ(SendStringMessage("rt.test", "ab"), 0);
    Bytes wait_reply;
    EXPECT_EQ(SendMessageWait("rt.test", 5, nullptr, 0, &wait_reply), 0);
    EXPECT_EQ(wait_reply, Bytes{9});
    EXPECT_EQ(HS_SendMessageWait("rt.test", 1, big.data(), 1000, &wait_reply), 0);
    EXPECT_EQ(wait_reply, Bytes(big.begin(), big.begin() + 1000));
  });
  ASSERT_EQ(seen.size(), 9u);
  // A string travels with its terminating zero: "" is a block of one zero byte.
  EXPECT_EQ(seen[5], std::pair(FourCharCode("str "), Bytes{0}));
  EXPECT_EQ(seen[6], std::pair(FourCharCode("str "), Bytes{'a', 'b', 0}));
}

TEST_F(PortTest, SlowServiceGivesReceiveTimeout) {
  auto port = LocalPort::Create("slow.test", [](int32_t, const Bytes&) -> std::optional<Bytes> {
    std::this_thread::sleep_for(std::chrono::milliseconds(800));
    return Bytes{1};
  });
  WithClient([&] {
    PortSendOptions quick;
    quick.receive_timeout = 0.2;
    PortReply reply;
    EXPECT_EQ(SendPortRequest("slow.test", 1, nullptr, 0, quick, &reply), kPortReceiveTimeout);
    PortSendOptions patient;
    patient.receive_timeout = 5;
    EXPECT_EQ(SendPortRequest("slow.test", 1, nullptr, 0, patient, &reply), 0);
    EXPECT_EQ(reply.data, Bytes{1});
  });
}

// Bad clients are closed unanswered and delay only themselves: a client that stalls mid-request
// is dropped at the read deadline, while malformed frames are dropped at once and a good
// request is served meanwhile.
TEST_F(PortTest, BadClientsAreClosedUnansweredAndBlockNobody) {
  int served = 0;
  auto port = LocalPort::Create("bad.test", [&](int32_t, const Bytes&) -> std::optional<Bytes> {
    ++served;
    return Bytes{1};
  });
  port->setReadTimeout(3);
  WithClient([&] {
    UniqueFd stalled = RawConnect("bad.test");
    ASSERT_TRUE(stalled.valid());
    ASSERT_EQ(::send(stalled.get(), "VMPQ\1\0", 6, MSG_NOSIGNAL), 6);

    const uint8_t bad_magic[16] = {'V', 'M', 'P', 'X', 1, 0, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0};
    uint8_t oversized[16] = {'V', 'M', 'P', 'Q', 1, 0, 0, 0, 1, 0, 0, 0};
    wire::PutU32(oversized + 12, kPortMaxFrameLength + 1);
    uint8_t truncated[20] = {'V', 'M', 'P', 'Q', 1, 0, 0, 0, 1, 0, 0, 0, 100, 0, 0, 0};
    struct Case {
      const uint8_t* bytes;
      size_t size;
      bool half_close;  // the client ends its side: the request can never complete
    };
    for (const Case& c : {Case{bad_magic, 16, false}, Case{oversized, 16, false}, Case{truncated, 20, true}}) {
      UniqueFd fd = RawConnect("bad.test");
      ASSERT_TRUE(fd.valid());
      ASSERT_EQ(::send(fd.get(), c.bytes, c.size, MSG_NOSIGNAL), static_cast<ssize_t>(c.size));
      if (c.half_close) ::shutdown(fd.get(), SHUT_WR);
      // Well within the 3 s read deadline: closed for the fault, not for the time.
      EXPECT_TRUE(ClosedWithoutReply(fd.get(), 2));
    }
    PortReply reply;
    PortSendOptions options;
    options.receive_timeout = 2;  // must be served before the stalled one is dropped
    EXPECT_EQ(SendPortRequest("bad.test", 1, nullptr, 0, options, &reply), 0);
    EXPECT_TRUE(reply.present);
    EXPECT_TRUE(ClosedWithoutReply(stalled.get(), 6));
  });
  EXPECT_EQ(served, 1);
}

// Buffers grow with the bytes that came, not with what headers announce, and
// all unfinished requests together stay under the port's memory bound: a
// connection whose next bytes would pass it is closed; others are served.
TEST_F(PortTest, PendingRequestsShareOneMemoryBound) {
  int served = 0;
  auto port = LocalPort::Create("bound.test", [&](int32_t, const Bytes& data) -> std::optional<Bytes> {
    ++served;
    return Bytes{static_cast<uint8_t>(data.size() >> 20)};
  });
  port->setPendingBudget(size_t(3) << 20);
  size_t pending_seen = 0;
  WithClient([&] {
    auto announce = [](uint32_t announced, size_t sent) {
      UniqueFd fd = RawConnect("bound.test");
      uint8_t header[16] = {'V', 'M', 'P', 'Q', 1, 0, 0, 0, 1, 0, 0, 0};
      wire::PutU32(header + 12, announced);
      Bytes all(header, header + 16);
      all.resize(16 + sent, 7);
      size_t off = 0;
      while (off < all.size()) {
        const ssize_t w = ::send(fd.get(), all.data() + off, all.size() - off, MSG_NOSIGNAL);
        if (w <= 0) break;
        off += size_t(w);
      }
      return fd;
    };
    UniqueFd first = announce(100u << 20, 2000000);  // holds a 2 MiB buffer
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    QMetaObject::invokeMethod(&App(), [&] { pending_seen = port->pendingBytes(); }, Qt::BlockingQueuedConnection);
    UniqueFd second = announce(100u << 20, 2000000);  // would need 3 MiB more
    EXPECT_TRUE(ClosedWithoutReply(second.get(), 2));
    // A whole request of 1 MiB still fits beside the first, and is served.
    PortReply reply;
    PortSendOptions options;
    options.receive_timeout = 2;
    const Bytes mib(1 << 20, 1);
    EXPECT_EQ(SendPortRequest("bound.test", 1, mib.data(), mib.size(), options, &reply), 0);
    EXPECT_EQ(reply.data, Bytes{1});
  });
  EXPECT_EQ(pending_seen, size_t(2) << 20);
  EXPECT_EQ(served, 1);
}

// The callback may close the port that is serving it (termination does).
TEST_F(PortTest, CallbackMayCloseItsOwnPort) {
  std::unique_ptr<LocalPort> port;
  port = LocalPort::Create("close.test", [&](int32_t, const Bytes&) -> std::optional<Bytes> {
    port.reset();
    return Bytes{4, 2};
  });
  WithClient([&] {
    PortReply reply;
    EXPECT_EQ(SendPortRequest("close.test", 1, nullptr, 0, {}, &reply), 0);
    EXPECT_EQ(reply.data, (Bytes{4, 2}));
    EXPECT_EQ(SendMessage("close.test", 1, nullptr, 0), -1);
  });
}

}  // namespace
}  // namespace velmora
