// The real COM, WMI and volume device calls behind the storage seam.
#include <windows.h>
// after windows.h
#include <objbase.h>
#include <oleauto.h>
#include <wbemidl.h>
#include <winioctl.h>

#include "runtime/strings.h"
#include "storage_source.h"
#include "wmi_api.h"

namespace ostrel::storage {

namespace {

// A BSTR owned for one call.
class bstr {
 public:
  explicit bstr(std::string_view text) : value_(SysAllocString(to_wide(text).c_str())) {}
  ~bstr() { SysFreeString(value_); }
  bstr(const bstr&) = delete;
  bstr& operator=(const bstr&) = delete;
  BSTR get() const noexcept { return value_; }

 private:
  BSTR value_;
};

// A COM interface pointer owned by one object.
template <typename I>
class com_ptr {
 public:
  explicit com_ptr(I* p = nullptr) noexcept : p_(p) {}
  ~com_ptr() {
    if (p_) p_->Release();
  }
  com_ptr(const com_ptr&) = delete;
  com_ptr& operator=(const com_ptr&) = delete;
  I* get() const noexcept { return p_; }
  I* operator->() const noexcept { return p_; }

 private:
  I* p_;
};

wmi_value from_variant(const VARIANT& v) {
  switch (v.vt) {
    case VT_EMPTY:
      return {};
    case VT_NULL:
      return wmi_value::null();
    case VT_BSTR:
      return wmi_value::string(v.bstrVal ? to_utf8(std::wstring_view(v.bstrVal, SysStringLen(v.bstrVal))) : "");
    case VT_UI8:
      return wmi_value::uint64(v.ullVal);
    case VT_I4:
      return wmi_value::int32(v.lVal);
    default: {
      wmi_value other = wmi_value::other();
      other.number = v.uintVal;  // the 32 bits a drive type reader takes
      return other;
    }
  }
}

class win_object : public wmi_object {
 public:
  explicit win_object(IWbemClassObject* o) : object_(o) {}
  wmi_value get(const char* name) override {
    VARIANT v;
    VariantInit(&v);
    std::wstring wide = to_wide(name);
    if (FAILED(object_->Get(wide.c_str(), 0, &v, nullptr, nullptr))) return {};
    wmi_value value = from_variant(v);
    VariantClear(&v);
    return value;
  }

 private:
  com_ptr<IWbemClassObject> object_;
};

class win_enumerator : public wmi_enumerator {
 public:
  explicit win_enumerator(IEnumWbemClassObject* e) : enum_(e) {}
  std::unique_ptr<wmi_object> next(std::uint32_t timeout_ms, bool& timed_out) override {
    IWbemClassObject* object = nullptr;
    ULONG returned = 0;
    HRESULT hr = enum_->Next(static_cast<long>(timeout_ms), 1, &object, &returned);
    timed_out = hr == WBEM_S_TIMEDOUT;
    if (returned == 0 || !object) return nullptr;
    return std::make_unique<win_object>(object);
  }

 private:
  com_ptr<IEnumWbemClassObject> enum_;
};

class win_services : public wmi_services {
 public:
  explicit win_services(IWbemServices* s) : services_(s) {}
  hresult set_proxy_blanket() override {
    return CoSetProxyBlanket(services_.get(), RPC_C_AUTHN_WINNT, RPC_C_AUTHZ_NONE, nullptr, RPC_C_AUTHN_LEVEL_CALL,
                             RPC_C_IMP_LEVEL_IMPERSONATE, nullptr, EOAC_NONE);
  }
  hresult exec_query(const std::string& wql, std::unique_ptr<wmi_enumerator>& out) override {
    bstr language("WQL");
    bstr query(wql);
    IEnumWbemClassObject* e = nullptr;
    HRESULT hr = services_->ExecQuery(language.get(), query.get(),
                                      WBEM_FLAG_FORWARD_ONLY | WBEM_FLAG_RETURN_IMMEDIATELY, nullptr, &e);
    if (SUCCEEDED(hr) && e) out = std::make_unique<win_enumerator>(e);
    return hr;
  }

 private:
  com_ptr<IWbemServices> services_;
};

class win_locator : public wmi_locator {
 public:
  explicit win_locator(IWbemLocator* l) : locator_(l) {}
  hresult connect_server(const std::string& name, std::unique_ptr<wmi_services>& out) override {
    bstr resource(name);
    IWbemServices* s = nullptr;
    HRESULT hr = locator_->ConnectServer(resource.get(), nullptr, nullptr, nullptr, 0, nullptr, nullptr, &s);
    if (SUCCEEDED(hr) && s) out = std::make_unique<win_services>(s);
    return hr;
  }

 private:
  com_ptr<IWbemLocator> locator_;
};

class win_com : public com_api {
 public:
  hresult initialize() override { return CoInitializeEx(nullptr, COINIT_MULTITHREADED); }
  hresult initialize_security() override {
    return CoInitializeSecurity(nullptr, -1, nullptr, nullptr, RPC_C_AUTHN_LEVEL_DEFAULT, RPC_C_IMP_LEVEL_IMPERSONATE,
                                nullptr, EOAC_NONE, nullptr);
  }
  void uninitialize() override { CoUninitialize(); }
  hresult create_locator(std::unique_ptr<wmi_locator>& out) override {
    IWbemLocator* l = nullptr;
    HRESULT hr = CoCreateInstance(CLSID_WbemLocator, nullptr, CLSCTX_INPROC_SERVER, IID_IWbemLocator,
                                  reinterpret_cast<void**>(&l));
    if (SUCCEEDED(hr) && l) out = std::make_unique<win_locator>(l);
    return hr;
  }
};

class win_volume : public volume_device {
 public:
  explicit win_volume(HANDLE h) : handle_(h) {}
  ~win_volume() override { CloseHandle(handle_); }

  std::uint32_t disk_extents(std::uint32_t& disk_number) override {
    VOLUME_DISK_EXTENTS extents{};  // room for exactly one extent (32 bytes)
    static_assert(sizeof(VOLUME_DISK_EXTENTS) == 32);
    DWORD bytes = 0;
    if (!DeviceIoControl(handle_, IOCTL_VOLUME_GET_VOLUME_DISK_EXTENTS, nullptr, 0, &extents, sizeof extents, &bytes,
                         nullptr)) {
      return GetLastError();
    }
    disk_number = extents.Extents[0].DiskNumber;
    return 0;
  }
  std::uint32_t seek_penalty(bool& incurs_penalty) override {
    DEVICE_SEEK_PENALTY_DESCRIPTOR d{};
    if (std::uint32_t e = query(StorageDeviceSeekPenaltyProperty, &d, sizeof d)) return e;
    incurs_penalty = d.IncursSeekPenalty != FALSE;
    return 0;
  }
  std::uint32_t trim(bool& trim_enabled) override {
    DEVICE_TRIM_DESCRIPTOR d{};
    if (std::uint32_t e = query(StorageDeviceTrimProperty, &d, sizeof d)) return e;
    trim_enabled = d.TrimEnabled != FALSE;
    return 0;
  }

 private:
  std::uint32_t query(STORAGE_PROPERTY_ID id, void* out, DWORD size) {
    STORAGE_PROPERTY_QUERY q{};
    static_assert(sizeof(STORAGE_PROPERTY_QUERY) == 12);
    q.PropertyId = id;
    q.QueryType = PropertyStandardQuery;
    DWORD bytes = 0;
    if (!DeviceIoControl(handle_, IOCTL_STORAGE_QUERY_PROPERTY, &q, sizeof q, out, size, &bytes, nullptr)) {
      return GetLastError();
    }
    return 0;
  }

  HANDLE handle_;
};

class win_volumes : public volume_api {
 public:
  std::unique_ptr<volume_device> open_volume(const std::string& path, std::uint32_t& error) override {
    return open(path, 0, 0, error);
  }
  std::unique_ptr<volume_device> open_volume_shared(const std::string& path, std::uint32_t& error) override {
    return open(path, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, FILE_FLAG_BACKUP_SEMANTICS, error);
  }
  std::string volume_name(const std::string& path, std::uint32_t& error) override {
    wchar_t mount_point[MAX_PATH] = {};
    wchar_t name[MAX_PATH] = {};
    std::wstring wide = to_wide(path);
    if (!GetVolumePathNameW(wide.c_str(), mount_point, MAX_PATH) ||
        !GetVolumeNameForVolumeMountPointW(mount_point, name, MAX_PATH)) {
      error = GetLastError();
      return {};
    }
    return to_utf8(std::wstring_view(name));
  }

 private:
  static std::unique_ptr<volume_device> open(const std::string& path, DWORD share, DWORD flags, std::uint32_t& error) {
    std::wstring wide = to_wide(path);
    HANDLE h = CreateFileW(wide.c_str(), 0, share, nullptr, OPEN_EXISTING, flags, nullptr);
    if (h == INVALID_HANDLE_VALUE) {
      error = GetLastError();
      return nullptr;
    }
    return std::make_unique<win_volume>(h);
  }
};

}  // namespace

std::shared_ptr<storage_source> system_storage_source() {
  return make_wmi_source(std::make_shared<win_com>(), std::make_shared<win_volumes>());
}

}  // namespace ostrel::storage
