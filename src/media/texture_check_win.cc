#include <windows.h>
#include <d3d11.h>

#include "texture_check.h"

namespace ostrel::media {

bool test_external_texture_support() {
  OSVERSIONINFOEXW version{};
  version.dwOSVersionInfoSize = sizeof(version);
  version.dwMajorVersion = 6;
  version.dwMinorVersion = 2;
  version.dwBuildNumber = 0;
  ULONGLONG mask = 0;
  mask = VerSetConditionMask(mask, VER_MAJORVERSION, VER_GREATER_EQUAL);
  mask = VerSetConditionMask(mask, VER_MINORVERSION, VER_GREATER_EQUAL);
  mask = VerSetConditionMask(mask, VER_BUILDNUMBER, VER_GREATER_EQUAL);
  if (VerifyVersionInfoW(&version, VER_MAJORVERSION | VER_MINORVERSION | VER_BUILDNUMBER, mask)) return true;

  // From the system folder only, never from the current directory or PATH.
  HMODULE d3d = LoadLibraryExW(L"d3d11.dll", nullptr, LOAD_LIBRARY_SEARCH_SYSTEM32);
  if (!d3d) return false;
  bool supported = false;
  auto create =
      reinterpret_cast<PFN_D3D11_CREATE_DEVICE>(reinterpret_cast<void*>(GetProcAddress(d3d, "D3D11CreateDevice")));
  if (create) {
    ID3D11Device* device = nullptr;
    create(nullptr, D3D_DRIVER_TYPE_HARDWARE, nullptr, 0, nullptr, 0, D3D11_SDK_VERSION, &device, nullptr, nullptr);
    supported = device != nullptr;
    if (device) device->Release();
  }
  FreeLibrary(d3d);
  return supported;
}

}  // namespace ostrel::media
