// Copies an object's data or thumbnail: the resource's stream is written to
// a new temporary file beside the destination, which is renamed to the
// destination at the end (never over an existing file unless asked). Any
// failure or cancellation deletes the temporary file.
#include <random>
#include <vector>

#include "mtp_ops.h"
#include "runtime/strings.h"
#include "wpd_com.h"

namespace ostrel::mtp {

namespace {

constexpr const char* copy_cancelled = "The copy was cancelled";

std::string system_text(DWORD code) {
  return system_error_text(static_cast<int>(code));
}

// A temporary file that is deleted unless it was renamed into place.
// `destination` is in the long-path form, so neither name is bound by
// MAX_PATH.
class temporary_file {
 public:
  explicit temporary_file(const std::wstring& destination, const std::string& destination_utf8)
      : destination_utf8_(destination_utf8) {
    std::random_device rd;
    for (int attempt = 0; attempt < 8; ++attempt) {
      path_ = temporary_name(destination, rd());
      handle_ = CreateFileW(path_.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_NEW, FILE_ATTRIBUTE_NORMAL, nullptr);
      if (handle_ != INVALID_HANDLE_VALUE) return;
      if (GetLastError() != ERROR_FILE_EXISTS) break;
    }
    DWORD code = GetLastError();
    throw mtp_failure("Failed to write " + destination_utf8_ + ": " + system_text(code));
  }
  ~temporary_file() {
    close();
    if (!committed_) DeleteFileW(path_.c_str());
  }
  temporary_file(const temporary_file&) = delete;
  temporary_file& operator=(const temporary_file&) = delete;

  void write(const BYTE* data, DWORD size) {
    while (size > 0) {
      DWORD written = 0;
      if (!WriteFile(handle_, data, size, &written, nullptr)) {
        DWORD code = GetLastError();
        if (code == ERROR_DISK_FULL || code == ERROR_HANDLE_DISK_FULL) {
          throw mtp_failure("The disk is full: " + destination_utf8_);
        }
        throw mtp_failure("Failed to write " + destination_utf8_ + ": " + system_text(code));
      }
      data += written;
      size -= written;
    }
  }

  void commit(const std::wstring& destination, bool overwrite) {
    if (!FlushFileBuffers(handle_)) {
      DWORD code = GetLastError();
      throw mtp_failure("Failed to write " + destination_utf8_ + ": " + system_text(code));
    }
    close();
    // Without MOVEFILE_REPLACE_EXISTING the rename fails on an existing
    // destination: the check and the rename are one step.
    DWORD flags = overwrite ? MOVEFILE_REPLACE_EXISTING : 0;
    if (!MoveFileExW(path_.c_str(), destination.c_str(), flags)) {
      DWORD code = GetLastError();
      if (code == ERROR_ALREADY_EXISTS || code == ERROR_FILE_EXISTS) {
        throw mtp_failure("The destination already exists: " + destination_utf8_);
      }
      throw mtp_failure("Failed to write " + destination_utf8_ + ": " + system_text(code));
    }
    committed_ = true;
  }

 private:
  void close() {
    if (handle_ != INVALID_HANDLE_VALUE) CloseHandle(handle_);
    handle_ = INVALID_HANDLE_VALUE;
  }

  std::string destination_utf8_;
  std::wstring path_;
  HANDLE handle_ = INVALID_HANDLE_VALUE;
  bool committed_ = false;
};

bool exists(const std::wstring& path) {
  return GetFileAttributesW(path.c_str()) != INVALID_FILE_ATTRIBUTES;
}

// The destination as a full path in the long-path form; throws for a name
// Windows reserves (with the long-path form it would even be created).
std::wstring checked_destination(const copy_request& request) {
  if (const char* problem = destination_name_problem(request.destination)) {
    throw mtp_failure(std::string(problem) + ": " + request.destination_utf8);
  }
  DWORD size = GetFullPathNameW(request.destination.c_str(), 0, nullptr, nullptr);
  std::wstring full(size, L'\0');
  DWORD n = size ? GetFullPathNameW(request.destination.c_str(), size, full.data(), nullptr) : 0;
  if (n == 0 || n >= size) {
    DWORD code = GetLastError();
    throw mtp_failure("Failed to write " + request.destination_utf8 + ": " + system_text(code));
  }
  full.resize(n);
  // The full path may name a device (the system turns some names into
  // "\\.\CON"): checked again.
  if (const char* problem = destination_name_problem(full)) {
    throw mtp_failure(std::string(problem) + ": " + request.destination_utf8);
  }
  if (full.starts_with(L"\\\\.\\")) {
    throw mtp_failure("The destination is a reserved device name: " + request.destination_utf8);
  }
  return long_path_form(full);
}

}  // namespace

std::uint64_t copy_object(const copy_request& request, operation_control& control) {
  com_apartment com;
  control.throw_if_cancelled(copy_cancelled);
  const std::wstring destination = checked_destination(request);
  if (!request.overwrite && exists(destination)) {
    throw mtp_failure("The destination already exists: " + request.destination_utf8);
  }
  open_device device = open_for_reading(request.device_id);
  const std::string object_utf8 = narrow(request.object_id);

  // The object must exist; its size is the copy's total (for its data).
  com_ptr<IPortableDeviceProperties> properties;
  HRESULT hr = device.content->Properties(properties.put());
  if (FAILED(hr)) {
    throw mtp_failure("Failed to read object " + object_utf8 +
                      ", hr = " + hresult_text(static_cast<std::uint32_t>(hr)));
  }
  static const PROPERTYKEY keys[] = {wpd::object_content_type, wpd::object_size};
  com_ptr<IPortableDeviceKeyCollection> collection = make_keys(keys);
  com_ptr<IPortableDeviceValues> values;
  hr = properties->GetValues(request.object_id.c_str(), collection.get(), values.put());
  if (FAILED(hr) || !values) {
    if (is_device_gone(hr)) {
      throw mtp_failure(
          "The device was disconnected during the copy (hr = " + hresult_text(static_cast<std::uint32_t>(hr)) + ")");
    }
    throw mtp_failure("Object not found on the device: " + object_utf8);
  }
  // The object's size, which a copy of its data must reach: a driver may
  // end a stream early (some report a disconnect that way).
  std::optional<std::uint64_t> expected;
  if (request.resource == resource_kind::data) {
    expected = read_u64(values.get(), wpd::object_size);
    control.total = expected.value_or(0);
  }

  com_ptr<IPortableDeviceResources> resources;
  hr = device.content->Transfer(resources.put());
  if (FAILED(hr)) {
    throw mtp_failure("Failed to read object " + object_utf8 +
                      ", hr = " + hresult_text(static_cast<std::uint32_t>(hr)));
  }
  const PROPERTYKEY& key = request.resource == resource_kind::data ? wpd::resource_default : wpd::resource_thumbnail;
  DWORD optimal = 0;
  com_ptr<IStream> stream;
  hr = resources->GetStream(request.object_id.c_str(), key, STGM_READ, &optimal, stream.put());
  if (FAILED(hr) || !stream) {
    if (is_device_gone(hr)) {
      throw mtp_failure(
          "The device was disconnected during the copy (hr = " + hresult_text(static_cast<std::uint32_t>(hr)) + ")");
    }
    if (request.resource == resource_kind::thumbnail) {
      throw mtp_failure("The object has no thumbnail: " + object_utf8);
    }
    throw mtp_failure("Failed to read object " + object_utf8 +
                      ", hr = " + hresult_text(static_cast<std::uint32_t>(hr)));
  }

  temporary_file file(destination, request.destination_utf8);
  const DWORD chunk = optimal >= 4096 && optimal <= (4u << 20) ? optimal : 256 * 1024;
  std::vector<BYTE> buffer(chunk);
  std::uint64_t copied = 0;
  for (;;) {
    control.throw_if_cancelled(copy_cancelled);
    ULONG read = 0;
    hr = stream->Read(buffer.data(), chunk, &read);
    if (FAILED(hr)) {
      if (is_device_gone(hr)) {
        throw mtp_failure(
            "The device was disconnected during the copy (hr = " + hresult_text(static_cast<std::uint32_t>(hr)) + ")");
      }
      throw mtp_failure("Failed to read object " + object_utf8 + " after " + std::to_string(copied) +
                        " bytes, hr = " + hresult_text(static_cast<std::uint32_t>(hr)));
    }
    if (read == 0) break;
    // A driver claiming more than the buffer holds is not believed.
    if (read > chunk) read = chunk;
    file.write(buffer.data(), read);
    copied += read;
    control.done = copied;
  }
  control.throw_if_cancelled(copy_cancelled);
  if (expected && copied != *expected) {
    throw mtp_failure("The device ended the copy of " + object_utf8 + " after " + std::to_string(copied) + " of " +
                      std::to_string(*expected) + " bytes");
  }
  file.commit(destination, request.overwrite);
  return copied;
}

}  // namespace ostrel::mtp
