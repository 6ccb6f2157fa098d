// Constants of the typedstream byte stream (internal to the codec).
#pragma once

#include <cstdint>
#include <type_traits>

namespace velmora::archive::detail {

// Head bytes, read as signed chars; -128 to -111 are tags, the rest literals.
inline constexpr int8_t kTagInteger2 = -127;  // 0x81
inline constexpr int8_t kTagInteger4 = -126;  // 0x82
inline constexpr int8_t kTagReal = -125;      // 0x83
inline constexpr int8_t kTagNew = -124;       // 0x84
inline constexpr int8_t kTagNil = -123;       // 0x85
inline constexpr int8_t kTagEndOfObject = -122;  // 0x86
inline constexpr int8_t kSmallestTag = -128;
inline constexpr int8_t kLargestTag = -111;
// Reference numbers are stored as index + kReferenceBias (0x92 is index 0).
inline constexpr int64_t kReferenceBias = -110;

inline constexpr int kStreamerVersion = 4;
inline constexpr int kSystemVersion = 1000;
inline constexpr char kSignatureLittle[] = "streamtyped";
inline constexpr char kSignatureBig[] = "typedstream";
inline constexpr int kSignatureLength = 11;

template <class U>
constexpr U ByteSwap(U v) {
  static_assert(std::is_unsigned_v<U>);
  if constexpr (sizeof(U) == 2) return __builtin_bswap16(v);
  if constexpr (sizeof(U) == 4) return __builtin_bswap32(v);
  if constexpr (sizeof(U) == 8) return __builtin_bswap64(v);
}

}  // namespace velmora::archive::detail
