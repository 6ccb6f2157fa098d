// Reading non-keyed (typedstream) archives.
//
// Every length and count comes from untrusted bytes, so each is checked against
// what is left of the input before anything is allocated, and nesting is
// bounded; the reader throws ArchiveError rather than reading past the end.
#include <bit>
#include <cstring>
#include <map>
#include <set>
#include <unordered_map>

#include "archive/archive.h"
#include "archive/stream_format.h"
#include "archive/type_encoding.h"

namespace velmora::archive {

namespace {

using detail::TypeNode;

// Entries of the one numbering shared by objects, classes and C strings.
struct TableEntry {
  enum class Type { Object, Class, CString };
  Type type = Type::Object;
  ObjectPtr object;         // Object: null while its contents are being read
  bool pending = false;     // Object or Class still being read
  ClassInfo info;           // Class
  int64_t super = -1;       // Class: table index of the superclass, -1 for a root
  std::vector<uint8_t> text;  // CString
};

enum class KnownClass { None, Dictionary, Array, String, Number, Value, Data, Image };

KnownClass Classify(std::string_view name, bool* is_mutable) {
  static const std::unordered_map<std::string_view, std::pair<KnownClass, bool>> kKnown = {
      {"NSDictionary", {KnownClass::Dictionary, false}}, {"NSMutableDictionary", {KnownClass::Dictionary, true}},
      {"NSArray", {KnownClass::Array, false}},           {"NSMutableArray", {KnownClass::Array, true}},
      {"NSString", {KnownClass::String, false}},         {"NSMutableString", {KnownClass::String, true}},
      {"NSNumber", {KnownClass::Number, false}},         {"NSValue", {KnownClass::Value, false}},
      {"NSData", {KnownClass::Data, false}},             {"NSMutableData", {KnownClass::Data, true}},
      {"NSImage", {KnownClass::Image, false}},           {"NSImageRep", {KnownClass::Image, false}},
  };
  const auto it = kKnown.find(name);
  if (it == kKnown.end()) return KnownClass::None;
  *is_mutable = it->second.second;
  return it->second.first;
}

// The contents of one object, flattened to its values in order.
std::vector<Field*> Flatten(std::vector<Group>& groups) {
  std::vector<Field*> out;
  for (Group& g : groups)
    for (Field& f : g.values) out.push_back(&f);
  return out;
}

bool IsCount(const Field& f) { return f.type == Field::Type::Int || f.type == Field::Type::UInt; }
uint64_t CountOf(const Field& f) { return f.type == Field::Type::UInt ? f.u : static_cast<uint64_t>(f.i); }
bool IsObjectOrNil(const Field& f) { return f.type == Field::Type::Object || f.type == Field::Type::Nil; }

class Reader {
 public:
  Reader(const uint8_t* bytes, std::size_t size) : p_(bytes), begin_(bytes), end_(bytes + size) {}

  ObjectPtr Run() {
    ReadHeader();
    if (p_ == end_) Fail("archive holds no root object");
    const auto& types = TypeString();
    if (types.size() != 1 || types[0].kind != TypeNode::Kind::Object)
      Fail("the root value is not an object");
    return ReadObject(Head());
  }

 private:
  [[noreturn]] void Fail(const std::string& why) const {
    throw ArchiveError("unarchive: " + why + " (at offset " + std::to_string(p_ - begin_) + ")");
  }

  std::size_t Remaining() const { return static_cast<std::size_t>(end_ - p_); }

  void Need(std::size_t n) const {
    if (Remaining() < n) Fail("archive is truncated");
  }

  uint8_t Byte() {
    Need(1);
    return *p_++;
  }
  int8_t Head() { return static_cast<int8_t>(Byte()); }

  // Multi-byte scalars in the stream's byte order.
  template <class U>
  U Raw() {
    Need(sizeof(U));
    U v;
    std::memcpy(&v, p_, sizeof(U));
    p_ += sizeof(U);
    if (big_endian_ != (std::endian::native == std::endian::big)) v = detail::ByteSwap(v);
    return v;
  }

  static bool IsTag(int8_t head) { return head >= detail::kSmallestTag && head <= detail::kLargestTag; }

  // Integer encoding after its head byte: a literal, 0x81 + 2 bytes, 0x82 + 4 bytes.
  int64_t IntegerFrom(int8_t head) {
    if (!IsTag(head)) return head;
    if (head == detail::kTagInteger2) return static_cast<int16_t>(Raw<uint16_t>());
    if (head == detail::kTagInteger4) return static_cast<int32_t>(Raw<uint32_t>());
    Fail("expected an integer, found tag " + std::to_string(static_cast<uint8_t>(head)));
  }

  // As IntegerFrom, but the tagged forms zero-extend (unsigned types).
  uint64_t UnsignedFrom(int8_t head) {
    if (!IsTag(head)) return static_cast<uint64_t>(static_cast<int64_t>(head));
    if (head == detail::kTagInteger2) return Raw<uint16_t>();
    if (head == detail::kTagInteger4) return Raw<uint32_t>();
    Fail("expected an integer, found tag " + std::to_string(static_cast<uint8_t>(head)));
  }

  int64_t Integer() { return IntegerFrom(Head()); }

  std::size_t Length() {
    const int64_t n = Integer();
    if (n < 0) Fail("negative length");
    if (static_cast<uint64_t>(n) > Remaining()) Fail("length " + std::to_string(n) + " exceeds the archive");
    return static_cast<std::size_t>(n);
  }

  std::vector<uint8_t> Unshared() {
    const std::size_t n = Length();
    std::vector<uint8_t> out(p_, p_ + n);
    p_ += n;
    return out;
  }

  void ReadHeader() {
    const int64_t version = Integer();
    if (version < 3 || version > detail::kStreamerVersion)
      Fail("not a typedstream archive (streamer version " + std::to_string(version) + ")");
    const int64_t sig_len = Integer();
    if (sig_len != detail::kSignatureLength) Fail("not a typedstream archive (bad signature)");
    Need(detail::kSignatureLength);
    const std::string_view sig(reinterpret_cast<const char*>(p_), detail::kSignatureLength);
    if (sig == detail::kSignatureLittle) {
      big_endian_ = false;
    } else if (sig == detail::kSignatureBig) {
      big_endian_ = true;
    } else {
      Fail("not a typedstream archive (bad signature)");
    }
    p_ += detail::kSignatureLength;
    Integer();  // system version: any value is read the same way
  }

  int64_t ReferenceIndex(int8_t head, std::size_t table_size, const char* what) {
    const int64_t index = IntegerFrom(head) - detail::kReferenceBias;
    if (index < 0 || static_cast<uint64_t>(index) >= table_size)
      Fail(std::string("reference to an unknown ") + what + " #" + std::to_string(index));
    return index;
  }

  // A shared string: index into shared_, or -1 for nil.
  int64_t SharedString() {
    const int8_t head = Head();
    if (head == detail::kTagNil) return -1;
    if (head == detail::kTagNew) {
      shared_.push_back(Unshared());
      return static_cast<int64_t>(shared_.size() - 1);
    }
    return ReferenceIndex(head, shared_.size(), "shared string");
  }

  const std::vector<TypeNode>& TypeString() {
    const int64_t index = SharedString();
    if (index < 0) Fail("nil type string");
    auto it = parsed_types_.find(index);
    if (it == parsed_types_.end()) {
      const auto& s = shared_[index];
      auto parsed = detail::ParseTypeString(std::string_view(reinterpret_cast<const char*>(s.data()), s.size()),
                                            kMaxNestingDepth);
      it = parsed_types_.emplace(index, std::move(parsed)).first;
    }
    return it->second;
  }

  void Enter() {
    if (++depth_ > kMaxNestingDepth) Fail("archive nested too deeply");
  }
  void Leave() { --depth_; }

  // A class chain starting at `head`; returns the table index of the most
  // derived class, or -1 for nil.
  int64_t ClassChain(int8_t head) {
    int64_t first = -1;
    int64_t previous = -1;  // the class whose superclass comes next
    std::vector<int64_t> opened;
    while (true) {
      int64_t index;
      if (head == detail::kTagNil) {
        index = -1;
      } else if (head == detail::kTagNew) {
        index = static_cast<int64_t>(table_.size());
        TableEntry e;
        e.type = TableEntry::Type::Class;
        e.pending = true;
        table_.push_back(std::move(e));
        const int64_t name = SharedString();
        if (name < 0) Fail("class without a name");
        const auto& n = shared_[name];
        table_[index].info.name.assign(n.begin(), n.end());
        table_[index].info.version = Integer();
        opened.push_back(index);
      } else {
        index = ReferenceIndex(head, table_.size(), "class");
        const TableEntry& e = table_[index];
        if (e.type != TableEntry::Type::Class) Fail("class reference names an object or string");
        if (e.pending) Fail("class chain refers to itself");
      }
      if (previous >= 0) table_[previous].super = index;
      if (first < 0) first = index;
      if (index < 0 || head != detail::kTagNew) break;
      previous = index;
      head = Head();
    }
    for (int64_t i : opened) table_[i].pending = false;
    // A class is never its own ancestor; a chain naming one class twice is
    // malformed (and could not be written back, as classes go by name).
    std::set<std::string> names;
    for (int64_t i = first; i >= 0 && names.size() <= table_.size(); i = table_[i].super)
      if (!names.insert(table_[i].info.name).second) Fail("class chain names a class twice");
    return first;
  }

  std::vector<ClassInfo> ChainOf(int64_t index) const {
    std::vector<ClassInfo> chain;
    // Supers always point to earlier, finished entries, so this ends; the
    // bound is a second guard.
    while (index >= 0 && chain.size() <= table_.size()) {
      chain.push_back(table_[index].info);
      index = table_[index].super;
    }
    return chain;
  }

  ObjectPtr ReadObject(int8_t head) {
    if (head == detail::kTagNil) return nullptr;
    if (head != detail::kTagNew) {
      const int64_t index = ReferenceIndex(head, table_.size(), "object");
      const TableEntry& e = table_[index];
      if (e.type != TableEntry::Type::Object) Fail("object reference names a class or string");
      if (e.pending) Fail("object refers to itself (cyclic archive)");
      return e.object;
    }
    Enter();
    const std::size_t index = table_.size();
    TableEntry entry;
    entry.type = TableEntry::Type::Object;
    entry.pending = true;
    table_.push_back(std::move(entry));
    const int64_t cls = ClassChain(Head());
    if (cls < 0) Fail("object without a class");
    std::vector<ClassInfo> chain = ChainOf(cls);
    std::vector<Group> groups;
    while (true) {
      Need(1);
      if (static_cast<int8_t>(*p_) == detail::kTagEndOfObject) {
        ++p_;
        break;
      }
      groups.push_back(ReadGroup());
    }
    ObjectPtr object = Build(std::move(chain), std::move(groups));
    table_[index].object = object;
    table_[index].pending = false;
    Leave();
    return object;
  }

  Group ReadGroup() {
    Group g;
    const auto& types = TypeString();  // map nodes stay put while nested groups add more
    for (const TypeNode& node : types) g.values.push_back(ReadValue(node));
    g.types.reserve(16);
    for (const TypeNode& node : types) g.types += node.encoding;
    return g;
  }

  Field ReadValue(const TypeNode& node) {
    if (node.min_bytes > Remaining()) Fail("archive is truncated");
    Field f;
    f.encoding = node.encoding;
    switch (node.kind) {
      case TypeNode::Kind::RawByte: {
        const uint8_t b = Byte();
        if (node.code == 'C') {
          f.type = Field::Type::UInt;
          f.u = b;
        } else {
          f.type = Field::Type::Int;
          f.i = node.code == 'c' ? static_cast<int8_t>(b) : b;
        }
        break;
      }
      case TypeNode::Kind::Integer: {
        const int8_t head = Head();
        const int width = node.width();
        if (node.is_unsigned()) {
          f.type = Field::Type::UInt;
          f.u = UnsignedFrom(head);
          if (width < 8) f.u &= (uint64_t{1} << (8 * width)) - 1;
        } else {
          f.type = Field::Type::Int;
          f.i = IntegerFrom(head);
          if (width == 2) f.i = static_cast<int16_t>(f.i);
          if (width == 4) f.i = static_cast<int32_t>(f.i);
        }
        break;
      }
      case TypeNode::Kind::Real: {
        f.type = Field::Type::Real;
        const int8_t head = Head();
        if (head == detail::kTagReal) {
          f.d = node.code == 'f' ? static_cast<double>(std::bit_cast<float>(Raw<uint32_t>()))
                                 : std::bit_cast<double>(Raw<uint64_t>());
        } else {
          f.d = static_cast<double>(IntegerFrom(head));
        }
        break;
      }
      case TypeNode::Kind::Unshared:
        f.type = Field::Type::Bytes;
        f.bytes = Unshared();
        break;
      case TypeNode::Kind::CString: {
        const int8_t head = Head();
        if (head == detail::kTagNil) {
          f.type = Field::Type::Nil;
        } else if (head == detail::kTagNew) {
          const std::size_t index = table_.size();
          TableEntry entry;
          entry.type = TableEntry::Type::CString;
          table_.push_back(std::move(entry));
          const int64_t s = SharedString();
          if (s < 0) Fail("C string without contents");
          table_[index].text = shared_[s];
          f.type = Field::Type::CString;
          f.bytes = shared_[s];
        } else {
          const int64_t index = ReferenceIndex(head, table_.size(), "C string");
          if (table_[index].type != TableEntry::Type::CString) Fail("C string reference names an object or class");
          f.type = Field::Type::CString;
          f.bytes = table_[index].text;
        }
        break;
      }
      case TypeNode::Kind::Object:
        f.object = ReadObject(Head());
        f.type = f.object ? Field::Type::Object : Field::Type::Nil;
        break;
      case TypeNode::Kind::Class: {
        const int64_t cls = ClassChain(Head());
        if (cls >= 0) {
          f.type = Field::Type::Class;
          f.classes = ChainOf(cls);
        }
        break;
      }
      case TypeNode::Kind::ByteArray:
        f.type = Field::Type::Bytes;
        f.bytes.assign(p_, p_ + node.count);  // count <= Remaining() via min_bytes
        p_ += node.count;
        break;
      case TypeNode::Kind::Array:
        Enter();
        f.type = Field::Type::Compound;
        f.elements.reserve(node.count);  // bounded: min_bytes <= Remaining()
        for (uint64_t k = 0; k < node.count; ++k) f.elements.push_back(ReadValue(node.members[0]));
        Leave();
        break;
      case TypeNode::Kind::Struct:
        Enter();
        f.type = Field::Type::Compound;
        f.elements.reserve(node.members.size());
        for (const TypeNode& m : node.members) f.elements.push_back(ReadValue(m));
        Leave();
        break;
    }
    return f;
  }

  // ---- building model objects from generic contents -------------------------

  [[noreturn]] void Malformed(const std::string& cls, const std::string& why) const {
    Fail(cls + " contents are malformed: " + why);
  }

  ObjectPtr Build(std::vector<ClassInfo> chain, std::vector<Group> groups) {
    KnownClass known = KnownClass::None;
    bool is_mutable = false;
    for (const ClassInfo& c : chain) {
      known = Classify(c.name, &is_mutable);
      if (known != KnownClass::None) break;
    }
    if (known == KnownClass::Image) return BuildImage(groups);
    if (known != KnownClass::None) {
      // A subclass of a Foundation class may add contents of its own; only an
      // object of the Foundation class itself must match its layout.
      const bool exact = Classify(chain.front().name, &is_mutable) == known;
      if (ObjectPtr o = BuildKnown(known, is_mutable, chain.front().name, groups, exact)) return o;
    }
    return std::make_shared<Unknown>(std::move(chain), std::move(groups));
  }

  ObjectPtr BuildKnown(KnownClass known, bool is_mutable, const std::string& cls, std::vector<Group>& groups,
                       bool exact) {
    std::vector<Field*> v = Flatten(groups);
    const auto bad = [&](const std::string& why) -> ObjectPtr {
      if (exact) Malformed(cls, why);
      return nullptr;
    };
    switch (known) {
      case KnownClass::Dictionary: {
        if (v.empty() || !IsCount(*v[0])) return bad("no entry count");
        const uint64_t count = CountOf(*v[0]);
        if (count > (v.size() - 1) / 2 || v.size() != 1 + 2 * count) return bad("entry count does not match");
        auto d = std::make_shared<Dictionary>(is_mutable);
        for (uint64_t k = 0; k < count; ++k) {
          if (!IsObjectOrNil(*v[1 + 2 * k]) || !IsObjectOrNil(*v[2 + 2 * k])) return bad("entry is not an object");
          d->Append(v[1 + 2 * k]->object, v[2 + 2 * k]->object);
        }
        return d;
      }
      case KnownClass::Array: {
        if (v.empty() || !IsCount(*v[0])) return bad("no element count");
        if (CountOf(*v[0]) != v.size() - 1) return bad("element count does not match");
        auto a = std::make_shared<Array>(is_mutable);
        a->items.reserve(v.size() - 1);
        for (std::size_t k = 1; k < v.size(); ++k) {
          if (!IsObjectOrNil(*v[k])) return bad("element is not an object");
          a->items.push_back(v[k]->object);
        }
        return a;
      }
      case KnownClass::String: {
        if (v.size() != 1 || (v[0]->type != Field::Type::Bytes && v[0]->type != Field::Type::CString))
          return bad("expected one string");
        return std::make_shared<String>(std::string(v[0]->bytes.begin(), v[0]->bytes.end()), is_mutable);
      }
      case KnownClass::Data: {
        if (v.size() != 2 || !IsCount(*v[0]) || v[1]->type != Field::Type::Bytes)
          return bad("expected a length and a byte array");
        if (CountOf(*v[0]) != v[1]->bytes.size()) return bad("length does not match the bytes");
        return std::make_shared<Data>(std::move(v[1]->bytes), is_mutable);
      }
      case KnownClass::Number:
      case KnownClass::Value: {
        if (v.size() != 2 || v[0]->type != Field::Type::CString) return bad("expected a type encoding and a value");
        const std::string encoding(v[0]->bytes.begin(), v[0]->bytes.end());
        if (v[1]->encoding != encoding) return bad("value does not have the announced type");
        Field& value = *v[1];
        if (encoding.size() == 1) {
          const char t = encoding[0];
          if (value.type == Field::Type::Int) return Number::Signed(t, value.i);
          if (value.type == Field::Type::UInt) return Number::Unsigned(t, value.u);
          if (value.type == Field::Type::Real) return Number::Real(t, value.d);
        }
        // Structs, and scalars that are not numbers, stay boxed values.
        return std::make_shared<Value>(encoding, std::move(value));
      }
      case KnownClass::Image:
      case KnownClass::None: break;
    }
    return nullptr;
  }

  // Images: the host's image classes have no public non-keyed layout, so the
  // first byte block that is an image file, at any depth, is the image.
  struct ImageSearch {
    std::shared_ptr<Data> data;
    std::optional<ImageSize> size;
  };

  static bool IsSizeStruct(const Field& f) {
    if (f.type != Field::Type::Compound) return false;
    const std::string_view e = f.encoding;
    return e.starts_with("{CGSize=") || e.starts_with("{_NSSize=") || e.starts_with("{NSSize=");
  }

  static void FindSize(const Field& f, ImageSearch* s) {
    if (s->size) return;
    if (IsSizeStruct(f)) {
      Value v(f.encoding, f);
      const auto n = v.Numbers();
      if (n.size() == 2) s->size = ImageSize{n[0], n[1]};
      return;
    }
    for (const Field& e : f.elements) FindSize(e, s);
  }

  static void FindBytes(Field& f, bool owned, ImageSearch* s) {
    if (s->data) return;
    switch (f.type) {
      case Field::Type::Bytes:
        if (IsImageFile(f.bytes.data(), f.bytes.size())) {
          // Bytes of this image's own contents are moved, not copied.
          s->data = owned ? std::make_shared<Data>(std::move(f.bytes)) : std::make_shared<Data>(f.bytes);
        }
        break;
      case Field::Type::Compound:
        for (Field& e : f.elements) FindBytes(e, owned, s);
        break;
      case Field::Type::Object: FindInObject(f.object, s); break;
      default: break;
    }
  }

  static void FindInObject(const ObjectPtr& o, ImageSearch* s) {
    if (!o || s->data) return;
    switch (o->kind()) {
      case Kind::Data: {
        auto d = std::static_pointer_cast<Data>(o);
        if (IsImageFile(d->bytes.data(), d->bytes.size())) s->data = std::move(d);
        break;
      }
      case Kind::Image: {
        const auto& image = static_cast<const Image&>(*o);
        if (!image.bytes().empty()) {
          s->data = image.encoded();
          if (image.has_nominal_size() && !s->size) s->size = image.size();
        }
        break;
      }
      case Kind::Array:
        for (const ObjectPtr& item : static_cast<const Array&>(*o).items) FindInObject(item, s);
        break;
      case Kind::Dictionary:
        for (const auto& [k, v] : static_cast<const Dictionary&>(*o).entries()) FindInObject(v, s);
        break;
      case Kind::Unknown:
        // Shared with the rest of the archive: copy, do not move.
        for (Group& g : static_cast<Unknown&>(*o).groups)
          for (Field& f : g.values) FindBytes(f, false, s);
        break;
      default: break;
    }
  }

  ObjectPtr BuildImage(std::vector<Group>& groups) {
    ImageSearch s;
    // The image's own size first, before sizes of nested representations.
    for (const Group& g : groups)
      for (const Field& f : g.values) FindSize(f, &s);
    for (Group& g : groups)
      for (Field& f : g.values) FindBytes(f, true, &s);
    return std::make_shared<Image>(std::move(s.data), s.size);
  }

  const uint8_t* p_;
  const uint8_t* begin_;
  const uint8_t* end_;
  bool big_endian_ = false;
  int depth_ = 0;
  std::vector<std::vector<uint8_t>> shared_;
  std::map<int64_t, std::vector<TypeNode>> parsed_types_;
  std::vector<TableEntry> table_;
};

}  // namespace

ObjectPtr Unarchive(const uint8_t* bytes, std::size_t size) {
  if (bytes == nullptr && size != 0) throw ArchiveError("unarchive: null input");
  return Reader(bytes, size).Run();
}

ObjectPtr Unarchive(const std::vector<uint8_t>& bytes) { return Unarchive(bytes.data(), bytes.size()); }

}  // namespace velmora::archive
