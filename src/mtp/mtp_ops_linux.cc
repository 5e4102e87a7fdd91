// Linux has no Windows Portable Devices: no device is ever listed, and the
// operations on a device are not supported (a libmtp back end may come).
#include "mtp_ops.h"

namespace ostrel::mtp {

bool platform_supported() {
  return false;
}

std::vector<device_record> enumerate_devices() {
  return {};
}

std::vector<object_record> list_objects(const listing_request&, operation_control&) {
  throw mtp_failure("GetMtpFilesById is not supported on this platform");
}

std::uint64_t copy_object(const copy_request& request, operation_control&) {
  throw mtp_failure(std::string(request.resource == resource_kind::data ? "GetMtpFileById" : "GetMtpThumbnailById") +
                    " is not supported on this platform");
}

}  // namespace ostrel::mtp
