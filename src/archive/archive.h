// Objects of the platform's non-keyed archives (typedstream) and their codec.
//
// The object model mirrors the Foundation classes that travel between the host
// and the add-in: dictionaries, arrays, strings, numbers, data, boxed geometry
// and platform images. Objects of any other class are kept generically (class
// chain plus typed contents) so that they can be skipped or written back.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "archive/raw_bitmap.h"

namespace velmora::archive {

class ArchiveError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

enum class Kind { Dictionary, Array, String, Number, Data, Value, Image, Unknown };

class Object;
using ObjectPtr = std::shared_ptr<Object>;

class Object {
 public:
  virtual ~Object() = default;
  Kind kind() const { return kind_; }

 protected:
  explicit Object(Kind kind) : kind_(kind) {}
  Object(const Object&) = default;
  Object& operator=(const Object&) = default;

 private:
  Kind kind_;
};

// One class of a class chain, most derived first.
struct ClassInfo {
  std::string name;
  int64_t version = 0;
  bool operator==(const ClassInfo&) const = default;
};

// One decoded value of one type encoding, kept generically.
struct Field {
  enum class Type {
    Nil,       // nil object, nil C string or nil class
    Int,       // c s i l q (and B)
    UInt,      // C S I L Q
    Real,      // f d
    Bytes,     // + (unshared string) or [Nc] / [NC] byte array
    CString,   // * (and : selectors, % atoms)
    Object,    // @
    Class,     // #
    Compound,  // {struct} or [N type] of a non-byte type
  };
  Type type = Type::Nil;
  std::string encoding;  // the type encoding this value was read as, e.g. "i"
  int64_t i = 0;
  uint64_t u = 0;
  double d = 0;
  std::vector<uint8_t> bytes;       // Bytes; CString text
  ObjectPtr object;                 // Object (null when nil)
  std::vector<ClassInfo> classes;   // Class chain
  std::vector<Field> elements;      // Compound members in order
};

// A typed value group: one type string and the values it describes.
struct Group {
  std::string types;
  std::vector<Field> values;
};

class Dictionary : public Object {
 public:
  explicit Dictionary(bool is_mutable = false) : Object(Kind::Dictionary), is_mutable(is_mutable) {}
  // Value of the first entry whose key is a string equal to `key`, or nullptr.
  ObjectPtr Get(std::string_view key) const;
  // Replaces the value of an existing string key, or appends the entry.
  void Set(std::string_view key, ObjectPtr value);
  // Appends an entry with any key object (keys of archives need not be strings).
  void Append(ObjectPtr key, ObjectPtr value);
  const std::vector<std::pair<ObjectPtr, ObjectPtr>>& entries() const { return entries_; }
  std::size_t size() const { return entries_.size(); }

  bool is_mutable;  // archived as NSMutableDictionary

 private:
  std::vector<std::pair<ObjectPtr, ObjectPtr>> entries_;
};

class Array : public Object {
 public:
  explicit Array(bool is_mutable = false) : Object(Kind::Array), is_mutable(is_mutable) {}
  std::vector<ObjectPtr> items;
  bool is_mutable;  // archived as NSMutableArray
};

class String : public Object {
 public:
  explicit String(std::string text = {}, bool is_mutable = false)
      : Object(Kind::String), text(std::move(text)), is_mutable(is_mutable) {}
  std::string text;  // UTF-8
  bool is_mutable;   // archived as NSMutableString
};

class Number : public Object {
 public:
  // `type` is a type encoding: 'c' (also booleans), 'C', 's', 'S', 'i', 'I',
  // 'l', 'L', 'q', 'Q', 'f', 'd' (and 'B', a C++ bool, when read).
  static std::shared_ptr<Number> Signed(char type, int64_t value);
  static std::shared_ptr<Number> Unsigned(char type, uint64_t value);
  static std::shared_ptr<Number> Real(char type, double value);

  char type() const { return type_; }
  bool is_real() const { return type_ == 'f' || type_ == 'd'; }
  bool is_unsigned() const;
  int64_t AsInt64() const;    // reals truncate toward zero (saturating)
  uint64_t AsUInt64() const;  // two's-complement view of signed values
  double AsDouble() const;
  bool AsBool() const { return is_real() ? real_ != 0 : bits_ != 0; }

  // Use the factories; public only for std::make_shared.
  Number(char type, uint64_t bits, double real) : Object(Kind::Number), type_(type), bits_(bits), real_(real) {}

 private:
  char type_;
  uint64_t bits_;  // integers, as two's complement
  double real_;    // reals
};

class Data : public Object {
 public:
  explicit Data(std::vector<uint8_t> bytes = {}, bool is_mutable = false)
      : Object(Kind::Data), bytes(std::move(bytes)), is_mutable(is_mutable) {}
  std::vector<uint8_t> bytes;
  bool is_mutable;  // archived as NSMutableData
};

// A boxed value (NSValue) with a struct or scalar type encoding.
class Value : public Object {
 public:
  enum class Shape { Rect, Point, Size, Other };
  Value(std::string encoding, Field value) : Object(Kind::Value), encoding(std::move(encoding)), value(std::move(value)) {}

  Shape shape() const;
  // True for the 64-bit host spelling (CGFloat = double).
  bool wide() const;
  // The numeric leaves of the value in order, as doubles (rect: x, y, w, h;
  // point: x, y; size: w, h).
  std::vector<double> Numbers() const;

  std::string encoding;  // e.g. "{CGRect={CGPoint=dd}{CGSize=dd}}"
  Field value;           // decoded value of that encoding
};

struct ImageSize {
  double width = 0;
  double height = 0;
};

// A platform image (NSImage). It carries encoded image bytes (TIFF, or PNG or
// JPEG) and a nominal size in points; the bitmap is decoded on first use.
class Image : public Object {
 public:
  // `encoded` holds the image bytes; it is archived as the image's data object
  // and may be shared with other objects of the same archive.
  Image(std::shared_ptr<Data> encoded, std::optional<ImageSize> size);

  const std::vector<uint8_t>& bytes() const;
  const std::shared_ptr<Data>& encoded() const { return encoded_; }
  // The nominal size; without one, the bitmap's pixel size (which throws
  // ArchiveError when the bytes do not decode).
  ImageSize size() const;
  bool has_nominal_size() const { return size_.has_value(); }
  // Decoded bitmap of the bytes (DecodeTiff, or DecodeImageFile for PNG and
  // JPEG). Throws ArchiveError when the bytes do not decode. Not thread-safe on
  // first call.
  const RawBitmap& Bitmap() const;
  // Forgets the decoded bitmap (the next Bitmap() decodes again).
  void ReleaseBitmap() const { bitmap_.reset(); }
  // Forgets the decoded bitmap and, when the nominal size is known, lets go of
  // the encoded bytes too (other objects sharing them keep theirs): a large
  // image's pixels need not stay while a service works on its own copy.
  // Afterwards size() still answers; Bitmap() throws when the bytes went.
  void ReleasePixels() const {
    bitmap_.reset();
    if (size_) encoded_ = std::make_shared<Data>();
  }
  // Lets go of the encoded bytes alone, when the nominal size is known: a
  // conversion still reading the decoded bitmap need not hold both.
  void ReleaseEncoded() const {
    if (size_) encoded_ = std::make_shared<Data>();
  }
  // Marks an image that is converted once and then only asked for its size
  // (a request's image), so that the conversion may call ReleasePixels().
  void SetConvertedOnce() const { converted_once_ = true; }
  bool converted_once() const { return converted_once_; }

 private:
  mutable std::shared_ptr<Data> encoded_;
  std::optional<ImageSize> size_;
  mutable std::shared_ptr<const RawBitmap> bitmap_;
  mutable bool converted_once_ = false;
};

// An object of a class this codec does not model, kept as read.
class Unknown : public Object {
 public:
  Unknown(std::vector<ClassInfo> classes, std::vector<Group> groups)
      : Object(Kind::Unknown), classes(std::move(classes)), groups(std::move(groups)) {}
  std::vector<ClassInfo> classes;  // most derived first
  std::vector<Group> groups;
};

// Kind-checked views; nullptr when `object` is null or of another kind.
std::shared_ptr<Dictionary> AsDictionary(const ObjectPtr& object);
std::shared_ptr<Array> AsArray(const ObjectPtr& object);
std::shared_ptr<String> AsString(const ObjectPtr& object);
std::shared_ptr<Number> AsNumber(const ObjectPtr& object);
std::shared_ptr<Data> AsData(const ObjectPtr& object);
std::shared_ptr<Value> AsValue(const ObjectPtr& object);
std::shared_ptr<Image> AsImage(const ObjectPtr& object);
std::shared_ptr<Unknown> AsUnknown(const ObjectPtr& object);

// Factories.
std::shared_ptr<Dictionary> MakeDictionary();
std::shared_ptr<Array> MakeArray(std::vector<ObjectPtr> items = {});
std::shared_ptr<String> MakeString(std::string text);
std::shared_ptr<Number> MakeBool(bool value);  // type 'c', 0 or 1
std::shared_ptr<Number> MakeInt32(int32_t value);
std::shared_ptr<Number> MakeInt64(int64_t value);
std::shared_ptr<Number> MakeDouble(double value);
std::shared_ptr<Number> MakeFloat(float value);
std::shared_ptr<Data> MakeData(std::vector<uint8_t> bytes);
// Boxed geometry in the 64-bit host spelling (CGRect, CGPoint, CGSize).
std::shared_ptr<Value> MakeRect(double x, double y, double width, double height);
std::shared_ptr<Value> MakePoint(double x, double y);
std::shared_ptr<Value> MakeSize(double width, double height);
// The 32-bit host spelling (_NSRect of floats), as older hosts archive it.
std::shared_ptr<Value> MakeRect32(float x, float y, float width, float height);
// An image of the bitmap, encoded as TIFF, nominal size = pixel size.
std::shared_ptr<Image> MakeImage(const RawBitmap& bitmap);
// An image carrying these TIFF (or PNG/JPEG) bytes; nominal size = pixel size
// (read from the bytes). Throws ArchiveError when the bytes do not decode.
std::shared_ptr<Image> MakeImageFromTiff(std::vector<uint8_t> bytes);

// Tolerant readers: a null or non-dictionary `dict`, a missing key or a value
// of the wrong kind reads as the fallback (nullopt, nullptr).
// ReadInt: numbers, and strings read the way the platform's `integerValue` does
// (leading integer part, 0 when there is none).
int64_t ReadInt(const ObjectPtr& dict, std::string_view key, int64_t fallback = 0);
// ReadBool: numbers are true when non-zero; strings as `boolValue` does.
bool ReadBool(const ObjectPtr& dict, std::string_view key, bool fallback = false);
float ReadFloat(const ObjectPtr& dict, std::string_view key, float fallback = 0);
double ReadDouble(const ObjectPtr& dict, std::string_view key, double fallback = 0);
std::optional<std::string> ReadString(const ObjectPtr& dict, std::string_view key);
ObjectPtr ReadObject(const ObjectPtr& dict, std::string_view key);

// Archives a root object (may be null) as a little-endian `streamtyped` stream.
// Objects shared within the graph are written once and then referenced.
std::vector<uint8_t> Archive(const ObjectPtr& root);

// Reads a non-keyed archive of either byte order; a nil root gives nullptr.
// Throws ArchiveError on malformed or truncated input.
ObjectPtr Unarchive(const uint8_t* bytes, std::size_t size);
ObjectPtr Unarchive(const std::vector<uint8_t>& bytes);

// Deepest nesting of objects, structs and arrays the reader accepts.
inline constexpr int kMaxNestingDepth = 256;

}  // namespace velmora::archive
