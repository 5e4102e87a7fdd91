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

void register_texture_support(Napi::Env env, Napi::Object exports) {
  attach_pending(env, exports, "CheckExternalTextureSupport");
}
void register_media_player(Napi::Env env, Napi::Object exports) {
  attach_pending(env, exports, "CorvexMediaPlayer");
  attach_pending(env, exports, "CreateMediaPlayer");
}
void register_read_media_duration(Napi::Env env, Napi::Object exports) {
  attach_pending(env, exports, "ReadMediaDuration");
}
void register_init_corvex(Napi::Env env, Napi::Object exports) {
  attach_pending(env, exports, "InitCorvexSync");
}

}  // namespace ostrel::exports
