#pragma once
// Named message ports on Linux: the client half. A host program links the
// `velmora_client` library (no Qt) and talks to the add-in with these calls.
//
// A port is a Unix domain stream socket `<name>.sock` in the user's private
// port folder ($XDG_RUNTIME_DIR/velmora, else /tmp/velmora-<uid>), owned by
// whoever holds the flock on `<name>.lock`. One exchange per connection:
//   request: "VMPQ", int32 message id, uint32 flags (bit 0: reply wanted),
//            uint32 length, then the bytes;
//   reply:   "VMPR", uint32 1 when a reply block follows and 0 for none,
//            uint32 length, then the bytes.
// All integers are little-endian.
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace velmora {

// Status codes of the send functions, numbered as the original port service.
enum PortStatus : int32_t {
  kPortSuccess = 0,
  kPortSendTimeout = -1,       // also: no process has registered the name
  kPortReceiveTimeout = -2,
  kPortIsInvalid = -3,
  kPortTransportError = -4,
  kPortBecameInvalid = -5,     // the server closed the exchange without a reply frame
};

inline constexpr uint32_t kPortMaxFrameLength = 512u * 1024u * 1024u;
inline constexpr double kSendTimeoutSeconds = 5.0;
inline constexpr double kReceiveTimeoutSeconds = 5.0;
inline constexpr double kLongReceiveTimeoutSeconds = 30.0;

// Four-character codes read big-endian, as message ids are written ('data').
constexpr int32_t FourCharCode(const char (&code)[5]) {
  return static_cast<int32_t>((static_cast<uint32_t>(static_cast<uint8_t>(code[0])) << 24) |
                              (static_cast<uint32_t>(static_cast<uint8_t>(code[1])) << 16) |
                              (static_cast<uint32_t>(static_cast<uint8_t>(code[2])) << 8) |
                              static_cast<uint32_t>(static_cast<uint8_t>(code[3])));
}

// The user's port folder. With `create`, it is made (mode 0700) when missing.
// Empty when the folder is unusable: not a real folder, owned by another user,
// or accessible to group or others.
std::string PortDirectory(bool create);
// Where the port folder is looked for, whether usable or not (for messages).
std::string PortDirectoryLocation();

// Path of `<name><suffix>` in the port folder; empty when the name is unusable
// (empty, contains '/', or too long for a socket address) or there is no folder.
std::string PortPath(const std::string& name, const char* suffix, bool create_directory);

struct PortReply {
  bool present = false;          // the server's callback gave a reply block
  std::vector<uint8_t> data;     // empty for "no reply"
};

struct PortSendOptions {
  double send_timeout = kSendTimeoutSeconds;        // connect + whole request
  double receive_timeout = kReceiveTimeoutSeconds;  // whole reply, after the request is out
  bool want_reply = true;
};

// Whether a process has registered `name`: its socket exists and accepts
// connections (a full backlog counts as registered). Never blocks.
bool PortIsRegistered(const std::string& name);

// One exchange with the named port; the caller's bytes are written as they are,
// never copied. `reply` may be null when no reply is wanted.
int32_t SendPortRequest(const std::string& name, int32_t msgid, const void* bytes, size_t length,
                        const PortSendOptions& options, PortReply* reply);

// The send functions of the original module. `reply` receives the reply block,
// empty for "no reply".
int32_t SendMessage(const char* name, int32_t msgid, const uint8_t* bytes, int32_t length);
int32_t SendMessageWait(const char* name, int32_t msgid, const uint8_t* bytes, int32_t length,
                        std::vector<uint8_t>* reply);
// For large payloads with slow answers: 30 s receive timeout.
int32_t HS_SendMessageWait(const char* name, int32_t msgid, const uint8_t* bytes, int32_t length,
                           std::vector<uint8_t>* reply);
// Message id 'str ', the string's bytes including the terminating zero.
int32_t SendStringMessage(const char* name, const char* string);

// Little-endian frame header helpers shared by client and server.
namespace wire {
inline constexpr char kRequestMagic[4] = {'V', 'M', 'P', 'Q'};
inline constexpr char kReplyMagic[4] = {'V', 'M', 'P', 'R'};
inline constexpr size_t kRequestHeaderSize = 16;
inline constexpr size_t kReplyHeaderSize = 12;
inline constexpr uint32_t kFlagWantReply = 1;

inline void PutU32(uint8_t* p, uint32_t v) {
  p[0] = static_cast<uint8_t>(v);
  p[1] = static_cast<uint8_t>(v >> 8);
  p[2] = static_cast<uint8_t>(v >> 16);
  p[3] = static_cast<uint8_t>(v >> 24);
}
inline uint32_t GetU32(const uint8_t* p) {
  return static_cast<uint32_t>(p[0]) | (static_cast<uint32_t>(p[1]) << 8) |
         (static_cast<uint32_t>(p[2]) << 16) | (static_cast<uint32_t>(p[3]) << 24);
}
}  // namespace wire

}  // namespace velmora
