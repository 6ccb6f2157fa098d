#pragma once
// The request protocol: every message on the request port goes through
// MessageAction, which decodes the envelope and archive, calls one service of
// the application delegate (or the stereo job) and returns the reply.
// 'data' bodies are the archive of {"messageId", "image", "attribute"};
// '3DM1' and '3DM2' carry bare archives.
#include <cstdint>
#include <optional>
#include <vector>

#include "messaging/protocol.h"

namespace velmora {

class AppDelegate;

// nullopt means "no reply". Exceptions of the archive codec and of services
// that do not catch their own pass through unchanged.
std::optional<std::vector<uint8_t>> MessageAction(int32_t msgid, const std::vector<uint8_t>& data);
// The same with an explicit delegate (null: every service answers null).
std::optional<std::vector<uint8_t>> MessageAction(AppDelegate* delegate, int32_t msgid,
                                                  const std::vector<uint8_t>& data);

}  // namespace velmora
