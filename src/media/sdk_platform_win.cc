#include <windows.h>

#include <algorithm>
#include <cwchar>
#include <string>

#include "runtime/log.h"
#include "sdk_platform.h"

namespace ostrel::media::platform {

const std::array<const char*, 3> library_names = {"libcorvexffmpeg.dll", "libplacebo-291.dll", "libq7player.dll"};
const char path_separator = '\\';

namespace {

std::string utf8_of(const wchar_t* w, int n) {
  int size = WideCharToMultiByte(CP_UTF8, 0, w, n, nullptr, 0, nullptr, nullptr);
  std::string out(size > 0 ? static_cast<size_t>(size) : 0, '\0');
  if (size > 0) WideCharToMultiByte(CP_UTF8, 0, w, n, out.data(), size, nullptr, nullptr);
  return out;
}

// The text of value "InstallLocation" under `key`; empty on any failure.
std::wstring read_install_location(HKEY root, const wchar_t* key) {
  HKEY h = nullptr;
  if (RegOpenKeyExW(root, key, 0, KEY_READ, &h) != ERROR_SUCCESS) return {};
  std::wstring out;
  DWORD type = 0;
  DWORD size = 0;
  if (RegQueryValueExW(h, L"InstallLocation", nullptr, &type, nullptr, &size) == ERROR_SUCCESS && size >= 2 &&
      (type == REG_SZ || type == REG_EXPAND_SZ)) {
    // The stored size counts the terminating NUL.
    out.resize(size / 2 - 1);
    std::wstring buffer(size / 2 + 1, L'\0');
    DWORD read = size;
    if (RegQueryValueExW(h, L"InstallLocation", nullptr, &type, reinterpret_cast<BYTE*>(buffer.data()), &read) ==
        ERROR_SUCCESS) {
      out.assign(buffer.c_str(), std::min<size_t>(out.size(), wcslen(buffer.c_str())));
    } else {
      out.clear();
    }
  }
  RegCloseKey(h);
  return out;
}

}  // namespace

library open_library(const std::string& utf8_path, std::string& error) {
  HMODULE h = nullptr;
  int n = MultiByteToWideChar(CP_UTF8, MB_ERR_INVALID_CHARS, utf8_path.c_str(), -1, nullptr, 0);
  std::wstring wide;
  if (n > 1) {
    wide.resize(static_cast<size_t>(n));
    n = MultiByteToWideChar(CP_UTF8, 0, utf8_path.c_str(), -1, wide.data(), n);
  }
  // Dependencies from the library's own folder and the system folders
  // only: the standard search order would also take them from the current
  // directory and PATH, where anyone may have planted a copy.
  constexpr DWORD flags = LOAD_LIBRARY_SEARCH_DLL_LOAD_DIR | LOAD_LIBRARY_SEARCH_DEFAULT_DIRS;
  if (n > 1) {
    h = LoadLibraryExW(wide.c_str(), nullptr, flags);
  } else {
    h = LoadLibraryExA(utf8_path.c_str(), nullptr, flags);
  }
  if (!h) error = std::to_string(GetLastError());
  return reinterpret_cast<library>(h);
}

std::string refuse_folder() {
  SetLastError(ERROR_INVALID_PARAMETER);
  return std::to_string(ERROR_INVALID_PARAMETER);
}

void close_library(library lib) noexcept {
  if (lib) FreeLibrary(reinterpret_cast<HMODULE>(lib));
}

void* find_symbol(library lib, const char* name) noexcept {
  return reinterpret_cast<void*>(GetProcAddress(reinterpret_cast<HMODULE>(lib), name));
}

bool own_module_path(std::string& path, std::string& error_line) {
  HMODULE self = nullptr;
  if (!GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
                          reinterpret_cast<LPCWSTR>(&own_module_path), &self)) {
    error_line = "Error getting module handle: " + std::to_string(GetLastError());
    return false;
  }
  wchar_t buffer[MAX_PATH];
  DWORD n = GetModuleFileNameW(self, buffer, MAX_PATH);
  if (n == 0) {
    error_line = "Error getting DLL path: " + std::to_string(GetLastError());
    return false;
  }
  path = utf8_of(buffer, static_cast<int>(n));
  return true;
}

std::string install_location() {
  static const wchar_t* user_key =
      L"SOFTWARE\\Microsoft\\Windows\\CurrentVersion\\Uninstall\\{5d0e7a31-9c42-4b1f-8e67-2a9f13c4d0b8}_is1";
  static const wchar_t* machine_key =
      L"SOFTWARE\\WOW6432Node\\Microsoft\\Windows\\CurrentVersion\\Uninstall\\{5d0e7a31-9c42-4b1f-8e67-2a9f13c4d0b8}_"
      L"is1";
  std::wstring location = read_install_location(HKEY_CURRENT_USER, user_key);
  if (location.empty()) location = read_install_location(HKEY_LOCAL_MACHINE, machine_key);
  return utf8_of(location.data(), static_cast<int>(location.size()));
}

std::int64_t last_error() noexcept {
  return static_cast<std::int64_t>(GetLastError());
}

}  // namespace ostrel::media::platform
