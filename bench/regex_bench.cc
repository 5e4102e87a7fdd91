// Per-name cost of the scan's name expressions, three ways on the same names:
// std::wregex (the former general engine, with the wide conversion it needed
// on Linux), Boost.Regex through name_regex (the general engine now) and
// name_regex's direct matcher where the expression's form allows it. Built
// only for bench/regex.js:  ostrel_regex_bench [rounds]
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <optional>
#include <regex>
#include <string>
#include <vector>

#include "runtime/strings.h"
#include "scan/name_regex.h"

using namespace ostrel;
using namespace ostrel::scan;

namespace {

// A mix like a photo and project tree: camera files, documents, Office lock
// files, temporaries, build output, a few non-ASCII names.
std::vector<native_string> make_names() {
  std::vector<std::string> utf8;
  const char* exts[] = {"jpg", "JPG", "png", "tmp", "docx", "txt", "tar.gz", "js", "md", ""};
  for (int i = 0; i < 1000; ++i) {
    std::string ext = exts[i % 10];
    if (i % 8 == 2 || i % 8 == 6) ext.clear();  // folders
    std::string stem;
    switch (i % 8) {
      case 0:
        stem = "IMG_" + std::to_string(1000 + i * 7);
        break;
      case 1:
        stem = "~$report " + std::to_string(i);
        break;
      case 2:
        stem = "node_modules";
        break;
      case 3:
        stem = "some_longer_file_name_number_" + std::to_string(i);
        break;
      case 4:
        stem = "\xD1\x84\xD0\xBE\xD1\x82\xD0\xBE_" + std::to_string(i);  // фото_
        break;
      case 5:
        stem = "n" + std::to_string(i * 3);
        break;
      case 6:
        stem = ".cache";
        break;
      default:
        stem = "Notes " + std::to_string(i);
        break;
    }
    utf8.push_back(ext.empty() ? stem : stem + "." + ext);
  }
  std::vector<native_string> names;
  for (const auto& n : utf8) names.push_back(utf8_to_native(n));
  return names;
}

double now_ns() {
  return std::chrono::duration<double, std::nano>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

// Median over `rounds` of the cost per name of `match` over every name.
template <typename F>
double per_name(const std::vector<native_string>& names, int rounds, F&& match, long& hits) {
  std::vector<double> costs;
  const int reps = 20;
  for (int r = 0; r < rounds; ++r) {
    long h = 0;
    double t0 = now_ns();
    for (int k = 0; k < reps; ++k) {
      for (const auto& n : names) h += match(n);
    }
    costs.push_back((now_ns() - t0) / (reps * names.size()));
    hits = h / reps;
  }
  std::sort(costs.begin(), costs.end());
  return costs[costs.size() / 2];
}

}  // namespace

int main(int argc, char** argv) {
  int rounds = argc > 1 ? std::max(1, std::atoi(argv[1])) : 7;
  std::vector<native_string> names = make_names();
  std::string list_1000;
  for (int i = 0; i < 1000; ++i) list_1000 += (i ? "|n" : "n") + std::to_string(i);
  std::vector<std::pair<std::string, std::string>> patterns = {
      {"node_modules", "node_modules"},
      {"~\\$.*", "~\\$.*"},
      {".*\\.tmp", ".*\\.tmp"},
      {"IMG_\\d+", "IMG_\\d+"},
      {"IMG_\\d+\\.jpg", "IMG_\\d+\\.jpg"},
      {".*\\.(jpg|png|gif)", ".*\\.(jpg|png|gif)"},
      {"\\.\\w+", "\\.\\w+"},
      {"node_modules|\\.git|dist|build", "node_modules|\\.git|dist|build"},
      {"n0|n1|...|n999", list_1000},
  };
#ifdef _WIN32
  const char* platform = "Windows";
#else
  const char* platform = "Linux";
#endif
  std::printf("name expressions, ns per name (median of %d rounds over %zu names), %s\n", rounds, names.size(),
              platform);
  std::printf("%-32s %12s %10s %10s %11s %11s\n", "expression", "std::wregex", "Boost", "direct", "Boost/std",
              "direct/std");
  bool agree = true;
  for (const auto& [label, source] : patterns) {
    std::optional<std::wregex> old;
    try {
      old.emplace(to_wide(source), std::regex_constants::ECMAScript);
    } catch (const std::regex_error&) {
    }
    name_regex engine(source, name_regex::path::engine_only);
    name_regex direct(source);
    long old_hits = -1, engine_hits = 0, direct_hits = 0;
    double old_ns = 0;
    if (old) {
      old_ns = per_name(
          names, rounds,
          [&](const native_string& n) {
#ifdef _WIN32
            return std::regex_match(n, *old);
#else
            return std::regex_match(to_wide(n), *old);
#endif
          },
          old_hits);
    }
    double engine_ns = per_name(
        names, rounds, [&](const native_string& n) { return engine.full_match(n); }, engine_hits);
    double direct_ns = 0;
    if (direct.is_simple()) {
      direct_ns = per_name(
          names, rounds, [&](const native_string& n) { return direct.full_match(n); }, direct_hits);
    }
    for (const auto& n : names) {
      bool e = engine.full_match(n);
      if (direct.full_match(n) != e || (old && std::regex_match(to_wide(native_to_utf8(n)), *old) != e)) {
        std::printf("MISMATCH: %s on %s\n", label.c_str(), native_to_utf8(n).c_str());
        agree = false;
      }
    }
    char old_text[32] = "refused", direct_text[32] = "-", r1[32] = "-", r2[32] = "-";
    if (old) std::snprintf(old_text, sizeof old_text, "%.0f", old_ns);
    if (direct.is_simple()) std::snprintf(direct_text, sizeof direct_text, "%.0f", direct_ns);
    if (old) std::snprintf(r1, sizeof r1, "%.2f", engine_ns / old_ns);
    if (old && direct.is_simple()) std::snprintf(r2, sizeof r2, "%.2f", direct_ns / old_ns);
    std::printf("%-32s %12s %10.0f %10s %11s %11s   (%ld of %zu match)\n", label.c_str(), old_text, engine_ns,
                direct_text, r1, r2, engine_hits, names.size());
  }
  // What the step bound costs: a match that would backtrack 2^40 times.
  name_regex hopeless("(a+)+$");
  native_string name = utf8_to_native(std::string(40, 'a') + "!");
  std::vector<double> costs;
  for (int r = 0; r < rounds; ++r) {
    double t0 = now_ns();
    hopeless.full_match(name);
    costs.push_back(now_ns() - t0);
  }
  std::sort(costs.begin(), costs.end());
  std::printf("(a+)+$ against 40 a's and '!': Boost gives up after %.2f ms (median of %d; std::wregex: minutes)\n",
              costs[costs.size() / 2] / 1e6, rounds);
  return agree ? 0 : 1;
}
