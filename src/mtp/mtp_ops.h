// The portable-device operations the exports run, each on a thread of its
// own (they block on the device). Windows implements them over WPD
// (*_win.cc); on Linux the device list is empty and the rest is not
// supported (mtp_ops_linux.cc).
#pragma once

#include <atomic>
#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "mtp_model.h"

namespace ostrel::mtp {

// A failure that rejects the call with its message.
class mtp_failure : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// False where there is no device API (the exports reject at once).
bool platform_supported();

// The attached MTP devices, in the device manager's order.
std::vector<device_record> enumerate_devices();

// Shared between a running operation and the script side that can cancel it
// and reads its progress.
struct operation_control {
  std::atomic<bool> cancel{false};
  std::atomic<std::uint64_t> done{0};   // objects listed, or bytes copied
  std::atomic<std::uint64_t> total{0};  // bytes to copy, 0 when unknown

  // Ends the operation with `message` once script has cancelled it.
  void throw_if_cancelled(const char* message) const {
    if (cancel.load(std::memory_order_relaxed)) throw mtp_failure(message);
  }
};

struct listing_request {
  std::wstring device_id;
  std::optional<std::wstring> folder;  // none: the whole device
  bool recursive = true;
};
// The objects under the folder, depth first. Throws mtp_failure; a
// cancelled listing throws mtp_failure("GetMtpFilesById was cancelled").
std::vector<object_record> list_objects(const listing_request& request, operation_control& control);

enum class resource_kind { data, thumbnail };
struct copy_request {
  std::wstring device_id;
  std::wstring object_id;
  std::wstring destination;
  std::string destination_utf8;  // for messages
  bool overwrite = false;
  resource_kind resource = resource_kind::data;
};
// Copies the resource to the destination through a temporary file and
// returns the bytes written. Throws mtp_failure; leaves no file behind on
// failure or cancellation.
std::uint64_t copy_object(const copy_request& request, operation_control& control);

}  // namespace ostrel::mtp
