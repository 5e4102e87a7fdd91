// Windows metadata: open the entry for attribute reading only and ask
// NtQueryInformationFile for FileAllInformation into a 104-byte buffer, which
// holds the fixed part of the answer (the name is cut off, so the call
// reports a buffer-overflow warning, which counts as success).
#include <windows.h>

#include <chrono>
#include <cstddef>
#include <cstring>

#include "api_compat.h"
#include "file_query.h"
#include "file_query_win.h"
#include "runtime/log.h"
#include "scan_stats.h"

namespace ostrel::scan {

namespace {

struct io_status_block {
  union {
    LONG Status;
    PVOID Pointer;
  };
  ULONG_PTR Information;
};

// FILE_ALL_INFORMATION up to the first character of the name.
struct file_all_information {
  LARGE_INTEGER CreationTime;
  LARGE_INTEGER LastAccessTime;
  LARGE_INTEGER LastWriteTime;
  LARGE_INTEGER ChangeTime;
  ULONG FileAttributes;
  LARGE_INTEGER AllocationSize;
  LARGE_INTEGER EndOfFile;
  ULONG NumberOfLinks;
  BOOLEAN DeletePending;
  BOOLEAN Directory;
  LARGE_INTEGER IndexNumber;
  ULONG EaSize;
  ACCESS_MASK AccessFlags;
  LARGE_INTEGER CurrentByteOffset;
  ULONG Mode;
  ULONG AlignmentRequirement;
  ULONG FileNameLength;
  WCHAR FileName[1];
};
static_assert(sizeof(file_all_information) == 104);
static_assert(offsetof(file_all_information, IndexNumber) == 64);
static_assert(offsetof(file_all_information, FileNameLength) == 96);

constexpr int file_all_information_class = 18;

std::uint64_t elapsed_ms(std::chrono::steady_clock::time_point start) {
  return static_cast<std::uint64_t>(
      std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start).count());
}

}  // namespace

std::wstring long_path_form(const std::wstring& path) {
  // Already in the \\?\ (or device \\.\) form, as script may give a root:
  // prefixing again would make an invalid name.
  if (path.size() >= 4 && path[0] == L'\\' && path[1] == L'\\' && (path[2] == L'?' || path[2] == L'.') &&
      path[3] == L'\\') {
    return path;
  }
  // A UNC path takes the \\?\UNC\ form; every other path gets the prefix as it is.
  if (path.size() > 2 && path[0] == L'\\' && path[1] == L'\\' && path[2] != L'?') {
    return L"\\\\?\\UNC\\" + path.substr(2);
  }
  return L"\\\\?\\" + path;
}

void fill_from_attributes(FileInfo& info, std::uint32_t attributes, std::uint64_t size, std::uint64_t index,
                          std::int64_t change, std::int64_t write, std::int64_t creation) {
  info.isFile = !(attributes & FILE_ATTRIBUTE_DIRECTORY);
  info.hidden = (attributes & FILE_ATTRIBUTE_HIDDEN) != 0;
  info.isSystem = (attributes & FILE_ATTRIBUTE_SYSTEM) != 0;
  info.size = size;
  info.ino = index;
  info.ctimeMs = filetime_to_ms(change);
  info.mtimeMs = filetime_to_ms(write);
  info.birthtimeMs = filetime_to_ms(creation);
}

query_outcome query_file_info(FileInfo& info) {
  std::wstring path = long_path_form(info.native_path);
  auto start = std::chrono::steady_clock::now();
  HANDLE h = CreateFileW(path.c_str(), FILE_READ_ATTRIBUTES, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                         nullptr, OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS, nullptr);
  DWORD error = h == INVALID_HANDLE_VALUE ? GetLastError() : 0;
  record_call_stat("CreateFileW", "FillFileInfoAsync", elapsed_ms(start), static_cast<std::int32_t>(error));
  if (h == INVALID_HANDLE_VALUE) {
    // Gone: the entry itself, or a folder on its path (deleted while its
    // entries waited for their query).
    if (error == ERROR_FILE_NOT_FOUND || error == ERROR_PATH_NOT_FOUND) return query_outcome::missing;
    if (error == ERROR_ACCESS_DENIED) return query_outcome::denied;
    log::wout(L"FillFileInfoAsync: CreateFileW(" + info.native_path + L")failed, error code: " +
              std::to_wstring(error));
    return query_outcome::retry;
  }

  alignas(8) unsigned char buffer[104] = {};
  io_status_block status_block{};
  LONG status = static_cast<LONG>(0xC0000001);  // STATUS_UNSUCCESSFUL until asked
  if (auto query = api_compat::query_information_file()) {
    status = query(h, &status_block, buffer, sizeof buffer, file_all_information_class);
  }
  if (!CloseHandle(h)) {
    log::wout(L"FillFileInfoAsync: ClosesHandle(" + info.native_path + L")failed, error code: " +
              std::to_wstring(GetLastError()));
    return query_outcome::retry;
  }
  if ((static_cast<ULONG>(status) & 0xC0000000u) == 0xC0000000u) {
    log::out("FillFileInfoAsync: NtQueryInformationFile failed, error code: " + std::to_string(GetLastError()));
    return query_outcome::retry;
  }
  file_all_information all;
  std::memcpy(&all, buffer, sizeof all);
  fill_from_attributes(info, all.FileAttributes, static_cast<std::uint64_t>(all.EndOfFile.QuadPart),
                       static_cast<std::uint64_t>(all.IndexNumber.QuadPart), all.ChangeTime.QuadPart,
                       all.LastWriteTime.QuadPart, all.CreationTime.QuadPart);
  return query_outcome::filled;
}

}  // namespace ostrel::scan
