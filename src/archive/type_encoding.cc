#include "archive/type_encoding.h"

#include <limits>

#include "archive/archive.h"

namespace velmora::archive::detail {

namespace {

constexpr uint64_t kSaturated = std::numeric_limits<uint64_t>::max();

uint64_t SaturatingAdd(uint64_t a, uint64_t b) { return a > kSaturated - b ? kSaturated : a + b; }
uint64_t SaturatingMul(uint64_t a, uint64_t b) {
  if (a == 0 || b == 0) return 0;
  return a > kSaturated / b ? kSaturated : a * b;
}

class Parser {
 public:
  Parser(std::string_view text, int max_depth) : text_(text), max_depth_(max_depth) {}

  std::vector<TypeNode> ParseAll() {
    std::vector<TypeNode> out;
    while (pos_ < text_.size()) out.push_back(ParseOne(0));
    if (out.empty()) Fail("empty type string");
    return out;
  }

 private:
  [[noreturn]] void Fail(const std::string& why) const {
    throw ArchiveError("archive type encoding \"" + std::string(text_) + "\": " + why);
  }

  void SkipQualifiers() {
    // const, in, inout, out, bycopy, byref, oneway: they do not change the bytes.
    while (pos_ < text_.size() && std::string_view("rnNoORV").find(text_[pos_]) != std::string_view::npos) ++pos_;
  }

  TypeNode ParseOne(int depth) {
    if (depth > max_depth_) Fail("nested too deeply");
    SkipQualifiers();
    if (pos_ >= text_.size()) Fail("ends inside a type");
    const std::size_t start = pos_;
    TypeNode node;
    node.code = text_[pos_++];
    switch (node.code) {
      case 'c': case 'C': case 'B':
        node.kind = TypeNode::Kind::RawByte;
        node.min_bytes = 1;
        break;
      case 's': case 'S': case 'i': case 'I': case 'l': case 'L': case 'q': case 'Q':
        node.kind = TypeNode::Kind::Integer;
        node.min_bytes = 1;
        break;
      case 'f': case 'd':
        node.kind = TypeNode::Kind::Real;
        node.min_bytes = 1;
        break;
      case '+': node.kind = TypeNode::Kind::Unshared; node.min_bytes = 1; break;
      case '*': node.kind = TypeNode::Kind::CString; node.min_bytes = 1; break;
      case '@': node.kind = TypeNode::Kind::Object; node.min_bytes = 1; break;
      case '#': node.kind = TypeNode::Kind::Class; node.min_bytes = 1; break;
      case '[': ParseArray(&node, depth); break;
      case '{': ParseStruct(&node, depth); break;
      default:
        Fail(std::string("unsupported type '") + node.code + "'");
    }
    node.encoding = std::string(text_.substr(start, pos_ - start));
    return node;
  }

  void ParseArray(TypeNode* node, int depth) {
    uint64_t count = 0;
    bool digits = false;
    while (pos_ < text_.size() && text_[pos_] >= '0' && text_[pos_] <= '9') {
      const uint64_t digit = static_cast<uint64_t>(text_[pos_++] - '0');
      if (count > (std::numeric_limits<uint32_t>::max() - digit) / 10) Fail("array count too large");
      count = count * 10 + digit;
      digits = true;
    }
    if (!digits) Fail("array without a count");
    TypeNode element = ParseOne(depth + 1);
    if (pos_ >= text_.size() || text_[pos_] != ']') Fail("array not closed");
    ++pos_;
    node->count = count;
    if (element.code == 'c' || element.code == 'C') {
      node->kind = TypeNode::Kind::ByteArray;
      node->min_bytes = count;
    } else {
      if (count > 0 && element.min_bytes == 0) Fail("array of elements that take no bytes");
      node->kind = TypeNode::Kind::Array;
      node->min_bytes = SaturatingMul(count, element.min_bytes);
    }
    node->members.push_back(std::move(element));
  }

  void ParseStruct(TypeNode* node, int depth) {
    node->kind = TypeNode::Kind::Struct;
    while (pos_ < text_.size() && text_[pos_] != '=' && text_[pos_] != '}') ++pos_;
    if (pos_ >= text_.size()) Fail("struct not closed");
    if (text_[pos_] == '}') Fail("struct without members");
    ++pos_;  // '='
    while (true) {
      if (pos_ >= text_.size()) Fail("struct not closed");
      if (text_[pos_] == '}') break;
      if (text_[pos_] == '"') {  // a member name, as compilers may emit
        const std::size_t close = text_.find('"', pos_ + 1);
        if (close == std::string_view::npos) Fail("member name not closed");
        pos_ = close + 1;
        continue;
      }
      TypeNode member = ParseOne(depth + 1);
      node->min_bytes = SaturatingAdd(node->min_bytes, member.min_bytes);
      node->members.push_back(std::move(member));
    }
    ++pos_;  // '}'
    if (node->members.empty()) Fail("struct without members");
  }

  std::string_view text_;
  int max_depth_;
  std::size_t pos_ = 0;
};

}  // namespace

int TypeNode::width() const {
  switch (code) {
    case 'c': case 'C': case 'B': return 1;
    case 's': case 'S': return 2;
    case 'i': case 'I': case 'l': case 'L': case 'f': return 4;
    case 'q': case 'Q': case 'd': return 8;
    default: return 0;
  }
}

std::vector<TypeNode> ParseTypeString(std::string_view types, int max_depth) {
  return Parser(types, max_depth).ParseAll();
}

}  // namespace velmora::archive::detail
