#include "name_regex.h"

// Boost.Regex, header-only and without the rest of Boost. This is the only
// file of the module that includes it, so these settings hold for every use.
#define BOOST_REGEX_STANDALONE
// The same portable traits on both platforms (no Win32 locale calls); the
// translation below leaves nothing to them but plain code-unit comparison.
#define BOOST_REGEX_NO_W32
// The most steps (states visited) one match may take before the matcher
// gives up with error_complexity. Boost takes this figure as it is when it
// cannot see the subject's length (see unit_iterator). A step costs about
// 10 ns, so a hopeless match gives up after about 1 ms; a name of 255 units
// against an expression that does not backtrack wildly takes a few hundred
// steps, a group of 20,000 alternatives about 40,000.
#define BOOST_REGEX_MAX_STATE_COUNT 100000
#include <boost/regex.hpp>

#include <atomic>
#include <iterator>
#include <optional>
#include <unordered_set>
#include <vector>

#include "runtime/log.h"
#include "runtime/strings.h"

namespace ostrel::scan {

namespace {

// ---------------------------------------------------------------------------
// Characters

bool is_ascii_alnum(char16_t c) {
  return (c >= u'0' && c <= u'9') || (c >= u'a' && c <= u'z') || (c >= u'A' && c <= u'Z');
}
bool is_ascii_letter(char16_t c) {
  return (c >= u'a' && c <= u'z') || (c >= u'A' && c <= u'Z');
}
bool is_decimal(char16_t c) {
  return c >= u'0' && c <= u'9';
}
bool is_octal(char16_t c) {
  return c >= u'0' && c <= u'7';
}
int hex_value(char16_t c) {
  if (c >= u'0' && c <= u'9') return c - u'0';
  if (c >= u'a' && c <= u'f') return c - u'a' + 10;
  if (c >= u'A' && c <= u'F') return c - u'A' + 10;
  return -1;
}
// JavaScript's line terminators: what '.' does not match.
bool is_line_terminator(char32_t c) {
  return c == u'\n' || c == u'\r' || c == 0x2028 || c == 0x2029;
}

// The text of `source` for a message, in quotes: whole, or its first 200
// bytes (cut on a character boundary) and its length.
std::string quoted_source(const std::string& source) {
  constexpr std::size_t limit = 200;
  if (source.size() <= limit) return "\"" + source + "\"";
  std::size_t cut = limit;
  while (cut > 0 && (static_cast<unsigned char>(source[cut]) & 0xC0) == 0x80) --cut;
  std::size_t characters = 0;
  for (char c : source) characters += (static_cast<unsigned char>(c) & 0xC0) != 0x80;
  return "\"" + source.substr(0, cut) + "... (" + std::to_string(characters) + " characters)\"";
}

// ---------------------------------------------------------------------------
// JavaScript to Boost.Regex
//
// Boost's Perl syntax is close to JavaScript's but not the same: `\v`, `\h`,
// `\u`, `\l`, `\A`, `\Q`, `\<` and many more escapes mean other things,
// `[[:alpha:]]` is a class, `(?i)`, `(?>...)`, `(*VERB)` and possessive
// quantifiers exist, `\d`, `\w`, `\s` and `\b` follow the platform's
// character tables, `.` stops at `\f` and U+0085, `^` and `$` match at line
// breaks, and `[]` is not the empty class. So the expression is read with
// JavaScript's grammar (without the `u` flag, as `new RegExp(source)` reads
// it, including the web-compatibility forms: `]`, `{` and `}` as literals,
// legacy octal escapes) and written again in terms whose meaning is the same
// in Boost: literals as `\xHH`, classes as explicit ranges, anchors as
// `\A` and `\z`, backreferences as `\g{n}`, named groups as numbered ones.
// What JavaScript refuses is refused here with its own reasons.

struct syntax_error {
  const char* reason;
};

class translator {
 public:
  explicit translator(std::u16string_view p) : p_(p) {}

  void run() {
    count_groups();
    closed_.assign(group_count_ + 1, false);
    while (i_ < p_.size()) term();
    if (!open_.empty()) throw syntax_error{"Unterminated group"};
  }

  std::wstring any;    // '.' written as '.', compiled to match every unit
  std::wstring exact;  // '.' written as JavaScript's class
  bool has_dot = false;
  bool has_backref = false;

 private:
  static constexpr std::size_t max_depth = 256;
  static constexpr const wchar_t* word_class = L"A-Za-z0-9_";
  static constexpr const wchar_t* digit_class = L"0-9";
  // JavaScript's \s: WhiteSpace and LineTerminator.
  static constexpr const wchar_t* space_class =
      L"\\x{9}-\\x{D}\\x{20}\\x{A0}\\x{1680}\\x{2000}-\\x{200A}\\x{2028}\\x{2029}\\x{202F}\\x{205F}"
      L"\\x{3000}\\x{FEFF}";
  static constexpr const wchar_t* any_unit = L"[\\x{0}-\\x{FFFF}]";
  static constexpr const wchar_t* no_unit = L"[^\\x{0}-\\x{FFFF}]";

  struct group {
    bool quantifiable;  // lookbehinds may not be repeated
    std::size_t index;  // capture number, 0 when not capturing
  };

  struct named {
    std::u16string name;
    std::size_t index;
  };

  // First pass: the number of capturing groups and their names, which
  // decide how `\1` and `\k` read.
  void count_groups() {
    for (std::size_t i = 0; i < p_.size(); ++i) {
      char16_t c = p_[i];
      if (c == u'\\') {
        ++i;
      } else if (c == u'[') {
        for (++i; i < p_.size() && p_[i] != u']'; ++i) {
          if (p_[i] == u'\\') ++i;
        }
      } else if (c == u'(') {
        if (i + 1 < p_.size() && p_[i + 1] == u'?') {
          if (i + 3 < p_.size() && p_[i + 2] == u'<' && p_[i + 3] != u'=' && p_[i + 3] != u'!') {
            ++group_count_;
            std::size_t close = p_.find(u'>', i + 3);
            if (close != std::u16string_view::npos) {
              names_.push_back({std::u16string(p_.substr(i + 3, close - i - 3)), group_count_});
            }
          }
        } else {
          ++group_count_;
        }
      }
    }
  }

  void out(std::wstring_view s) {
    any += s;
    exact += s;
  }
  void out(wchar_t c) {
    any += c;
    exact += c;
  }
  // One code unit as a literal, inside or outside a class. ASCII other than
  // letters and digits is written `\xHH`, since in Boost many `\` + mark
  // pairs are not literals (`\<`, `\'`).
  static void append_unit(std::wstring& to, char16_t u) {
    if (is_ascii_alnum(u) || u >= 0x80) {
      to += static_cast<wchar_t>(u);
      return;
    }
    static constexpr wchar_t digits[] = L"0123456789ABCDEF";
    to += L"\\x";
    to += digits[u >> 4];
    to += digits[u & 0xF];
  }
  void literal(char16_t u) {
    append_unit(any, u);
    append_unit(exact, u);
    can_quantify_ = true;
  }

  bool at(std::size_t k, char16_t c) const { return k < p_.size() && p_[k] == c; }

  void term() {
    char16_t c = p_[i_];
    switch (c) {
      case u'\\':
        escape();
        return;
      case u'[':
        character_class();
        return;
      case u'(':
        open_group();
        return;
      case u')':
        close_group();
        return;
      case u'|':
        ++i_;
        out(L'|');
        can_quantify_ = false;
        return;
      case u'^':
        ++i_;
        out(L"\\A");
        can_quantify_ = false;
        return;
      case u'$':
        ++i_;
        out(L"\\z");
        can_quantify_ = false;
        return;
      case u'.':
        ++i_;
        any += L'.';
        exact += L"[^\\x{A}\\x{D}\\x{2028}\\x{2029}]";
        has_dot = true;
        can_quantify_ = true;
        return;
      case u'*':
      case u'+':
      case u'?':
        if (!can_quantify_) throw syntax_error{"Nothing to repeat"};
        ++i_;
        out(static_cast<wchar_t>(c));
        lazy_suffix();
        return;
      case u'{': {
        std::wstring quantifier;
        if (read_braces(quantifier)) {
          if (!can_quantify_) throw syntax_error{"Nothing to repeat"};
          out(quantifier);
          lazy_suffix();
        } else {
          ++i_;
          literal(c);
        }
        return;
      }
      default:
        ++i_;
        literal(c);
        return;
    }
  }

  void lazy_suffix() {
    if (at(i_, u'?')) {
      ++i_;
      out(L'?');
    }
    can_quantify_ = false;
  }

  // `{n}`, `{n,}` or `{n,m}` at i_: writes it and moves past it. Anything
  // else is not a quantifier (then `{` is a literal).
  bool read_braces(std::wstring& text) {
    std::size_t k = i_ + 1;
    auto number = [&](std::u16string_view& digits) {
      std::size_t start = k;
      while (k < p_.size() && is_decimal(p_[k])) ++k;
      digits = p_.substr(start, k - start);
      return k > start;
    };
    std::u16string_view low, high;
    if (!number(low)) return false;
    bool comma = at(k, u',');
    if (comma) {
      ++k;
      number(high);
    }
    if (!at(k, u'}')) return false;
    // Figures beyond what any name could need are clamped (the order check
    // uses the figures as written).
    auto trimmed = [](std::u16string_view d) {
      while (d.size() > 1 && d[0] == u'0') d.remove_prefix(1);
      return d;
    };
    auto clamp = [](std::u16string_view d) {
      unsigned long v = 0;
      for (char16_t c : d) {
        v = v * 10 + (c - u'0');
        if (v > 100000) return 100000UL;
      }
      return v;
    };
    low = trimmed(low);
    if (!high.empty()) {
      high = trimmed(high);
      if (low.size() > high.size() || (low.size() == high.size() && low > high)) {
        throw syntax_error{"numbers out of order in {} quantifier"};
      }
    }
    text = L"{" + std::to_wstring(clamp(low));
    if (comma) text += L",";
    if (!high.empty()) text += std::to_wstring(clamp(high));
    text += L"}";
    i_ = k + 1;
    return true;
  }

  void open_group() {
    if (open_.size() >= max_depth) throw syntax_error{"groups nested deeper than 256"};
    std::size_t k = i_ + 1;
    if (!at(k, u'?')) {
      std::size_t index = ++next_group_;
      open_.push_back({true, index});
      out(L'(');
      i_ = k;
      can_quantify_ = false;
      return;
    }
    ++k;
    if (at(k, u':') || at(k, u'=') || at(k, u'!')) {
      open_.push_back({true, 0});
      out(L"(?");
      out(static_cast<wchar_t>(p_[k]));
      i_ = k + 1;
    } else if (at(k, u'<') && (at(k + 1, u'=') || at(k + 1, u'!'))) {
      open_.push_back({false, 0});
      out(L"(?<");
      out(static_cast<wchar_t>(p_[k + 1]));
      i_ = k + 2;
    } else if (at(k, u'<')) {
      std::size_t close = p_.find(u'>', k + 1);
      if (close == std::u16string_view::npos) throw syntax_error{"Invalid capture group name"};
      std::u16string_view name = p_.substr(k + 1, close - k - 1);
      check_group_name(name);
      std::size_t index = ++next_group_;
      std::size_t same = 0;
      for (const auto& n : names_) same += n.name == name;
      if (same > 1) throw syntax_error{"Duplicate capture group name"};
      open_.push_back({true, index});
      out(L'(');
      i_ = close + 1;
    } else {
      throw syntax_error{"Invalid group"};
    }
    can_quantify_ = false;
  }

  static void check_group_name(std::u16string_view name) {
    if (name.empty()) throw syntax_error{"Invalid capture group name"};
    for (std::size_t k = 0; k < name.size(); ++k) {
      char16_t c = name[k];
      bool ok = is_ascii_letter(c) || c == u'$' || c == u'_' || c >= 0x80 || (k > 0 && is_decimal(c));
      if (!ok) throw syntax_error{"Invalid capture group name"};
    }
  }

  void close_group() {
    if (open_.empty()) throw syntax_error{"Unmatched ')'"};
    group g = open_.back();
    open_.pop_back();
    if (g.index != 0) closed_[g.index] = true;
    ++i_;
    out(L')');
    can_quantify_ = g.quantifiable;
  }

  // A reference to capture `index`. One to a group that has not closed yet
  // where it stands (a forward or self reference) always matches the empty
  // string in JavaScript.
  void backreference(std::size_t index) {
    if (closed_[index]) {
      out(L"\\g{" + std::to_wstring(index) + L"}");
      has_backref = true;
    } else {
      out(L"(?:)");
    }
    can_quantify_ = true;
  }

  // `\0`-`\377` without the u flag: up to three octal digits, value at most 255.
  char16_t legacy_octal() {
    unsigned v = p_[i_] - u'0';
    std::size_t max_digits = v <= 3 ? 3 : 2;
    ++i_;
    for (std::size_t n = 1; n < max_digits && i_ < p_.size() && is_octal(p_[i_]); ++n, ++i_) {
      v = v * 8 + (p_[i_] - u'0');
    }
    return static_cast<char16_t>(v);
  }

  // `\x` and `\u` escapes; i_ is on the letter. Nothing when the digits do
  // not follow (then the letter stands for itself).
  std::optional<char16_t> hex_escape() {
    std::size_t digits = p_[i_] == u'x' ? 2 : 4;
    if (i_ + digits >= p_.size()) return std::nullopt;
    unsigned v = 0;
    for (std::size_t k = 1; k <= digits; ++k) {
      int h = hex_value(p_[i_ + k]);
      if (h < 0) return std::nullopt;
      v = v * 16 + h;
    }
    i_ += digits + 1;
    return static_cast<char16_t>(v);
  }

  static char16_t control_escape(char16_t c) {
    switch (c) {
      case u'f':
        return 0x0C;
      case u'n':
        return 0x0A;
      case u'r':
        return 0x0D;
      case u't':
        return 0x09;
      default:  // 'v'
        return 0x0B;
    }
  }

  static std::wstring word_boundary(bool boundary) {
    std::wstring w = std::wstring(L"[") + word_class + L"]";
    std::wstring after = L"(?<=" + w + L")", not_after = L"(?<!" + w + L")";
    std::wstring before = L"(?=" + w + L")", not_before = L"(?!" + w + L")";
    if (boundary) return L"(?:" + after + not_before + L"|" + not_after + before + L")";
    return L"(?:" + after + before + L"|" + not_after + not_before + L")";
  }

  static const wchar_t* class_escape_ranges(char16_t c) {
    switch (c) {
      case u'd':
      case u'D':
        return digit_class;
      case u'w':
      case u'W':
        return word_class;
      default:
        return space_class;
    }
  }

  // An escape outside a class; i_ is on the backslash.
  void escape() {
    if (i_ + 1 >= p_.size()) throw syntax_error{"\\ at end of pattern"};
    ++i_;
    char16_t c = p_[i_];
    switch (c) {
      case u'b':
      case u'B':
        ++i_;
        out(word_boundary(c == u'b'));
        can_quantify_ = false;
        return;
      case u'd':
      case u'D':
      case u'w':
      case u'W':
      case u's':
      case u'S':
        ++i_;
        out(std::wstring(c == u'D' || c == u'W' || c == u'S' ? L"[^" : L"[") + class_escape_ranges(c) + L"]");
        can_quantify_ = true;
        return;
      case u'f':
      case u'n':
      case u'r':
      case u't':
      case u'v':
        ++i_;
        literal(control_escape(c));
        return;
      case u'c':
        if (i_ + 1 < p_.size() && is_ascii_letter(p_[i_ + 1])) {
          literal(p_[i_ + 1] % 32);
          i_ += 2;
        } else {
          literal(u'\\');  // `\c` without a letter is a backslash; the c follows
        }
        return;
      case u'x':
      case u'u':
        if (auto v = hex_escape()) {
          literal(*v);
        } else {
          ++i_;
          literal(c);
        }
        return;
      case u'k':
        if (!names_.empty()) {
          named_reference();
        } else {
          ++i_;
          literal(c);
        }
        return;
      default:
        break;
    }
    if (is_decimal(c) && c != u'0') {
      std::size_t k = i_;
      std::size_t n = 0;
      while (k < p_.size() && is_decimal(p_[k])) {
        n = std::min<std::size_t>(n * 10 + (p_[k] - u'0'), 1000000);
        ++k;
      }
      if (n <= group_count_) {
        i_ = k;
        backreference(n);
      } else if (c >= u'8') {
        ++i_;
        literal(c);
      } else {
        literal(legacy_octal());
      }
      return;
    }
    if (c == u'0') {
      literal(legacy_octal());
      return;
    }
    ++i_;
    literal(c);  // identity escape
  }

  void named_reference() {
    // i_ is on the k.
    if (!at(i_ + 1, u'<')) throw syntax_error{"Invalid named reference"};
    std::size_t close = p_.find(u'>', i_ + 2);
    if (close == std::u16string_view::npos) throw syntax_error{"Invalid named reference"};
    std::u16string_view name = p_.substr(i_ + 2, close - i_ - 2);
    for (const auto& n : names_) {
      if (n.name == name) {
        i_ = close + 1;
        backreference(n.index);
        return;
      }
    }
    throw syntax_error{"Invalid named capture referenced"};
  }

  // One element of a class: a unit, or a class escape (d D w W s S).
  struct class_atom {
    char16_t unit = 0;
    char16_t escape = 0;
  };

  class_atom read_class_atom() {
    char16_t c = p_[i_];
    if (c != u'\\') {
      ++i_;
      return {c, 0};
    }
    if (i_ + 1 >= p_.size()) throw syntax_error{"\\ at end of pattern"};
    ++i_;
    c = p_[i_];
    switch (c) {
      case u'd':
      case u'D':
      case u'w':
      case u'W':
      case u's':
      case u'S':
        ++i_;
        return {0, c};
      case u'b':
        ++i_;
        return {0x08, 0};
      case u'f':
      case u'n':
      case u'r':
      case u't':
      case u'v':
        ++i_;
        return {control_escape(c), 0};
      case u'c':
        if (i_ + 1 < p_.size() && (is_ascii_alnum(p_[i_ + 1]) || p_[i_ + 1] == u'_')) {
          char16_t v = p_[i_ + 1] % 32;
          i_ += 2;
          return {v, 0};
        }
        return {u'\\', 0};  // the c is read next, as itself
      case u'x':
      case u'u':
        if (auto v = hex_escape()) return {*v, 0};
        ++i_;
        return {c, 0};
      case u'k':
        if (!names_.empty()) throw syntax_error{"Invalid escape"};
        ++i_;
        return {c, 0};
      default:
        break;
    }
    if (is_octal(c)) return {legacy_octal(), 0};
    ++i_;
    return {c, 0};  // identity escape, \8 and \9 included
  }

  // A class; i_ is on the '['.
  void character_class() {
    ++i_;
    bool negated = at(i_, u'^');
    if (negated) ++i_;
    std::wstring body;           // units, ranges and positive escapes
    std::vector<char16_t> negs;  // \D, \W, \S: a class cannot hold their complement
    bool empty = true;
    auto add = [&](const class_atom& a) {
      empty = false;
      if (a.escape == 0) {
        append_unit(body, a.unit);
      } else if (a.escape == u'd' || a.escape == u'w' || a.escape == u's') {
        body += class_escape_ranges(a.escape);
      } else {
        negs.push_back(a.escape);
      }
    };
    while (true) {
      if (i_ >= p_.size()) throw syntax_error{"Unterminated character class"};
      if (p_[i_] == u']') break;
      class_atom first = read_class_atom();
      if (at(i_, u'-') && i_ + 1 < p_.size() && p_[i_ + 1] != u']') {
        ++i_;
        class_atom last = read_class_atom();
        if (first.escape != 0 || last.escape != 0) {
          // A class escape at either end: the '-' is itself.
          add(first);
          add({u'-', 0});
          add(last);
        } else {
          if (first.unit > last.unit) throw syntax_error{"Range out of order in character class"};
          empty = false;
          append_unit(body, first.unit);
          body += L'-';
          append_unit(body, last.unit);
        }
      } else {
        add(first);
      }
    }
    ++i_;  // ']'
    can_quantify_ = true;
    if (empty) {
      out(negated ? any_unit : no_unit);
      return;
    }
    if (negs.empty()) {
      out((negated ? L"[^" : L"[") + body + L"]");
      return;
    }
    // [a\D] is "a or not a digit": written as an alternation of classes.
    std::wstring alternatives;
    if (!body.empty()) alternatives = L"[" + body + L"]";
    for (char16_t n : negs) {
      if (!alternatives.empty()) alternatives += L'|';
      alternatives += std::wstring(L"[^") + class_escape_ranges(n) + L"]";
    }
    if (negated) {
      out(L"(?:(?!" + alternatives + L")" + any_unit + L")");
    } else {
      out(L"(?:" + alternatives + L")");
    }
  }

  std::u16string_view p_;
  std::size_t i_ = 0;
  std::size_t group_count_ = 0;
  std::size_t next_group_ = 0;
  std::vector<named> names_;
  std::vector<group> open_;
  std::vector<bool> closed_;
  bool can_quantify_ = false;
};

// Boost's traits with plain number reading. Its own reads each number through
// a stream after looking for a thousands separator up to the end of the
// expression: quadratic for a long expression with many numbers. Numbers in
// the translated expression are ASCII digits.
struct name_traits : boost::regex_traits<wchar_t> {
  int value(wchar_t c, int radix) const {
    int v = (c >= L'0' && c <= L'9')   ? c - L'0'
            : (c >= L'a' && c <= L'f') ? c - L'a' + 10
            : (c >= L'A' && c <= L'F') ? c - L'A' + 10
                                       : -1;
    return v < radix ? v : -1;
  }
  std::intmax_t toi(const wchar_t*& first, const wchar_t* last, int radix) const {
    if (first == last || value(*first, radix) < 0) return -1;
    std::intmax_t result = 0;
    for (; first != last; ++first) {
      int v = value(*first, radix);
      if (v < 0) break;
      result = result * radix + v;
      if (result > 0x7FFFFFFF) return -1;
    }
    return result;
  }
};
using engine_regex = boost::basic_regex<wchar_t, name_traits>;

// The reason Boost gives, without its quotation of the translated expression.
std::string boost_reason(const std::exception& e) {
  std::string what = e.what();
  std::size_t cut = what.find("  The error occurred");
  if (cut != std::string::npos) what.resize(cut);
  return what;
}

// ---------------------------------------------------------------------------
// The direct matcher
//
// Forms it takes: alternatives ('|'), each [^] literal (.* literal)* [$],
// possibly inside one group around the whole expression (`^(a|b)$`,
// `(?:a|b)`). Literal text may use escapes of punctuation (`\.`, `\$`).

using alternative = std::vector<std::u16string>;  // literal segments, ".*" between them

bool escaped_at(std::u16string_view p, std::size_t k, std::size_t begin) {
  std::size_t slashes = 0;
  while (k > begin && p[k - 1] == u'\\') {
    ++slashes;
    --k;
  }
  return slashes % 2 == 1;
}

bool valid_utf16(std::u16string_view s) {
  for (std::size_t k = 0; k < s.size(); ++k) {
    char16_t c = s[k];
    if (c >= 0xD800 && c <= 0xDBFF) {
      if (k + 1 >= s.size() || s[k + 1] < 0xDC00 || s[k + 1] > 0xDFFF) return false;
      ++k;
    } else if (c >= 0xDC00 && c <= 0xDFFF) {
      return false;
    }
  }
  return true;
}

std::optional<alternative> split_alternative(std::u16string_view a) {
  std::size_t i = 0, end = a.size();
  if (i < end && a[i] == u'^') ++i;
  if (end > i && a[end - 1] == u'$' && !escaped_at(a, end - 1, i)) --end;
  alternative segments(1);
  bool last_was_gap = false;
  while (i < end) {
    char16_t c = a[i];
    if (c == u'\\') {
      if (i + 1 >= end || is_ascii_alnum(a[i + 1])) return std::nullopt;  // \d, \w, \b, \u...
      segments.back().push_back(a[i + 1]);
      i += 2;
      last_was_gap = false;
    } else if (c == u'.') {
      if (i + 1 >= end || a[i + 1] != u'*') return std::nullopt;
      i += 2;
      if (i < end && a[i] == u'?') ++i;  // lazy: the same for a full match
      if (!last_was_gap) segments.emplace_back();
      last_was_gap = true;
    } else if (std::u16string_view(u"*+?()[]{}|^$").find(c) != std::u16string_view::npos) {
      return std::nullopt;
    } else {
      segments.back().push_back(c);
      ++i;
      last_was_gap = false;
    }
  }
  for (const auto& s : segments) {
    if (!valid_utf16(s)) return std::nullopt;
  }
  return segments;
}

std::optional<std::vector<alternative>> split_simple(std::u16string_view p) {
  // One group around everything: look inside it.
  std::size_t b = 0, e = p.size();
  if (b < e && p[b] == u'^') ++b;
  if (e > b && p[e - 1] == u'$' && !escaped_at(p, e - 1, b)) --e;
  if (e - b >= 2 && p[b] == u'(' && p[e - 1] == u')' && !escaped_at(p, e - 1, b)) {
    std::size_t inner = b + 1;
    if (p.substr(inner, 2) == u"?:") inner += 2;
    std::u16string_view body = p.substr(inner, e - 1 - inner);
    if (body.find_first_of(u"()") == std::u16string_view::npos) p = body;
  }
  std::vector<alternative> out;
  std::size_t start = 0;
  for (std::size_t k = 0; k <= p.size(); ++k) {
    if (k < p.size() && p[k] == u'\\') {
      ++k;
      continue;
    }
    if (k == p.size() || p[k] == u'|') {
      auto alt = split_alternative(p.substr(start, k - start));
      if (!alt) return std::nullopt;
      out.push_back(std::move(*alt));
      start = k + 1;
    }
  }
  return out;
}

native_string to_native(const std::u16string& units) {
#ifdef _WIN32
  return native_string(units.begin(), units.end());
#else
  return to_utf8(units);
#endif
}

template <typename C>
bool has_line_terminator(std::basic_string_view<C> s) {
  for (std::size_t i = 0; i < s.size(); ++i) {
    auto c = static_cast<std::make_unsigned_t<C>>(s[i]);
    if (c == '\n' || c == '\r') return true;
    if constexpr (sizeof(C) == 1) {
      // U+2028 and U+2029 in UTF-8: E2 80 A8 / E2 80 A9.
      if (c == 0xE2 && i + 2 < s.size() && static_cast<unsigned char>(s[i + 1]) == 0x80 &&
          (static_cast<unsigned char>(s[i + 2]) & 0xFE) == 0xA8)
        return true;
    } else {
      if (c == 0x2028 || c == 0x2029) return true;
    }
  }
  return false;
}

// A literal-.*-literal match, leftmost first for the middle segments.
bool gapped_match(const std::vector<native_string>& segments, native_string_view s) {
  const native_string& first = segments.front();
  const native_string& last = segments.back();
  if (s.size() < first.size() + last.size()) return false;
  if (s.substr(0, first.size()) != first) return false;
  if (s.substr(s.size() - last.size()) != last) return false;
  std::size_t pos = first.size();
  std::size_t limit = s.size() - last.size();
  for (std::size_t k = 1; k + 1 < segments.size(); ++k) {
    const native_string& seg = segments[k];
    if (seg.empty()) continue;
    std::size_t found = s.substr(0, limit).find(seg, pos);
    if (found == native_string_view::npos) return false;
    pos = found + seg.size();
  }
  return true;
}

// ---------------------------------------------------------------------------
// The engine

// A bidirectional iterator over UTF-16 code units that reads them as
// wchar_t. Because it is not random-access, Boost does not scale its step
// bound with the subject's and the expression's lengths (it would allow
// length x size^2 steps, hours for a large expression) but uses
// BOOST_REGEX_MAX_STATE_COUNT as it is.
template <typename Unit>
class unit_iterator {
 public:
  using iterator_category = std::bidirectional_iterator_tag;
  using value_type = wchar_t;
  using difference_type = std::ptrdiff_t;
  using pointer = const wchar_t*;
  using reference = wchar_t;

  unit_iterator() = default;
  explicit unit_iterator(const Unit* p) : p_(p) {}
  wchar_t operator*() const { return static_cast<wchar_t>(*p_); }
  unit_iterator& operator++() {
    ++p_;
    return *this;
  }
  unit_iterator operator++(int) {
    unit_iterator t = *this;
    ++p_;
    return t;
  }
  unit_iterator& operator--() {
    --p_;
    return *this;
  }
  unit_iterator operator--(int) {
    unit_iterator t = *this;
    --p_;
    return t;
  }
  bool operator==(const unit_iterator& o) const { return p_ == o.p_; }
  bool operator!=(const unit_iterator& o) const { return p_ != o.p_; }

 private:
  const Unit* p_ = nullptr;
};

}  // namespace

invalid_pattern::invalid_pattern(const std::string& source, const std::string& reason)
    : std::runtime_error("invalid regular expression " + quoted_source(source) + ": " + reason) {}

struct name_regex::compiled {
  std::string source;
  bool simple = false;
  // Alternatives without ".*", and a hash set over them when there are many.
  std::vector<native_string> literals;
  std::unordered_set<native_string_view> literal_set;
  std::vector<std::vector<native_string>> gapped;

  engine_regex any_dot;    // for names without line terminators
  engine_regex exact_dot;  // for the others, when the expression has a '.'
  bool has_dot = false;
  boost::match_flag_type flags = boost::match_default;
  std::atomic<std::size_t> gave_up{0};

  template <typename Unit>
  bool run(const Unit* begin, const Unit* end, native_string_view name) {
    bool line_break = false;
    if (has_dot) {
      for (const Unit* u = begin; u != end && !line_break; ++u) line_break = is_line_terminator(*u);
    }
    const engine_regex& re = line_break ? exact_dot : any_dot;
    try {
      return boost::regex_match(unit_iterator<Unit>(begin), unit_iterator<Unit>(end), re, flags);
    } catch (const std::exception&) {
      // error_complexity (too many steps) or error_stack (too much
      // backtracking state): no match, said once.
      if (gave_up.fetch_add(1) == 0) {
        log::err("name filter: the regular expression " + quoted_source(source) + " is too complex for \"" +
                 native_to_utf8(name) + "\"; treated as no match (not reported again for this expression)");
      }
      return false;
    }
  }

  bool engine_match(native_string_view s) {
#ifdef _WIN32
    return run(s.data(), s.data() + s.size(), s);
#else
    std::u16string units = to_utf16(s);
    return run(units.data(), units.data() + units.size(), s);
#endif
  }

  bool simple_match(native_string_view s) {
    if (!gapped.empty() && has_line_terminator(s)) return engine_match(s);
    if (!literal_set.empty()) {
      if (literal_set.count(s) != 0) return true;
    } else {
      for (const auto& l : literals) {
        if (s == l) return true;
      }
    }
    for (const auto& g : gapped) {
      if (gapped_match(g, s)) return true;
    }
    return false;
  }
};

name_regex::name_regex(const std::string& source, path how) : impl_(std::make_shared<compiled>()) {
  compiled& c = *impl_;
  c.source = source;
  std::u16string units = to_utf16(source);
  try {
    translator t(units);
    t.run();
    c.any_dot.assign(t.any, boost::regex::perl | boost::regex::mod_s);
    if (t.has_dot) c.exact_dot.assign(t.exact, boost::regex::perl);
    c.has_dot = t.has_dot;
    // A reference to a group that took no part in the match matches the
    // empty string in JavaScript; Boost's Perl rules fail it, its POSIX rules
    // (which, stopping at the first full match, cost nothing else) do not.
    if (t.has_backref) c.flags = boost::match_posix | boost::match_any;
  } catch (const syntax_error& e) {
    throw invalid_pattern(source, e.reason);
  } catch (const boost::regex_error& e) {
    throw invalid_pattern(source, boost_reason(e));
  } catch (const std::bad_alloc&) {
    throw invalid_pattern(source, "too large");
  }
  if (how == path::engine_only) return;
  if (auto alternatives = split_simple(units)) {
    c.simple = true;
    for (const auto& a : *alternatives) {
      if (a.size() == 1) {
        c.literals.push_back(to_native(a[0]));
      } else {
        std::vector<native_string> segments;
        for (const auto& s : a) segments.push_back(to_native(s));
        c.gapped.push_back(std::move(segments));
      }
    }
    if (c.literals.size() > 8) c.literal_set.insert(c.literals.begin(), c.literals.end());
  }
}

bool name_regex::full_match(native_string_view subject) const {
  if (!impl_->simple) return impl_->engine_match(subject);
#ifndef _WIN32
  // A Linux name need not be UTF-8. The engine reads its invalid bytes as
  // U+FFFD, as script sees the name; the direct matcher must read them so too.
  for (unsigned char c : subject) {
    if (c < 0x80) continue;
    std::string read = to_utf8(to_utf16(subject));
    if (read != subject) return impl_->simple_match(read);
    break;
  }
#endif
  return impl_->simple_match(subject);
}

const std::string& name_regex::source() const noexcept {
  return impl_->source;
}

bool name_regex::is_simple() const noexcept {
  return impl_->simple;
}

std::size_t name_regex::gave_up_count() const noexcept {
  return impl_->gave_up.load();
}

}  // namespace ostrel::scan
