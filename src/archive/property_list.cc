#include "archive/property_list.h"

#include <plist/plist.h>

#include <cmath>
#include <cstdlib>
#include <limits>
#include <memory>
#include <string>

namespace velmora::archive {

namespace {

constexpr const char* kDateClass = "NSDate";

struct PlistFree {
  void operator()(void* p) const { plist_free(p); }
};
using PlistPtr = std::unique_ptr<void, PlistFree>;

PlistPtr ToPlist(const ObjectPtr& o, int depth) {
  if (depth > kMaxNestingDepth) throw ArchiveError("property list nested too deeply");
  if (!o) throw ArchiveError("a property list cannot hold nil");
  switch (o->kind()) {
    case Kind::Dictionary: {
      PlistPtr dict(plist_new_dict());
      for (const auto& [key, value] : AsDictionary(o)->entries()) {
        const auto k = AsString(key);
        if (!k) throw ArchiveError("property list dictionary keys must be strings");
        // set_item takes ownership of the value node.
        plist_dict_set_item(dict.get(), k->text.c_str(), ToPlist(value, depth + 1).release());
      }
      return dict;
    }
    case Kind::Array: {
      PlistPtr array(plist_new_array());
      for (const auto& item : AsArray(o)->items) plist_array_append_item(array.get(), ToPlist(item, depth + 1).release());
      return array;
    }
    case Kind::String:
      return PlistPtr(plist_new_string(AsString(o)->text.c_str()));
    case Kind::Number: {
      const auto n = AsNumber(o);
      if (n->type() == 'c' || n->type() == 'B') return PlistPtr(plist_new_bool(n->AsBool() ? 1 : 0));
      if (n->is_real()) return PlistPtr(plist_new_real(n->AsDouble()));
      // libplist keeps every integer as 64 bits; signed values as two's complement.
      return PlistPtr(plist_new_uint(n->AsUInt64()));
    }
    case Kind::Data: {
      const auto& bytes = AsData(o)->bytes;
      return PlistPtr(plist_new_data(reinterpret_cast<const char*>(bytes.data()), bytes.size()));
    }
    case Kind::Unknown:
      if (const auto date = DateValue(o)) {
        const double sec = std::floor(*date);
        if (std::abs(sec) > std::numeric_limits<int32_t>::max()) throw ArchiveError("date out of range");
        return PlistPtr(plist_new_date(static_cast<int32_t>(sec), static_cast<int32_t>((*date - sec) * 1e6)));
      }
      break;
    default:
      break;
  }
  throw ArchiveError("a property list cannot hold this object");
}

ObjectPtr FromPlist(plist_t node, int depth) {
  if (depth > kMaxNestingDepth) throw ArchiveError("property list nested too deeply");
  switch (plist_get_node_type(node)) {
    case PLIST_DICT: {
      auto dict = std::make_shared<Dictionary>();
      plist_dict_iter it = nullptr;
      plist_dict_new_iter(node, &it);
      for (;;) {
        char* key = nullptr;
        plist_t value = nullptr;
        plist_dict_next_item(node, it, &key, &value);
        if (!value) {
          std::free(key);
          break;
        }
        std::string k = key ? key : "";
        std::free(key);
        dict->Append(MakeString(std::move(k)), FromPlist(value, depth + 1));
      }
      std::free(it);
      return dict;
    }
    case PLIST_ARRAY: {
      auto array = MakeArray();
      const uint32_t n = plist_array_get_size(node);
      for (uint32_t i = 0; i < n; ++i) array->items.push_back(FromPlist(plist_array_get_item(node, i), depth + 1));
      return array;
    }
    case PLIST_STRING:
    case PLIST_KEY: {
      char* s = nullptr;
      plist_get_string_val(node, &s);
      std::string text = s ? s : "";
      std::free(s);
      return MakeString(std::move(text));
    }
    case PLIST_BOOLEAN: {
      uint8_t b = 0;
      plist_get_bool_val(node, &b);
      return MakeBool(b != 0);
    }
    case PLIST_UINT: {
      uint64_t v = 0;
      plist_get_uint_val(node, &v);
      return MakeInt64(static_cast<int64_t>(v));
    }
    case PLIST_UID: {
      uint64_t v = 0;
      plist_get_uid_val(node, &v);
      return MakeInt64(static_cast<int64_t>(v));
    }
    case PLIST_REAL: {
      double v = 0;
      plist_get_real_val(node, &v);
      return MakeDouble(v);
    }
    case PLIST_DATA: {
      char* bytes = nullptr;
      uint64_t length = 0;
      plist_get_data_val(node, &bytes, &length);
      std::vector<uint8_t> data(reinterpret_cast<uint8_t*>(bytes), reinterpret_cast<uint8_t*>(bytes) + length);
      std::free(bytes);
      return MakeData(std::move(data));
    }
    case PLIST_DATE: {
      int32_t sec = 0, usec = 0;
      plist_get_date_val(node, &sec, &usec);
      return MakeDate(sec + usec * 1e-6);
    }
    default:
      throw ArchiveError("unknown property list node");
  }
}

}  // namespace

std::vector<uint8_t> EncodePropertyList(const ObjectPtr& root, PlistFormat format) {
  PlistPtr node = ToPlist(root, 0);
  char* out = nullptr;
  uint32_t length = 0;
  if (format == PlistFormat::kXml) plist_to_xml(node.get(), &out, &length);
  else plist_to_bin(node.get(), &out, &length);
  if (!out) throw ArchiveError("property list could not be encoded");
  std::vector<uint8_t> bytes(reinterpret_cast<uint8_t*>(out), reinterpret_cast<uint8_t*>(out) + length);
  if (format == PlistFormat::kXml) plist_to_xml_free(out);
  else plist_to_bin_free(out);
  return bytes;
}

ObjectPtr DecodePropertyList(const uint8_t* bytes, std::size_t size) {
  if (!bytes || size == 0 || size > std::numeric_limits<uint32_t>::max()) return nullptr;
  plist_t raw = nullptr;
  plist_from_memory(reinterpret_cast<const char*>(bytes), static_cast<uint32_t>(size), &raw);
  if (!raw) return nullptr;
  PlistPtr node(raw);
  try {
    return FromPlist(node.get(), 0);
  } catch (const ArchiveError&) {
    return nullptr;
  }
}

ObjectPtr MakeDate(double seconds_since_2001) {
  Field f;
  f.type = Field::Type::Real;
  f.encoding = "d";
  f.d = seconds_since_2001;
  return std::make_shared<Unknown>(std::vector<ClassInfo>{{kDateClass, 0}}, std::vector<Group>{{"d", {f}}});
}

std::optional<double> DateValue(const ObjectPtr& object) {
  const auto u = AsUnknown(object);
  if (!u || u->classes.empty() || u->classes[0].name != kDateClass || u->groups.size() != 1 ||
      u->groups[0].values.size() != 1 || u->groups[0].values[0].type != Field::Type::Real)
    return std::nullopt;
  return u->groups[0].values[0].d;
}

}  // namespace velmora::archive
