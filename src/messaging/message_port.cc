#include "messaging/message_port.h"

#include <exception>
#include <memory>

#include "messaging/log.h"
#include "messaging/message_action.h"

namespace velmora {

namespace {
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
}

void closeMessagePort() { messagePort_localPort.reset(); }

bool messagePortIsOpen() { return messagePort_localPort != nullptr; }

std::optional<std::vector<uint8_t>> myMessagePortListenerProc(LocalPort*, int32_t msgid,
                                                              const std::vector<uint8_t>& data,
                                                              void*) {
  try {
    return MessageAction(msgid, data);
  } catch (const std::exception& e) {
    // The host sees "no reply" for this request; the add-in keeps serving.
    Log("MessageAction exception:%s", e.what());
  } catch (...) {
    Log("MessageAction exception:unknown");
  }
  return std::nullopt;
}

}  // namespace velmora
