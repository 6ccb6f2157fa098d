// libFuzzer: MessageAction on arbitrary message blocks, as the request port
// hands them over. An exception is a refused request (the listener catches
// it); a crash, leak or hang is a bug.
#include <cstddef>
#include <cstdint>
#include <exception>
#include <vector>

#include "app/app_delegate.h"
#include "messaging/message_action.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  // A delegate without ports or application object: only the services run.
  static velmora::AppDelegate delegate;
  const std::vector<uint8_t> block(data, data + size);
  // The first byte picks the message id, so '3DM1' bare archives get fuzzed too.
  const int32_t msgid = size > 0 && (data[0] & 0x80) && (data[0] & 0x40) ? velmora::MessageIdStereoStart
                                                                           : velmora::MessageIdData;
  try {
    velmora::MessageAction(&delegate, msgid, block);
  } catch (const std::exception&) {
  }
  return 0;
}
