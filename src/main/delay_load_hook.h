// Binding to the host's script runtime. The module imports Node-API and
// libuv from "node.exe", bound on first use; when that library is about to be
// loaded, the hook hands over the host's already-loaded "varno.dll" instead,
// so the module also works inside a host whose runtime lives in that DLL.
#pragma once

namespace ostrel {

// True for the runtime's import name, compared without regard to case.
bool is_host_runtime_import(const char* dll_name) noexcept;

#ifdef _WIN32
// The hook itself: given a delay-load notification and the DLL's name, the
// module handle to use, or null for the default loading.
void* host_runtime_hook(unsigned notification, const char* dll_name) noexcept;
#endif

}  // namespace ostrel
