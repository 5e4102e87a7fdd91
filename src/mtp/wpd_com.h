// Scope objects for COM and the WPD calls the operations share: the
// apartment of the calling thread, interface pointers, task-allocated
// strings, opening a device with the client information, reading values.
// Windows only.
#pragma once

#include <optional>
#include <string>
#include <utility>

#include "mtp_model.h"
#include "mtp_ops.h"
#include "wpd_api.h"

namespace ostrel::mtp {

// COM in the multithreaded apartment for the life of the scope. A failure
// is logged ("Failed to initialize COM") and the work goes on (it fails
// later with its own message).
class com_apartment {
 public:
  com_apartment();
  ~com_apartment();
  com_apartment(const com_apartment&) = delete;
  com_apartment& operator=(const com_apartment&) = delete;

 private:
  HRESULT hr_;
};

// Owns one reference to an interface.
template <typename T>
class com_ptr {
 public:
  com_ptr() noexcept = default;
  com_ptr(const com_ptr&) = delete;
  com_ptr& operator=(const com_ptr&) = delete;
  com_ptr(com_ptr&& other) noexcept : p_(std::exchange(other.p_, nullptr)) {}
  com_ptr& operator=(com_ptr&& other) noexcept {
    if (this != &other) {
      reset();
      p_ = std::exchange(other.p_, nullptr);
    }
    return *this;
  }
  ~com_ptr() { reset(); }

  void reset() noexcept {
    if (p_) std::exchange(p_, nullptr)->Release();
  }
  T* get() const noexcept { return p_; }
  T* operator->() const noexcept { return p_; }
  explicit operator bool() const noexcept { return p_ != nullptr; }
  // For an out parameter; releases what was held.
  T** put() noexcept {
    reset();
    return &p_;
  }
  void** put_void() noexcept { return reinterpret_cast<void**>(put()); }

 private:
  T* p_ = nullptr;
};

// Owns a string the callee allocated with CoTaskMemAlloc.
class co_string {
 public:
  co_string() noexcept = default;
  co_string(const co_string&) = delete;
  co_string& operator=(const co_string&) = delete;
  ~co_string() { CoTaskMemFree(p_); }
  LPWSTR* put() noexcept {
    CoTaskMemFree(std::exchange(p_, nullptr));
    return &p_;
  }
  const wchar_t* get() const noexcept { return p_; }

 private:
  LPWSTR p_ = nullptr;
};

// A device opened for reading with the client information, and its content.
struct open_device {
  open_device() = default;
  open_device(open_device&&) = default;
  ~open_device();
  com_ptr<IPortableDevice> device;
  com_ptr<IPortableDeviceContent> content;
};
// Opens `id`; throws mtp_failure "Failed to create CLSID_PortableDeviceFTM,
// hr = ..." or "Failed to open device <id>, hr = ...".
open_device open_for_reading(const std::wstring& id);
// The client information (null when the values object cannot be created;
// logged as the device list's lines say).
com_ptr<IPortableDeviceValues> make_client_information();

// A key collection holding `keys` in order; throws mtp_failure.
com_ptr<IPortableDeviceKeyCollection> make_keys(const PROPERTYKEY* keys, std::size_t count);
template <std::size_t N>
com_ptr<IPortableDeviceKeyCollection> make_keys(const PROPERTYKEY (&keys)[N]) {
  return make_keys(keys, N);
}

std::optional<std::wstring> read_string(IPortableDeviceValues* values, const PROPERTYKEY& key);
std::optional<guid_value> read_guid(IPortableDeviceValues* values, const PROPERTYKEY& key);
std::optional<std::uint64_t> read_u64(IPortableDeviceValues* values, const PROPERTYKEY& key);
// A VT_DATE value as the milliseconds since 1970 of its wall-clock reading
// (automation_date_to_wall_clock_ms); none when absent or not a date.
std::optional<double> read_date_ms(IPortableDeviceValues* values, const PROPERTYKEY& key);

// Result codes a device that went away gives.
bool is_device_gone(HRESULT hr);
// Result codes for an object id the device does not know.
bool is_object_missing(HRESULT hr);

std::string narrow(const std::wstring& text);

}  // namespace ostrel::mtp
