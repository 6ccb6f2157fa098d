#include "messaging/request_log.h"

#include <cmath>
#include <cstdio>
#include <cstdlib>

#include "archive/raw_bitmap.h"
#include "messaging/protocol.h"

namespace velmora {

RequestNote& CurrentRequestNote() {
  static RequestNote note;
  return note;
}

namespace {

std::string Quoted(const std::string& text) {
  std::string out = "\"";
  for (const char ch : text) {
    if (ch == '"' || ch == '\\') out += '\\';
    if (static_cast<unsigned char>(ch) < 0x20) out += ' ';
    else out += ch;
  }
  return out + "\"";
}

std::string DescribeData(const RequestNote& note, const std::vector<uint8_t>& block) {
  const std::optional<std::vector<uint8_t>> body = EnvelopeBody(block);
  if (!body) return "reply without envelope";
  if (note.request.find(" 103 ") != std::string::npos)
    return "preview of " + std::to_string(body->size()) + " bytes";
  if (body->empty()) return "nothing";
  archive::ObjectPtr reply;
  try {
    reply = archive::Unarchive(*body);
  } catch (const std::exception&) {
    return "reply of " + std::to_string(body->size()) + " bytes";
  }
  if (const auto records = archive::AsArray(reply)) {
    if (note.request.find(" 102 ") != std::string::npos)
      return std::to_string(records->items.size()) + " font families";
    std::string texts;
    for (const auto& record : records->items) {
      const std::string text = archive::ReadString(record, "ocr_text").value_or("");
      if (text.empty()) continue;
      texts += (texts.empty() ? "" : ", ") + Quoted(text);
    }
    return texts.empty() ? "nothing read" : "text read " + texts;
  }
  if (const auto dict = archive::AsDictionary(reply)) {
    if (auto text = archive::ReadString(reply, "decode_text")) return "code read " + Quoted(*text);
    if (dict->Get("isHalconExist"))
      return archive::ReadBool(reply, "isHalconExist") ? "vision library present" : "vision library absent";
    return dict->size() == 0 ? "nothing read" : "answered";
  }
  return "answered";
}

}  // namespace

std::string DescribeOutcome(int32_t msgid, const RequestNote& note,
                            const std::optional<std::vector<uint8_t>>& reply) {
  if (!note.refusal.empty()) return "refused: " + note.refusal;
  if (!reply) return "no reply";
  if (msgid == MessageIdData) return DescribeData(note, *reply);
  if (msgid == MessageIdStereoStart) return "acknowledged";
  return "reply of " + std::to_string(reply->size()) + " bytes";
}

int64_t MaxImagePixels() {
  if (const char* v = std::getenv("VELMORA_MAX_IMAGE_MEGAPIXELS"); v && *v) {
    char* end = nullptr;
    const double mp = std::strtod(v, &end);
    if (end != v && *end == '\0' && std::isfinite(mp) && mp > 0) return static_cast<int64_t>(mp * 1e6);
  }
  return 64'000'000;
}

std::string ImageRefusal(const archive::ObjectPtr& object) {
  const auto image = archive::AsImage(object);
  if (!image) return {};
  const auto& bytes = image->bytes();
  const std::optional<archive::PixelSize> size = archive::ProbePixelSize(bytes.data(), bytes.size());
  if (!size) return {};  // not a header we know; the decoder's own bounds apply
  const int64_t pixels = size->width * size->height;
  const int64_t limit = MaxImagePixels();
  if (pixels <= limit) return {};
  char text[200];
  std::snprintf(text, sizeof text,
                "image of %lld x %lld pixels (%.1f megapixels) is above the limit of %.1f megapixels",
                static_cast<long long>(size->width), static_cast<long long>(size->height), pixels / 1e6,
                limit / 1e6);
  return text;
}

}  // namespace velmora
