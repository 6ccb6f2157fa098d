#include "messaging/message_port.h"

#include <chrono>
#include <exception>
#include <string>
#include <memory>

#include "app/app_delegate.h"
#include "messaging/log.h"
#include "messaging/message_action.h"
#include "messaging/request_log.h"

namespace velmora {

namespace {

// 'data', '3DM1', or the number when the id is not printable.
std::string FourCharText(int32_t msgid) {
  const uint32_t v = static_cast<uint32_t>(msgid);
  std::string text = "'";
  for (int shift = 24; shift >= 0; shift -= 8) {
    const char ch = static_cast<char>((v >> shift) & 0xFF);
    if (ch < 0x20 || ch > 0x7E) return std::to_string(msgid);
    text += ch;
  }
  return text + "'";
}

// The module's one piece of state: the local request port (its event-loop
// source lives inside it).
std::unique_ptr<LocalPort> messagePort_localPort;
}  // namespace

void initMessagePort(const char* name) {
  if (name == nullptr || messagePort_localPort) return;
  messagePort_localPort = LocalPort::Create(
      name, [](int32_t msgid, const std::vector<uint8_t>& data) {
        return myMessagePortListenerProc(messagePort_localPort.get(), msgid, data, nullptr);
      });
  // After a termination signal the add-in ends right after the request in
  // hand; requests already queued behind it are closed unanswered.
  if (messagePort_localPort)
    messagePort_localPort->setServeGate([] { return !AppDelegate::terminationSignalled(); });
}

void closeMessagePort() { messagePort_localPort.reset(); }

bool messagePortIsOpen() { return messagePort_localPort != nullptr; }

void messagePortReleaseRequestData() {
  if (messagePort_localPort) messagePort_localPort->releaseCurrentRequestData();
}

std::optional<std::vector<uint8_t>> myMessagePortListenerProc(LocalPort* local, int32_t msgid,
                                                              const std::vector<uint8_t>& data,
                                                              void*) {
  const bool logged = RequestLogEnabled();
  const size_t size = data.size();  // the dispatcher may release the block
  const auto start = std::chrono::steady_clock::now();
  CurrentRequestNote() = RequestNote{FourCharText(msgid), {}};
  std::optional<std::vector<uint8_t>> reply;
  std::string failure;
  try {
    reply = MessageAction(msgid, data);
  } catch (const std::exception& e) {
    // The host sees "no reply" for this request; the add-in keeps serving.
    Log("MessageAction exception:%s", e.what());
    failure = e.what();
  } catch (...) {
    Log("MessageAction exception:unknown");
    failure = "unknown";
  }
  if (logged) {
    const double ms = std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
    const RequestNote& note = CurrentRequestNote();
    const std::string outcome =
        failure.empty() ? DescribeOutcome(msgid, note, reply) : "failed: " + failure;
    Log("request log: pid %d %s, %zu bytes, %.1f ms: %s", local ? local->currentPeerPid() : 0,
        note.request.c_str(), size, ms, outcome.c_str());
  }
  return reply;
}

}  // namespace velmora
