#pragma once
// The subcommands of `velmora-3d`. Each lives in its own file and registers
// itself with one static Registration, so adding one touches no other file
// but this folder's CMakeLists.txt.
#include <map>
#include <set>
#include <string>
#include <vector>

namespace velmora3d {

using Args = std::vector<std::string>;

struct Command {
  const char* name;     // first word on the command line
  const char* usage;    // arguments after the name, for the help text
  const char* summary;  // one line
  int (*run)(const Args& args);  // args after the name; returns the exit code
};

struct Registration {
  explicit Registration(const Command& command);
};

// Every registered command, sorted by name.
std::vector<Command> Commands();

// Exit codes: 0 done, 1 failed, 2 bad command line.
inline constexpr int kExitFailed = 1;
inline constexpr int kExitUsage = 2;

// Prints "velmora-3d: <message>" on standard error; returns `code`.
int Fail(const std::string& message, int code = kExitFailed);

// A parsed command line: positional words, "--name value" options and "--flag" flags.
struct ParsedArgs {
  std::vector<std::string> positional;
  std::map<std::string, std::string> values;
  std::set<std::string> flags;
  bool Has(const std::string& name) const { return values.count(name) || flags.count(name); }
  std::string Value(const std::string& name, const std::string& fallback = {}) const {
    auto it = values.find(name);
    return it == values.end() ? fallback : it->second;
  }
};
// Options not named in `valued` or `flags` are an error; so is a valued option
// without its value.
bool ParseArgs(const Args& args, const std::set<std::string>& valued, const std::set<std::string>& flags,
               ParsedArgs* out, std::string* error);
// A whole decimal integer (no trailing characters), else false.
bool ParseInt(const std::string& text, long long* value);

}  // namespace velmora3d
