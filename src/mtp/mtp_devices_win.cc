// The device list: the device manager's identifiers, each device opened for
// reading and its five properties read; only devices whose protocol begins
// with "MTP" are kept, numbered in the order they were kept.
#include <vector>

#include "mtp_ops.h"
#include "runtime/log.h"
#include "wpd_com.h"

namespace ostrel::mtp {

bool platform_supported() {
  return true;
}

namespace {

// The identifiers the manager returned, freed with the scope.
class device_ids {
 public:
  explicit device_ids(DWORD count) : ids_(count, nullptr) {}
  ~device_ids() {
    for (LPWSTR id : ids_) CoTaskMemFree(id);
  }
  device_ids(const device_ids&) = delete;
  device_ids& operator=(const device_ids&) = delete;
  LPWSTR* data() { return ids_.data(); }
  const wchar_t* at(std::size_t i) const { return ids_[i] ? ids_[i] : L""; }

 private:
  std::vector<LPWSTR> ids_;
};

// Reads the five device properties into `record`; false (logged) when the
// device cannot be opened or its properties read.
bool read_device(const std::wstring& id, device_record& record) {
  try {
    open_device d = open_for_reading(id);
    com_ptr<IPortableDeviceProperties> properties;
    HRESULT hr = d.content->Properties(properties.put());
    if (FAILED(hr)) {
      throw mtp_failure("Failed to read the device properties of " + narrow(id) +
                        ", hr = " + hresult_text(static_cast<std::uint32_t>(hr)));
    }
    static const PROPERTYKEY keys[] = {wpd::device_model, wpd::device_manufacturer, wpd::device_friendly_name,
                                       wpd::device_protocol, wpd::device_serial_number};
    com_ptr<IPortableDeviceKeyCollection> collection = make_keys(keys);
    com_ptr<IPortableDeviceValues> values;
    hr = properties->GetValues(wpd::device_object_id, collection.get(), values.put());
    if (FAILED(hr) || !values) {
      throw mtp_failure("Failed to read the device properties of " + narrow(id) +
                        ", hr = " + hresult_text(static_cast<std::uint32_t>(hr)));
    }
    // Without a readable protocol the device cannot be shown to be MTP.
    std::optional<std::wstring> protocol = read_string(values.get(), wpd::device_protocol);
    if (!protocol || !is_mtp_protocol(*protocol)) return false;
    record.id = id;
    record.protocol = *protocol;
    record.name = read_string(values.get(), wpd::device_friendly_name).value_or(L"");
    record.model = read_string(values.get(), wpd::device_model).value_or(L"");
    record.manufacturer = read_string(values.get(), wpd::device_manufacturer).value_or(L"");
    record.serial = read_string(values.get(), wpd::device_serial_number).value_or(L"");
    return true;
  } catch (const mtp_failure& e) {
    log::err(e.what());
    return false;
  }
}

}  // namespace

std::vector<device_record> enumerate_devices() {
  com_apartment com;
  com_ptr<IPortableDeviceManager> manager;
  HRESULT hr =
      CoCreateInstance(wpd::clsid_manager, nullptr, CLSCTX_INPROC_SERVER, wpd::iid_manager, manager.put_void());
  if (FAILED(hr)) {
    throw mtp_failure("Failed to create the portable device manager, hr = " +
                      hresult_text(static_cast<std::uint32_t>(hr)));
  }
  DWORD count = 0;
  hr = manager->GetDevices(nullptr, &count);
  if (FAILED(hr)) throw mtp_failure("Failed to get the device list from the system");
  std::vector<device_record> records;
  if (count == 0) return records;
  const DWORD slots = count;
  device_ids ids(slots);
  hr = manager->GetDevices(ids.data(), &count);
  if (FAILED(hr)) throw mtp_failure("Failed to get the device list from the system");
  for (DWORD i = 0; i < count && i < slots; ++i) {
    device_record record;
    if (!read_device(ids.at(i), record)) continue;
    record.index = static_cast<std::uint32_t>(records.size());
    records.push_back(std::move(record));
  }
  return records;
}

}  // namespace ostrel::mtp
