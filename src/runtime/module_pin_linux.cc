#include <dlfcn.h>

#include <string>

#include "module_pin.h"
#include "log.h"

namespace ostrel {

void pin_module() noexcept {
  Dl_info info{};
  if (!dladdr(reinterpret_cast<void*>(&pin_module), &info) || !info.dli_fname) {
    log::err("dladdr(pin) failed");
    return;
  }
  // RTLD_NOLOAD finds the loaded object; RTLD_NODELETE keeps it for good.
  if (!dlopen(info.dli_fname, RTLD_NOW | RTLD_NOLOAD | RTLD_NODELETE)) {
    const char* e = dlerror();
    log::err(std::string("dlopen(pin) failed: ") + (e ? e : "unknown"));
  }
}

}  // namespace ostrel
