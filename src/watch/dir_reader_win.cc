// Windows: the root opened as a directory handle bound to the I/O service's
// completion port, read with overlapped ReadDirectoryChangesW calls over the
// whole subtree, one outstanding per handle. The file-mode handle asks for
// file-name, attribute, size, last-write and security changes (0x11D), the
// directory-mode handle for directory-name changes only (0x2), so a
// record's handle tells the kind of an item that no longer exists.
#include <windows.h>

#include <chrono>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "dir_reader.h"
#include "runtime/io_service.h"
#include "runtime/log.h"
#include "runtime/runtime.h"
#include "runtime/strings.h"
#include "scan/file_query_win.h"
#include "scan/scan_stats.h"
#include "watch_data.h"

namespace ostrel::watch {

namespace {

constexpr DWORD file_mode_filter = 0x11D;  // FILE_NAME | ATTRIBUTES | SIZE | LAST_WRITE | SECURITY
constexpr DWORD dir_mode_filter = 0x2;     // DIR_NAME
constexpr DWORD buffer_bytes = 1048576;
// Remote folders refuse buffers over 64 KB with ERROR_INVALID_PARAMETER.
constexpr DWORD remote_buffer_bytes = 64 * 1024;

// One overlapped ReadDirectoryChangesW on the handle, into `buffer`.
class ReadDirChangeOperation : public overlapped_operation<ReadDirChangeOperation> {
 public:
  ReadDirChangeOperation(HANDLE dir, unsigned char* buffer, DWORD size, DWORD filter, cancellation_token ct)
      : overlapped_operation(std::move(ct)), dir_(dir), buffer_(buffer), size_(size), filter_(filter) {}

  bool start() noexcept {
    if (ReadDirectoryChangesW(dir_, buffer_, size_, TRUE, filter_, nullptr,
                              reinterpret_cast<OVERLAPPED*>(static_cast<detail::io_state*>(this)), nullptr)) {
      return true;
    }
    error_ = GetLastError();
    return false;
  }
  void cancel() noexcept {
    if (!CancelIoEx(dir_, reinterpret_cast<OVERLAPPED*>(static_cast<detail::io_state*>(this)))) {
      DWORD e = GetLastError();
      // ERROR_NOT_FOUND: the read has completed meanwhile.
      if (e != ERROR_NOT_FOUND) log::err_code("ReadDirectoryChangeOperation::cancel() failed: ", e);
    }
  }
  // The negated error code when the read failed, else the bytes written.
  std::int64_t result() const noexcept {
    return error_ != 0 ? -static_cast<std::int64_t>(error_) : static_cast<std::int64_t>(bytes_);
  }

 private:
  HANDLE dir_;
  unsigned char* buffer_;
  DWORD size_;
  DWORD filter_;
};

class directory_reader final : public dir_reader {
 public:
  directory_reader(HANDLE dir, bool dir_mode)
      : dir_(dir), filter_(dir_mode ? dir_mode_filter : file_mode_filter), buffer_(buffer_bytes) {}
  ~directory_reader() override { CloseHandle(dir_); }

  task<read_outcome> read(cancellation_token token) override {
    read_outcome out;
    for (;;) {
      std::int64_t n =
          co_await ReadDirChangeOperation(dir_, buffer_.data(), static_cast<DWORD>(buffer_.size()), filter_, token);
      if (n == -static_cast<std::int64_t>(ERROR_INVALID_PARAMETER) && buffer_.size() > remote_buffer_bytes) {
        buffer_.assign(remote_buffer_bytes, 0);  // a remote folder: read on with a smaller buffer
        continue;
      }
      if (n < 0) {
        out.what = read_outcome::kind::failed;
        out.error = static_cast<std::uint32_t>(-n);
        // A deleted root fails the pending read with ERROR_ACCESS_DENIED and
        // stays delete-pending while this handle lives: tell it apart from a
        // real permission failure by asking the handle.
        if (out.error == ERROR_ACCESS_DENIED && delete_pending()) out.error = error_root_not_found;
        // A remote folder whose server has no change notification.
        out.permanent = out.error == ERROR_INVALID_FUNCTION;
      } else if (n == 0) {
        // The system's buffer overflowed: the changes of this interval are lost.
        out.what = read_outcome::kind::overflow;
      } else {
        out.what = read_outcome::kind::records;
        walk_notify_information(buffer_.data(), static_cast<std::size_t>(n), out.records);
        settle_unpaired_renames(out.records);
        for (auto it = out.records.begin(); it != out.records.end();) {
          if (invalid_name_prefix(it->name) != native_string::npos) {
            out.invalid_names.push_back(it->name.substr(0, invalid_name_prefix(it->name)));
            it = out.records.erase(it);
          } else {
            ++it;
          }
        }
        if (out.records.empty() && out.invalid_names.empty()) continue;
      }
      co_return out;
    }
  }

 private:
  bool delete_pending() const noexcept {
    FILE_STANDARD_INFO info{};
    return GetFileInformationByHandleEx(dir_, FileStandardInfo, &info, sizeof info) && info.DeletePending;
  }

  HANDLE dir_;
  DWORD filter_;
  std::vector<unsigned char> buffer_;
};

}  // namespace

open_result open_dir_reader(const WatchData& w, bool dir_mode) {
  open_result r;
  std::wstring path = scan::long_path_form(w.rootPath);
  auto start = std::chrono::steady_clock::now();
  HANDLE h = CreateFileW(path.c_str(), FILE_LIST_DIRECTORY, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                         nullptr, OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS | FILE_FLAG_OVERLAPPED, nullptr);
  DWORD error = h == INVALID_HANDLE_VALUE ? GetLastError() : 0;
  auto elapsed = static_cast<std::uint64_t>(
      std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start).count());
  scan::record_call_stat("CreateFileW(WatchLoop)", error ? "WatchLoop" : "", elapsed, static_cast<std::int32_t>(error));
  if (h == INVALID_HANDLE_VALUE) {
    r.error = error;
    return r;
  }
  auto io = runtime::io();
  if (!io) {
    CloseHandle(h);
    throw std::runtime_error("the I/O service is not running");
  }
  if (std::uint32_t e = io->bind(h)) {
    CloseHandle(h);
    throw std::runtime_error("CreateIoCompletionPort failed with code " + std::to_string(e));
  }
  r.reader = std::make_unique<directory_reader>(h, dir_mode);
  return r;
}

std::string system_message(std::uint32_t code) {
  wchar_t* text = nullptr;
  DWORD n = FormatMessageW(0x1300, nullptr, code, 0x400, reinterpret_cast<wchar_t*>(&text), 0, nullptr);
  std::wstring message = n && text ? std::wstring(text, n) : L"error " + std::to_wstring(code);
  if (text) LocalFree(text);
  while (!message.empty() && (message.back() == L'\n' || message.back() == L'\r' || message.back() == L' ')) {
    message.pop_back();
  }
  return to_utf8(message);
}

bool special_file(const native_string&) {
  return false;
}

bool root_present(const native_string& path) {
  WIN32_FILE_ATTRIBUTE_DATA data;
  return GetFileAttributesExW(scan::long_path_form(path).c_str(), GetFileExInfoStandard, &data) != 0;
}

bool path_beyond_limit(const native_string&) noexcept {
  // Every call takes the long-path form.
  return false;
}

}  // namespace ostrel::watch
