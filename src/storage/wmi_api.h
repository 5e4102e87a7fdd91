// The seam between the drive and disk logic and the machine: COM and WMI
// calls, and the volume device controls. The Windows implementation
// (wmi_api_win.cc) makes the real calls; tests hand the same logic the rows
// and answers of machines they describe. Results are HRESULTs for COM and
// Win32 error codes for devices, as the system gives them.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "wmi_values.h"

namespace ostrel::storage {

using hresult = std::int32_t;
inline bool failed(hresult hr) noexcept {
  return hr < 0;
}
// Next's wait: no limit.
inline constexpr std::uint32_t wait_infinite = 0xFFFFFFFFu;

// One object a query returned; released when destroyed.
class wmi_object {
 public:
  virtual ~wmi_object() = default;
  // The property `name`; `empty` when Get fails.
  virtual wmi_value get(const char* name) = 0;
};

// A forward-only enumerator.
class wmi_enumerator {
 public:
  virtual ~wmi_enumerator() = default;
  // The next object, waiting at most `timeout_ms`; null at the end, after a
  // failure, and when the wait ran out (`timed_out` set).
  virtual std::unique_ptr<wmi_object> next(std::uint32_t timeout_ms, bool& timed_out) = 0;
};

// A connection to a namespace.
class wmi_services {
 public:
  virtual ~wmi_services() = default;
  // CoSetProxyBlanket: RPC_C_AUTHN_WINNT, RPC_C_AUTHZ_NONE, no principal,
  // RPC_C_AUTHN_LEVEL_CALL, RPC_C_IMP_LEVEL_IMPERSONATE, no identity, EOAC_NONE.
  virtual hresult set_proxy_blanket() = 0;
  // ExecQuery("WQL", wql, WBEM_FLAG_FORWARD_ONLY | WBEM_FLAG_RETURN_IMMEDIATELY).
  virtual hresult exec_query(const std::string& wql, std::unique_ptr<wmi_enumerator>& out) = 0;
};

class wmi_locator {
 public:
  virtual ~wmi_locator() = default;
  // ConnectServer(name) with no user, password, locale, flags, authority or context.
  virtual hresult connect_server(const std::string& name, std::unique_ptr<wmi_services>& out) = 0;
};

// The calling thread's COM.
class com_api {
 public:
  virtual ~com_api() = default;
  // CoInitializeEx(nullptr, COINIT_MULTITHREADED).
  virtual hresult initialize() = 0;
  // CoInitializeSecurity(nullptr, -1, nullptr, nullptr, RPC_C_AUTHN_LEVEL_DEFAULT,
  // RPC_C_IMP_LEVEL_IMPERSONATE, nullptr, EOAC_NONE, nullptr).
  virtual hresult initialize_security() = 0;
  virtual void uninitialize() = 0;
  // CoCreateInstance(CLSID_WbemLocator, nullptr, CLSCTX_INPROC_SERVER, IID_IWbemLocator).
  virtual hresult create_locator(std::unique_ptr<wmi_locator>& out) = 0;
};

// An open volume; closed when destroyed. Each query returns 0 or the Win32
// error code of its failure.
class volume_device {
 public:
  virtual ~volume_device() = default;
  // IOCTL_VOLUME_GET_VOLUME_DISK_EXTENTS with room for exactly one extent:
  // the first extent's disk number. A volume on several disks fails
  // (ERROR_MORE_DATA).
  virtual std::uint32_t disk_extents(std::uint32_t& disk_number) = 0;
  // IOCTL_STORAGE_QUERY_PROPERTY, StorageDeviceSeekPenaltyProperty.
  virtual std::uint32_t seek_penalty(bool& incurs_penalty) = 0;
  // IOCTL_STORAGE_QUERY_PROPERTY, StorageDeviceTrimProperty.
  virtual std::uint32_t trim(bool& trim_enabled) = 0;
};

class volume_api {
 public:
  virtual ~volume_api() = default;
  // CreateFileW(path, 0, 0, nullptr, OPEN_EXISTING, 0, nullptr): for the
  // disk extents. Null and `error` set on failure.
  virtual std::unique_ptr<volume_device> open_volume(const std::string& path, std::uint32_t& error) = 0;
  // CreateFileW(path, 0, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
  // nullptr, OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS, nullptr): for the
  // storage properties.
  virtual std::unique_ptr<volume_device> open_volume_shared(const std::string& path, std::uint32_t& error) = 0;
  // GetVolumePathNameW(path) then GetVolumeNameForVolumeMountPointW on the
  // result (260 characters each): the volume's name ("\\?\Volume{...}\").
  // Empty and `error` set on failure.
  virtual std::string volume_name(const std::string& path, std::uint32_t& error) = 0;
};

}  // namespace ostrel::storage
