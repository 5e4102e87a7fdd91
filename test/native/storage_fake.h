// A machine described by a test, behind the storage seam: COM results, WMI
// rows and the volumes' device-control answers, with its own copy of the
// codes the system gives. Used by the unit tests and by the runtime probe's
// storage functions. Thread-safe: concurrent jobs share one machine.
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

inline constexpr std::uint32_t error_file_not_found = 2;
inline constexpr std::uint32_t error_not_supported = 50;
inline constexpr std::uint32_t error_more_data = 234;
inline constexpr hresult s_false = 1;                                              // COM already initialised
inline constexpr hresult rpc_e_too_late = static_cast<hresult>(0x80010119u);       // security already set
inline constexpr hresult co_e_notinitialized = static_cast<hresult>(0x800401F0u);  // no COM on the thread
inline constexpr hresult wbem_e_failed = static_cast<hresult>(0x80041001u);

// One WMI object: its properties; a missing one reads as `empty`.
using row = std::map<std::string, wmi_value>;

// A volume "X:" is named "\\?\Volume{X:}\" unless `named` is false.
struct volume {
  std::uint32_t extents_error = 0;
  std::uint32_t disk_number = 0;
  bool named = true;
  std::optional<bool> seek_penalty;  // none: the query fails with 50
  std::optional<bool> trim_enabled;  // none: the query fails with 50
};

// COM as a thread sees it: CoInitializeEx counts per thread (S_OK the first
// time, S_FALSE after), CoUninitialize takes one back, and COM calls work
// only while the count is above 0. CoInitializeSecurity succeeds once per
// process, then fails with RPC_E_TOO_LATE.
struct machine {
  // A step's failure: "initialize" (counts nothing), "locator", "connect",
  // "blanket", or a query by the class it names.
  std::map<std::string, hresult> fails;
  bool security_already_set = false;
  std::vector<row> logical_disks;               // Win32_LogicalDisk
  std::vector<row> disk_drives;                 // Win32_DiskDrive
  std::map<std::string, volume> volumes;        // by DeviceID
  int next_delay_ms = 0;                        // each Next blocks this long

  std::atomic<int> initialize_calls{0};
  std::atomic<int> security_calls{0};
  std::atomic<int> uninitialize_calls{0};
  std::atomic<int> unbalanced_uninitialize{0};  // with the count at 0: COM ignores it
  std::atomic<int> uninitialized_calls{0};      // refused with CO_E_NOTINITIALIZED
  std::atomic<int> queries{0};
  std::atomic<int> live_objects{0};  // COM objects not yet released

  std::mutex mutex;
  std::map<std::thread::id, int> com_count;
  hresult fail(const std::string& step) const {
    auto f = fails.find(step);
    return f == fails.end() ? 0 : f->second;
  }
  bool com_ready() {
    std::lock_guard lock(mutex);
    if (com_count[std::this_thread::get_id()] > 0) return true;
    ++uninitialized_calls;
    return false;
  }
};

// A COM object of the machine, counted while alive.
struct counted {
  explicit counted(std::shared_ptr<machine> m) : m_(std::move(m)) { ++m_->live_objects; }
  ~counted() { --m_->live_objects; }
  std::shared_ptr<machine> m_;
};

class object : public wmi_object, counted {
 public:
  object(std::shared_ptr<machine> m, row r) : counted(std::move(m)), row_(std::move(r)) {}
  wmi_value get(const char* name) override {
    auto it = row_.find(name);
    return it == row_.end() ? wmi_value{} : it->second;
  }

 private:
  row row_;
};

class enumerator : public wmi_enumerator, counted {
 public:
  enumerator(std::shared_ptr<machine> m, std::vector<row> rows) : counted(std::move(m)), rows_(std::move(rows)) {}
  std::unique_ptr<wmi_object> next(std::uint32_t timeout_ms, bool& timed_out) override {
    auto delay = static_cast<std::uint32_t>(m_->next_delay_ms);
    timed_out = timeout_ms != wait_infinite && delay > timeout_ms;
    std::this_thread::sleep_for(std::chrono::milliseconds(timed_out ? timeout_ms : delay));
    if (timed_out || next_ >= rows_.size()) return nullptr;
    return std::make_unique<object>(m_, rows_[next_++]);
  }

 private:
  std::vector<row> rows_;
  std::size_t next_ = 0;
};

class services : public wmi_services, counted {
 public:
  using counted::counted;
  hresult set_proxy_blanket() override { return m_->fail("blanket"); }
  hresult exec_query(const std::string& wql, std::unique_ptr<wmi_enumerator>& out) override {
    ++m_->queries;
    bool logical = wql.find("FROM Win32_LogicalDisk") != std::string::npos;
    if (hresult e = m_->fail(logical ? "Win32_LogicalDisk" : "Win32_DiskDrive")) return e;
    out = std::make_unique<enumerator>(m_, logical ? m_->logical_disks : m_->disk_drives);
    return 0;
  }
};

class locator : public wmi_locator, counted {
 public:
  using counted::counted;
  hresult connect_server(const std::string& name, std::unique_ptr<wmi_services>& out) override {
    if (name != "ROOT\\CIMV2") return wbem_e_failed;
    if (hresult e = m_->fail("connect")) return e;
    out = std::make_unique<services>(m_);
    return 0;
  }
};

class com : public com_api {
 public:
  explicit com(std::shared_ptr<machine> m) : m_(std::move(m)) {}
  hresult initialize() override {
    ++m_->initialize_calls;
    if (hresult e = m_->fail("initialize")) return e;
    std::lock_guard lock(m_->mutex);
    return m_->com_count[std::this_thread::get_id()]++ == 0 ? 0 : s_false;
  }
  hresult initialize_security() override {
    ++m_->security_calls;
    if (!m_->com_ready()) return co_e_notinitialized;
    std::lock_guard lock(m_->mutex);
    return std::exchange(m_->security_already_set, true) ? rpc_e_too_late : 0;
  }
  void uninitialize() override {
    ++m_->uninitialize_calls;
    std::lock_guard lock(m_->mutex);
    int& n = m_->com_count[std::this_thread::get_id()];
    if (n > 0) {
      --n;
    } else {
      ++m_->unbalanced_uninitialize;
    }
  }
  hresult create_locator(std::unique_ptr<wmi_locator>& out) override {
    if (!m_->com_ready()) return co_e_notinitialized;
    if (hresult e = m_->fail("locator")) return e;
    out = std::make_unique<locator>(m_);
    return 0;
  }

 private:
  std::shared_ptr<machine> m_;
};

class device : public volume_device {
 public:
  explicit device(volume v) : v_(v) {}
  std::uint32_t disk_extents(std::uint32_t& disk_number) override {
    disk_number = v_.disk_number;
    return v_.extents_error;
  }
  std::uint32_t seek_penalty(bool& incurs) override { return answer(v_.seek_penalty, incurs); }
  std::uint32_t trim(bool& enabled) override { return answer(v_.trim_enabled, enabled); }

 private:
  static std::uint32_t answer(std::optional<bool> a, bool& out) {
    out = a.value_or(!out);  // a failed query leaves a wrong answer behind
    return a ? 0 : error_not_supported;
  }
  volume v_;
};

class volumes : public volume_api {
 public:
  explicit volumes(std::shared_ptr<machine> m) : m_(std::move(m)) {}
  // "\\.\X:" by its DeviceID.
  std::unique_ptr<volume_device> open_volume(const std::string& path, std::uint32_t& error) override {
    auto v = path.starts_with("\\\\.\\") ? m_->volumes.find(path.substr(4)) : m_->volumes.end();
    if (v == m_->volumes.end()) {
      error = error_file_not_found;
      return nullptr;
    }
    return std::make_unique<device>(v->second);
  }
  // "\\?\Volume{X:}", the name without its trailing backslash.
  std::unique_ptr<volume_device> open_volume_shared(const std::string& path, std::uint32_t& error) override {
    for (const auto& [id, v] : m_->volumes) {
      if (v.named && path == "\\\\?\\Volume{" + id + "}") return std::make_unique<device>(v);
    }
    error = error_file_not_found;
    return nullptr;
  }
  // "X:\" to its volume name.
  std::string volume_name(const std::string& path, std::uint32_t& error) override {
    auto v = path.ends_with("\\") ? m_->volumes.find(path.substr(0, path.size() - 1)) : m_->volumes.end();
    if (v != m_->volumes.end() && v->second.named) return "\\\\?\\Volume{" + v->first + "}\\";
    error = error_file_not_found;
    return {};
  }

 private:
  std::shared_ptr<machine> m_;
};

}  // namespace ostrel::storage::fake
