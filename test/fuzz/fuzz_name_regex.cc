// Name expressions from script, and names from the file system: an
// expression either compiles on both matchers or is refused by both, and
// where the direct matcher (literals, lists, ".*") takes an expression, it
// answers as the engine does on every name. Input: the expression, then
// names, separated by NUL bytes.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "runtime/strings.h"
#include "scan/name_regex.h"

using ostrel::scan::name_regex;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size > 512) return 0;
  std::vector<std::string> parts(1);
  for (std::size_t i = 0; i < size; ++i) {
    if (data[i] == 0) {
      parts.emplace_back();
    } else {
      parts.back().push_back(static_cast<char>(data[i]));
    }
  }
  // Script hands expressions over as UTF-8 (a lone surrogate as U+FFFD); names
  // from a Linux file system may be any bytes.
  const std::string source = ostrel::to_utf8(ostrel::to_utf16(parts.front()));
  bool direct_ok = true, engine_ok = true;
  std::string direct_error, engine_error;
  std::optional<name_regex> direct, engine;
  try {
    direct.emplace(source);
  } catch (const ostrel::scan::invalid_pattern& e) {
    direct_ok = false;
    direct_error = e.what();
  }
  try {
    engine.emplace(source, name_regex::path::engine_only);
  } catch (const ostrel::scan::invalid_pattern& e) {
    engine_ok = false;
    engine_error = e.what();
  }
  if (direct_ok != engine_ok || direct_error != engine_error) std::abort();
  if (!direct_ok) return 0;
  for (std::size_t i = 1; i < parts.size() && i < 9; ++i) {
    const ostrel::scan::native_string name = ostrel::scan::utf8_to_native(parts[i]);
    const std::size_t gave_up = engine->gave_up_count();
    const bool a = direct->full_match(name);
    const bool b = engine->full_match(name);
    if (engine->gave_up_count() == gave_up && a != b) std::abort();
  }
  return 0;
}
