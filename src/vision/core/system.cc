#include "vision/core/system.h"

#include <mutex>
#include <string>

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
  if (v.Length() == 1 && v.IsString(0)) {
    if (v.S(0) == "true") return true;
    if (v.S(0) == "false") return false;
  }
  throw HException(kSet, "Wrong value for '" + name + "': 'true' or 'false' expected",
                   kErrWrongParamValue);
}

int ParseSize(const HTuple& v, const std::string& name) {
  if (v.Length() != 1 || !v.IsNumber(0))
    throw HException(kSet, "Wrong value for '" + name + "': number expected", kErrWrongParamType);
  Hlong s = v.L(0);
  if (s < 1 || s > (1 << 24))
    throw HException(kSet, "Wrong value for '" + name + "'", kErrWrongParamValue);
  return int(s);
}

}  // namespace

void set_system(const HTuple& name, const HTuple& value) {
  if (name.Length() != 1 || !name.IsString(0))
    throw HException(kSet, "Wrong type of parameter name", kErrWrongParamType);
  const std::string& n = name.S(0);
  std::lock_guard<std::mutex> lock(Mutex());
  SystemState& s = State();
  if (n == "neighborhood") {
    if (value.Length() != 1 || !value.IsNumber(0) || (value.L(0) != 4 && value.L(0) != 8))
      throw HException(kSet, "Wrong value for 'neighborhood': 4 or 8 expected",
                       kErrWrongParamValue);
    s.neighborhood = int(value.L(0));
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
    if (value.Length() != 1 || !value.IsString(0))
      throw HException(kSet, "Wrong value for 'operating_system'", kErrWrongParamType);
    s.operating_system = value.S(0);
  } else {
    throw HException(kSet, "Unknown system parameter '" + n + "'", kErrWrongParamValue);
  }
}

void get_system(const HTuple& name, HTuple* value) {
  if (name.Length() != 1 || !name.IsString(0))
    throw HException(kGet, "Wrong type of parameter name", kErrWrongParamType);
  const std::string& n = name.S(0);
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
