#include "log.h"

#include <cstdio>
#include <mutex>

#include "env_flag.h"
#include "strings.h"

namespace ostrel::log {

namespace {
// One lock for both streams keeps a failure line and the progress line that
// explains it in the order they were written.
std::mutex& stream_lock() {
  static std::mutex* m = new std::mutex();  // outlives static teardown
  return *m;
}

// The command-line tool prints its own results on standard output; it sets
// OSTREL_LOG_STDOUT=stderr so that the module's progress lines go to
// standard error there. Everywhere else they go to standard output.
std::FILE* progress_stream() {
  static std::FILE* const stream = [] { return read_environment("OSTREL_LOG_STDOUT") == "stderr" ? stderr : stdout; }();
  return stream;
}

void write_line(std::FILE* stream, std::string_view a, std::string_view b = {}) {
  std::string line;
  line.reserve(a.size() + b.size() + 1);
  line.append(a).append(b).push_back('\n');
  std::lock_guard lock(stream_lock());
  std::fwrite(line.data(), 1, line.size(), stream);
  std::fflush(stream);
}
}  // namespace

void out(std::string_view text) {
  write_line(progress_stream(), text);
}
void err(std::string_view text) {
  write_line(stderr, text);
}
// Wide text is written as UTF-8: switching the C stream to wide orientation
// would silently drop every later narrow line on glibc.
void wout(std::wstring_view text) {
  write_line(progress_stream(), to_utf8(text));
}
void out_value(std::string_view text, std::string_view value) {
  write_line(progress_stream(), text, value);
}
void err_value(std::string_view text, std::string_view value) {
  write_line(stderr, text, value);
}
void err_code(std::string_view text, std::int64_t code) {
  write_line(stderr, text, std::to_string(code));
}

void err_hresult(std::string_view text, std::uint32_t hr) {
  char buf[16];
  std::snprintf(buf, sizeof buf, "0x%08X", static_cast<unsigned>(hr));
  write_line(stderr, text, buf);
}

}  // namespace ostrel::log
