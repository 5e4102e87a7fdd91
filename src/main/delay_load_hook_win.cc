#include <windows.h>
// after windows.h
#include <delayimp.h>

#include "delay_load_hook.h"

namespace ostrel {

void* host_runtime_hook(unsigned notification, const char* dll_name) noexcept {
  if (notification != dliNotePreLoadLibrary || !is_host_runtime_import(dll_name)) return nullptr;
  // Looked up, never loaded: a null handle means plain node.exe, which the
  // default loading then finds as the process's own executable.
  return GetModuleHandleW(L"varno.dll");
}

}  // namespace ostrel

namespace {
FARPROC WINAPI delay_load_notify(unsigned notification, PDelayLoadInfo info) {
  return reinterpret_cast<FARPROC>(ostrel::host_runtime_hook(notification, info ? info->szDll : nullptr));
}
}  // namespace

// mingw-w64's __delayLoadHelper2 calls these; defining both here keeps the
// linker from pulling libdelayimp's zero-initialised copies.
extern "C" {
PfnDliHook __pfnDliNotifyHook2 = delay_load_notify;
PfnDliHook __pfnDliFailureHook2 = nullptr;
}
