#pragma once
// The add-in's client of the side-camera server, a separate process that owns
// the port "jp.co.velmora.sidecamserver.message": a process-wide controller
// with one-way sends, sends with a reply, sends of archived dictionaries, and
// a few fixed commands.
//
// The status conventions differ between methods on purpose:
//  - the boolean forms are true when sent (and, for replies, a reply came);
//  - the rcvTimeout forms return 0 on success, kSideCamNoReply (5) when the
//    server is not running or gave no reply, else the port's negative status.
#include <cstdint>
#include <vector>

#include "archive/archive.h"
#include "messaging/port_client.h"

namespace velmora {

inline constexpr char kSideCamServerPortName[] = "jp.co.velmora.sidecamserver.message";

inline constexpr int32_t MessageIdSideQuit = FourCharCode("quit");
inline constexpr int32_t MessageIdSideReceiver = FourCharCode("srcv");
inline constexpr int32_t MessageIdSideImagesDone = FourCharCode("simg");
inline constexpr int32_t MessageIdSideCapture = FourCharCode("scap");
inline constexpr int32_t MessageIdSide3DCheck = FourCharCode("3D02");
inline constexpr int32_t MessageIdSide3DImages = FourCharCode("3D01");

// Keys of the stereo exchange.
inline constexpr char kSide3DErrorResult[] = "3d_errorResult";
inline constexpr char kSideCalibImageType[] = "calibImageType";
inline constexpr char kSideImageKeyFormat[] = "sideImage_%02d";

// Status of the rcvTimeout forms when there is no server or no reply.
inline constexpr int32_t kSideCamNoReply = 5;

class sideCamServerController {
 public:
  // The process-wide controller, made on first use and never destroyed.
  static sideCamServerController* sharedController();

  sideCamServerController() = default;
  // Unregisters itself as the shared controller and tells the server 'quit'.
  ~sideCamServerController();
  sideCamServerController(const sideCamServerController&) = delete;
  sideCamServerController& operator=(const sideCamServerController&) = delete;

  // sendMessage:sendData: — one-way; `data` may be null (no bytes).
  bool sendMessageSendData(int32_t msgid, const std::vector<uint8_t>* data);
  // sendMessage:sendDictionary: — the dictionary as a binary property list,
  // sent through the shared controller.
  bool sendMessageSendDictionary(int32_t msgid, const archive::ObjectPtr& dictionary);
  // sendMessageWithReply:sendData:replyData: — 5 s / 5 s.
  bool sendMessageWithReply(int32_t msgid, const std::vector<uint8_t>* data, std::vector<uint8_t>* replyData);
  // sendMessageWithReply:sendData:replyData:rcvTimeout:
  int32_t sendMessageWithReply(int32_t msgid, const std::vector<uint8_t>* data, std::vector<uint8_t>* replyData,
                               double rcvTimeout);
  // sendMessageWithArchivedDictReply:sendDictionary:replyDictionary: — the
  // dictionary (or nothing) archived, the reply unarchived into
  // `replyDictionary` when one came. A reply that does not unarchive throws
  // archive::ArchiveError.
  bool sendMessageWithArchivedDictReply(int32_t msgid, const archive::ObjectPtr& dictionary,
                                        archive::ObjectPtr* replyDictionary);
  int32_t sendMessageWithArchivedDictReply(int32_t msgid, const archive::ObjectPtr& dictionary,
                                           archive::ObjectPtr* replyDictionary, double rcvTimeout);

  // 'srcv' with the string's bytes, without the terminating zero.
  void setRecvier(const char* string);
  // 'simg' with currentPositionInfo as a binary property list.
  void setImagesDone();
  // 'scap' without data.
  void doCapture();

  const archive::ObjectPtr& currentPositionInfo() const { return mCurrentPositionInfo; }
  void setCurrentPositionInfo(archive::ObjectPtr info) { mCurrentPositionInfo = std::move(info); }

  void resetDoMatchingTime();
  uint64_t doMatchingTime() const;

 private:
  struct Point {
    double x = 0, y = 0;
  };
  archive::ObjectPtr mCurrentPositionInfo;
  // Kept as two halves, low then high, as the server's own records have it.
  struct {
    uint32_t low = 0, high = 0;
  } mDoMatchingTime;
  Point mCenterPoint[10];  // declared by the original interface; no method uses it
};

}  // namespace velmora
