#include "wpd_com.h"

#include "runtime/log.h"
#include "runtime/strings.h"

namespace ostrel::mtp {

com_apartment::com_apartment() : hr_(CoInitializeEx(nullptr, COINIT_MULTITHREADED)) {
  if (FAILED(hr_)) log::err("Failed to initialize COM");
}

com_apartment::~com_apartment() {
  if (SUCCEEDED(hr_)) CoUninitialize();
}

std::string narrow(const std::wstring& text) {
  return to_utf8(std::wstring_view(text));
}

namespace {

class values_sink : public client_info_sink {
 public:
  explicit values_sink(IPortableDeviceValues* values) : values_(values) {}
  std::int32_t set_string(client_key key, const wchar_t* value) override {
    return values_->SetStringValue(key_of(key), value);
  }
  std::int32_t set_number(client_key key, std::uint32_t value) override {
    return values_->SetUnsignedIntegerValue(key_of(key), value);
  }

 private:
  static const PROPERTYKEY& key_of(client_key key) {
    switch (key) {
      case client_key::name:
        return wpd::client_name;
      case client_key::major_version:
        return wpd::client_major_version;
      case client_key::minor_version:
        return wpd::client_minor_version;
      case client_key::revision:
        return wpd::client_revision;
      case client_key::security_quality_of_service:
        return wpd::client_security_quality_of_service;
      case client_key::desired_access:
        break;
    }
    return wpd::client_desired_access;
  }
  IPortableDeviceValues* values_;
};

}  // namespace

com_ptr<IPortableDeviceValues> make_client_information() {
  com_ptr<IPortableDeviceValues> values;
  HRESULT hr = CoCreateInstance(wpd::clsid_values, nullptr, CLSCTX_INPROC_SERVER, wpd::iid_values, values.put_void());
  if (FAILED(hr)) {
    log::wout(values_creation_failure_line(static_cast<std::uint32_t>(hr)));
    return {};
  }
  values_sink sink(values.get());
  apply_client_information(sink, [](const std::wstring& line) { log::wout(line); });
  return values;
}

open_device::~open_device() {
  content.reset();
  if (device) device->Close();
}

open_device open_for_reading(const std::wstring& id) {
  open_device d;
  HRESULT hr =
      CoCreateInstance(wpd::clsid_device_ftm, nullptr, CLSCTX_INPROC_SERVER, wpd::iid_device, d.device.put_void());
  if (FAILED(hr)) {
    throw mtp_failure("Failed to create CLSID_PortableDeviceFTM, hr = " + hresult_text(static_cast<std::uint32_t>(hr)));
  }
  com_ptr<IPortableDeviceValues> client = make_client_information();
  hr = d.device->Open(id.c_str(), client.get());
  if (FAILED(hr)) {
    d.device.reset();  // never opened: nothing to close
    throw mtp_failure("Failed to open device " + narrow(id) + ", hr = " + hresult_text(static_cast<std::uint32_t>(hr)));
  }
  hr = d.device->Content(d.content.put());
  if (FAILED(hr)) {
    throw mtp_failure("Failed to open device " + narrow(id) +
                      ": no content, hr = " + hresult_text(static_cast<std::uint32_t>(hr)));
  }
  return d;
}

com_ptr<IPortableDeviceKeyCollection> make_keys(const PROPERTYKEY* keys, std::size_t count) {
  com_ptr<IPortableDeviceKeyCollection> collection;
  HRESULT hr = CoCreateInstance(wpd::clsid_key_collection, nullptr, CLSCTX_INPROC_SERVER, wpd::iid_key_collection,
                                collection.put_void());
  if (FAILED(hr)) {
    throw mtp_failure("Failed to create CLSID_PortableDeviceKeyCollection, hr = " +
                      hresult_text(static_cast<std::uint32_t>(hr)));
  }
  for (std::size_t i = 0; i < count; ++i) {
    hr = collection->Add(keys[i]);
    if (FAILED(hr)) {
      throw mtp_failure("Failed to add a key to the key collection, hr = " +
                        hresult_text(static_cast<std::uint32_t>(hr)));
    }
  }
  return collection;
}

std::optional<std::wstring> read_string(IPortableDeviceValues* values, const PROPERTYKEY& key) {
  co_string text;
  if (FAILED(values->GetStringValue(key, text.put())) || !text.get()) return std::nullopt;
  return std::wstring(text.get());
}

std::optional<guid_value> read_guid(IPortableDeviceValues* values, const PROPERTYKEY& key) {
  GUID g{};
  if (FAILED(values->GetGuidValue(key, &g))) return std::nullopt;
  guid_value v;
  v.data1 = g.Data1;
  v.data2 = g.Data2;
  v.data3 = g.Data3;
  for (int i = 0; i < 8; ++i) v.data4[i] = g.Data4[i];
  return v;
}

std::optional<std::uint64_t> read_u64(IPortableDeviceValues* values, const PROPERTYKEY& key) {
  ULONGLONG n = 0;
  if (FAILED(values->GetUnsignedLargeIntegerValue(key, &n))) return std::nullopt;
  return n;
}

std::optional<double> read_date_ms(IPortableDeviceValues* values, const PROPERTYKEY& key) {
  PROPVARIANT v;
  PropVariantInit(&v);
  if (FAILED(values->GetValue(key, &v))) return std::nullopt;
  std::optional<double> ms;
  if (v.vt == VT_DATE) ms = automation_date_to_wall_clock_ms(v.date);
  PropVariantClear(&v);
  return ms;
}

bool is_device_gone(HRESULT hr) {
  switch (static_cast<std::uint32_t>(hr)) {
    case 0x80070015u:  // ERROR_NOT_READY
    case 0x8007001Fu:  // ERROR_GEN_FAILURE
    case 0x80070037u:  // ERROR_DEV_NOT_EXIST
    case 0x800701B1u:  // ERROR_NO_SUCH_DEVICE
    case 0x8007048Fu:  // ERROR_DEVICE_NOT_CONNECTED
    case 0x80070651u:  // ERROR_DEVICE_REMOVED
      return true;
    default:
      return hr == wpd::e_device_not_open;
  }
}

bool is_object_missing(HRESULT hr) {
  switch (static_cast<std::uint32_t>(hr)) {
    case 0x80070002u:  // ERROR_FILE_NOT_FOUND
    case 0x80070490u:  // ERROR_NOT_FOUND
    case 0x80070057u:  // E_INVALIDARG
      return true;
    default:
      return false;
  }
}

}  // namespace ostrel::mtp
