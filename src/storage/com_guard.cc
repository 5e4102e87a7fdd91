#include "com_guard.h"

#include <atomic>

#include "runtime/log.h"
#include "wmi_query.h"

namespace ostrel::storage {

namespace {
std::atomic<std::int32_t> g_live_guards{0};
}

com_guard::com_guard(com_api& api) : api_(api) {
  if (failed(api_.initialize())) {
    log::err("Failed to initialize COM");
    return;
  }
  if (g_live_guards.fetch_add(1) == 0) {
    hresult hr = api_.initialize_security();
    if (failed(hr)) {
      log::err("Failed to initialize security. Error code = 0x" + hex_code(hr));
      api_.uninitialize();
      g_live_guards.store(0);
    }
  }
}

com_guard::~com_guard() {
  g_live_guards.fetch_sub(1);
  api_.uninitialize();
}

com_apartment::com_apartment(com_api& api) : api_(api) {
  hresult hr = api_.initialize();
  initialized_ = !failed(hr);
  if (!initialized_) log::err("Failed to initialize COM for the query. Error code = 0x" + hex_code(hr));
}

com_apartment::~com_apartment() {
  if (initialized_) api_.uninitialize();
}

std::int32_t com_guard::live() noexcept {
  return g_live_guards.load();
}

void com_guard::reset_for_tests() noexcept {
  g_live_guards.store(0);
}

}  // namespace ostrel::storage
