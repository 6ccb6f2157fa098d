#include "reply_json.h"

#include <cmath>
#include <cstdio>
#include <cstring>
#include <string_view>

namespace velmora {

namespace {

using namespace archive;

void Quote(std::string_view text, std::string* out) {
  out->push_back('"');
  for (const char ch : text) {
    const auto c = static_cast<unsigned char>(ch);
    switch (c) {
      case '"': *out += "\\\""; break;
      case '\\': *out += "\\\\"; break;
      case '\n': *out += "\\n"; break;
      case '\r': *out += "\\r"; break;
      case '\t': *out += "\\t"; break;
      default:
        if (c < 0x20) {
          char buf[8];
          std::snprintf(buf, sizeof buf, "\\u%04x", c);
          *out += buf;
        } else {
          out->push_back(ch);
        }
    }
  }
  out->push_back('"');
}

void Real(double v, std::string* out) {
  if (!std::isfinite(v)) {
    *out += "null";  // JSON has no NaN or infinity
    return;
  }
  char buf[48];
  std::snprintf(buf, sizeof buf, "%.4f", v);
  // Trailing zeros go; an integral value keeps one decimal so it reads as real.
  std::string text = buf;
  while (text.size() > 2 && text.back() == '0' && text[text.size() - 2] != '.') text.pop_back();
  if (text == "-0.0") text = "0.0";
  *out += text;
}

bool g_compact = false;  // set for the duration of one ToJson call

void Newline(int depth, std::string* out) {
  if (g_compact) return;
  out->push_back('\n');
  out->append(static_cast<size_t>(depth) * 2, ' ');
}

const char* Colon() { return g_compact ? ":" : ": "; }
const char* InlineComma() { return g_compact ? "," : ", "; }

// A Rect: four little-endian int16, top, left, bottom, right.
bool RectJson(const Data& data, std::string* out) {
  if (data.bytes.size() != 8) return false;
  int16_t v[4];
  for (int i = 0; i < 4; ++i)
    v[i] = static_cast<int16_t>(data.bytes[2 * i] | (data.bytes[2 * i + 1] << 8));
  char buf[96];
  if (g_compact)
    std::snprintf(buf, sizeof buf, "{\"top\":%d,\"left\":%d,\"bottom\":%d,\"right\":%d}", v[0], v[1], v[2], v[3]);
  else
    std::snprintf(buf, sizeof buf, "{\"top\": %d, \"left\": %d, \"bottom\": %d, \"right\": %d}", v[0], v[1],
                  v[2], v[3]);
  *out += buf;
  return true;
}

void Emit(const ObjectPtr& object, int depth, bool rects, std::string* out) {
  if (!object) {
    *out += "null";
    return;
  }
  switch (object->kind()) {
    case Kind::Dictionary: {
      const auto dict = AsDictionary(object);
      if (dict->size() == 0) {
        *out += "{}";
        return;
      }
      out->push_back('{');
      bool first = true;
      for (const auto& [key, value] : dict->entries()) {
        if (!first) out->push_back(',');
        first = false;
        Newline(depth + 1, out);
        std::string name;
        if (const auto s = AsString(key)) name = s->text;
        else name = ToJson(key, true);  // keys need not be strings in an archive
        Quote(name, out);
        *out += Colon();
        Emit(value, depth + 1, name == "ocr_rect", out);
      }
      Newline(depth, out);
      out->push_back('}');
      return;
    }
    case Kind::Array: {
      const auto array = AsArray(object);
      if (array->items.empty()) {
        *out += "[]";
        return;
      }
      out->push_back('[');
      for (size_t i = 0; i < array->items.size(); ++i) {
        if (i) out->push_back(',');
        Newline(depth + 1, out);
        Emit(array->items[i], depth + 1, rects, out);
      }
      Newline(depth, out);
      out->push_back(']');
      return;
    }
    case Kind::String:
      Quote(AsString(object)->text, out);
      return;
    case Kind::Number: {
      const auto n = AsNumber(object);
      if (n->is_real()) Real(n->AsDouble(), out);
      else if ((n->type() == 'c' || n->type() == 'B') && (n->AsInt64() == 0 || n->AsInt64() == 1))
        *out += n->AsBool() ? "true" : "false";
      else if (n->is_unsigned()) *out += std::to_string(n->AsUInt64());
      else *out += std::to_string(n->AsInt64());
      return;
    }
    case Kind::Data: {
      const auto data = AsData(object);
      if (rects && RectJson(*data, out)) return;
      Quote(Base64(data->bytes.data(), data->bytes.size()), out);
      return;
    }
    case Kind::Value: {
      const auto value = AsValue(object);
      out->push_back('[');
      const std::vector<double> numbers = value->Numbers();
      for (size_t i = 0; i < numbers.size(); ++i) {
        if (i) *out += InlineComma();
        Real(numbers[i], out);
      }
      out->push_back(']');
      return;
    }
    case Kind::Image: {
      const auto image = AsImage(object);
      const ImageSize size = image->size();
      *out += std::string("{\"image\"") + Colon() + "{\"width\"" + Colon();
      Real(size.width, out);
      *out += std::string(InlineComma()) + "\"height\"" + Colon();
      Real(size.height, out);
      *out += std::string(InlineComma()) + "\"bytes\"" + Colon() + std::to_string(image->bytes().size()) + "}}";
      return;
    }
    case Kind::Unknown: {
      const auto unknown = AsUnknown(object);
      *out += std::string("{\"class\"") + Colon();
      Quote(unknown->classes.empty() ? "" : unknown->classes.front().name, out);
      out->push_back('}');
      return;
    }
  }
  *out += "null";
}

}  // namespace

std::string Base64(const uint8_t* bytes, size_t size) {
  static constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string out;
  out.reserve((size + 2) / 3 * 4);
  size_t i = 0;
  for (; i + 3 <= size; i += 3) {
    const uint32_t v = (bytes[i] << 16) | (bytes[i + 1] << 8) | bytes[i + 2];
    out += {kAlphabet[v >> 18], kAlphabet[(v >> 12) & 63], kAlphabet[(v >> 6) & 63], kAlphabet[v & 63]};
  }
  if (size - i == 1) {
    const uint32_t v = bytes[i] << 16;
    out += {kAlphabet[v >> 18], kAlphabet[(v >> 12) & 63], '=', '='};
  } else if (size - i == 2) {
    const uint32_t v = (bytes[i] << 16) | (bytes[i + 1] << 8);
    out += {kAlphabet[v >> 18], kAlphabet[(v >> 12) & 63], kAlphabet[(v >> 6) & 63], '='};
  }
  return out;
}

std::string ToJson(const ObjectPtr& object, bool compact) {
  std::string out;
  const bool outer = g_compact;  // a non-string key is rendered inside another call
  g_compact = compact;
  Emit(object, 0, false, &out);
  g_compact = outer;
  return out;
}

}  // namespace velmora
