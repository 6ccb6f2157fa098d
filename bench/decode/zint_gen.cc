#include "decode/zint_gen.h"

#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <string>

namespace velmora::symgen {
namespace {

int ZintType(Kind k) {
  switch (k) {
    case Kind::Code39: return 8;
    case Kind::Code128: return 20;
    case Kind::Code93: return 25;
    case Kind::ITF: return 3;
    case Kind::Codabar: return 18;
    case Kind::EAN13: return 13;
    default: return 0;
  }
}

std::string Run(const std::string& cmd) {
  std::string out;
  FILE* p = popen(cmd.c_str(), "r");
  if (!p) return out;
  char buf[512];
  size_t n;
  while ((n = std::fread(buf, 1, sizeof buf, p)) > 0) out.append(buf, n);
  pclose(p);
  return out;
}

}  // namespace

bool ZintAvailable() {
  static const bool ok = std::system("zint --version > /dev/null 2>&1") == 0;
  return ok;
}

cv::Mat ZintModules(Kind kind, const std::string& text) {
  const int type = ZintType(kind);
  if (type == 0 || !ZintAvailable()) return {};
  // The text goes to the shell single-quoted; printable ASCII only.
  std::string quoted = "'";
  for (char c : text) {
    if (c < 0x20 || c > 0x7e) return {};
    if (c == '\'') quoted += "'\\''";
    else quoted += c;
  }
  quoted += "'";
  const std::string dump = Run("zint -b " + std::to_string(type) + " --dump -d " + quoted + " 2>/dev/null");
  // One line of hex digits (bytes separated by spaces), most significant bit
  // first; a linear symbol is one row.
  std::string bits;
  for (char c : dump) {
    if (c == '\n') break;
    if (!std::isxdigit(static_cast<unsigned char>(c))) continue;
    const int v = std::stoi(std::string(1, c), nullptr, 16);
    for (int b = 3; b >= 0; --b) bits += (v >> b) & 1 ? '1' : '0';
  }
  // The symbol ends with a bar; trailing zeros are the dump's padding.
  while (!bits.empty() && bits.back() == '0') bits.pop_back();
  if (bits.size() < 20 || bits.front() != '1') return {};
  cv::Mat m(1, int(bits.size()), CV_8U);
  for (size_t i = 0; i < bits.size(); ++i) m.at<uint8_t>(0, int(i)) = bits[i] == '1' ? 0 : 255;
  return m;
}

}  // namespace velmora::symgen
