#include "wmi_query.h"

#include <cstdio>
#include <memory>

#include "runtime/log.h"

namespace ostrel::storage {

std::string hex_code(hresult hr) {
  char buf[16];
  std::snprintf(buf, sizeof buf, "%08X", static_cast<unsigned>(hr));
  return buf;
}

std::uint32_t query_limits::wait_ms() const {
  if (!deadline) return wait_infinite;
  // Rounded up: a wait that ends has reached the deadline.
  auto left = std::chrono::ceil<std::chrono::milliseconds>(*deadline - std::chrono::steady_clock::now());
  if (left.count() <= 0) return 0;
  if (left.count() >= static_cast<long long>(wait_infinite)) return wait_infinite - 1;
  return static_cast<std::uint32_t>(left.count());
}

query_outcome run_wmi_query(com_api& com, const std::string& wql, const query_limits& limits,
                            const std::function<void(wmi_object&)>& on_object) {
  // Destroyed in reverse order: the enumerator, the services, the locator.
  std::unique_ptr<wmi_locator> locator;
  if (failed(com.create_locator(locator)) || !locator) {
    log::err("CoCreateInstance failed");
    return query_outcome::failed;
  }
  std::unique_ptr<wmi_services> services;
  if (hresult hr = locator->connect_server("ROOT\\CIMV2", services); failed(hr) || !services) {
    log::err("ConnectServer() failure:" + hex_code(hr));
    return query_outcome::failed;
  }
  if (hresult hr = services->set_proxy_blanket(); failed(hr)) {
    log::err("Could not set proxy blanket. Error code = 0x" + hex_code(hr));
    return query_outcome::failed;
  }
  std::unique_ptr<wmi_enumerator> rows;
  if (hresult hr = services->exec_query(wql, rows); failed(hr) || !rows) {
    log::err("ExecQuery() failure:" + hex_code(hr));
    return query_outcome::failed;
  }
  for (;;) {
    if (limits.stop_now()) {
      log::err(std::string("WMI enumeration stopped (") + limits.stop_reason() + "): " + wql);
      return query_outcome::stopped;
    }
    bool timed_out = false;
    std::unique_ptr<wmi_object> object = rows->next(limits.wait_ms(), timed_out);
    if (!object) {
      if (timed_out && limits.deadline) {
        log::err("WMI enumeration stopped (the time limit ran out): " + wql);
        return query_outcome::stopped;
      }
      if (!timed_out) break;
      continue;  // no limit: wait on
    }
    on_object(*object);
  }
  return query_outcome::done;
}

}  // namespace ostrel::storage
