#include "delay_load_hook.h"

namespace ostrel {

bool is_host_runtime_import(const char* dll_name) noexcept {
  static constexpr char expected[] = "node.exe";
  if (!dll_name) return false;
  for (int i = 0;; ++i) {
    char c = dll_name[i];
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
    if (c != expected[i]) return false;
    if (c == '\0') return true;
  }
}

}  // namespace ostrel
