// A machine described by a test, behind the storage seam: COM results, WMI
// rows and the volumes' device-control answers. Used by the unit tests and
// by the runtime probe's storage functions (the JS suites). Thread-safe:
// concurrent calls share one machine.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "storage/wmi_api.h"

namespace ostrel::storage::fake {

// Win32 errors the fake gives.
inline constexpr std::uint32_t error_file_not_found = 2;
inline constexpr std::uint32_t error_access_denied = 5;
inline constexpr std::uint32_t error_not_supported = 50;
inline constexpr std::uint32_t error_more_data = 234;
// RPC_E_TOO_LATE: COM security was already initialised in the process.
inline constexpr hresult rpc_e_too_late = static_cast<hresult>(0x80010119u);
// CO_E_NOTINITIALIZED: a COM call on a thread whose COM is not initialised.
inline constexpr hresult co_e_notinitialized = static_cast<hresult>(0x800401F0u);
// S_FALSE: COM was already initialised on this thread (the count grows).
inline constexpr hresult s_false = 1;
inline constexpr hresult wbem_e_failed = static_cast<hresult>(0x80041001u);

// One WMI object: its properties; a missing one reads as `empty`.
using row = std::map<std::string, wmi_value>;

struct volume {
  std::uint32_t open_error = 0;  // opening "\\.\X:"
  std::uint32_t extents_error = 0;
  std::uint32_t disk_number = 0;
  std::string volume_name;  // "\\?\Volume{...}\"; empty: the name lookup fails
  std::uint32_t name_error = error_file_not_found;
  std::uint32_t shared_open_error = 0;  // opening the volume name
  std::optional<bool> seek_penalty;     // none: the query fails with 50
  std::optional<bool> trim_enabled;     // none: the query fails with 50
};

// COM as a thread sees it: CoInitializeEx counts per thread (S_OK the first
// time, S_FALSE after), each CoUninitialize takes one back, and COM is
// usable on a thread only while its count is above 0. CoInitializeSecurity
// succeeds once per process; every later call, or any call once the host
// has set security (`security_already_set`), fails with RPC_E_TOO_LATE.
struct machine {
  hresult initialize = 0;  // a failure here is returned and counts nothing
  hresult security = 0;    // a failure here is returned as it is
  bool security_already_set = false;
  hresult create_locator = 0;
  hresult connect = 0;
  hresult proxy_blanket = 0;
  std::map<std::string, hresult> query_errors;  // by the class the query names
  std::vector<row> logical_disks;               // Win32_LogicalDisk
  std::vector<row> disk_drives;                 // Win32_DiskDrive
  std::map<std::string, volume> volumes;        // by DeviceID ("C:")
  int next_delay_ms = 0;                        // each Next blocks this long

  // What the logic did.
  std::atomic<int> initialize_calls{0};
  std::atomic<int> security_calls{0};
  std::atomic<int> uninitialize_calls{0};
  std::atomic<int> unbalanced_uninitialize{0};  // CoUninitialize with the count at 0
  std::atomic<int> uninitialized_calls{0};      // COM calls refused with CO_E_NOTINITIALIZED

  std::mutex com_mutex;
  std::map<std::thread::id, int> com_count;  // per thread

  bool com_ready() {
    std::lock_guard lock(com_mutex);
    auto it = com_count.find(std::this_thread::get_id());
    if (it != com_count.end() && it->second > 0) return true;
    ++uninitialized_calls;
    return false;
  }
  std::atomic<int> queries{0};
  std::atomic<int> live_objects{0};  // COM objects not yet released
};

class object : public wmi_object {
 public:
  object(std::shared_ptr<machine> m, row r) : m_(std::move(m)), row_(std::move(r)) { ++m_->live_objects; }
  ~object() override { --m_->live_objects; }
  wmi_value get(const char* name) override {
    auto it = row_.find(name);
    return it == row_.end() ? wmi_value{} : it->second;
  }

 private:
  std::shared_ptr<machine> m_;
  row row_;
};

class enumerator : public wmi_enumerator {
 public:
  enumerator(std::shared_ptr<machine> m, const std::vector<row>& rows) : m_(std::move(m)), rows_(rows) {
    ++m_->live_objects;
  }
  ~enumerator() override { --m_->live_objects; }
  std::unique_ptr<wmi_object> next(std::uint32_t timeout_ms, bool& timed_out) override {
    timed_out = false;
    if (m_->next_delay_ms > 0) {
      if (timeout_ms != wait_infinite && static_cast<std::uint32_t>(m_->next_delay_ms) > timeout_ms) {
        std::this_thread::sleep_for(std::chrono::milliseconds(timeout_ms));
        timed_out = true;
        return nullptr;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(m_->next_delay_ms));
    }
    if (next_ >= rows_.size()) return nullptr;
    return std::make_unique<object>(m_, rows_[next_++]);
  }

 private:
  std::shared_ptr<machine> m_;
  std::vector<row> rows_;
  std::size_t next_ = 0;
};

class services : public wmi_services {
 public:
  explicit services(std::shared_ptr<machine> m) : m_(std::move(m)) { ++m_->live_objects; }
  ~services() override { --m_->live_objects; }
  hresult set_proxy_blanket() override { return m_->proxy_blanket; }
  hresult exec_query(const std::string& wql, std::unique_ptr<wmi_enumerator>& out) override {
    ++m_->queries;
    bool logical = wql.find("Win32_LogicalDisk") != std::string::npos;
    const char* cls = logical ? "Win32_LogicalDisk" : "Win32_DiskDrive";
    if (auto e = m_->query_errors.find(cls); e != m_->query_errors.end()) return e->second;
    out = std::make_unique<enumerator>(m_, logical ? m_->logical_disks : m_->disk_drives);
    return 0;
  }

 private:
  std::shared_ptr<machine> m_;
};

class locator : public wmi_locator {
 public:
  explicit locator(std::shared_ptr<machine> m) : m_(std::move(m)) { ++m_->live_objects; }
  ~locator() override { --m_->live_objects; }
  hresult connect_server(const std::string& name, std::unique_ptr<wmi_services>& out) override {
    if (name != "ROOT\\CIMV2") return wbem_e_failed;
    if (m_->connect < 0) return m_->connect;
    out = std::make_unique<services>(m_);
    return 0;
  }

 private:
  std::shared_ptr<machine> m_;
};

class com : public com_api {
 public:
  explicit com(std::shared_ptr<machine> m) : m_(std::move(m)) {}
  hresult initialize() override {
    ++m_->initialize_calls;
    if (m_->initialize < 0) return m_->initialize;
    std::lock_guard lock(m_->com_mutex);
    return m_->com_count[std::this_thread::get_id()]++ == 0 ? 0 : s_false;
  }
  hresult initialize_security() override {
    ++m_->security_calls;
    if (!m_->com_ready()) return co_e_notinitialized;
    if (m_->security < 0) return m_->security;
    std::lock_guard lock(m_->com_mutex);
    if (m_->security_already_set) return rpc_e_too_late;
    m_->security_already_set = true;
    return 0;
  }
  void uninitialize() override {
    ++m_->uninitialize_calls;
    std::lock_guard lock(m_->com_mutex);
    int& n = m_->com_count[std::this_thread::get_id()];
    if (n > 0) {
      --n;
    } else {
      ++m_->unbalanced_uninitialize;  // COM ignores it
    }
  }
  hresult create_locator(std::unique_ptr<wmi_locator>& out) override {
    if (!m_->com_ready()) return co_e_notinitialized;
    if (m_->create_locator < 0) return m_->create_locator;
    out = std::make_unique<locator>(m_);
    return 0;
  }

 private:
  std::shared_ptr<machine> m_;
};

class device : public volume_device {
 public:
  explicit device(volume v) : v_(std::move(v)) {}
  std::uint32_t disk_extents(std::uint32_t& disk_number) override {
    if (v_.extents_error) return v_.extents_error;
    disk_number = v_.disk_number;
    return 0;
  }
  std::uint32_t seek_penalty(bool& incurs) override {
    if (!v_.seek_penalty) return error_not_supported;
    incurs = *v_.seek_penalty;
    return 0;
  }
  std::uint32_t trim(bool& enabled) override {
    if (!v_.trim_enabled) return error_not_supported;
    enabled = *v_.trim_enabled;
    return 0;
  }

 private:
  volume v_;
};

class volumes : public volume_api {
 public:
  explicit volumes(std::shared_ptr<machine> m) : m_(std::move(m)) {}
  std::unique_ptr<volume_device> open_volume(const std::string& path, std::uint32_t& error) override {
    const std::string prefix = "\\\\.\\";
    auto v = path.rfind(prefix, 0) == 0 ? m_->volumes.find(path.substr(prefix.size())) : m_->volumes.end();
    if (v == m_->volumes.end()) {
      error = error_file_not_found;
      return nullptr;
    }
    if (v->second.open_error) {
      error = v->second.open_error;
      return nullptr;
    }
    return std::make_unique<device>(v->second);
  }
  std::unique_ptr<volume_device> open_volume_shared(const std::string& path, std::uint32_t& error) override {
    for (const auto& [id, v] : m_->volumes) {
      std::string name = v.volume_name;
      if (!name.empty() && name.back() == '\\') name.pop_back();
      if (name.empty() || name != path) continue;
      if (v.shared_open_error) {
        error = v.shared_open_error;
        return nullptr;
      }
      return std::make_unique<device>(v);
    }
    error = error_file_not_found;
    return nullptr;
  }
  std::string volume_name(const std::string& path, std::uint32_t& error) override {
    std::string id = path;
    if (!id.empty() && id.back() == '\\') id.pop_back();
    auto v = m_->volumes.find(id);
    if (v == m_->volumes.end() || v->second.volume_name.empty()) {
      error = v == m_->volumes.end() ? error_file_not_found : v->second.name_error;
      return {};
    }
    return v->second.volume_name;
  }

 private:
  std::shared_ptr<machine> m_;
};

}  // namespace ostrel::storage::fake
