#include "vision/core/system.h"

#include <mutex>
#include <string>

#include "vision/core/param.h"

namespace vision {

namespace {

struct SystemState {
  int neighborhood = 8;
  bool clip_region = true;
  bool flush_graphic = true;
  bool init_new_image = true;
  int width = 512, height = 512;
  std::string operating_system = "Linux";
};

// The only global mutable state of the library: the reference keeps these
// parameters per process as well.
std::mutex& Mutex() {
  static std::mutex m;
  return m;
}
SystemState& State() {
  static SystemState s;
  return s;
}

constexpr const char* kSet = "set_system";
constexpr const char* kGet = "get_system";

bool ParseBool(const HTuple& v, const std::string& name) {
  return ParamStringIn(v, kSet, ("'" + name + "'").c_str(), {"true", "false"}) == "true";
}

int ParseSize(const HTuple& v, const std::string& name) {
  return int(ParamIntIn(v, kSet, ("'" + name + "'").c_str(), 1, 1 << 24));
}

}  // namespace

void set_system(const HTuple& name, const HTuple& value) {
  const std::string& n = ParamString(name, kSet, "SystemParameter");
  std::lock_guard<std::mutex> lock(Mutex());
  SystemState& s = State();
  if (n == "neighborhood") {
    const Hlong k = ParamInt(value, kSet, "'neighborhood'");
    if (k != 4 && k != 8) ThrowParamValue(kSet, "'neighborhood'", "4 or 8 expected");
    s.neighborhood = int(k);
  } else if (n == "clip_region") {
    s.clip_region = ParseBool(value, n);
  } else if (n == "flush_graphic") {
    s.flush_graphic = ParseBool(value, n);
  } else if (n == "init_new_image") {
    s.init_new_image = ParseBool(value, n);
  } else if (n == "width") {
    s.width = ParseSize(value, n);
  } else if (n == "height") {
    s.height = ParseSize(value, n);
  } else if (n == "operating_system") {
    s.operating_system = ParamString(value, kSet, "'operating_system'");
  } else {
    throw HException(kSet, "Unknown system parameter '" + n + "'", kErrWrongParamValue);
  }
}

void get_system(const HTuple& name, HTuple* value) {
  const std::string& n = ParamString(name, kGet, "SystemParameter");
  std::lock_guard<std::mutex> lock(Mutex());
  const SystemState& s = State();
  auto b = [](bool v) { return HTuple(v ? "true" : "false"); };
  if (n == "neighborhood") *value = HTuple(s.neighborhood);
  else if (n == "clip_region") *value = b(s.clip_region);
  else if (n == "flush_graphic") *value = b(s.flush_graphic);
  else if (n == "init_new_image") *value = b(s.init_new_image);
  else if (n == "width") *value = HTuple(s.width);
  else if (n == "height") *value = HTuple(s.height);
  else if (n == "operating_system") *value = HTuple(s.operating_system);
  else throw HException(kGet, "Unknown system parameter '" + n + "'", kErrWrongParamValue);
}

int SystemNeighborhood() {
  std::lock_guard<std::mutex> lock(Mutex());
  return State().neighborhood;
}

bool SystemClipRegion() {
  std::lock_guard<std::mutex> lock(Mutex());
  return State().clip_region;
}

void SystemImageSize(int* width, int* height) {
  std::lock_guard<std::mutex> lock(Mutex());
  *width = State().width;
  *height = State().height;
}

void NoteImageSize(int width, int height) {
  if (width < 1 || height < 1) return;
  std::lock_guard<std::mutex> lock(Mutex());
  State().width = width;
  State().height = height;
}

void ResetSystem() {
  std::lock_guard<std::mutex> lock(Mutex());
  State() = SystemState{};
}

}  // namespace vision
