// Full-match regular expressions over file and folder names: JavaScript
// grammar, case-sensitive, always matched against the whole name.
//
// An expression is translated into Boost.Regex's syntax (so that every escape
// and class means what it means in JavaScript, on both platforms) and
// compiled once. Names are matched as UTF-16 code units, as JavaScript does.
// Boost's matcher keeps its backtracking state on the heap and gives up after
// a bounded number of steps: a match that would backtrack for minutes counts
// as no match, and the expression is reported once on standard error.
//
// Most expressions users write for names are literals, lists of literals, or
// literals joined by ".*" ("node_modules", "~\$.*", ".*\.tmp", "a|b|c");
// those are matched directly on the native string, which is many times
// cheaper than any engine. Both paths give the same answers.
#pragma once

#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>

#include "native_path.h"

namespace ostrel::scan {

// An expression that does not compile; what() reads
// `invalid regular expression "<source>": <reason>` (a source longer than
// 200 bytes is shortened: "<start>... (<length> characters)").
class invalid_pattern : public std::runtime_error {
 public:
  invalid_pattern(const std::string& source, const std::string& reason);
};

class name_regex {
 public:
  enum class path {
    automatic,    // the direct matcher when the form allows it, else the engine
    engine_only,  // always the engine (for tests and benchmarks)
  };

  // Compiles `source` (UTF-8); throws invalid_pattern.
  explicit name_regex(const std::string& source, path how = path::automatic);

  // Thread-safe. A match the engine gives up on is false (reported once per
  // expression on standard error).
  bool full_match(native_string_view subject) const;
  const std::string& source() const noexcept;
  // True when the direct matcher handles this expression.
  bool is_simple() const noexcept;
  // How many times the engine gave up on a name (for tests).
  std::size_t gave_up_count() const noexcept;

  struct compiled;

 private:
  std::shared_ptr<compiled> impl_;
};

}  // namespace ostrel::scan
