// Round trips, hand-made byte streams and exact writer output.
#include <gtest/gtest.h>

#include <sstream>

#include "archive/archive.h"
#include "archive/test_support.h"

namespace velmora::archive {
namespace {

using testing::Concat;
using testing::Hex;
using testing::LittleHeader;
using testing::ToHex;

// Every value, kind and class choice of an object graph as text, so that two graphs compare with
// one EXPECT_EQ. Reals are in hex, so that -0.0 and the last bit of a double show.
std::string Dump(const ObjectPtr& o);

std::string Dump(const Field& f) {
  std::ostringstream s;
  s << std::hexfloat << static_cast<int>(f.type) << f.encoding << '(' << f.i << ' ' << f.u << ' '
    << f.d << ' ' << ToHex(f.bytes) << ' ';
  for (const ClassInfo& c : f.classes) s << c.name << 'v' << c.version << ' ';
  for (const Field& e : f.elements) s << Dump(e) << ' ';
  return s.str() + Dump(f.object) + ')';
}

std::string Dump(const ObjectPtr& o) {
  if (!o) return "nil";
  std::ostringstream s;
  s << std::hexfloat << static_cast<int>(o->kind()) << '{';
  if (const auto d = AsDictionary(o)) {
    s << d->is_mutable;
    for (const auto& [key, value] : d->entries()) s << ' ' << Dump(key) << ':' << Dump(value);
  } else if (const auto a = AsArray(o)) {
    s << a->is_mutable;
    for (const ObjectPtr& item : a->items) s << ' ' << Dump(item);
  } else if (const auto t = AsString(o)) {
    s << t->is_mutable << " '" << t->text << "'";
  } else if (const auto n = AsNumber(o)) {
    s << n->type() << ' ' << n->AsInt64() << ' ' << n->AsUInt64() << ' ' << n->AsDouble();
  } else if (const auto b = AsData(o)) {
    s << b->is_mutable << ' ' << ToHex(b->bytes);
  } else if (const auto v = AsValue(o)) {
    s << v->encoding;
    for (double x : v->Numbers()) s << ' ' << x;
  } else if (const auto i = AsImage(o)) {
    s << i->size().width << 'x' << i->size().height << ' ' << ToHex(i->bytes());
  } else if (const auto u = AsUnknown(o)) {
    for (const ClassInfo& c : u->classes) s << c.name << 'v' << c.version << ' ';
    for (const Group& g : u->groups) {
      s << g.types << '[';
      for (const Field& f : g.values) s << Dump(f) << ' ';
      s << ']';
    }
  }
  return s.str() + '}';
}

using FT = Field::Type;

Field IntField(const std::string& enc, int64_t v) {
  return {.type = FT::Int, .encoding = enc, .i = v};
}

// An object of a class the codec does not model, exercising every generic type.
ObjectPtr MakeUnknownThing() {
  const Field range{.type = FT::Compound,
                    .encoding = "{_NSRange=QQ}",
                    .elements = {{.type = FT::UInt, .encoding = "Q", .u = 7},
                                 {.type = FT::UInt, .encoding = "Q", .u = 70000}}};
  const Field bytes{.type = FT::Bytes, .encoding = "[4c]", .bytes = {1, 2, 0xFE, 0xFF}};
  const Field cstring{.type = FT::CString, .encoding = "*", .bytes = {'h', 'i'}};
  const Field cls{
      .type = FT::Class, .encoding = "#", .classes = {{"VMWidget", 2}, {"NSObject", 0}}};
  const Field object{.type = FT::Object, .encoding = "@", .object = MakeString("inner")};
  const Field array{.type = FT::Compound,
                    .encoding = "[3s]",
                    .elements = {IntField("s", -1), IntField("s", 300),
                                 IntField("s", -40000 % 32768)}};
  return std::make_shared<Unknown>(
      std::vector<ClassInfo>{{"VMThing", 3}, {"NSObject", 0}},
      std::vector<Group>{{"i", {IntField("i", 42)}},
                         {"{_NSRange=QQ}", {range}},
                         {"[4c]", {bytes}},
                         {"*#@", {cstring, cls, object}},
                         {"[3s]", {array}}});
}

TEST(ArchiveRoundTrip, EveryKindOfObjectSurvives) {
  auto root = MakeDictionary();
  root->Set("string", MakeString("Grüße, 日本"));
  root->Set("empty string", MakeString(""));
  root->Set("mutable string", std::make_shared<String>("mutable", true));
  // Numbers of one type share their type string; every encoding is in ArchiveWriter.
  root->Set("int32", MakeInt32(-123456));
  root->Set("double", MakeDouble(-0.1));
  root->Set("integral double", MakeDouble(-4096));
  root->Set("data", MakeData({0, 1, 2, 0x84, 0x85, 0x86}));
  root->Set("empty data", MakeData({}));
  root->Set("mutable data", std::make_shared<Data>(std::vector<uint8_t>{9}, true));
  root->Set("rect", MakeRect(1.5, -2, 640, 480.25));
  root->Set("rect32", MakeRect32(1.5f, 2, 3, 4));
  root->Set("point", MakePoint(10, 20.5));
  root->Set("size", MakeSize(0.125, 1e9));
  root->Set("array", MakeArray({MakeInt32(1), MakeArray(), MakeDictionary(), nullptr}));
  root->Set("mutable array", std::make_shared<Array>(true));
  root->Set("mutable dictionary", std::make_shared<Dictionary>(true));
  root->Set("image", MakeImage(testing::Pattern(5, 3, 4, 8, true, true, false, 12)));
  root->Set("unknown", MakeUnknownThing());
  // Keys need not be strings.
  root->Append(MakeInt32(7), MakeString("seven"));

  const ObjectPtr back = Unarchive(Archive(root));
  EXPECT_EQ(Dump(back), Dump(root));
  EXPECT_TRUE(AsValue(AsDictionary(back)->Get("rect"))->wide());
  EXPECT_FALSE(AsValue(AsDictionary(back)->Get("rect32"))->wide());
}

TEST(ArchiveRoundTrip, SharedObjectsStaySharedAndAreWrittenOnce) {
  const std::vector<uint8_t> big(10000, 0xAB);
  auto data = MakeData(big);
  auto text = MakeString("shared");
  auto root = MakeArray({data, text, data, text, MakeString("shared")});
  const std::vector<uint8_t> bytes = Archive(root);
  EXPECT_LT(bytes.size(), 2 * big.size());

  const auto back = AsArray(Unarchive(bytes));
  ASSERT_TRUE(back);
  ASSERT_EQ(back->items.size(), 5u);
  EXPECT_EQ(back->items[0], back->items[2]);
  EXPECT_EQ(back->items[1], back->items[3]);
  EXPECT_NE(back->items[1], back->items[4]);  // equal text, distinct object
  EXPECT_EQ(AsData(back->items[0])->bytes, big);
}

// A number archived alone; shared strings: "@" 0, "NSNumber" 1, "NSValue" 2, "NSObject" 3, "*" 4,
// the type 5 (0x97).
std::vector<uint8_t> NumberArchive(char type, const std::string& value) {
  return Concat({LittleHeader(),
                 Hex("84 84 84 08 'NSNumber' 00 84 84 07 'NSValue' 00 84 84 08 'NSObject' 00 85 84 01 '*' 84 84 01"),
                 std::vector<uint8_t>{static_cast<uint8_t>(type)}, Hex("97"), Hex(value), Hex("86")});
}

// Each object is written as exactly these bytes, and read back from them as the same object.
TEST(ArchiveWriter, ByteExactAndReadBack) {
  auto request = MakeDictionary();
  request->Set("messageId", MakeInt32(102));
  const std::pair<ObjectPtr, std::vector<uint8_t>> cases[] = {
      {nullptr, Concat({LittleHeader(), Hex("85")})},
      // Worked out by hand from the format: header, the dictionary's class chain,
      // the key string (whose chain ends in a reference to NSObject, #2), and the
      // number, whose C string "i" and type string reuse shared string #3.
      {request, Concat({LittleHeader(), Hex("84 84 84 0C 'NSDictionary' 00 84 84 08 'NSObject' 00 85"),
                        Hex("84 01 'i' 01"),
                        Hex("92 84 84 84 08 'NSString' 01 94 84 01 '+' 09 'messageId' 86"),
                        Hex("92 84 84 84 08 'NSNumber' 00 84 84 07 'NSValue' 00 94 84 01 '*' 84 95 95 66 86"),
                        Hex("86")})},
      {MakeInt32(5), NumberArchive('i', "05")},
      {MakeInt32(-1), NumberArchive('i', "FF")},
      {MakeInt32(127), NumberArchive('i', "7F")},
      {MakeInt32(-110), NumberArchive('i', "92")},  // lowest literal
      {MakeInt32(-111), NumberArchive('i', "81 91 FF")},
      {MakeInt32(128), NumberArchive('i', "81 80 00")},
      {MakeInt32(1000), NumberArchive('i', "81 E8 03")},
      {MakeInt32(-32769), NumberArchive('i', "82 FF 7F FF FF")},
      {MakeInt32(100000), NumberArchive('i', "82 A0 86 01 00")},
      {Number::Signed('s', -1000), NumberArchive('s', "81 18 FC")},
      {MakeInt64(-2147483648), NumberArchive('q', "82 00 00 00 80")},
      {MakeInt64(2147483647), NumberArchive('q', "82 FF FF FF 7F")},
      {Number::Unsigned('I', 4294967295u), NumberArchive('I', "82 FF FF FF FF")},  // zero-extended
      {Number::Unsigned('I', 40000), NumberArchive('I', "82 40 9C 00 00")},
      {Number::Unsigned('S', 65535), NumberArchive('S', "81 FF FF")},
      {Number::Unsigned('C', 200), NumberArchive('C', "C8")},  // raw byte
      {MakeBool(true), NumberArchive('c', "01")},
      {MakeBool(false), NumberArchive('c', "00")},
      {MakeFloat(1.5f), NumberArchive('f', "83 00 00 C0 3F")},
      {MakeDouble(2.5), NumberArchive('d', "83 00 00 00 00 00 00 04 40")},
      {MakeDouble(-0.0), NumberArchive('d', "83 00 00 00 00 00 00 00 80")},
      {MakeDouble(7), NumberArchive('d', "07")},  // integral reals travel as integers
      {MakeDouble(1000), NumberArchive('d', "81 E8 03")},
      {MakeDouble(-1000), NumberArchive('d', "81 18 FC")},
  };
  for (const auto& [object, bytes] : cases) {
    SCOPED_TRACE(Dump(object));
    EXPECT_EQ(ToHex(Archive(object)), ToHex(bytes));
    EXPECT_EQ(Dump(Unarchive(bytes)), Dump(object));
  }
  EXPECT_THROW(Archive(MakeInt64(int64_t{1} << 40)), ArchiveError);
  // An integer tag cannot stand for a real's IEEE bytes in an integer type.
  EXPECT_THROW(Unarchive(NumberArchive('i', "83 00 00 C0 3F")), ArchiveError);
}

TEST(ArchiveReader, ReferencesToStringsObjectsAndClasses) {
  // An array of `count` items: the string "ab", then `rest`.
  // Shared strings: "@" 0, "NSArray" 1, "NSObject" 2, "i" 3, "NSString" 4, "+" 5.
  // Objects: array #0, NSArray #1, NSObject #2, "ab" #3, NSString #4, then whatever `rest` adds.
  const auto array_of = [](const std::string& count, const std::string& rest) {
    return Concat({LittleHeader(),
                   Hex("84 84 84 07 'NSArray' 00 84 84 08 'NSObject' 00 85 84 01 'i' " + count),
                   Hex("92 84 84 84 08 'NSString' 01 94 84 01 '+' 02 'ab' 86"), Hex(rest),
                   Hex("86")});
  };
  // Then: the same object again (back reference #3), nil, and a new string "ab" whose class
  // chain is a reference to NSString (#4) and whose type string "+" is shared string #5.
  const auto array = AsArray(Unarchive(array_of("04", "92 95  92 85  92 84 96 97 02 'ab' 86")));
  ASSERT_TRUE(array);
  ASSERT_EQ(array->items.size(), 4u);
  EXPECT_EQ(AsString(array->items[0])->text, "ab");
  EXPECT_EQ(array->items[0], array->items[1]);
  EXPECT_EQ(array->items[2], nullptr);
  ASSERT_TRUE(AsString(array->items[3]));
  EXPECT_NE(array->items[3], array->items[0]);
  EXPECT_FALSE(AsString(array->items[3])->is_mutable);

  // Wrong targets: a class reference naming an object, an object reference
  // naming a class, a reference past the table.
  for (const char* bad : {"92 84 95 97 02 'ab' 86", "92 96", "92 A0", "92 84 84 A0 00"})
    EXPECT_THROW(Unarchive(array_of("02", bad)), ArchiveError) << bad;
}

TEST(ArchiveReader, BigEndianStream) {
  // {"n": 1000 as 'i', "f": 1.5 as 'f'} from a big-endian writer.
  const std::vector<uint8_t> bytes = Concat({
      Hex("04 0B 'typedstream' 81 03 E8 84 01 '@'"),
      Hex("84 84 84 0C 'NSDictionary' 00 84 84 08 'NSObject' 00 85 84 01 'i' 02"),
      Hex("92 84 84 84 08 'NSString' 01 94 84 01 '+' 01 'n' 86"),
      Hex("92 84 84 84 08 'NSNumber' 00 84 84 07 'NSValue' 00 94 84 01 '*' 84 95 95 81 03 E8 86"),
      Hex("92 84 96 97 01 'f' 86"),
      Hex("92 84 98 9A 84 84 01 'f' 9B 83 3F C0 00 00 86"),
      Hex("86"),
  });
  const ObjectPtr dict = Unarchive(bytes);
  EXPECT_EQ(ReadInt(dict, "n"), 1000);
  EXPECT_EQ(ReadDouble(dict, "f"), 1.5);
  EXPECT_EQ(AsNumber(ReadObject(dict, "f"))->type(), 'f');
}

TEST(ArchiveReader, RectangleFromBothHostWidths) {
  struct Case {
    std::string value;
    bool wide;
    double height;
  };
  const Case cases[] = {
      // 64-bit host: doubles, integral ones as integers.
      {"84 84 20 '{CGRect={CGPoint=dd}{CGSize=dd}}' 96 0A 83 00 00 00 00 00 00 34 40 81 2C 01 "
       "83 00 00 00 00 00 20 44 40 86", true, 40.25},
      // 32-bit host: floats.
      {"84 84 23 '{_NSRect={_NSPoint=ff}{_NSSize=ff}}' 96 0A 83 00 00 A0 41 81 2C 01 "
       "83 00 00 22 42 86", false, 40.5},
  };
  for (const Case& c : cases) {
    const auto v = AsValue(Unarchive(
        Concat({LittleHeader(), Hex("84 84 84 07 'NSValue' 00 84 84 08 'NSObject' 00 85 84 01 '*'"),
                Hex(c.value)})));
    ASSERT_TRUE(v);
    EXPECT_EQ(v->shape(), Value::Shape::Rect);
    EXPECT_EQ(v->wide(), c.wide);
    EXPECT_EQ(v->Numbers(), (std::vector<double>{10, 20, 300, c.height}));
  }
  EXPECT_EQ(MakePoint(1, 2)->shape(), Value::Shape::Point);
  EXPECT_EQ(MakeSize(1, 2)->shape(), Value::Shape::Size);
}

TEST(ArchiveReader, SubclassOfFoundationClassWithExtraContentsIsKeptGenerically) {
  auto thing = std::make_shared<Unknown>(
      std::vector<ClassInfo>{{"VMList", 1}, {"NSArray", 0}, {"NSObject", 0}},
      std::vector<Group>{{"i", {IntField("i", 0)}}, {"i", {IntField("i", 5)}}});
  const ObjectPtr back = Unarchive(Archive(thing));
  ASSERT_EQ(back->kind(), Kind::Unknown);
  EXPECT_EQ(Dump(back), Dump(thing));
  // The Foundation class itself must match its layout.
  auto bad = std::make_shared<Unknown>(std::vector<ClassInfo>{{"NSArray", 0}, {"NSObject", 0}},
                                       std::vector<Group>{{"i", {IntField("i", 2)}}});
  EXPECT_THROW(Unarchive(Archive(bad)), ArchiveError);
}

TEST(ArchiveReaders, TolerantLookups) {
  auto d = MakeDictionary();
  d->Set("n", MakeInt32(42));
  d->Set("real", MakeDouble(-2.75));
  d->Set("numeric", MakeString("  -17 apples"));
  d->Set("decimal", MakeString("3.25"));
  d->Set("word", MakeString("abc"));
  d->Set("yes", MakeString(" YES"));
  d->Set("zero padded", MakeString("+007"));
  d->Set("no", MakeString("no"));
  d->Set("data", MakeData({1}));
  const ObjectPtr dict = d;

  EXPECT_EQ(ReadInt(dict, "real"), -2);
  EXPECT_EQ(ReadInt(dict, "numeric"), -17);
  EXPECT_EQ(ReadInt(dict, "decimal"), 3);
  EXPECT_EQ(ReadInt(dict, "word", 9), 0);  // a string answers, as integerValue does
  EXPECT_EQ(ReadInt(dict, "data", 9), 9);  // wrong kind
  EXPECT_EQ(ReadInt(dict, "missing", 9), 9);
  EXPECT_EQ(ReadInt(nullptr, "n", 9), 9);
  EXPECT_EQ(ReadInt(MakeArray(), "n", 9), 9);

  EXPECT_TRUE(ReadBool(dict, "n"));
  EXPECT_TRUE(ReadBool(dict, "yes"));
  EXPECT_TRUE(ReadBool(dict, "zero padded"));
  EXPECT_FALSE(ReadBool(dict, "no", true));
  EXPECT_TRUE(ReadBool(dict, "missing", true));

  EXPECT_EQ(ReadDouble(dict, "real"), -2.75);
  EXPECT_EQ(ReadDouble(dict, "decimal"), 3.25);
  EXPECT_EQ(ReadFloat(dict, "n"), 42.0f);

  EXPECT_EQ(ReadString(dict, "word"), "abc");
  EXPECT_EQ(ReadString(dict, "n"), std::nullopt);
  EXPECT_EQ(ReadString(nullptr, "word"), std::nullopt);
  EXPECT_EQ(ReadObject(dict, "missing"), nullptr);
}

}  // namespace
}  // namespace velmora::archive
