// The archive object model: accessors, factories and tolerant readers.
#include <cctype>
#include <cmath>
#include <cstdlib>
#include <limits>

#include "archive/archive.h"

namespace velmora::archive {

namespace {

template <class T, Kind K>
std::shared_ptr<T> KindCast(const ObjectPtr& object) {
  if (!object || object->kind() != K) return nullptr;
  return std::static_pointer_cast<T>(object);
}

bool IsUnsignedType(char t) { return t == 'C' || t == 'S' || t == 'I' || t == 'L' || t == 'Q'; }

void CollectNumbers(const Field& f, std::vector<double>* out) {
  switch (f.type) {
    case Field::Type::Int: out->push_back(static_cast<double>(f.i)); break;
    case Field::Type::UInt: out->push_back(static_cast<double>(f.u)); break;
    case Field::Type::Real: out->push_back(f.d); break;
    case Field::Type::Compound:
      for (const Field& e : f.elements) CollectNumbers(e, out);
      break;
    default: break;
  }
}

bool HasDoubleLeaf(const Field& f) {
  if (f.type == Field::Type::Real) return f.encoding == "d";
  for (const Field& e : f.elements)
    if (HasDoubleLeaf(e)) return true;
  return false;
}

Field RealField(char type, double v) {
  Field f;
  f.type = Field::Type::Real;
  f.encoding = std::string(1, type);
  f.d = v;
  return f;
}

Field Compound(std::string encoding, std::vector<Field> elements) {
  Field f;
  f.type = Field::Type::Compound;
  f.encoding = std::move(encoding);
  f.elements = std::move(elements);
  return f;
}

// The platform's `integerValue`: skip leading white space, optional sign, digits.
int64_t ParseLeadingInteger(const std::string& s) {
  std::size_t i = 0;
  while (i < s.size() && std::isspace(static_cast<unsigned char>(s[i]))) ++i;
  bool negative = false;
  if (i < s.size() && (s[i] == '+' || s[i] == '-')) negative = s[i++] == '-';
  int64_t value = 0;
  constexpr int64_t kMax = std::numeric_limits<int64_t>::max();
  for (; i < s.size() && std::isdigit(static_cast<unsigned char>(s[i])); ++i) {
    const int digit = s[i] - '0';
    if (value > (kMax - digit) / 10) return negative ? std::numeric_limits<int64_t>::min() : kMax;
    value = value * 10 + digit;
  }
  return negative ? -value : value;
}

double ParseLeadingReal(const std::string& s) {
  // strtod honours the C locale only, which is what the platform's doubleValue
  // does (no locale-specific decimal separator).
  char* end = nullptr;
  const double v = std::strtod(s.c_str(), &end);
  return end == s.c_str() ? 0.0 : v;
}

// The platform's `boolValue`: after white space, signs and leading zeros, true
// on Y, y, T, t or a digit 1-9.
bool ParseBool(const std::string& s) {
  std::size_t i = 0;
  while (i < s.size() && std::isspace(static_cast<unsigned char>(s[i]))) ++i;
  while (i < s.size() && (s[i] == '+' || s[i] == '-')) ++i;
  while (i < s.size() && s[i] == '0') ++i;
  if (i == s.size()) return false;
  const char c = s[i];
  return c == 'Y' || c == 'y' || c == 'T' || c == 't' || (c >= '1' && c <= '9');
}

}  // namespace

// ---- Dictionary --------------------------------------------------------------

ObjectPtr Dictionary::Get(std::string_view key) const {
  for (const auto& [k, v] : entries_) {
    if (k && k->kind() == Kind::String && static_cast<const String&>(*k).text == key) return v;
  }
  return nullptr;
}

void Dictionary::Set(std::string_view key, ObjectPtr value) {
  for (auto& [k, v] : entries_) {
    if (k && k->kind() == Kind::String && static_cast<const String&>(*k).text == key) {
      v = std::move(value);
      return;
    }
  }
  entries_.emplace_back(MakeString(std::string(key)), std::move(value));
}

void Dictionary::Append(ObjectPtr key, ObjectPtr value) { entries_.emplace_back(std::move(key), std::move(value)); }

// ---- Number ------------------------------------------------------------------

std::shared_ptr<Number> Number::Signed(char type, int64_t value) {
  return std::make_shared<Number>(type, static_cast<uint64_t>(value), 0.0);
}

std::shared_ptr<Number> Number::Unsigned(char type, uint64_t value) { return std::make_shared<Number>(type, value, 0.0); }

std::shared_ptr<Number> Number::Real(char type, double value) { return std::make_shared<Number>(type, 0, value); }

bool Number::is_unsigned() const { return IsUnsignedType(type_); }

int64_t Number::AsInt64() const {
  if (is_real()) {
    if (std::isnan(real_)) return 0;
    if (real_ >= 9.2233720368547758e18) return std::numeric_limits<int64_t>::max();
    if (real_ <= -9.2233720368547758e18) return std::numeric_limits<int64_t>::min();
    return static_cast<int64_t>(real_);
  }
  return static_cast<int64_t>(bits_);
}

uint64_t Number::AsUInt64() const {
  if (is_real()) return static_cast<uint64_t>(AsInt64());
  return bits_;
}

double Number::AsDouble() const {
  if (is_real()) return real_;
  return is_unsigned() ? static_cast<double>(bits_) : static_cast<double>(static_cast<int64_t>(bits_));
}

// ---- Value -------------------------------------------------------------------

Value::Shape Value::shape() const {
  // Struct names of both host widths: CGRect / _NSRect / NSRect and so on.
  const std::string_view e = encoding;
  const auto name_is = [&](std::string_view a, std::string_view b, std::string_view c) {
    return e.starts_with(std::string("{") + std::string(a) + "=") ||
           e.starts_with(std::string("{") + std::string(b) + "=") ||
           e.starts_with(std::string("{") + std::string(c) + "=");
  };
  if (name_is("CGRect", "_NSRect", "NSRect")) return Shape::Rect;
  if (name_is("CGPoint", "_NSPoint", "NSPoint")) return Shape::Point;
  if (name_is("CGSize", "_NSSize", "NSSize")) return Shape::Size;
  return Shape::Other;
}

bool Value::wide() const { return HasDoubleLeaf(value); }

std::vector<double> Value::Numbers() const {
  std::vector<double> out;
  CollectNumbers(value, &out);
  return out;
}

// ---- Image -------------------------------------------------------------------

Image::Image(std::shared_ptr<Data> encoded, std::optional<ImageSize> size)
    : Object(Kind::Image), encoded_(encoded ? std::move(encoded) : std::make_shared<Data>()), size_(size) {}

const std::vector<uint8_t>& Image::bytes() const { return encoded_->bytes; }

ImageSize Image::size() const {
  if (size_) return *size_;
  const RawBitmap& b = Bitmap();
  return {static_cast<double>(b.width), static_cast<double>(b.height)};
}

const RawBitmap& Image::Bitmap() const {
  if (!bitmap_) {
    const auto& b = encoded_->bytes;
    if (b.empty()) throw ArchiveError("image carries no image bytes");
    bitmap_ = std::make_shared<const RawBitmap>(IsTiff(b.data(), b.size()) ? DecodeTiff(b.data(), b.size())
                                                                           : DecodeImageFile(b.data(), b.size()));
  }
  return *bitmap_;
}

// ---- casts -------------------------------------------------------------------

std::shared_ptr<Dictionary> AsDictionary(const ObjectPtr& o) { return KindCast<Dictionary, Kind::Dictionary>(o); }
std::shared_ptr<Array> AsArray(const ObjectPtr& o) { return KindCast<Array, Kind::Array>(o); }
std::shared_ptr<String> AsString(const ObjectPtr& o) { return KindCast<String, Kind::String>(o); }
std::shared_ptr<Number> AsNumber(const ObjectPtr& o) { return KindCast<Number, Kind::Number>(o); }
std::shared_ptr<Data> AsData(const ObjectPtr& o) { return KindCast<Data, Kind::Data>(o); }
std::shared_ptr<Value> AsValue(const ObjectPtr& o) { return KindCast<Value, Kind::Value>(o); }
std::shared_ptr<Image> AsImage(const ObjectPtr& o) { return KindCast<Image, Kind::Image>(o); }
std::shared_ptr<Unknown> AsUnknown(const ObjectPtr& o) { return KindCast<Unknown, Kind::Unknown>(o); }

// ---- factories ---------------------------------------------------------------

std::shared_ptr<Dictionary> MakeDictionary() { return std::make_shared<Dictionary>(); }
std::shared_ptr<Array> MakeArray(std::vector<ObjectPtr> items) {
  auto a = std::make_shared<Array>();
  a->items = std::move(items);
  return a;
}
std::shared_ptr<String> MakeString(std::string text) { return std::make_shared<String>(std::move(text)); }
std::shared_ptr<Number> MakeBool(bool value) { return Number::Signed('c', value ? 1 : 0); }
std::shared_ptr<Number> MakeInt32(int32_t value) { return Number::Signed('i', value); }
std::shared_ptr<Number> MakeInt64(int64_t value) { return Number::Signed('q', value); }
std::shared_ptr<Number> MakeDouble(double value) { return Number::Real('d', value); }
std::shared_ptr<Number> MakeFloat(float value) { return Number::Real('f', value); }
std::shared_ptr<Data> MakeData(std::vector<uint8_t> bytes) { return std::make_shared<Data>(std::move(bytes)); }

std::shared_ptr<Value> MakeRect(double x, double y, double width, double height) {
  return std::make_shared<Value>(
      "{CGRect={CGPoint=dd}{CGSize=dd}}",
      Compound("{CGRect={CGPoint=dd}{CGSize=dd}}",
               {Compound("{CGPoint=dd}", {RealField('d', x), RealField('d', y)}),
                Compound("{CGSize=dd}", {RealField('d', width), RealField('d', height)})}));
}

std::shared_ptr<Value> MakePoint(double x, double y) {
  return std::make_shared<Value>("{CGPoint=dd}", Compound("{CGPoint=dd}", {RealField('d', x), RealField('d', y)}));
}

std::shared_ptr<Value> MakeSize(double width, double height) {
  return std::make_shared<Value>("{CGSize=dd}",
                                 Compound("{CGSize=dd}", {RealField('d', width), RealField('d', height)}));
}

std::shared_ptr<Value> MakeRect32(float x, float y, float width, float height) {
  return std::make_shared<Value>(
      "{_NSRect={_NSPoint=ff}{_NSSize=ff}}",
      Compound("{_NSRect={_NSPoint=ff}{_NSSize=ff}}",
               {Compound("{_NSPoint=ff}", {RealField('f', x), RealField('f', y)}),
                Compound("{_NSSize=ff}", {RealField('f', width), RealField('f', height)})}));
}

std::shared_ptr<Image> MakeImage(const RawBitmap& bitmap) {
  auto image = std::make_shared<Image>(MakeData(EncodeTiff(bitmap)),
                                       ImageSize{static_cast<double>(bitmap.width), static_cast<double>(bitmap.height)});
  return image;
}

std::shared_ptr<Image> MakeImageFromTiff(std::vector<uint8_t> bytes) {
  auto image = std::make_shared<Image>(MakeData(std::move(bytes)), std::nullopt);
  const RawBitmap& b = image->Bitmap();  // validates the bytes and gives the size
  return std::make_shared<Image>(image->encoded(),
                                 ImageSize{static_cast<double>(b.width), static_cast<double>(b.height)});
}

// ---- tolerant readers --------------------------------------------------------

ObjectPtr ReadObject(const ObjectPtr& dict, std::string_view key) {
  const auto d = AsDictionary(dict);
  return d ? d->Get(key) : nullptr;
}

int64_t ReadInt(const ObjectPtr& dict, std::string_view key, int64_t fallback) {
  const ObjectPtr v = ReadObject(dict, key);
  if (const auto n = AsNumber(v)) return n->AsInt64();
  if (const auto s = AsString(v)) return ParseLeadingInteger(s->text);
  return fallback;
}

bool ReadBool(const ObjectPtr& dict, std::string_view key, bool fallback) {
  const ObjectPtr v = ReadObject(dict, key);
  if (const auto n = AsNumber(v)) return n->AsBool();
  if (const auto s = AsString(v)) return ParseBool(s->text);
  return fallback;
}

double ReadDouble(const ObjectPtr& dict, std::string_view key, double fallback) {
  const ObjectPtr v = ReadObject(dict, key);
  if (const auto n = AsNumber(v)) return n->AsDouble();
  if (const auto s = AsString(v)) return ParseLeadingReal(s->text);
  return fallback;
}

float ReadFloat(const ObjectPtr& dict, std::string_view key, float fallback) {
  return static_cast<float>(ReadDouble(dict, key, fallback));
}

std::optional<std::string> ReadString(const ObjectPtr& dict, std::string_view key) {
  if (const auto s = AsString(ReadObject(dict, key))) return s->text;
  return std::nullopt;
}

}  // namespace velmora::archive
