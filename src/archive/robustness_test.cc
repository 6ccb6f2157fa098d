// Malformed input: truncation, corruption, absurd counts, deep nesting, cycles.
#include <gtest/gtest.h>

#include <string>

#include "archive/archive.h"
#include "archive/test_support.h"

namespace velmora::archive {
namespace {

using testing::Concat;
using testing::Hex;
using testing::LittleHeader;

// A request like the host's: options, a rectangle, an image, shared values.
std::vector<uint8_t> SampleRequest() {
  auto attribute = MakeDictionary();
  attribute->Set("font", MakeString("OCR-B"));
  attribute->Set("threshold", MakeDouble(0.75));
  attribute->Set("frame", MakeRect(1, 2, 3.5, 4));
  auto request = MakeDictionary();
  request->Set("messageId", MakeInt32(101));
  request->Set("image", MakeImage(testing::Pattern(3, 2, 4, 8, true, true, false)));
  request->Set("attribute", attribute);
  request->Set("again", attribute);
  return Archive(request);
}

TEST(ArchiveRobustness, EveryTruncationIsAnError) {
  const std::vector<uint8_t> full = SampleRequest();
  ASSERT_NE(Unarchive(full), nullptr);
  for (std::size_t n = 0; n < full.size(); ++n) {
    // A copy of exactly n bytes, so that reading past it is caught by tools.
    const std::vector<uint8_t> prefix(full.begin(), full.begin() + static_cast<std::ptrdiff_t>(n));
    EXPECT_THROW(Unarchive(prefix.data(), prefix.size()), ArchiveError) << "prefix of " << n << " bytes";
  }
}

TEST(ArchiveRobustness, CorruptedBytesNeverCrash) {
  const std::vector<uint8_t> full = SampleRequest();
  int errors = 0;
  for (std::size_t k = 0; k < full.size(); ++k) {
    for (uint8_t v : {0x00, 0x7F, 0x81, 0x82, 0x83, 0x84, 0x85, 0x86, 0x92, 0xFF}) {
      std::vector<uint8_t> bytes = full;
      bytes[k] = v;
      try {
        const ObjectPtr o = Unarchive(bytes);
        if (o) Archive(o);  // whatever was read can be written again
      } catch (const ArchiveError&) {
        ++errors;
      }
    }
  }
  EXPECT_GT(errors, 0);
}

// N arrays, each holding the next; the innermost holds nil.
std::vector<uint8_t> NestedArrays(int n) {
  // Shared strings: "@" 0, "NSArray" 1, "NSObject" 2, "i" 3; class NSArray is #1.
  std::vector<uint8_t> bytes =
      Concat({LittleHeader(), Hex("84 84 84 07 'NSArray' 00 84 84 08 'NSObject' 00 85 84 01 'i' 01 92")});
  for (int k = 1; k < n; ++k) {
    const auto level = Hex("84 93 95 01 92");
    bytes.insert(bytes.end(), level.begin(), level.end());
  }
  bytes.push_back(0x85);
  bytes.insert(bytes.end(), static_cast<std::size_t>(n), 0x86);
  return bytes;
}

TEST(ArchiveRobustness, NestingDepthIsBounded) {
  const ObjectPtr ok = Unarchive(NestedArrays(200));
  ASSERT_TRUE(AsArray(ok));
  EXPECT_THROW(Unarchive(NestedArrays(300)), ArchiveError);
  EXPECT_THROW(Unarchive(NestedArrays(100000)), ArchiveError);

  // The writer refuses what the reader would refuse.
  ObjectPtr deep;
  for (int k = 0; k < 300; ++k) deep = MakeArray({deep});
  EXPECT_THROW(Archive(deep), ArchiveError);

  // Deeply nested struct types are refused too.
  std::string type;
  for (int k = 0; k < 300; ++k) type += "{a=";
  type += "i" + std::string(300, '}');
  const std::vector<uint8_t> bytes =
      Concat({LittleHeader(), Hex("84 84 84 07 'NSValue' 00 84 84 08 'NSObject' 00 85 84 81"),
              {static_cast<uint8_t>(type.size() & 0xFF), static_cast<uint8_t>(type.size() >> 8)},
              Hex("'" + type + "' 01")});
  EXPECT_THROW(Unarchive(bytes), ArchiveError);
}

// Streams that are wrong after a valid header: each is refused. Absurd counts are refused before
// anything is allocated for them (the streams are tiny).
TEST(ArchiveRobustness, MalformedStreamsAreErrors) {
  const std::string array = "84 84 84 07 'NSArray' 00 84 84 08 'NSObject' 00 85 ";
  const std::string data = "84 84 84 06 'NSData' 00 84 84 08 'NSObject' 00 85 ";
  const std::string string = "84 84 84 08 'NSString' 01 84 84 08 'NSObject' 00 85 ";
  const std::pair<const char*, std::string> cases[] = {
      {"array count 2^31-1", array + "84 01 'i' 82 FF FF FF 7F 86"},
      {"byte array of 2^31-1", data + "84 01 'i' 82 FF FF FF 7F 84 0D '[2147483647c]' 00 00 86"},
      {"array of 4e9 ints", data + "84 0D '[4000000000i]' 00 86"},
      {"nested arrays of 1e9", data + "84 19 '[1000000000[1000000000i]]' 00 86"},
      {"arrays of empty elements", data + "84 0C '[100000[0i]]' 00 86"},
      {"string of 2^31-1", string + "84 01 '+' 82 FF FF FF 7F 'abc' 86"},
      {"negative length", string + "84 01 '+' FF 'abc' 86"},
      {"shared string of 2^31-1", "84 84 84 82 FF FF FF 7F 'NSString'"},
      {"array holding itself", array + "84 01 'i' 01 92 92 86"},
      {"class chain naming itself", "84 84 84 01 'X' 00 93 86"},
      // Two classes of one name in one chain: the writer (classes are known by
      // name) could not write it back readably.
      {"class chain naming a class twice", "84 84 84 01 'X' 00 84 93 00 85 86"},
      {"end tag as a value", array + "84 01 'i' 01 92 86 86"},
      {"real tag as a count", "84 84 84 07 'NSArray' 00 85 84 01 'i' 83 00 86"},
      {"object without class", "84 85 86"},
      {"nil type string", "84 84 84 01 'X' 00 85 85 86"},
      {"union type", "84 84 84 01 'X' 00 85 84 05 '(u=i)' 00 86"},
      {"unclosed struct", "84 84 84 01 'X' 00 85 84 04 '{s=i' 00 86"},
  };
  for (const auto& [name, hex] : cases) {
    const std::vector<uint8_t> bytes = Concat({LittleHeader(), Hex(hex)});
    ASSERT_LT(bytes.size(), 100u) << name;
    EXPECT_THROW(Unarchive(bytes), ArchiveError) << name;
  }
  // Not an archive: bad signature, keyed archive, root not an object, empty.
  for (const char* hex : {"04 0B 'streamtypeX' 81 E8 03 84 01 '@' 85", "62 70 6C 69 73 74 30 30",
                          "04 0B 'streamtyped' 81 E8 03 84 01 'i' 05", ""})
    EXPECT_THROW(Unarchive(Hex(hex)), ArchiveError) << hex;
}

}  // namespace
}  // namespace velmora::archive
