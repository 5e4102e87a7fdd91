// The module's entry: the initialiser that starts the runtime and attaches
// the exports in their fixed order, and the clean-up hook that tears the
// runtime down when the script environment ends.
#include <napi.h>

#include <exception>
#include <thread>

#include "export_steps.h"
#include "runtime/log.h"
#include "runtime/module_pin.h"
#include "runtime/environment.h"
#include "runtime/napi_util.h"
#include "runtime/thread_pool.h"
#include "version.h"

namespace ostrel {

namespace {

void register_get_version(Napi::Env env, Napi::Object exports) {
  attach_export(env, exports, "getVersion", [](const Napi::CallbackInfo& info) -> Napi::Value {
    return Napi::String::New(info.Env(), version_text, sizeof version_text - 1);
  });
}

napi_value initialise(napi_env raw_env, napi_value raw_exports) {
  Napi::Env env(raw_env);
  Napi::Object exports(raw_env, raw_exports);
  try {
    log::wout(L"Ostrel Initializing ...");
    // From its first load on, the module stays mapped until the process
    // ends: pool, job and blocking threads, the I/O service's timer thread,
    // COM objects handed to a driver and SDK listener threads may all still
    // return into its code after the last environment that loaded it ended.
    static const bool pinned = (pin_module(), true);
    (void)pinned;
    // Per environment (the main thread, each Worker): a scheduler, the
    // session registry and the clean-up; the first one also starts the
    // process-wide pool and I/O service.
    environment::start(env, thread_pool::default_size(std::thread::hardware_concurrency()));

    try {
      exports::init_api_compat();
    } catch (const std::exception& e) {
      log::err(e.what());
    }
    exports::register_start_file_watch(env, exports);
    exports::register_get_mtp_devices(env, exports);
    exports::register_get_mtp_files_by_id(env, exports);
    exports::register_get_mtp_file_by_id(env, exports);
    exports::register_get_mtp_thumbnail(env, exports);
    exports::register_scan_all_sub_files(env, exports);
    exports::register_get_hardware_disk(env, exports);
    exports::register_texture_support(env, exports);
    exports::register_get_drive_list(env, exports);
    exports::register_media_player(env, exports);
    exports::register_read_media_duration(env, exports);
    exports::register_reporters(env, exports);
    exports::register_tracers(env, exports);
    exports::register_fact(env, exports);
    register_get_version(env, exports);
    exports::register_init_corvex(env, exports);

    log::out("Ostrel Initialized.");
    return exports;
  } catch (const Napi::Error& e) {
    rethrow_into_script(env, e);
  } catch (const std::exception& e) {
    Napi::Error::New(env, e.what()).ThrowAsJavaScriptException();
  }
  return nullptr;
}

}  // namespace
}  // namespace ostrel

// The module's one exported symbol. The loader's static constructor calls it
// while the DLL (or shared object) is being loaded; it hands the runtime the
// initialiser.
extern "C" {
#ifdef _WIN32
__declspec(dllexport)
#else
__attribute__((visibility("default")))
#endif
    void _register_ostrel_(void) {
  static napi_module module = {
      1, 0, __FILE__, ostrel::initialise, "ostrel", nullptr, {nullptr, nullptr, nullptr, nullptr},
  };
  napi_module_register(&module);
}
}

// Loads after the first. The module stays mapped once loaded (it pins
// itself), so when every environment that loaded it has ended and a new one
// (a Worker) loads it again, its static constructor does not run a second
// time and node finds nothing registered; it then looks for this symbol.
extern "C" {
#ifdef _WIN32
__declspec(dllexport)
#else
__attribute__((visibility("default")))
#endif
    napi_value napi_register_module_v1(napi_env env, napi_value exports) {
  return ostrel::initialise(env, exports);
}
}

namespace {
struct register_at_load {
  register_at_load() { _register_ostrel_(); }
} register_at_load_instance;
}  // namespace
