// The WMI connection and one query: locator, connection to ROOT\CIMV2, proxy
// security, the query, and a walk over the objects it returns. Every
// failure is logged with its code and ends the query with no further rows.
#pragma once

#include <chrono>
#include <functional>
#include <optional>
#include <string>

#include "wmi_api.h"

namespace ostrel::storage {

// What bounds a job: an optional deadline (the caller's time limit) and a
// test that tells it the caller no longer waits for it.
struct query_limits {
  std::optional<std::chrono::steady_clock::time_point> deadline;
  std::function<bool()> abandoned;

  bool stop_now() const { return (abandoned && abandoned()) || expired(); }
  bool expired() const { return deadline && std::chrono::steady_clock::now() >= *deadline; }
  // Next's wait: the time left, or no limit.
  std::uint32_t wait_ms() const;
  // Why stop_now() is true, for the log: "the time limit ran out" or "the caller no longer waits".
  const char* stop_reason() const { return expired() ? "the time limit ran out" : "the caller no longer waits"; }
};

enum class query_outcome { done, failed, stopped };

// A COM result in hexadecimal digits, as the failure lines write it after
// their text: "ConnectServer() failure:8004100E",
// "Could not set proxy blanket. Error code = 0x80070005".
std::string hex_code(hresult hr);

// Runs `wql` and calls `on_object` for each object in order (the caller
// holds a COM guard). `failed` after a logged failure of a connection step
// or the query; `stopped` when the limits ended the walk early (logged).
query_outcome run_wmi_query(com_api& com, const std::string& wql, const query_limits& limits,
                            const std::function<void(wmi_object&)>& on_object);

}  // namespace ostrel::storage
