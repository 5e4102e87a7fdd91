// Probes of the drive and disk lists: the same script-side calls as
// GetDriveList and GetHardwareDisk over a machine a test describes (COM
// results, WMI rows, volume answers; or a mountinfo file and a sysfs tree),
// and the COM guard's process-wide counter of this add-on's copy.
#include <napi.h>

#include <memory>
#include <string>

#include "../native/storage_fake.h"
#include "probe.h"
#include "runtime/napi_util.h"
#include "storage/com_guard.h"
#include "storage/mounts.h"
#include "storage/storage_binding.h"

namespace ostrel::probe {

namespace {

using storage::wmi_value;
namespace fake = storage::fake;

storage::hresult to_hresult(Napi::Value v) {
  if (!v.IsNumber()) return 0;
  return static_cast<storage::hresult>(static_cast<std::uint32_t>(v.As<Napi::Number>().Int64Value()));
}

std::uint32_t to_u32(Napi::Value v, std::uint32_t fallback = 0) {
  return v.IsNumber() ? static_cast<std::uint32_t>(v.As<Napi::Number>().Int64Value()) : fallback;
}

// string: a BSTR; bigint: an unsigned 64-bit value; number: a 32-bit
// integer (VT_I4); null: VT_NULL; a boolean: another variant type.
wmi_value to_value(Napi::Value v) {
  if (v.IsString()) return wmi_value::string(v.As<Napi::String>().Utf8Value());
  if (v.IsBigInt()) {
    bool lossless = false;
    return wmi_value::uint64(v.As<Napi::BigInt>().Uint64Value(&lossless));
  }
  if (v.IsNumber()) return wmi_value::int32(v.As<Napi::Number>().Int32Value());
  if (v.IsNull()) return wmi_value::null();
  if (v.IsBoolean()) return wmi_value::other();
  return {};
}

std::vector<fake::row> to_rows(Napi::Value v) {
  std::vector<fake::row> rows;
  if (!v.IsArray()) return rows;
  Napi::Array a = v.As<Napi::Array>();
  for (std::uint32_t i = 0; i < a.Length(); ++i) {
    Napi::Object o = a.Get(i).As<Napi::Object>();
    Napi::Array keys = o.GetPropertyNames();
    fake::row r;
    for (std::uint32_t k = 0; k < keys.Length(); ++k) {
      std::string key = keys.Get(k).ToString().Utf8Value();
      Napi::Value value = o.Get(key);
      if (!value.IsUndefined()) r[key] = to_value(value);
    }
    rows.push_back(std::move(r));
  }
  return rows;
}

std::shared_ptr<fake::machine> to_machine(Napi::Object d) {
  auto m = std::make_shared<fake::machine>();
  m->initialize = to_hresult(d.Get("initialize"));
  m->security = to_hresult(d.Get("security"));
  m->security_already_set = d.Get("securityAlreadySet").ToBoolean();
  m->create_locator = to_hresult(d.Get("createLocator"));
  m->connect = to_hresult(d.Get("connect"));
  m->proxy_blanket = to_hresult(d.Get("proxyBlanket"));
  m->next_delay_ms = static_cast<int>(to_u32(d.Get("nextDelayMs")));
  if (d.Get("queryErrors").IsObject()) {
    Napi::Object q = d.Get("queryErrors").As<Napi::Object>();
    Napi::Array keys = q.GetPropertyNames();
    for (std::uint32_t k = 0; k < keys.Length(); ++k) {
      std::string key = keys.Get(k).ToString().Utf8Value();
      m->query_errors[key] = to_hresult(q.Get(key));
    }
  }
  m->logical_disks = to_rows(d.Get("logicalDisks"));
  m->disk_drives = to_rows(d.Get("diskDrives"));
  if (d.Get("volumes").IsObject()) {
    Napi::Object vs = d.Get("volumes").As<Napi::Object>();
    Napi::Array keys = vs.GetPropertyNames();
    for (std::uint32_t k = 0; k < keys.Length(); ++k) {
      std::string id = keys.Get(k).ToString().Utf8Value();
      Napi::Object o = vs.Get(id).As<Napi::Object>();
      fake::volume v;
      v.open_error = to_u32(o.Get("openError"));
      v.extents_error = to_u32(o.Get("extentsError"));
      v.disk_number = to_u32(o.Get("diskNumber"));
      if (o.Get("volumeName").IsString()) v.volume_name = o.Get("volumeName").As<Napi::String>().Utf8Value();
      v.name_error = to_u32(o.Get("nameError"), fake::error_file_not_found);
      v.shared_open_error = to_u32(o.Get("sharedOpenError"));
      if (o.Get("seekPenalty").IsBoolean()) v.seek_penalty = o.Get("seekPenalty").As<Napi::Boolean>().Value();
      if (o.Get("trimEnabled").IsBoolean()) v.trim_enabled = o.Get("trimEnabled").As<Napi::Boolean>().Value();
      m->volumes[id] = std::move(v);
    }
  }
  return m;
}

using machine_ref = std::shared_ptr<fake::machine>;

// storageMachine(description): a machine to list from and count calls on.
Napi::Value storage_machine(const Napi::CallbackInfo& info) {
  check_arg_types(info, {napi_object});
  auto* held = new machine_ref(to_machine(info[0].As<Napi::Object>()));
  return Napi::External<machine_ref>::New(info.Env(), held, [](Napi::Env, machine_ref* m) { delete m; });
}

// storageList(kind, source, options): kind "drives" or "disks"; source a
// machine, null for this computer, or { mountinfo, sysfs, space } for the
// Linux reading over fixture files (space: { mountPoint: [size, free] }).
Napi::Value storage_list(const Napi::CallbackInfo& info) {
  Napi::Env env = info.Env();
  if (info.Length() < 2 || !info[0].IsString()) throw Napi::Error::New(env, "Wrong arguments");
  auto which =
      info[0].As<Napi::String>().Utf8Value() == "drives" ? storage::storage_list::drives : storage::storage_list::disks;
  std::shared_ptr<storage::storage_source> source;
  if (info[1].IsNull()) {
    source = storage::system_storage_source();
  } else if (info[1].IsExternal()) {
    machine_ref m = *info[1].As<Napi::External<machine_ref>>().Data();
    source = storage::make_wmi_source(std::make_shared<fake::com>(m), std::make_shared<fake::volumes>(m));
  } else if (info[1].IsObject()) {
    Napi::Object d = info[1].As<Napi::Object>();
    storage::linux_paths paths;
    paths.mountinfo = d.Get("mountinfo").ToString().Utf8Value();
    paths.sysfs = d.Get("sysfs").ToString().Utf8Value();
    auto sizes = std::make_shared<std::map<std::string, std::pair<std::uint64_t, std::uint64_t>>>();
    if (d.Get("space").IsObject()) {
      Napi::Object s = d.Get("space").As<Napi::Object>();
      Napi::Array keys = s.GetPropertyNames();
      for (std::uint32_t k = 0; k < keys.Length(); ++k) {
        std::string key = keys.Get(k).ToString().Utf8Value();
        Napi::Array pair = s.Get(key).As<Napi::Array>();
        (*sizes)[key] = {static_cast<std::uint64_t>(pair.Get(0u).As<Napi::Number>().Int64Value()),
                         static_cast<std::uint64_t>(pair.Get(1u).As<Napi::Number>().Int64Value())};
      }
    }
    source = storage::make_linux_source(
        paths, [sizes](const std::string& path, std::uint64_t& size, std::uint64_t& free_space) {
          auto it = sizes->find(path);
          if (it == sizes->end()) return size = free_space = 0, false;
          size = it->second.first;
          free_space = it->second.second;
          return true;
        });
  } else {
    throw Napi::Error::New(env, "Wrong arguments");
  }
  Napi::Value options = info.Length() > 2 ? info[2] : env.Undefined();
  return storage::start_storage_list(env, options, which, source);
}

// storageCounts(machine): what the lists did on it.
Napi::Value storage_counts(const Napi::CallbackInfo& info) {
  if (info.Length() < 1 || !info[0].IsExternal()) throw Napi::Error::New(info.Env(), "Wrong arguments");
  machine_ref m = *info[0].As<Napi::External<machine_ref>>().Data();
  Napi::Object o = Napi::Object::New(info.Env());
  o.Set("initialize", m->initialize_calls.load());
  o.Set("security", m->security_calls.load());
  o.Set("uninitialize", m->uninitialize_calls.load());
  o.Set("unbalancedUninitialize", m->unbalanced_uninitialize.load());
  o.Set("uninitializedCalls", m->uninitialized_calls.load());
  o.Set("queries", m->queries.load());
  o.Set("liveObjects", m->live_objects.load());
  return o;
}

void register_storage(Napi::Env env, Napi::Object exports) {
  exports.Set("storageMachine", Napi::Function::New(env, storage_machine));
  exports.Set("storageList", Napi::Function::New(env, storage_list));
  exports.Set("storageCounts", Napi::Function::New(env, storage_counts));
  exports.Set("storageComGuards", Napi::Function::New(env, [](const Napi::CallbackInfo& info) {
                return Napi::Number::New(info.Env(), storage::com_guard::live());
              }));
}

probe_part storage_part(register_storage);

}  // namespace
}  // namespace ostrel::probe
