#include "messaging/side_cam_server_controller.h"

#include <cstring>
#include <memory>

#include "archive/property_list.h"
#include "messaging/log.h"

namespace velmora {

namespace {

sideCamServerController* serverController = nullptr;

int32_t Narrow(int32_t status) { return static_cast<int32_t>(static_cast<int16_t>(status)); }

// One exchange with the server; nullopt when no process has registered its port.
std::optional<int32_t> Exchange(int32_t msgid, const std::vector<uint8_t>* data, bool want_reply,
                                double receive_timeout, PortReply* reply) {
  if (!PortIsRegistered(kSideCamServerPortName)) return std::nullopt;
  PortSendOptions options;
  options.send_timeout = kSendTimeoutSeconds;
  options.receive_timeout = receive_timeout;
  options.want_reply = want_reply;
  const uint8_t* bytes = data ? data->data() : nullptr;
  const size_t length = data ? data->size() : 0;
  return Narrow(SendPortRequest(kSideCamServerPortName, msgid, bytes, length, options, reply));
}

// A reply block with bytes; an exchange answered with "no reply" (or nothing
// to read) has none.
bool HasReplyBlock(const PortReply& reply) { return reply.present && !reply.data.empty(); }

std::vector<uint8_t> BinaryPlist(const archive::ObjectPtr& dictionary, bool* ok) {
  try {
    *ok = dictionary != nullptr;
    return *ok ? archive::EncodePropertyList(dictionary, archive::PlistFormat::kBinary) : std::vector<uint8_t>();
  } catch (const archive::ArchiveError&) {
    *ok = false;
    return {};
  }
}

}  // namespace

sideCamServerController* sideCamServerController::sharedController() {
  if (!serverController) {
    // Deliberately never destroyed: destruction would send 'quit' at exit.
    serverController = std::make_unique<sideCamServerController>().release();
  }
  return serverController;
}

sideCamServerController::~sideCamServerController() {
  if (serverController == this) serverController = nullptr;
  sendMessageSendData(MessageIdSideQuit, nullptr);
}

bool sideCamServerController::sendMessageSendData(int32_t msgid, const std::vector<uint8_t>* data) {
  const auto status = Exchange(msgid, data, false, kReceiveTimeoutSeconds, nullptr);
  return status && *status == kPortSuccess;
}

bool sideCamServerController::sendMessageSendDictionary(int32_t msgid, const archive::ObjectPtr& dictionary) {
  bool ok = false;
  const std::vector<uint8_t> plist = BinaryPlist(dictionary, &ok);
  // A dictionary that does not encode goes out as a message without data.
  return sharedController()->sendMessageSendData(msgid, ok ? &plist : nullptr);
}

bool sideCamServerController::sendMessageWithReply(int32_t msgid, const std::vector<uint8_t>* data,
                                                   std::vector<uint8_t>* replyData) {
  PortReply reply;
  const auto status = Exchange(msgid, data, true, kReceiveTimeoutSeconds, &reply);
  if (!status || *status != kPortSuccess || !HasReplyBlock(reply) || !replyData) return false;
  *replyData = std::move(reply.data);
  return true;
}

int32_t sideCamServerController::sendMessageWithReply(int32_t msgid, const std::vector<uint8_t>* data,
                                                      std::vector<uint8_t>* replyData, double rcvTimeout) {
  PortReply reply;
  const auto status = Exchange(msgid, data, true, rcvTimeout, &reply);
  if (!status) return kSideCamNoReply;
  if (*status != kPortSuccess) return *status;
  if (!HasReplyBlock(reply) || !replyData) return kSideCamNoReply;
  *replyData = std::move(reply.data);
  return kPortSuccess;
}

bool sideCamServerController::sendMessageWithArchivedDictReply(int32_t msgid, const archive::ObjectPtr& dictionary,
                                                               archive::ObjectPtr* replyDictionary) {
  const std::vector<uint8_t> request = dictionary ? archive::Archive(dictionary) : std::vector<uint8_t>();
  std::vector<uint8_t> reply;
  const bool ok = sharedController()->sendMessageWithReply(msgid, dictionary ? &request : nullptr, &reply);
  if (ok && replyDictionary) *replyDictionary = archive::Unarchive(reply);
  return ok;
}

int32_t sideCamServerController::sendMessageWithArchivedDictReply(int32_t msgid, const archive::ObjectPtr& dictionary,
                                                                  archive::ObjectPtr* replyDictionary,
                                                                  double rcvTimeout) {
  const std::vector<uint8_t> request = dictionary ? archive::Archive(dictionary) : std::vector<uint8_t>();
  std::vector<uint8_t> reply;
  const int32_t status =
      sharedController()->sendMessageWithReply(msgid, dictionary ? &request : nullptr, &reply, rcvTimeout);
  if (status == kPortSuccess && replyDictionary) *replyDictionary = archive::Unarchive(reply);
  return status;
}

void sideCamServerController::setRecvier(const char* string) {
  const std::vector<uint8_t> bytes(string, string ? string + std::strlen(string) : string);
  sendMessageSendData(MessageIdSideReceiver, string ? &bytes : nullptr);
}

void sideCamServerController::setImagesDone() {
  bool ok = false;
  const std::vector<uint8_t> plist = BinaryPlist(mCurrentPositionInfo, &ok);
  sendMessageSendData(MessageIdSideImagesDone, ok ? &plist : nullptr);
}

void sideCamServerController::doCapture() { sendMessageSendData(MessageIdSideCapture, nullptr); }

void sideCamServerController::resetDoMatchingTime() {
  Log("%s", "-[sideCamServerController resetDoMatchingTime]");
  mDoMatchingTime.low = 0;
  mDoMatchingTime.high = 0;
}

uint64_t sideCamServerController::doMatchingTime() const {
  return (static_cast<uint64_t>(mDoMatchingTime.high) << 32) | mDoMatchingTime.low;
}

}  // namespace velmora
