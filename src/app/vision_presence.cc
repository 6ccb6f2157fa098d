#include "app/vision_presence.h"

#include <plist/plist.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cctype>
#include <climits>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <vector>

#ifndef VELMORA_VISION_INSTALL_DIR
#error "VELMORA_VISION_INSTALL_DIR must name the vision library's installed folder"
#endif
#if !defined(VELMORA_VISION_FROM_BINDIR) || !defined(VELMORA_VISION_FROM_BUILD_APP)
#error "the vision folder's place relative to the installed and the built executable must be given"
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

std::string DescribeVisionFolder(const std::string& folder, bool* present) {
  if (present) *present = false;
  struct stat st {};
  if (::stat(folder.c_str(), &st) != 0) return "no such folder";
  if (!S_ISDIR(st.st_mode)) return "not a folder";
  std::ifstream probe(folder + "/Info.plist");
  if (!probe) return "no Info.plist";
  std::string version;
  if (!ReadShortVersion(folder, &version)) return "Info.plist has no readable CFBundleShortVersionString";
  int32_t major = 0, minor = 0, revision = 0;
  HalconFrameworkVersionAt(folder, &major, &minor, &revision);
  if (major != 12) return "version " + version + ", not 12";
  if (present) *present = true;
  return "present, version " + version;
}

namespace {

// The folder of the running executable, or "" when /proc does not say.
std::string ExecutableFolder() {
  char buf[4096];
  const ssize_t n = ::readlink("/proc/self/exe", buf, sizeof buf - 1);
  if (n <= 0) return {};
  std::string path(buf, static_cast<size_t>(n));
  const size_t slash = path.rfind('/');
  return slash == std::string::npos ? std::string() : path.substr(0, slash);
}

}  // namespace

VisionFolderSearch LocateVisionFolder() {
  VisionFolderSearch search;
  auto consider = [&](const std::string& folder, const char* source) {
    VisionFolderSearch::Candidate c{folder, source, {}, false};
    c.finding = DescribeVisionFolder(folder, &c.present);
    search.tried.push_back(c);
    return c.present;
  };
  if (const char* over = std::getenv("VELMORA_VISION_DIR"); over && *over) {
    consider(over, "VELMORA_VISION_DIR");
    search.folder = over;
    return search;
  }
  search.folder = VELMORA_VISION_INSTALL_DIR;
  if (consider(VELMORA_VISION_INSTALL_DIR, "configured")) return search;
  const std::string exe = ExecutableFolder();
  if (exe.empty()) return search;
  // The installed layout (bin/ beside share/), then the build tree's.
  for (const char* relative : {VELMORA_VISION_FROM_BINDIR, VELMORA_VISION_FROM_BUILD_APP}) {
    std::error_code ec;
    std::string folder = std::filesystem::weakly_canonical(exe + "/" + relative, ec).string();
    if (ec || folder.empty()) folder = exe + "/" + relative;
    bool seen = false;
    for (const auto& c : search.tried) seen |= c.folder == folder;
    if (seen) continue;
    if (consider(folder, "beside the executable")) {
      search.folder = folder;
      return search;
    }
  }
  return search;
}

std::string HalconFramework_FilePath() { return LocateVisionFolder().folder; }

VisionFolderSearch SettleVisionFolder() {
  VisionFolderSearch search = LocateVisionFolder();
  if (!std::getenv("VELMORA_VISION_DIR") && search.folder != VELMORA_VISION_INSTALL_DIR)
    ::setenv("VELMORA_VISION_DIR", search.folder.c_str(), 1);
  return search;
}

std::string VisionFolderLogLine(const VisionFolderSearch& search) {
  std::string line = "vision library: ";
  for (size_t i = 0; i < search.tried.size(); ++i) {
    const auto& c = search.tried[i];
    if (i) line += "; ";
    line += c.folder + " (" + c.source + "): " + c.finding;
  }
  line += "; using " + search.folder;
  return line;
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
