// Windows listings. The default one is FindFirstFileExW/FindNextFileW with
// the basic information level and the large-fetch flag; the fast one opens
// the folder itself and reads whole buffers of entries, metadata included,
// with GetFileInformationByHandleEx (FileIdBothDirectoryInfo, or
// FileIdExtdDirectoryInfo on ReFS volumes, whose file ids are 128-bit).
#include <windows.h>

#include <cstring>
#include <system_error>

#include "dir_listing.h"
#include "file_query_win.h"

namespace ostrel::scan {

namespace {
constexpr std::size_t fast_buffer_bytes = 64 * 1024;

std::int64_t quad(const LARGE_INTEGER& v) {
  return v.QuadPart;
}

// Fills the metadata fields of a fast entry.
void set_entry_metadata(dir_entry& e, DWORD attributes, const LARGE_INTEGER& size, std::uint64_t id,
                        const LARGE_INTEGER& change, const LARGE_INTEGER& write, const LARGE_INTEGER& creation) {
  e.is_dir = (attributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
  e.has_metadata = true;
  e.hidden = (attributes & FILE_ATTRIBUTE_HIDDEN) != 0;
  e.system = (attributes & FILE_ATTRIBUTE_SYSTEM) != 0;
  e.size = static_cast<std::uint64_t>(size.QuadPart);
  e.ino = id;
  e.ctimeMs = filetime_to_ms(quad(change));
  e.mtimeMs = filetime_to_ms(quad(write));
  e.birthtimeMs = filetime_to_ms(quad(creation));
}
}  // namespace

dir_listing::~dir_listing() {
  close();
}

void dir_listing::close() noexcept {
  if (handle_) {
    if (fast_) {
      CloseHandle(handle_);
    } else {
      FindClose(handle_);
    }
  }
  handle_ = nullptr;
}

bool dir_listing::open(const native_string& path, const dir_listing* parent, native_string_view, bool fast_metadata) {
  close();
  fast_ = fast_metadata;
  first_ = true;
  done_ = false;
  std::wstring long_path = long_path_form(path);
  if (!fast_) {
    find_data_.resize(sizeof(WIN32_FIND_DATAW));
    std::wstring pattern = long_path + (long_path.back() == L'\\' ? L"*" : L"\\*");
    HANDLE h = FindFirstFileExW(pattern.c_str(), FindExInfoBasic, find_data_.data(), FindExSearchNameMatch, nullptr,
                                FIND_FIRST_EX_LARGE_FETCH);
    if (h == INVALID_HANDLE_VALUE) {
      DWORD error = GetLastError();
      if (error == ERROR_PATH_NOT_FOUND || error == ERROR_ACCESS_DENIED) return false;
      if (error == ERROR_NO_MORE_FILES) {
        done_ = true;
        return true;
      }
      throw std::system_error(static_cast<int>(error), std::system_category(), "FindFirstFileExW");
    }
    handle_ = h;
    return true;
  }

  HANDLE h = CreateFileW(long_path.c_str(), FILE_LIST_DIRECTORY, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                         nullptr, OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS, nullptr);
  if (h == INVALID_HANDLE_VALUE) {
    DWORD error = GetLastError();
    if (error == ERROR_FILE_NOT_FOUND || error == ERROR_PATH_NOT_FOUND || error == ERROR_ACCESS_DENIED ||
        error == ERROR_DIRECTORY) {
      return false;
    }
    throw std::system_error(static_cast<int>(error), std::system_category(), "CreateFileW");
  }
  handle_ = h;
  if (parent) {
    info_class_ = parent->info_class_;
  } else {
    wchar_t fs_name[MAX_PATH + 1] = {};
    info_class_ = FileIdBothDirectoryInfo;
    if (GetVolumeInformationByHandleW(h, nullptr, 0, nullptr, nullptr, nullptr, fs_name, MAX_PATH + 1) &&
        std::wcscmp(fs_name, L"ReFS") == 0) {
      info_class_ = FileIdExtdDirectoryInfo;
    }
  }
  buffer_.assign(fast_buffer_bytes / sizeof(std::uint64_t), 0);
  offset_ = 0;
  return true;
}

bool dir_listing::next(dir_entry& entry) {
  if (!handle_ || done_) return false;
  return fast_ ? next_fast(entry) : next_find(entry);
}

bool dir_listing::next_find(dir_entry& entry) {
  auto* data = reinterpret_cast<WIN32_FIND_DATAW*>(find_data_.data());
  if (!first_) {
    if (!FindNextFileW(handle_, data)) {
      done_ = true;  // the end, or a failure: either ends the folder
      return false;
    }
  }
  first_ = false;
  entry = dir_entry{};
  name_.assign(data->cFileName);
  entry.name = name_;
  entry.is_dir = (data->dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
  return true;
}

bool dir_listing::fetch_fast() {
  auto* bytes = reinterpret_cast<unsigned char*>(buffer_.data());
  auto cls = static_cast<FILE_INFO_BY_HANDLE_CLASS>(info_class_);
  if (!GetFileInformationByHandleEx(handle_, cls, bytes, static_cast<DWORD>(buffer_.size() * sizeof(std::uint64_t)))) {
    done_ = true;  // ERROR_NO_MORE_FILES at the end; any failure ends the folder
    return false;
  }
  offset_ = 0;
  first_ = false;
  return true;
}

bool dir_listing::next_fast(dir_entry& entry) {
  auto* bytes = reinterpret_cast<unsigned char*>(buffer_.data());
  if (first_) {
    if (!fetch_fast()) return false;
  } else {
    // offset_ is the current entry; step to the next one, or the next buffer.
    ULONG step;
    std::memcpy(&step, bytes + offset_, sizeof step);
    if (step == 0) {
      if (!fetch_fast()) return false;
    } else {
      offset_ += step;
    }
  }
  entry = dir_entry{};
  const unsigned char* at = bytes + offset_;
  if (info_class_ == FileIdExtdDirectoryInfo) {
    const auto* info = reinterpret_cast<const FILE_ID_EXTD_DIR_INFO*>(at);
    std::uint64_t id;
    std::memcpy(&id, info->FileId.Identifier, sizeof id);  // the low 64 bits
    name_.assign(info->FileName, info->FileNameLength / sizeof(wchar_t));
    set_entry_metadata(entry, info->FileAttributes, info->EndOfFile, id, info->ChangeTime, info->LastWriteTime,
                       info->CreationTime);
  } else {
    const auto* info = reinterpret_cast<const FILE_ID_BOTH_DIR_INFO*>(at);
    name_.assign(info->FileName, info->FileNameLength / sizeof(wchar_t));
    set_entry_metadata(entry, info->FileAttributes, info->EndOfFile, static_cast<std::uint64_t>(info->FileId.QuadPart),
                       info->ChangeTime, info->LastWriteTime, info->CreationTime);
  }
  entry.name = name_;
  return true;
}

query_outcome dir_listing::query_name(FileInfo& info, native_string_view) const {
  return query_file_info(info);
}

}  // namespace ostrel::scan
