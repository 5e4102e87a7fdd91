// The platform half of the SDK loader: loading a library by path, finding a
// symbol, the module's own path, the application's install location and the
// thread's last system error. Windows: LoadLibraryW, GetProcAddress,
// GetModuleFileNameW, the uninstall key in the registry. Linux: dlopen,
// dlsym, dladdr, the environment variable OSTREL_CORVEX_INSTALL_LOCATION.
#pragma once

#include <array>
#include <cstdint>
#include <string>

namespace ostrel::media::platform {

using library = void*;

// The SDK's libraries in load order: the decoder, the renderer, the player.
extern const std::array<const char*, 3> library_names;
// Put between a directory and a library name.
extern const char path_separator;

// Loads a library from its UTF-8 path (a bare name uses the system's
// search). Null on failure, with `error` set to the reason: the decimal
// Win32 error on Windows, dlerror()'s text on Linux.
// Only absolute paths are given (see `refuse_folder`). Windows: the
// library's own dependencies resolve from its folder and the system
// folders only (LoadLibraryExW with LOAD_LIBRARY_SEARCH_DLL_LOAD_DIR |
// LOAD_LIBRARY_SEARCH_DEFAULT_DIRS), never from the current directory or
// PATH. Linux: the file must first be a complete ELF object for this
// machine (a truncated one would crash the process inside dlopen).
library open_library(const std::string& utf8_path, std::string& error);
// The error text of a folder refused because it is not absolute (and the
// thread's last system error set to match): "87" (ERROR_INVALID_PARAMETER)
// on Windows, a sentence on Linux.
std::string refuse_folder();
void close_library(library lib) noexcept;
void* find_symbol(library lib, const char* name) noexcept;

// The module's own path in UTF-8. On failure false, with `error_line` the
// line to log on standard error ("Error getting module handle: 126").
bool own_module_path(std::string& path, std::string& error_line);

// The installed application's location, empty when unknown.
std::string install_location();

// The calling thread's last system error (GetLastError, errno).
std::int64_t last_error() noexcept;

}  // namespace ostrel::media::platform
