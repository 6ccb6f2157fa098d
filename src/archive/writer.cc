// Writing non-keyed (typedstream) archives, little-endian, as the host's
// archiver writes them.
#include <bit>
#include <cmath>
#include <cstring>
#include <limits>
#include <unordered_map>

#include "archive/archive.h"
#include "archive/stream_format.h"
#include "archive/type_encoding.h"

namespace velmora::archive {

namespace {

using detail::TypeNode;

const std::vector<ClassInfo> kDictionaryChain = {{"NSDictionary", 0}, {"NSObject", 0}};
const std::vector<ClassInfo> kMutableDictionaryChain = {{"NSMutableDictionary", 0}, {"NSDictionary", 0}, {"NSObject", 0}};
const std::vector<ClassInfo> kArrayChain = {{"NSArray", 0}, {"NSObject", 0}};
const std::vector<ClassInfo> kMutableArrayChain = {{"NSMutableArray", 0}, {"NSArray", 0}, {"NSObject", 0}};
const std::vector<ClassInfo> kStringChain = {{"NSString", 1}, {"NSObject", 0}};
const std::vector<ClassInfo> kMutableStringChain = {{"NSMutableString", 1}, {"NSString", 1}, {"NSObject", 0}};
const std::vector<ClassInfo> kNumberChain = {{"NSNumber", 0}, {"NSValue", 0}, {"NSObject", 0}};
const std::vector<ClassInfo> kValueChain = {{"NSValue", 0}, {"NSObject", 0}};
const std::vector<ClassInfo> kDataChain = {{"NSData", 0}, {"NSObject", 0}};
const std::vector<ClassInfo> kMutableDataChain = {{"NSMutableData", 0}, {"NSData", 0}, {"NSObject", 0}};
const std::vector<ClassInfo> kImageChain = {{"NSImage", 0}, {"NSObject", 0}};
const std::vector<ClassInfo> kBitmapRepChain = {{"NSBitmapImageRep", 0}, {"NSImageRep", 0}, {"NSObject", 0}};

class Writer {
 public:
  std::vector<uint8_t> Run(const ObjectPtr& root) {
    out_.reserve(256);
    Integer(detail::kStreamerVersion);
    Integer(detail::kSignatureLength);
    Bytes(reinterpret_cast<const uint8_t*>(detail::kSignatureLittle), detail::kSignatureLength);
    Integer(detail::kSystemVersion);
    Shared("@");
    WriteObject(root);
    return std::move(out_);
  }

 private:
  [[noreturn]] static void Fail(const std::string& why) { throw ArchiveError("archive: " + why); }

  void Put(int8_t b) { out_.push_back(static_cast<uint8_t>(b)); }

  void Bytes(const uint8_t* p, std::size_t n) {
    if (n == 0) return;
    if (out_.capacity() - out_.size() < n) out_.reserve(std::max(out_.size() + n + 4096, 2 * out_.capacity()));
    out_.insert(out_.end(), p, p + n);
  }

  template <class U>
  void Raw(U v) {
    if constexpr (std::endian::native == std::endian::big) v = detail::ByteSwap(v);
    uint8_t b[sizeof(U)];
    std::memcpy(b, &v, sizeof(U));
    Bytes(b, sizeof(U));
  }

  void Integer(int64_t v) {
    if (v >= detail::kReferenceBias && v <= 127) {
      Put(static_cast<int8_t>(v));
    } else if (v >= std::numeric_limits<int16_t>::min() && v <= std::numeric_limits<int16_t>::max()) {
      Put(detail::kTagInteger2);
      Raw(static_cast<uint16_t>(v));
    } else if (v >= std::numeric_limits<int32_t>::min() && v <= std::numeric_limits<int32_t>::max()) {
      Put(detail::kTagInteger4);
      Raw(static_cast<uint32_t>(v));
    } else {
      Fail("integer " + std::to_string(v) + " does not fit the archive's 32-bit integer encoding");
    }
  }

  void Unsigned(uint64_t v, int width) {
    if (v <= 127) {
      Put(static_cast<int8_t>(v));
    } else if (v <= 0x7FFF || (width == 2 && v <= 0xFFFF)) {
      Put(detail::kTagInteger2);
      Raw(static_cast<uint16_t>(v));
    } else if (v <= 0xFFFFFFFFu) {
      Put(detail::kTagInteger4);
      Raw(static_cast<uint32_t>(v));
    } else {
      Fail("integer " + std::to_string(v) + " does not fit the archive's 32-bit integer encoding");
    }
  }

  void Reference(int64_t index) { Integer(index + detail::kReferenceBias); }

  void Unshared(const void* p, std::size_t n) {
    if (n > static_cast<std::size_t>(std::numeric_limits<int32_t>::max())) Fail("string or data too long");
    Integer(static_cast<int64_t>(n));
    Bytes(static_cast<const uint8_t*>(p), n);
  }

  void Shared(const std::string& s) {
    const auto it = shared_.find(s);
    if (it != shared_.end()) return Reference(it->second);
    Put(detail::kTagNew);
    Unshared(s.data(), s.size());
    shared_.emplace(s, static_cast<int64_t>(shared_.size()));
  }

  void CString(const std::string& s) {
    const auto it = cstrings_.find(s);
    if (it != cstrings_.end()) return Reference(it->second);
    Put(detail::kTagNew);
    cstrings_.emplace(s, next_++);
    Shared(s);
  }

  void ClassChain(const std::vector<ClassInfo>& chain) {
    for (const ClassInfo& c : chain) {
      const auto it = classes_.find(c.name);
      if (it != classes_.end()) return Reference(it->second);
      Put(detail::kTagNew);
      classes_.emplace(c.name, next_++);
      Shared(c.name);
      Integer(c.version);
    }
    Put(detail::kTagNil);
  }

  const std::vector<TypeNode>& Parsed(const std::string& types) {
    auto it = parsed_.find(types);
    if (it == parsed_.end()) it = parsed_.emplace(types, detail::ParseTypeString(types, kMaxNestingDepth)).first;
    return it->second;
  }

  void Enter() {
    if (++depth_ > kMaxNestingDepth) Fail("object graph nested too deeply");
  }
  void Leave() { --depth_; }

  // Starts an object's record: its number is taken before its class chain.
  bool BeginObject(const Object* identity) {
    if (identity != nullptr) {
      const auto it = objects_.find(identity);
      if (it != objects_.end()) {
        Reference(it->second);
        return false;
      }
      objects_.emplace(identity, next_);
    }
    ++next_;
    Put(detail::kTagNew);
    return true;
  }

  void WriteObject(const ObjectPtr& o) {
    if (!o) return Put(detail::kTagNil);
    if (!BeginObject(o.get())) return;
    Enter();
    switch (o->kind()) {
      case Kind::Dictionary: {
        const auto& d = static_cast<const Dictionary&>(*o);
        ClassChain(d.is_mutable ? kMutableDictionaryChain : kDictionaryChain);
        Shared("i");
        Integer(static_cast<int64_t>(d.size()));
        for (const auto& [k, v] : d.entries()) {
          Shared("@");
          WriteObject(k);
          Shared("@");
          WriteObject(v);
        }
        break;
      }
      case Kind::Array: {
        const auto& a = static_cast<const Array&>(*o);
        ClassChain(a.is_mutable ? kMutableArrayChain : kArrayChain);
        Shared("i");
        Integer(static_cast<int64_t>(a.items.size()));
        for (const ObjectPtr& item : a.items) {
          Shared("@");
          WriteObject(item);
        }
        break;
      }
      case Kind::String: {
        const auto& s = static_cast<const String&>(*o);
        ClassChain(s.is_mutable ? kMutableStringChain : kStringChain);
        Shared("+");
        Unshared(s.text.data(), s.text.size());
        break;
      }
      case Kind::Number: {
        const auto& n = static_cast<const Number&>(*o);
        ClassChain(kNumberChain);
        const std::string type(1, n.type());
        Shared("*");
        CString(type);
        Shared(type);
        const auto& node = Parsed(type);
        if (node.size() != 1) Fail("number type '" + type + "' is not a scalar");
        WriteNumber(node[0], n);
        break;
      }
      case Kind::Data: {
        const auto& d = static_cast<const Data&>(*o);
        ClassChain(d.is_mutable ? kMutableDataChain : kDataChain);
        WriteDataContents(d.bytes);
        break;
      }
      case Kind::Value: {
        const auto& v = static_cast<const Value&>(*o);
        ClassChain(kValueChain);
        Shared("*");
        CString(v.encoding);
        Shared(v.encoding);
        const auto& nodes = Parsed(v.encoding);
        if (nodes.size() != 1) Fail("boxed value type \"" + v.encoding + "\" is not one type");
        WriteField(nodes[0], v.value);
        break;
      }
      case Kind::Image: WriteImage(static_cast<const Image&>(*o)); break;
      case Kind::Unknown: {
        const auto& u = static_cast<const Unknown&>(*o);
        if (u.classes.empty()) Fail("object without a class");
        ClassChain(u.classes);
        for (const Group& g : u.groups) WriteGroup(g);
        break;
      }
    }
    Put(detail::kTagEndOfObject);
    Leave();
  }

  void WriteDataContents(const std::vector<uint8_t>& bytes) {
    Shared("i");
    if (bytes.size() > static_cast<std::size_t>(std::numeric_limits<int32_t>::max())) Fail("data too long");
    Integer(static_cast<int64_t>(bytes.size()));
    Shared("[" + std::to_string(bytes.size()) + "c]");
    Bytes(bytes.data(), bytes.size());
  }

  // The image: its size, then a bitmap representation carrying the TIFF bytes
  // as a data object (written once even when shared).
  void WriteImage(const Image& image) {
    ClassChain(kImageChain);
    // An image read without a size and whose bytes do not decode keeps size 0.
    ImageSize size;
    if (image.has_nominal_size()) {
      size = image.size();
    } else {
      try {
        size = image.size();
      } catch (const ArchiveError&) {
      }
    }
    const std::string size_type = "{CGSize=dd}";
    Shared(size_type);
    Real('d', size.width);
    Real('d', size.height);
    Shared("@");
    BeginObject(nullptr);
    Enter();
    ClassChain(kBitmapRepChain);
    Shared("@");
    WriteObject(image.encoded());
    Put(detail::kTagEndOfObject);
    Leave();
  }

  void WriteGroup(const Group& g) {
    const auto& nodes = Parsed(g.types);
    if (nodes.size() != g.values.size())
      Fail("group \"" + g.types + "\" holds " + std::to_string(g.values.size()) + " values");
    Shared(g.types);
    for (std::size_t k = 0; k < nodes.size(); ++k) WriteField(nodes[k], g.values[k]);
  }

  void Real(char code, double v) {
    // Integral values travel as integers, as the host's archiver writes them.
    if (std::isfinite(v) && v == std::trunc(v) && !(v == 0 && std::signbit(v)) && v >= -2147483648.0 &&
        v <= 2147483647.0) {
      return Integer(static_cast<int64_t>(v));
    }
    Put(detail::kTagReal);
    if (code == 'f') {
      Raw(std::bit_cast<uint32_t>(static_cast<float>(v)));
    } else {
      Raw(std::bit_cast<uint64_t>(v));
    }
  }

  void WriteNumber(const TypeNode& node, const Number& n) {
    switch (node.kind) {
      case TypeNode::Kind::RawByte: Put(static_cast<int8_t>(n.AsUInt64() & 0xFF)); break;
      case TypeNode::Kind::Integer:
        if (node.is_unsigned()) {
          Unsigned(n.AsUInt64(), node.width());
        } else {
          Integer(n.AsInt64());
        }
        break;
      case TypeNode::Kind::Real: Real(node.code, n.AsDouble()); break;
      default: Fail("number of type '" + node.encoding + "'");
    }
  }

  [[noreturn]] void Mismatch(const TypeNode& node, const Field& f) {
    Fail("value of type \"" + f.encoding + "\" written as \"" + node.encoding + "\"");
  }

  void WriteField(const TypeNode& node, const Field& f) {
    const bool is_int = f.type == Field::Type::Int || f.type == Field::Type::UInt;
    const auto as_int = [&] { return f.type == Field::Type::UInt ? static_cast<int64_t>(f.u) : f.i; };
    const auto as_uint = [&] { return f.type == Field::Type::UInt ? f.u : static_cast<uint64_t>(f.i); };
    switch (node.kind) {
      case TypeNode::Kind::RawByte:
        if (!is_int) Mismatch(node, f);
        Put(static_cast<int8_t>(as_uint() & 0xFF));
        break;
      case TypeNode::Kind::Integer:
        if (!is_int) Mismatch(node, f);
        if (node.is_unsigned()) {
          Unsigned(as_uint(), node.width());
        } else {
          Integer(as_int());
        }
        break;
      case TypeNode::Kind::Real:
        if (f.type == Field::Type::Real) {
          Real(node.code, f.d);
        } else if (is_int) {
          Real(node.code, f.type == Field::Type::UInt ? static_cast<double>(f.u) : static_cast<double>(f.i));
        } else {
          Mismatch(node, f);
        }
        break;
      case TypeNode::Kind::Unshared:
        if (f.type != Field::Type::Bytes && f.type != Field::Type::CString) Mismatch(node, f);
        Unshared(f.bytes.data(), f.bytes.size());
        break;
      case TypeNode::Kind::CString:
        if (f.type == Field::Type::Nil) return Put(detail::kTagNil);
        if (f.type != Field::Type::CString && f.type != Field::Type::Bytes) Mismatch(node, f);
        CString(std::string(f.bytes.begin(), f.bytes.end()));
        break;
      case TypeNode::Kind::Object:
        if (f.type != Field::Type::Object && f.type != Field::Type::Nil) Mismatch(node, f);
        WriteObject(f.object);
        break;
      case TypeNode::Kind::Class:
        if (f.type == Field::Type::Nil) return Put(detail::kTagNil);
        if (f.type != Field::Type::Class || f.classes.empty()) Mismatch(node, f);
        ClassChain(f.classes);
        break;
      case TypeNode::Kind::ByteArray:
        if (f.type != Field::Type::Bytes || f.bytes.size() != node.count) Mismatch(node, f);
        Bytes(f.bytes.data(), f.bytes.size());
        break;
      case TypeNode::Kind::Array:
        if (f.type != Field::Type::Compound || f.elements.size() != node.count) Mismatch(node, f);
        Enter();
        for (const Field& e : f.elements) WriteField(node.members[0], e);
        Leave();
        break;
      case TypeNode::Kind::Struct:
        if (f.type != Field::Type::Compound || f.elements.size() != node.members.size()) Mismatch(node, f);
        Enter();
        for (std::size_t k = 0; k < node.members.size(); ++k) WriteField(node.members[k], f.elements[k]);
        Leave();
        break;
    }
  }

  std::vector<uint8_t> out_;
  int64_t next_ = 0;  // next number of the object/class/C-string table
  int depth_ = 0;
  std::unordered_map<std::string, int64_t> shared_;
  std::unordered_map<std::string, int64_t> cstrings_;
  std::unordered_map<std::string, int64_t> classes_;
  std::unordered_map<const Object*, int64_t> objects_;
  std::unordered_map<std::string, std::vector<TypeNode>> parsed_;
};

}  // namespace

std::vector<uint8_t> Archive(const ObjectPtr& root) { return Writer().Run(root); }

}  // namespace velmora::archive
