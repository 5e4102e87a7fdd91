#include "sdk_loader.h"

#include <atomic>
#include <chrono>
#include <exception>
#include <mutex>
#include <vector>

#include "media_stats.h"
#include "runtime/log.h"
#include "sdk_paths.h"
#include "sdk_platform.h"

namespace ostrel::media {

namespace {

struct sdk_state {
  std::mutex lock;  // held across a whole initialisation
  std::atomic<bool> inited{false};
  std::string source;
  platform::library handle = nullptr;
  std::atomic<const CorvexSdkApi*> api{nullptr};
  std::string last_load_error;
};

sdk_state& state() {
  // Never destroyed: the SDK stays loaded until the process ends, and its
  // threads may still run while static objects are torn down.
  static sdk_state* s = new sdk_state();
  return *s;
}

std::int64_t elapsed_ms(std::chrono::steady_clock::time_point start) {
  return std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::steady_clock::now() - start).count() /
         1000000;
}

// LoadCorvexSdk under the state's lock.
int load_locked(sdk_state& s, const std::string& dir) {
  if (s.handle) return 0;
  if (!is_absolute_folder(dir)) {
    // An empty or relative folder would load from the current directory
    // (or the system's search), where anyone may have planted a library:
    // refused, as a load failure of the first library.
    log::err("Refusing to load the media SDK from \"" + dir +
             "\": the folder must be an absolute path (an empty or relative one would load from the current "
             "directory)");
    std::string path = join_library_path(dir, platform::library_names[0], platform::path_separator);
    s.last_load_error = "open " + path + " error:" + platform::refuse_folder();
    return -1;
  }
  std::vector<platform::library> loaded;
  bool all = true;
  for (const char* name : platform::library_names) {
    std::string path = join_library_path(dir, name, platform::path_separator);
    std::string error;
    platform::library lib = platform::open_library(path, error);
    if (!lib) {
      s.last_load_error = "open " + path + " error:" + error;
      all = false;
      break;
    }
    loaded.push_back(lib);
  }
  int result = -1;
  platform::library keep = nullptr;
  if (all) {
    keep = loaded.back();
    s.handle = keep;
    // The player library stays loaded from here on, even without its entry
    // point: the next load returns 0 at once, with no table.
    auto entry = reinterpret_cast<getCorvexSDKC_fn>(platform::find_symbol(keep, CORVEX_SDK_ENTRY_NAME));
    if (entry) {
      s.api.store(entry());
      result = 0;
    }
  }
  // The player keeps its own references on the decoder and renderer.
  for (platform::library lib : loaded) {
    if (lib != keep) platform::close_library(lib);
  }
  return result;
}

const char* flag(bool b) {
  return b ? "1" : "0";
}

}  // namespace

bool sdk_inited() noexcept {
  return state().inited.load();
}

const CorvexSdkApi* sdk_api() noexcept {
  return state().api.load();
}

std::string corvex_source() {
  sdk_state& s = state();
  std::lock_guard lock(s.lock);
  return s.source;
}

std::string last_load_error() {
  sdk_state& s = state();
  std::lock_guard lock(s.lock);
  return s.last_load_error;
}

int LoadCorvexSdk(const std::string& dir) {
  sdk_state& s = state();
  std::lock_guard lock(s.lock);
  return load_locked(s, dir);
}

void InitCorvex() {
  sdk_state& s = state();
  std::lock_guard lock(s.lock);
  if (s.inited) {
    log::out("Corvex already inited.");
    return;
  }
  log::out("Start Init Corvex...");
  auto start = std::chrono::steady_clock::now();
  std::string message = "Init Corvex";
  std::int64_t code = 0;
  bool success = false;
  std::string tried;
  std::string module_path;
  try {
    std::string error_line;
    if (!platform::own_module_path(module_path, error_line)) {
      log::err(error_line);
    } else {
      std::filesystem::path module = path_from_utf8(module_path);
      std::vector<sdk_candidate> candidates = choose_layout(module) == sdk_layout::development
                                                  ? development_candidates(module)
                                                  : installed_candidates(path_from_utf8(platform::install_location()));
      for (const sdk_candidate& c : candidates) {
        tried = path_to_utf8(c.dir);
        if (load_locked(s, tried) == 0) {
          s.source = c.label;
          success = true;
          break;
        }
      }
    }
  } catch (const std::exception& e) {
    log::out_value("Exception: ", e.what());
    message = e.what();
    success = false;
  } catch (...) {
    log::out("Unknown Exception");
    message = "Unknown Exception";
    success = false;
  }
  if (success) {
    s.inited = true;
    log::out_value("Corvex inited. corvex_source: ", s.source);
  } else {
    code = platform::last_error();
  }
  report_media_stat("InitCorvex", elapsed_ms(start), success, message, code,
                    {{"bl1", success ? "" : module_path}, {"bl2", success ? "" : tried}, {"c2", std::to_string(code)}});
  log::out("End Init Corvex from " + tried + " " + flag(success) + " " + std::to_string(code));
}

bool InitCorvexV2(const std::string& dir) {
  sdk_state& s = state();
  std::lock_guard lock(s.lock);
  if (s.inited) return false;
  log::out("Start Init Corvex...");
  auto start = std::chrono::steady_clock::now();
  std::string message = "Init Corvex";
  bool success = false;
  std::int64_t code = 0;
  try {
    int result = load_locked(s, dir);
    success = result == 0;
    if (!success) message = "Error code: " + std::to_string(result) + " " + s.last_load_error;
  } catch (const std::exception& e) {
    log::out_value("Exception: ", e.what());
    message = e.what();
  } catch (...) {
    log::out("Unknown Exception");
    message = "Unknown Exception";
  }
  if (success) {
    s.inited = true;
    log::out_value("Corvex inited. corvex_source: ", s.source);
  } else {
    code = platform::last_error();
    log::out("Corvex init failed. corvex_source: " + s.source + message + dir);
  }
  report_media_stat("InitCorvexV2", elapsed_ms(start), success, message, code,
                    {{"bl1", success ? "" : "custom_init"},
                     {"bl2", success ? "" : dir},
                     {"bl3", success ? "" : message},
                     {"c2", std::to_string(code)}});
  log::out("End Init Corvex from " + dir + " " + flag(success) + " " + std::to_string(code));
  return true;
}

void BindZNetPointer(bool pointer_ok, bool available, std::uint64_t pointer, const std::string& read_error) {
  std::string message = "BindZNetPointer Unavailable";
  std::int32_t status = 0;
  try {
    if (!read_error.empty()) {
      log::out_value("BindZNetPointer: Exception ", read_error);
      message = read_error;
    } else if (pointer_ok && available) {
      const CorvexSdkApi* api = sdk_api();
      status = api ? api->bind_network_library(pointer) : -1;
      if (status != 0) {
        message = last_load_error();
        log::out_value("BindZNetPointer Failed ", message);
      } else {
        message = "BindZNetPointer Succeed";
      }
    }
  } catch (const std::exception& e) {
    log::out_value("BindZNetPointer: Exception ", e.what());
    message = e.what();
  } catch (...) {
    log::out("BindZNetPointer: Unknown Exception");
    message = "Unknown Exception";
  }
  report_media_stat("CorvexbindZNetPointer", 0, true, message, status,
                    {{"c2", pointer_ok ? "true" : "false"},
                     {"c3", available ? "true" : "false"},
                     {"c4", std::to_string(status)},
                     {"bl1", message}});
}

std::string sdk_version() {
  const CorvexSdkApi* api = sdk_api();
  if (!api || !api->version) return "";
  const char* v = api->version();
  return v ? v : "";
}

corvex_player* sdk_create_player(const corvex_listener* listener) {
  const CorvexSdkApi* api = sdk_api();
  if (!api || !api->create_player) return nullptr;
  return api->create_player(listener);
}

void sdk_destroy_player(corvex_player* player) noexcept {
  const CorvexSdkApi* api = sdk_api();
  if (api && api->destroy_player && player) api->destroy_player(player);
}

}  // namespace ostrel::media
