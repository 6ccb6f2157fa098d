// Parsed type encodings of typedstream value groups (internal to the codec).
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace velmora::archive::detail {

struct TypeNode {
  enum class Kind {
    RawByte,      // c C B: one raw byte
    Integer,      // s S i I l L q Q
    Real,         // f d
    Unshared,     // +
    CString,      // *
    Object,       // @
    Class,        // #
    ByteArray,    // [Nc] [NC]: N raw bytes
    Array,        // [N type]
    Struct,       // {name=types}
  };
  Kind kind = Kind::RawByte;
  char code = 0;             // the letter for scalars, '[' or '{' for compounds
  std::string encoding;      // the text of this type alone, e.g. "{CGSize=dd}"
  uint64_t count = 0;        // arrays: element count
  std::vector<TypeNode> members;  // struct members; arrays: the element type
  uint64_t min_bytes = 0;    // fewest stream bytes one value can take (saturating)

  bool is_unsigned() const { return code == 'C' || code == 'S' || code == 'I' || code == 'L' || code == 'Q'; }
  // Width in bytes of integer and real scalars: c/C/B 1, s/S 2, i/I/l/L/f 4, q/Q/d 8.
  int width() const;
};

// Parses a type string into its consecutive types. Throws ArchiveError for an
// empty, malformed or unsupported encoding (unions, pointers, bit fields), for
// nesting deeper than `max_depth`, and for arrays of elements that take no
// stream bytes (which would let a tiny input describe endless values).
std::vector<TypeNode> ParseTypeString(std::string_view types, int max_depth);

}  // namespace velmora::archive::detail
