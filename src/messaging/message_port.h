#pragma once
// The add-in's request port: one named local port whose messages are served on
// the main thread's event loop and handed to the dispatcher. The send
// functions (the module's client half) are in port_client.h.
#include <cstdint>
#include <optional>
#include <vector>

#include "messaging/local_port.h"
#include "messaging/port_client.h"

namespace velmora {

// Registers the request port under `name` on the calling thread's event loop.
// Whether the name could be taken is not checked: when another process owns
// it, this process simply has no request port.
void initMessagePort(const char* name);
// Unregisters the request port; does nothing when there is none.
void closeMessagePort();
// True while this process serves a request port.
bool messagePortIsOpen();
// Frees the data block of the request being served (see
// LocalPort::releaseCurrentRequestData); does nothing outside a request.
void messagePortReleaseRequestData();

// The port's callback: what MessageAction returns for the message. An
// exception from a service is logged here and leaves the request without reply.
std::optional<std::vector<uint8_t>> myMessagePortListenerProc(LocalPort* local, int32_t msgid,
                                                              const std::vector<uint8_t>& data,
                                                              void* info);

}  // namespace velmora
