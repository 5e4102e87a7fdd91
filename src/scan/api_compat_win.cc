#include <windows.h>

#include <atomic>
#include <stdexcept>
#include <system_error>

#include "api_compat.h"

namespace ostrel::scan::api_compat {

namespace {
std::atomic<query_information_file_fn> g_query{nullptr};
HMODULE g_ntdll = nullptr;
}  // namespace

void init() {
  if (g_query.load()) return;
  HMODULE module = LoadLibraryA("ntdll.dll");
  if (!module) {
    throw std::system_error(static_cast<int>(GetLastError()), std::system_category(),
                            "LoadLibrary failed in api_compat::init");
  }
  auto fn = reinterpret_cast<query_information_file_fn>(
      reinterpret_cast<void*>(GetProcAddress(module, "NtQueryInformationFile")));
  if (!fn) {
    FreeLibrary(module);
    throw std::runtime_error("No NtQueryInformationFile found in system");
  }
  g_ntdll = module;
  g_query.store(fn);
}

void release() {
  if (!g_query.load()) return;
  g_query.store(nullptr);
  HMODULE module = g_ntdll;
  g_ntdll = nullptr;
  if (!FreeLibrary(module)) {
    throw std::system_error(static_cast<int>(GetLastError()), std::system_category(),
                            "FreeLibrary(ntdll_module) api call failed.");
  }
}

bool is_bound() noexcept {
  return g_query.load() != nullptr;
}

query_information_file_fn query_information_file() noexcept {
  return g_query.load();
}

}  // namespace ostrel::scan::api_compat
