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

listing_status dir_listing::classify(int code) noexcept {
  switch (static_cast<DWORD>(code)) {
    case ERROR_FILE_NOT_FOUND:
    case ERROR_PATH_NOT_FOUND:
    case ERROR_DIRECTORY:       // no folder (any more)
    case ERROR_DELETE_PENDING:  // being deleted
      return listing_status::missing;
    case ERROR_ACCESS_DENIED:
      return listing_status::denied;
    case ERROR_SHARING_VIOLATION:  // being renamed or deleted, or held by a scanner
    case ERROR_LOCK_VIOLATION:
      return listing_status::busy;
    default:
      return listing_status::failed;
  }
}

std::string dir_listing::describe(int code) {
  std::string text = std::system_category().message(code);
  while (!text.empty() && (text.back() == '.' || text.back() == '\n' || text.back() == '\r' || text.back() == ' ')) {
    text.pop_back();
  }
  return text;
}

void dir_listing::fail_listing(int code) noexcept {
  error_ = code;
  end_ = classify(code);
  done_ = true;
}

namespace {

// The identity of the folder open in `h`: the volume serial number with the
// 128-bit file id, or, where the system does not give that (before Windows
// 8, some file systems), with the 64-bit file index. False when what is
// open is no folder (a folder replaced by a file, or a root that is a file).
bool identify(HANDLE h, folder_id& id) {
  id = folder_id{};
  BY_HANDLE_FILE_INFORMATION basic{};
  if (!GetFileInformationByHandle(h, &basic)) return true;  // no identity, but maybe a folder
  if (!(basic.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY)) return false;
  id.volume = basic.dwVolumeSerialNumber;
  id.low = (static_cast<std::uint64_t>(basic.nFileIndexHigh) << 32) | basic.nFileIndexLow;
  FILE_ID_INFO info{};
  if (GetFileInformationByHandleEx(h, FileIdInfo, &info, sizeof info)) {
    std::memcpy(&id.low, info.FileId.Identifier, sizeof id.low);
    std::memcpy(&id.high, info.FileId.Identifier + sizeof id.low, sizeof id.high);
    id.volume = info.VolumeSerialNumber;
  }
  // A file system without file ids gives zero for all of them: no identity.
  id.known = id.low != 0 || id.high != 0;
  return true;
}

}  // namespace

listing_status dir_listing::open(const native_string& path, const dir_listing* parent, native_string_view,
                                 bool fast_metadata) {
  close();
  fast_ = fast_metadata;
  first_ = true;
  done_ = false;
  end_ = listing_status::listed;
  error_ = 0;
  id_ = folder_id{};
  std::wstring long_path = long_path_form(path);
  if (!fast_) {
    // The listing gives no handle to ask for the folder's identity: a
    // handle opened for its attributes does. A link or junction is followed
    // to the folder it stands for. A folder that is gone ends here; any
    // other failure is left to the listing below, which may still work.
    HANDLE folder =
        CreateFileW(long_path.c_str(), FILE_READ_ATTRIBUTES, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                    nullptr, OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS, nullptr);
    if (folder != INVALID_HANDLE_VALUE) {
      bool is_folder = identify(folder, id_);
      CloseHandle(folder);
      if (!is_folder) {
        error_ = ERROR_DIRECTORY;
        return listing_status::missing;
      }
    } else if (DWORD error = GetLastError(); classify(static_cast<int>(error)) == listing_status::missing) {
      error_ = static_cast<int>(error);
      return listing_status::missing;
    }
    find_data_.resize(sizeof(WIN32_FIND_DATAW));
    std::wstring pattern = long_path + (long_path.back() == L'\\' ? L"*" : L"\\*");
    HANDLE h = FindFirstFileExW(pattern.c_str(), FindExInfoBasic, find_data_.data(), FindExSearchNameMatch, nullptr,
                                FIND_FIRST_EX_LARGE_FETCH);
    if (h == INVALID_HANDLE_VALUE) {
      DWORD error = GetLastError();
      if (error == ERROR_NO_MORE_FILES || error == ERROR_FILE_NOT_FOUND) {
        // Nothing matched "*": a folder without entries (not even "." and
        // "..", as at the root of a drive).
        done_ = true;
        return listing_status::listed;
      }
      error_ = static_cast<int>(error);
      return classify(error_);
    }
    handle_ = h;
    return listing_status::listed;
  }

  HANDLE h = CreateFileW(long_path.c_str(), FILE_LIST_DIRECTORY, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                         nullptr, OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS, nullptr);
  if (h == INVALID_HANDLE_VALUE) {
    error_ = static_cast<int>(GetLastError());
    return classify(error_);
  }
  handle_ = h;
  if (!identify(h, id_)) {
    close();
    error_ = ERROR_DIRECTORY;
    return listing_status::missing;
  }
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
  return listing_status::listed;
}

bool dir_listing::next(dir_entry& entry) {
  if (!handle_ || done_) return false;
  if (fast_ ? next_fast(entry) : next_find(entry)) return true;
  // The listing is over. Its entries are queried by their paths, so the
  // folder is let go at once: while they wait, it can be renamed or deleted
  // like any folder nobody has open.
  close();
  return false;
}

bool dir_listing::next_find(dir_entry& entry) {
  auto* data = reinterpret_cast<WIN32_FIND_DATAW*>(find_data_.data());
  if (!first_) {
    if (!FindNextFileW(handle_, data)) {
      DWORD error = GetLastError();
      done_ = true;
      if (error != ERROR_NO_MORE_FILES) fail_listing(static_cast<int>(error));  // ends the folder early
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
    DWORD error = GetLastError();
    done_ = true;
    // The end: no more entries, or none at all on the first read.
    bool end = error == ERROR_NO_MORE_FILES || (first_ && error == ERROR_FILE_NOT_FOUND);
    if (!end) fail_listing(static_cast<int>(error));  // ends the folder early
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
