#include <windows.h>

#include "env_flag.h"
#include "strings.h"

namespace ostrel {
// The CRT's getenv reads a copy taken at start-up; process.env writes go to
// the process environment block, which GetEnvironmentVariableW reads.
std::string read_environment(const char* name) {
  std::wstring wide_name = to_wide(name);
  DWORD needed = GetEnvironmentVariableW(wide_name.c_str(), nullptr, 0);
  if (needed == 0) return "";
  std::wstring value(needed, L'\0');
  DWORD written = GetEnvironmentVariableW(wide_name.c_str(), value.data(), needed);
  value.resize(written);
  return to_utf8(value);
}
}  // namespace ostrel
