// Exports of subsystems that are not built yet. Each throws an Error saying
// so; the subsystem's binding file replaces its entry here when it lands.
#include <string>

#include "export_steps.h"
#include "runtime/napi_util.h"

namespace ostrel::exports {

namespace {
void attach_pending(Napi::Env env, Napi::Object exports, const char* name) {
  std::string message = std::string(name) + " is not available in this build of ostrel yet";
  attach_export(env, exports, name, [message](const Napi::CallbackInfo& info) -> Napi::Value {
    throw Napi::Error::New(info.Env(), message);
  });
}
}  // namespace

void register_get_mtp_devices(Napi::Env env, Napi::Object exports) {
  attach_pending(env, exports, "GetMtpDevices");
}
void register_get_mtp_files_by_id(Napi::Env env, Napi::Object exports) {
  attach_pending(env, exports, "GetMtpFilesById");
}
void register_get_mtp_file_by_id(Napi::Env env, Napi::Object exports) {
  attach_pending(env, exports, "GetMtpFileById");
}
void register_get_mtp_thumbnail(Napi::Env env, Napi::Object exports) {
  attach_pending(env, exports, "GetMtpThumbnailById");
}
void register_get_hardware_disk(Napi::Env env, Napi::Object exports) {
  attach_pending(env, exports, "GetHardwareDisk");
}
void register_get_drive_list(Napi::Env env, Napi::Object exports) {
  attach_pending(env, exports, "GetDriveList");
}

}  // namespace ostrel::exports
