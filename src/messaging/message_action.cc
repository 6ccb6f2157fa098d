#include "messaging/message_action.h"

#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <stdexcept>
#include <string>

#include <QCoreApplication>

#include "app/app_delegate.h"
#include "archive/archive.h"
#include "messaging/log.h"
#include "messaging/message_port.h"
#include "stereo/reconstruction_job.h"
#include "messaging/log.h"
#include "messaging/request_log.h"

namespace velmora {

namespace {

// The current stereo job, owned here; only the main thread touches it.
std::shared_ptr<ObjectModel3D> gObjectModel3D;

// Lets go of the current job; its window closes once no run holds it.
void ReleaseJob() {
  if (!gObjectModel3D) return;
  gObjectModel3D->abandon();
  gObjectModel3D.reset();
}

// At application end the job goes before the application object does, and a
// reconstruction still going gets a few seconds to finish; one that does not
// would run on into the teardown, so the process ends without it.
void WatchApplicationEnd() {
  static bool watching = false;
  QCoreApplication* app = QCoreApplication::instance();
  if (watching || !app) return;
  watching = true;
  QObject::connect(app, &QCoreApplication::aboutToQuit, [] {
    ReleaseJob();
    if (!ObjectModel3D::finishRuns(5.0)) {
      Log("stereo reconstruction still running at exit; ending without it");
      std::_Exit(0);
    }
  });
}

std::optional<std::vector<uint8_t>> Enveloped(const std::vector<uint8_t>& body) {
  try {
    return Envelope(body);
  } catch (const std::bad_alloc&) {
    return std::nullopt;  // no memory for the reply buffer: no reply
  }
}

const char* RequestName(uint64_t number) {
  switch (number) {
    case RequestLibraryStatus: return "(status)";
    case RequestOcrImage: return "(OCR)";
    case RequestInstalledFonts: return "(fonts)";
    case RequestOcrFilteredImage: return "(preview)";
    case RequestDecodeImage: return "(decode)";
    case RequestTerminate: return "(terminate)";
    default: return "(unknown)";
  }
}

// The request's image, or null when it is too large to decode: the service
// then answers as it does without an image.
archive::ObjectPtr AdmittedImage(archive::ObjectPtr image) {
  std::string refusal = ImageRefusal(image);
  if (refusal.empty()) {
    // The service converts it once; its pixels may go as soon as it has.
    if (const auto img = archive::AsImage(image)) img->SetConvertedOnce();
    return image;
  }
  Log("request refused: %s", refusal.c_str());
  CurrentRequestNote().refusal = std::move(refusal);
  return nullptr;
}

std::optional<std::vector<uint8_t>> DataRequest(AppDelegate* delegate, const std::vector<uint8_t>& data) {
  // Shorter than the envelope reads as a wrong magic; the length field is not
  // trusted, the body is the rest of the block.
  if (data.size() < EnvelopeHeaderSize) return std::nullopt;
  uint32_t magic;
  std::memcpy(&magic, data.data(), sizeof magic);
  if (magic != EnvelopeMagic) return std::nullopt;

  const archive::ObjectPtr request =
      archive::Unarchive(data.data() + EnvelopeHeaderSize, data.size() - EnvelopeHeaderSize);
  // Decoded: the request's bytes are not read again (`data` is empty from here).
  messagePortReleaseRequestData();
  if (request && request->kind() != archive::Kind::Dictionary)
    throw std::invalid_argument("request body is not a dictionary");
  const uint64_t number = static_cast<uint64_t>(archive::ReadInt(request, "messageId"));
  CurrentRequestNote().request = "'data' " + std::to_string(number) + " " + RequestName(number);

  switch (number) {
    case RequestOcrImage: {
      const archive::ObjectPtr image = AdmittedImage(archive::ReadObject(request, "image"));
      archive::ObjectPtr result;
      if (image && delegate) result = delegate->ocrImage(image, archive::ReadObject(request, "attribute"));
      if (!result) result = archive::MakeArray();
      return Enveloped(archive::Archive(result));
    }
    case RequestInstalledFonts: {
      const archive::ObjectPtr fonts = delegate ? delegate->installedFonts() : nullptr;
      return Enveloped(fonts ? archive::Archive(fonts) : std::vector<uint8_t>{});
    }
    case RequestOcrFilteredImage: {
      const archive::ObjectPtr image = AdmittedImage(archive::ReadObject(request, "image"));
      if (!image || !delegate) return std::nullopt;
      std::optional<std::vector<uint8_t>> body =
          delegate->ocrFilteredImage(image, archive::ReadObject(request, "attribute"));
      if (!body) return std::nullopt;
      return Enveloped(*body);
    }
    case RequestDecodeImage: {
      const archive::ObjectPtr image = AdmittedImage(archive::ReadObject(request, "image"));
      archive::ObjectPtr result;
      if (image && delegate) result = delegate->decodeImage(image, archive::ReadObject(request, "attribute"));
      if (!result) result = archive::MakeDictionary();
      return Enveloped(archive::Archive(result));
    }
    case RequestLibraryStatus: {
      auto status = archive::MakeDictionary();
      status->Set("isHalconExist", archive::MakeBool(delegate && delegate->isHalconFrameworkExist()));
      return Enveloped(archive::Archive(status));
    }
    case RequestTerminate: {
      auto reply = Enveloped(archive::Archive(archive::MakeDictionary()));
      // Queued on the main thread: the reply goes out before termination starts.
      if (delegate) delegate->scheduleTerminate();
      return reply;
    }
    default:
      return std::nullopt;
  }
}

std::vector<uint8_t> StereoStart(const std::vector<uint8_t>& data) {
  // The old job goes before the new request is even decoded.
  ReleaseJob();
  WatchApplicationEnd();
  const archive::ObjectPtr parameters =
      data.empty() ? nullptr : archive::Unarchive(data.data(), data.size());
  if (parameters) {
    gObjectModel3D = ObjectModel3D::create();
    gObjectModel3D->createWindow(parameters);
    if (gObjectModel3D->stereoReconstruct(parameters) != 0) ReleaseJob();
  }
  // The acknowledgement is fixed, whether or not a job started.
  auto reply = archive::MakeDictionary();
  reply->Set(Stereo_Reconstruct_ErrorResult, archive::MakeInt32(StereoStartReplyCode));
  return archive::Archive(reply);
}

}  // namespace

std::optional<std::vector<uint8_t>> MessageAction(AppDelegate* delegate, int32_t msgid,
                                                  const std::vector<uint8_t>& data) {
  switch (msgid) {
    case MessageIdData:
      return DataRequest(delegate, data);
    case MessageIdStereoStart:
      return StereoStart(data);
    case MessageIdStereoClose:
      ReleaseJob();
      return std::nullopt;
    default:
      return std::nullopt;
  }
}

std::optional<std::vector<uint8_t>> MessageAction(int32_t msgid, const std::vector<uint8_t>& data) {
  return MessageAction(AppDelegate::shared(), msgid, data);
}

}  // namespace velmora
