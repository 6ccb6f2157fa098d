#include "app/vision_presence.h"

#include <plist/plist.h>
#include <sys/stat.h>

#include <cctype>
#include <climits>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <memory>
#include <vector>

#ifndef VELMORA_VISION_INSTALL_DIR
#error "VELMORA_VISION_INSTALL_DIR must name the vision library's installed folder"
#endif

namespace velmora {

namespace {

struct PlistDeleter {
  void operator()(plist_t p) const { plist_free(p); }
};
using PlistPtr = std::unique_ptr<void, PlistDeleter>;

bool IsFolder(const std::string& path) {
  struct stat st {};
  return ::stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

// CFBundleShortVersionString of the folder's Info.plist (XML or binary), or
// nothing when the file, its root dictionary or the string key is missing.
bool ReadShortVersion(const std::string& folder, std::string* version) {
  std::ifstream in(folder + "/Info.plist", std::ios::binary);
  if (!in) return false;
  const std::vector<char> bytes{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
  if (bytes.empty() || bytes.size() > UINT32_MAX) return false;
  plist_t raw = nullptr;
  plist_from_memory(bytes.data(), static_cast<uint32_t>(bytes.size()), &raw);
  const PlistPtr root(raw);
  if (!root || plist_get_node_type(root.get()) != PLIST_DICT) return false;
  plist_t node = plist_dict_get_item(root.get(), "CFBundleShortVersionString");
  if (!node || plist_get_node_type(node) != PLIST_STRING) return false;
  uint64_t length = 0;
  const char* text = plist_get_string_ptr(node, &length);
  if (!text) return false;
  version->assign(text, length);
  return true;
}

}  // namespace

std::string HalconFramework_FilePath() {
  const char* over = std::getenv("VELMORA_VISION_DIR");
  return (over && *over) ? std::string(over) : std::string(VELMORA_VISION_INSTALL_DIR);
}

int32_t LeadingInteger(const std::string& text) {
  size_t i = 0;
  while (i < text.size() && std::isspace(static_cast<unsigned char>(text[i]))) ++i;
  bool negative = false;
  if (i < text.size() && (text[i] == '+' || text[i] == '-')) negative = text[i++] == '-';
  int64_t value = 0;
  for (; i < text.size() && std::isdigit(static_cast<unsigned char>(text[i])); ++i) {
    value = value * 10 + (text[i] - '0');
    if (value > INT32_MAX) {  // saturates, as the platform's parse does
      value = static_cast<int64_t>(INT32_MAX) + (negative ? 1 : 0);
      break;
    }
  }
  return static_cast<int32_t>(negative ? -value : value);
}

int32_t HalconFrameworkVersionAt(const std::string& folder, int32_t* major, int32_t* minor,
                                 int32_t* revision) {
  int32_t* const parts[3] = {major, minor, revision};
  for (int32_t* p : parts)
    if (p) *p = 0;
  if (!IsFolder(folder)) return -1;
  std::string version;
  if (!ReadShortVersion(folder, &version)) return 0;
  // Split at every "."; "12" is one component, "12.0.2" three, further ones are ignored.
  size_t start = 0;
  for (int index = 0; index < 3; ++index) {
    const size_t dot = version.find('.', start);
    const std::string component = version.substr(start, dot == std::string::npos ? dot : dot - start);
    if (parts[index]) *parts[index] = LeadingInteger(component);
    if (dot == std::string::npos) break;
    start = dot + 1;
  }
  return 1;
}

int32_t HalconFrameworkVersion(int32_t* major, int32_t* minor, int32_t* revision) {
  return HalconFrameworkVersionAt(HalconFramework_FilePath(), major, minor, revision);
}

bool VisionLibraryPresentAt(const std::string& folder) {
  if (!IsFolder(folder)) return false;
  int32_t major = 0, minor = 0, revision = 0;
  return HalconFrameworkVersionAt(folder, &major, &minor, &revision) == 1 && major == 12;
}

}  // namespace velmora
