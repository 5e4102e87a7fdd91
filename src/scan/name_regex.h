// Full-match regular expressions over file and folder names: ECMAScript
// grammar, case-sensitive, always matched against the whole name.
//
// Most expressions users write for names are literals joined by ".*"
// ("~\$.*", ".*\.tmp", "node_modules"); those are matched directly on the
// native string, which is many times cheaper than the regex engine. Every
// other expression goes through std::wregex. Both give the same answers.
#pragma once

#include <regex>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "native_path.h"

namespace ostrel::scan {

// An expression that does not compile; what() reads
// `invalid regular expression "<source>": <reason>`.
class invalid_pattern : public std::runtime_error {
 public:
  invalid_pattern(const std::string& source, const std::string& reason);
};

class name_regex {
 public:
  // Compiles `source` (UTF-8); throws invalid_pattern.
  explicit name_regex(const std::string& source);

  bool full_match(native_string_view subject) const;
  const std::string& source() const noexcept { return source_; }
  // True when the direct matcher handles this expression (for tests).
  bool is_simple() const noexcept { return simple_; }

 private:
  bool match_simple(native_string_view subject) const;

  std::string source_;
  std::wregex regex_;
  // Simple form: segments_[0] .* segments_[1] .* ... ; one segment means a
  // plain literal.
  bool simple_ = false;
  std::vector<native_string> segments_;
};

}  // namespace ostrel::scan
