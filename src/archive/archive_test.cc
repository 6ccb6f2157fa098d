// Round trips, hand-made byte streams and exact writer output.
#include <gtest/gtest.h>

#include <cmath>

#include "archive/archive.h"
#include "archive/test_support.h"

namespace velmora::archive {
namespace {

using testing::Concat;
using testing::Hex;
using testing::LittleHeader;
using testing::ToHex;

// Deep comparison of two object graphs (values, kinds, class choices).
void ExpectSame(const ObjectPtr& a, const ObjectPtr& b, const std::string& where = "root");

void ExpectSameField(const Field& a, const Field& b, const std::string& where) {
  EXPECT_EQ(a.type, b.type) << where;
  EXPECT_EQ(a.encoding, b.encoding) << where;
  EXPECT_EQ(a.i, b.i) << where;
  EXPECT_EQ(a.u, b.u) << where;
  EXPECT_EQ(a.d, b.d) << where;
  EXPECT_EQ(a.bytes, b.bytes) << where;
  EXPECT_EQ(a.classes, b.classes) << where;
  ASSERT_EQ(a.elements.size(), b.elements.size()) << where;
  for (std::size_t k = 0; k < a.elements.size(); ++k)
    ExpectSameField(a.elements[k], b.elements[k], where + "." + std::to_string(k));
  ExpectSame(a.object, b.object, where + ".object");
}

void ExpectSame(const ObjectPtr& a, const ObjectPtr& b, const std::string& where) {
  ASSERT_EQ(a == nullptr, b == nullptr) << where;
  if (!a) return;
  ASSERT_EQ(a->kind(), b->kind()) << where;
  switch (a->kind()) {
    case Kind::Dictionary: {
      const auto &x = *AsDictionary(a), &y = *AsDictionary(b);
      EXPECT_EQ(x.is_mutable, y.is_mutable) << where;
      ASSERT_EQ(x.size(), y.size()) << where;
      for (std::size_t k = 0; k < x.size(); ++k) {
        ExpectSame(x.entries()[k].first, y.entries()[k].first, where + ".key" + std::to_string(k));
        ExpectSame(x.entries()[k].second, y.entries()[k].second, where + ".value" + std::to_string(k));
      }
      break;
    }
    case Kind::Array: {
      const auto &x = *AsArray(a), &y = *AsArray(b);
      EXPECT_EQ(x.is_mutable, y.is_mutable) << where;
      ASSERT_EQ(x.items.size(), y.items.size()) << where;
      for (std::size_t k = 0; k < x.items.size(); ++k)
        ExpectSame(x.items[k], y.items[k], where + "[" + std::to_string(k) + "]");
      break;
    }
    case Kind::String:
      EXPECT_EQ(AsString(a)->text, AsString(b)->text) << where;
      EXPECT_EQ(AsString(a)->is_mutable, AsString(b)->is_mutable) << where;
      break;
    case Kind::Number: {
      const auto &x = *AsNumber(a), &y = *AsNumber(b);
      EXPECT_EQ(x.type(), y.type()) << where;
      EXPECT_EQ(x.AsInt64(), y.AsInt64()) << where;
      EXPECT_EQ(x.AsUInt64(), y.AsUInt64()) << where;
      EXPECT_EQ(x.AsDouble(), y.AsDouble()) << where;
      break;
    }
    case Kind::Data:
      EXPECT_EQ(AsData(a)->bytes, AsData(b)->bytes) << where;
      EXPECT_EQ(AsData(a)->is_mutable, AsData(b)->is_mutable) << where;
      break;
    case Kind::Value:
      EXPECT_EQ(AsValue(a)->encoding, AsValue(b)->encoding) << where;
      EXPECT_EQ(AsValue(a)->Numbers(), AsValue(b)->Numbers()) << where;
      break;
    case Kind::Image:
      EXPECT_EQ(AsImage(a)->bytes(), AsImage(b)->bytes()) << where;
      EXPECT_EQ(AsImage(a)->size().width, AsImage(b)->size().width) << where;
      EXPECT_EQ(AsImage(a)->size().height, AsImage(b)->size().height) << where;
      break;
    case Kind::Unknown: {
      const auto &x = *AsUnknown(a), &y = *AsUnknown(b);
      EXPECT_EQ(x.classes, y.classes) << where;
      ASSERT_EQ(x.groups.size(), y.groups.size()) << where;
      for (std::size_t g = 0; g < x.groups.size(); ++g) {
        EXPECT_EQ(x.groups[g].types, y.groups[g].types) << where;
        ASSERT_EQ(x.groups[g].values.size(), y.groups[g].values.size()) << where;
        for (std::size_t k = 0; k < x.groups[g].values.size(); ++k)
          ExpectSameField(x.groups[g].values[k], y.groups[g].values[k], where + ".group" + std::to_string(g));
      }
      break;
    }
  }
}

Field IntField(const std::string& enc, int64_t v) {
  Field f;
  f.type = Field::Type::Int;
  f.encoding = enc;
  f.i = v;
  return f;
}

// An object of a class the codec does not model, exercising every generic type.
ObjectPtr MakeUnknownThing() {
  Field range;
  range.type = Field::Type::Compound;
  range.encoding = "{_NSRange=QQ}";
  for (uint64_t v : {7u, 70000u}) {
    Field q;
    q.type = Field::Type::UInt;
    q.encoding = "Q";
    q.u = v;
    range.elements.push_back(q);
  }
  Field bytes;
  bytes.type = Field::Type::Bytes;
  bytes.encoding = "[4c]";
  bytes.bytes = {1, 2, 0xFE, 0xFF};
  Field cstring;
  cstring.type = Field::Type::CString;
  cstring.encoding = "*";
  cstring.bytes = {'h', 'i'};
  Field cls;
  cls.type = Field::Type::Class;
  cls.encoding = "#";
  cls.classes = {{"VMWidget", 2}, {"NSObject", 0}};
  Field object;
  object.type = Field::Type::Object;
  object.encoding = "@";
  object.object = MakeString("inner");
  Field array;
  array.type = Field::Type::Compound;
  array.encoding = "[3s]";
  for (int v : {-1, 300, -40000 % 32768}) array.elements.push_back(IntField("s", v));
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
  auto mutable_string = std::make_shared<String>("mutable", true);
  root->Set("mutable string", mutable_string);
  root->Set("true", MakeBool(true));
  root->Set("false", MakeBool(false));
  root->Set("int32", MakeInt32(-123456));
  root->Set("int64", MakeInt64(2147483647));
  root->Set("uint", Number::Unsigned('I', 4000000000u));
  root->Set("ushort", Number::Unsigned('S', 65535));
  root->Set("short", Number::Signed('s', -300));
  root->Set("double", MakeDouble(-0.1));
  root->Set("integral double", MakeDouble(-4096));
  root->Set("float", MakeFloat(3.25f));
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
  ExpectSame(root, back);
  EXPECT_EQ(AsNumber(AsDictionary(back)->Get("true"))->type(), 'c');
  EXPECT_TRUE(ReadBool(back, "true"));
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

TEST(ArchiveRoundTrip, NilRoot) {
  const std::vector<uint8_t> bytes = Archive(nullptr);
  EXPECT_EQ(ToHex(bytes), ToHex(Concat({LittleHeader(), Hex("85")})));
  EXPECT_EQ(Unarchive(bytes), nullptr);
}

// Worked out by hand from the format: header, the dictionary's class chain,
// the key string (whose chain ends in a reference to NSObject, #2), and the
// number, whose C string "i" and type string reuse shared string #3.
TEST(ArchiveWriter, SmallRequestIsByteExact) {
  auto request = MakeDictionary();
  request->Set("messageId", MakeInt32(102));
  const std::vector<uint8_t> expected = Concat({
      LittleHeader(),
      Hex("84 84 84 0C 'NSDictionary' 00 84 84 08 'NSObject' 00 85"),
      Hex("84 01 'i' 01"),
      Hex("92 84 84 84 08 'NSString' 01 94 84 01 '+' 09 'messageId' 86"),
      Hex("92 84 84 84 08 'NSNumber' 00 84 84 07 'NSValue' 00 94 84 01 '*' 84 95 95 66 86"),
      Hex("86"),
  });
  EXPECT_EQ(ToHex(Archive(request)), ToHex(expected));
  EXPECT_EQ(ReadInt(Unarchive(expected), "messageId"), 102);
}

// The bytes after a number's type string: the value, then the end of the object.
TEST(ArchiveWriter, NumberEncodings) {
  struct Case {
    ObjectPtr number;
    std::string tail;
  };
  const Case cases[] = {
      {MakeInt32(127), "7F 86"},
      {MakeInt32(-110), "92 86"},  // lowest literal
      {MakeInt32(-111), "81 91 FF 86"},
      {MakeInt32(128), "81 80 00 86"},
      {MakeInt32(1000), "81 E8 03 86"},
      {MakeInt32(-32769), "82 FF 7F FF FF 86"},
      {MakeInt32(100000), "82 A0 86 01 00 86"},
      {Number::Unsigned('S', 65535), "81 FF FF 86"},
      {Number::Unsigned('I', 40000), "82 40 9C 00 00 86"},
      {Number::Unsigned('C', 200), "C8 86"},
      {MakeBool(true), "01 86"},
      {MakeDouble(7), "07 86"},  // integral reals travel as integers
      {MakeDouble(-1000), "81 18 FC 86"},
      {MakeDouble(2.5), "83 00 00 00 00 00 00 04 40 86"},
      {MakeDouble(-0.0), "83 00 00 00 00 00 00 00 80 86"},
      {MakeFloat(1.5f), "83 00 00 C0 3F 86"},
  };
  for (const Case& c : cases) {
    const std::string hex = ToHex(Archive(c.number));
    ASSERT_GE(hex.size(), c.tail.size());
    EXPECT_EQ(hex.substr(hex.size() - c.tail.size()), c.tail) << "number " << AsNumber(c.number)->AsDouble();
    ExpectSame(c.number, Unarchive(Archive(c.number)));
  }
  EXPECT_THROW(Archive(MakeInt64(int64_t{1} << 40)), ArchiveError);
}

// A number archived by hand with the given type and value bytes.
std::vector<uint8_t> NumberArchive(char type, const std::string& value) {
  // Shared strings: "@" 0, "NSNumber" 1, "NSValue" 2, "NSObject" 3, "*" 4, type 5 (0x97).
  return Concat({LittleHeader(),
                 Hex("84 84 84 08 'NSNumber' 00 84 84 07 'NSValue' 00 84 84 08 'NSObject' 00 85 84 01 '*' 84 84 01"),
                 std::vector<uint8_t>{static_cast<uint8_t>(type)}, Hex("97"), Hex(value), Hex("86")});
}

TEST(ArchiveReader, PrimitiveEncodings) {
  struct Case {
    char type;
    std::string value;
    double expected;
  };
  const Case cases[] = {
      {'i', "05", 5},
      {'i', "FF", -1},
      {'i', "92", -110},
      {'i', "81 E8 03", 1000},
      {'s', "81 18 FC", -1000},
      {'i', "82 A0 86 01 00", 100000},
      {'q', "82 00 00 00 80", -2147483648.0},
      {'I', "82 FF FF FF FF", 4294967295.0},  // unsigned types zero-extend
      {'S', "81 FF FF", 65535},
      {'C', "C8", 200},  // raw byte
      {'c', "01", 1},
      {'f', "83 00 00 C0 3F", 1.5},
      {'d', "83 00 00 00 00 00 00 04 40", 2.5},
      {'d', "07", 7},  // integral double written as an integer
      {'d', "81 E8 03", 1000},
  };
  for (const Case& c : cases) {
    const auto n = AsNumber(Unarchive(NumberArchive(c.type, c.value)));
    ASSERT_TRUE(n) << c.type << " " << c.value;
    EXPECT_EQ(n->type(), c.type);
    EXPECT_EQ(n->AsDouble(), c.expected) << c.type << " " << c.value;
  }
  // An integer tag cannot stand for a real's IEEE bytes in an integer type.
  EXPECT_THROW(Unarchive(NumberArchive('i', "83 00 00 C0 3F")), ArchiveError);
}

TEST(ArchiveReader, ReferencesToStringsObjectsAndClasses) {
  // An array of: "ab", the same object again (back reference #3), nil, and a
  // new string "ab" whose class chain is a reference to NSString (#4) and whose
  // type string "+" is shared string reference #5.
  // Shared strings: "@" 0, "NSArray" 1, "NSObject" 2, "i" 3, "NSString" 4, "+" 5.
  // Objects: array #0, NSArray #1, NSObject #2, "ab" #3, NSString #4, "ab" #5.
  const std::vector<uint8_t> bytes = Concat({
      LittleHeader(),
      Hex("84 84 84 07 'NSArray' 00 84 84 08 'NSObject' 00 85 84 01 'i' 04"),
      Hex("92 84 84 84 08 'NSString' 01 94 84 01 '+' 02 'ab' 86"),
      Hex("92 95"),
      Hex("92 85"),
      Hex("92 84 96 97 02 'ab' 86"),
      Hex("86"),
  });
  const auto array = AsArray(Unarchive(bytes));
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
  for (const char* bad : {"92 84 95 97 02 'ab' 86", "92 96", "92 A0", "92 84 84 A0 00"}) {
    std::vector<uint8_t> b = Concat({LittleHeader(),
                                     Hex("84 84 84 07 'NSArray' 00 84 84 08 'NSObject' 00 85 84 01 'i' 02"),
                                     Hex("92 84 84 84 08 'NSString' 01 94 84 01 '+' 02 'ab' 86"), Hex(bad),
                                     Hex("86")});
    EXPECT_THROW(Unarchive(b), ArchiveError) << bad;
  }
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
  // 64-bit host: doubles, integral ones as integers.
  const std::vector<uint8_t> wide = Concat({
      LittleHeader(), Hex("84 84 84 07 'NSValue' 00 84 84 08 'NSObject' 00 85 84 01 '*'"),
      Hex("84 84 20 '{CGRect={CGPoint=dd}{CGSize=dd}}' 96 0A 83 00 00 00 00 00 00 34 40 81 2C 01 83 00 00 00 00 "
          "00 20 44 40 86"),
  });
  // 32-bit host: floats.
  const std::vector<uint8_t> narrow = Concat({
      LittleHeader(), Hex("84 84 84 07 'NSValue' 00 84 84 08 'NSObject' 00 85 84 01 '*'"),
      Hex("84 84 23 '{_NSRect={_NSPoint=ff}{_NSSize=ff}}' 96 0A 83 00 00 A0 41 81 2C 01 83 00 00 22 42 86"),
  });
  for (const auto& [bytes, is_wide] : {std::pair{wide, true}, std::pair{narrow, false}}) {
    const auto v = AsValue(Unarchive(bytes));
    ASSERT_TRUE(v);
    EXPECT_EQ(v->shape(), Value::Shape::Rect);
    EXPECT_EQ(v->wide(), is_wide);
    EXPECT_EQ(v->Numbers(), (std::vector<double>{10, 20, 300, is_wide ? 40.25 : 40.5}));
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
  ExpectSame(thing, back);
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

  EXPECT_EQ(ReadInt(dict, "n"), 42);
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
  EXPECT_FALSE(ReadBool(dict, "missing"));
  EXPECT_TRUE(ReadBool(dict, "missing", true));

  EXPECT_EQ(ReadDouble(dict, "real"), -2.75);
  EXPECT_EQ(ReadDouble(dict, "decimal"), 3.25);
  EXPECT_EQ(ReadFloat(dict, "n"), 42.0f);
  EXPECT_EQ(ReadDouble(dict, "missing", 1.5), 1.5);

  EXPECT_EQ(ReadString(dict, "word"), "abc");
  EXPECT_EQ(ReadString(dict, "n"), std::nullopt);
  EXPECT_EQ(ReadString(nullptr, "word"), std::nullopt);
  EXPECT_EQ(ReadObject(dict, "data"), d->Get("data"));
  EXPECT_EQ(ReadObject(dict, "missing"), nullptr);
}

}  // namespace
}  // namespace velmora::archive
