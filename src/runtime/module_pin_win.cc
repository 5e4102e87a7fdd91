#include <windows.h>

#include "module_pin.h"
#include "log.h"

namespace ostrel {

void pin_module() noexcept {
  HMODULE self = nullptr;
  if (!GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_PIN,
                          reinterpret_cast<LPCWSTR>(&pin_module), &self)) {
    log::err_code("GetModuleHandleExW(pin) failed with ", GetLastError());
  }
}

}  // namespace ostrel
