// velmora-3d: the 3D rig tool. `velmora-3d <command> ...`; see `velmora-3d help`.
#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <memory>

#include "command.h"

namespace velmora3d {

namespace {
// Function-local, so registrations in other files' static initialisers find it built.
std::vector<Command>& Registry() {
  static std::vector<Command> commands;
  return commands;
}
}  // namespace

Registration::Registration(const Command& command) { Registry().push_back(command); }

std::vector<Command> Commands() {
  std::vector<Command> sorted = Registry();
  std::sort(sorted.begin(), sorted.end(),
            [](const Command& a, const Command& b) { return std::string(a.name) < b.name; });
  return sorted;
}

int Fail(const std::string& message, int code) {
  std::fprintf(stderr, "velmora-3d: %s\n", message.c_str());
  return code;
}

bool ParseInt(const std::string& text, long long* value) {
  if (text.empty()) return false;
  char* end = nullptr;
  errno = 0;
  const long long v = std::strtoll(text.c_str(), &end, 10);
  if (errno != 0 || end == text.c_str() || *end != '\0') return false;
  *value = v;
  return true;
}

bool ParseArgs(const Args& args, const std::set<std::string>& valued, const std::set<std::string>& flags,
               ParsedArgs* out, std::string* error) {
  *out = ParsedArgs{};
  for (size_t i = 0; i < args.size(); ++i) {
    const std::string& a = args[i];
    // "--name" and "-x" are options; "-5" is a (negative) number.
    const bool is_long = a.size() > 2 && a.compare(0, 2, "--") == 0;
    const bool is_short = a.size() == 2 && a[0] == '-' && !std::isdigit(static_cast<unsigned char>(a[1]));
    if (is_long || is_short) {
      if (valued.count(a)) {
        if (i + 1 >= args.size()) {
          *error = a + " needs a value";
          return false;
        }
        out->values[a] = args[++i];
      } else if (flags.count(a)) {
        out->flags.insert(a);
      } else {
        *error = "unknown option " + a;
        return false;
      }
    } else {
      out->positional.push_back(a);
    }
  }
  return true;
}

namespace {

void PrintHelp(FILE* to) {
  std::fprintf(to, "usage: velmora-3d <command> [arguments]\n\ncommands:\n");
  for (const Command& c : Commands())
    std::fprintf(to, "  %s %s\n      %s\n", c.name, c.usage, c.summary);
}

}  // namespace
}  // namespace velmora3d

int main(int argc, char** argv) {
  using namespace velmora3d;
  if (argc < 2) {
    PrintHelp(stderr);
    return kExitUsage;
  }
  const std::string name = argv[1];
  if (name == "help" || name == "--help" || name == "-h") {
    PrintHelp(stdout);
    return 0;
  }
  for (const Command& c : Commands()) {
    if (name == c.name) return c.run(Args(argv + 2, argv + argc));
  }
  return Fail("unknown command \"" + name + "\" (see velmora-3d help)", kExitUsage);
}
