// GetDriveList and GetHardwareDisk over a machine a test describes, and
// what the jobs did to its COM.
#include <napi.h>

#include <memory>
#include <string>

#include "../fixtures/storage_wmi_double.h"
#include "probe.h"
#include "runtime/napi_util.h"
#include "storage/com_guard.h"
#include "storage/storage_binding.h"

namespace ostrel::probe {

namespace {

using storage::wmi_value;
namespace fake = storage::fake;
using machine_ref = std::shared_ptr<fake::machine>;

// string: BSTR; bigint: unsigned 64-bit; number: VT_I4; null: VT_NULL.
wmi_value to_value(Napi::Value v) {
  bool lossless = false;
  if (v.IsString()) return wmi_value::string(v.As<Napi::String>().Utf8Value());
  if (v.IsBigInt()) return wmi_value::uint64(v.As<Napi::BigInt>().Uint64Value(&lossless));
  if (v.IsNumber()) return wmi_value::int32(v.As<Napi::Number>().Int32Value());
  return v.IsNull() ? wmi_value::null() : wmi_value::other();
}

// storageMachine({ logicalDisks: [{ property: value }], nextDelayMs })
Napi::Value storage_machine(const Napi::CallbackInfo& info) {
  check_arg_types(info, {napi_object});
  Napi::Object d = info[0].As<Napi::Object>();
  auto m = std::make_shared<fake::machine>();
  m->next_delay_ms = d.Get("nextDelayMs").IsNumber() ? d.Get("nextDelayMs").As<Napi::Number>().Int32Value() : 0;
  Napi::Array rows = d.Get("logicalDisks").As<Napi::Array>();
  for (std::uint32_t i = 0; i < rows.Length(); ++i) {
    Napi::Object o = rows.Get(i).As<Napi::Object>();
    Napi::Array keys = o.GetPropertyNames();
    fake::row r;
    for (std::uint32_t k = 0; k < keys.Length(); ++k) {
      std::string key = keys.Get(k).ToString().Utf8Value();
      r[key] = to_value(o.Get(key));
    }
    m->logical_disks.push_back(std::move(r));
  }
  return Napi::External<machine_ref>::New(info.Env(), new machine_ref(m), [](Napi::Env, machine_ref* p) { delete p; });
}

machine_ref machine_of(const Napi::CallbackInfo& info, std::size_t i) {
  if (info.Length() <= i || !info[i].IsExternal()) throw Napi::Error::New(info.Env(), "Wrong arguments");
  return *info[i].As<Napi::External<machine_ref>>().Data();
}

// storageList("drives" | "disks", machine, options)
Napi::Value storage_list(const Napi::CallbackInfo& info) {
  machine_ref m = machine_of(info, 1);
  auto which =
      info[0].ToString().Utf8Value() == "drives" ? storage::storage_list::drives : storage::storage_list::disks;
  auto source = storage::make_wmi_source(std::make_shared<fake::com>(m), std::make_shared<fake::volumes>(m));
  return storage::start_storage_list(info.Env(), info.Length() > 2 ? info[2] : info.Env().Undefined(), which, source);
}

// storageCounts(machine): what the lists did on it.
Napi::Value storage_counts(const Napi::CallbackInfo& info) {
  machine_ref m = machine_of(info, 0);
  Napi::Object o = Napi::Object::New(info.Env());
  o.Set("initialize", m->initialize_calls.load());
  o.Set("uninitialize", m->uninitialize_calls.load());
  o.Set("unbalancedUninitialize", m->unbalanced_uninitialize.load());
  o.Set("uninitializedCalls", m->uninitialized_calls.load());
  o.Set("liveObjects", m->live_objects.load());
  o.Set("comGuards", storage::com_guard::live());
  return o;
}

void register_storage(Napi::Env env, Napi::Object exports) {
  exports.Set("storageMachine", Napi::Function::New(env, storage_machine));
  exports.Set("storageList", Napi::Function::New(env, storage_list));
  exports.Set("storageCounts", Napi::Function::New(env, storage_counts));
}

probe_part storage_part(register_storage);

}  // namespace
}  // namespace ostrel::probe
