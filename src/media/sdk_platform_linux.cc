#include <dlfcn.h>

#include <cerrno>
#include <cstdlib>

#include "elf_check.h"
#include "sdk_platform.h"

namespace ostrel::media::platform {

const std::array<const char*, 3> library_names = {"libcorvexffmpeg.so", "libplacebo-291.so", "libq7player.so"};
const char path_separator = '/';

library open_library(const std::string& utf8_path, std::string& error) {
  // dlopen maps a file cut short and faults (SIGBUS) on the missing pages:
  // the file must be whole first.
  if (!check_elf_object(utf8_path, error)) return nullptr;
  void* h = dlopen(utf8_path.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (!h) {
    const char* e = dlerror();
    error = e ? e : "unknown dlopen error";
  }
  return h;
}

std::string refuse_folder() {
  errno = EINVAL;
  return "the folder is not an absolute path";
}

void close_library(library lib) noexcept {
  if (lib) dlclose(lib);
}

void* find_symbol(library lib, const char* name) noexcept {
  dlerror();
  return dlsym(lib, name);
}

bool own_module_path(std::string& path, std::string& error_line) {
  Dl_info info{};
  if (dladdr(reinterpret_cast<void*>(&own_module_path), &info) == 0 || !info.dli_fname) {
    error_line = "Error getting module handle: " + std::to_string(errno);
    return false;
  }
  path = info.dli_fname;
  if (path.empty()) {
    error_line = "Error getting DLL path: " + std::to_string(errno);
    return false;
  }
  return true;
}

std::string install_location() {
  const char* v = std::getenv("OSTREL_CORVEX_INSTALL_LOCATION");
  return v ? v : "";
}

std::int64_t last_error() noexcept {
  return errno;
}

}  // namespace ostrel::media::platform
