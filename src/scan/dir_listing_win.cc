// Windows listings: the folder is opened once and read in whole buffers of
// entries with GetFileInformationByHandleEx (FileIdBothDirectoryInfo, or
// FileIdExtdDirectoryInfo on ReFS volumes, whose file ids are 128-bit). The
// fast mode takes each entry's metadata from there; the default mode takes
// only the name and the kind, and queries each entry on its own. The open
// handle also tells the folder's identity.
#include <windows.h>

#include <cstring>
#include <system_error>

#include "api_compat.h"
#include "dir_listing.h"
#include "file_query_win.h"

namespace ostrel::scan {

namespace {
constexpr std::size_t listing_buffer_bytes = 64 * 1024;

std::int64_t quad(const LARGE_INTEGER& v) {
  return v.QuadPart;
}

// Fills an entry's kind and, in the fast mode, its metadata.
void set_entry(dir_entry& e, bool with_metadata, DWORD attributes, const LARGE_INTEGER& size, std::uint64_t id,
               const LARGE_INTEGER& change, const LARGE_INTEGER& write, const LARGE_INTEGER& creation) {
  e.is_dir = (attributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
  e.link = (attributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0;
  if (!with_metadata) return;
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
  if (handle_) CloseHandle(handle_);
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

void dir_listing::fail_listing(int code) noexcept {
  error_ = code;
  end_ = classify(code);
  done_ = true;
}

namespace {

constexpr int file_internal_information = 6;  // FILE_INFORMATION_CLASS: the 64-bit file index

// The volume serial number and the 128-bit file id of the folder open in
// `h`, or where the system has no such call (before Windows 8) the volume
// serial number and the 64-bit file index. False when nothing was told.
bool full_identity(HANDLE h, folder_id& id) {
  FILE_ID_INFO info{};
  if (GetFileInformationByHandleEx(h, FileIdInfo, &info, sizeof info)) {
    std::memcpy(&id.low, info.FileId.Identifier, sizeof id.low);
    std::memcpy(&id.high, info.FileId.Identifier + sizeof id.low, sizeof id.high);
    id.volume = info.VolumeSerialNumber;
    return true;
  }
  BY_HANDLE_FILE_INFORMATION all{};
  if (!GetFileInformationByHandle(h, &all)) return false;
  id.volume = all.dwVolumeSerialNumber;
  id.low = (static_cast<std::uint64_t>(all.nFileIndexHigh) << 32) | all.nFileIndexLow;
  id.high = 0;
  return true;
}

// The 64-bit file index of what is open in `h`.
bool file_index(HANDLE h, std::uint64_t& index) {
  auto query = api_compat::query_information_file();
  if (!query) return false;
  struct {
    void* status;
    ULONG_PTR information;
  } io_status{};
  LONG status = query(h, &io_status, &index, sizeof index, file_internal_information);
  return status >= 0;
}

}  // namespace

listing_status dir_listing::open(const native_string& path, const dir_listing* parent, const dir_entry* entry,
                                 bool fast_metadata) {
  close();
  fast_ = fast_metadata;
  first_ = true;
  done_ = false;
  end_ = listing_status::listed;
  error_ = 0;
  id_ = folder_id{};
  std::wstring long_path = long_path_form(path);
  // A link or junction is followed to the folder it stands for.
  HANDLE h = CreateFileW(long_path.c_str(), FILE_LIST_DIRECTORY, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                         nullptr, OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS, nullptr);
  if (h == INVALID_HANDLE_VALUE) {
    error_ = static_cast<int>(GetLastError());
    return classify(error_);
  }
  handle_ = h;
  FILE_BASIC_INFO basic{};
  if (GetFileInformationByHandleEx(h, FileBasicInfo, &basic, sizeof basic) &&
      !(basic.FileAttributes & FILE_ATTRIBUTE_DIRECTORY)) {
    // A file: a root given as one, or a folder replaced by a file.
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
  // The identity. Asking for the volume costs far more than the rest (under
  // Wine more than listing the folder), and a folder that is no link,
  // junction or mount point lies on its parent's volume: only the root,
  // those and ReFS folders (whose 64-bit index is not unique) ask for it.
  bool full = !parent || (entry && entry->link) || info_class_ == FileIdExtdDirectoryInfo;
  std::uint64_t index = 0;
  if (!full && parent->id_.known && file_index(h, index)) {
    id_.volume = parent->id_.volume;
    id_.low = index;
    id_.known = index != 0;
  } else if (full_identity(h, id_)) {
    if (info_class_ != FileIdExtdDirectoryInfo && file_index(h, index)) {
      // The same form as the folders below it.
      id_.low = index;
      id_.high = 0;
    }
    // A file system without file ids gives zero for all of them: no identity.
    id_.known = id_.low != 0 || id_.high != 0;
  }
  buffer_.assign(listing_buffer_bytes / sizeof(std::uint64_t), 0);
  offset_ = 0;
  return listing_status::listed;
}

bool dir_listing::next(dir_entry& entry) {
  if (!handle_ || done_) return false;
  if (next_entry(entry)) return true;
  // The listing is over. Its entries are queried by their paths, so the
  // folder is let go at once: while they wait, it can be renamed or deleted
  // like any folder nobody has open.
  close();
  return false;
}

bool dir_listing::fetch() {
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

bool dir_listing::next_entry(dir_entry& entry) {
  auto* bytes = reinterpret_cast<unsigned char*>(buffer_.data());
  if (first_) {
    if (!fetch()) return false;
  } else {
    // offset_ is the current entry; step to the next one, or the next buffer.
    ULONG step;
    std::memcpy(&step, bytes + offset_, sizeof step);
    if (step == 0) {
      if (!fetch()) return false;
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
    set_entry(entry, fast_, info->FileAttributes, info->EndOfFile, id, info->ChangeTime, info->LastWriteTime,
              info->CreationTime);
  } else {
    const auto* info = reinterpret_cast<const FILE_ID_BOTH_DIR_INFO*>(at);
    name_.assign(info->FileName, info->FileNameLength / sizeof(wchar_t));
    set_entry(entry, fast_, info->FileAttributes, info->EndOfFile, static_cast<std::uint64_t>(info->FileId.QuadPart),
              info->ChangeTime, info->LastWriteTime, info->CreationTime);
  }
  entry.name = name_;
  return true;
}

query_outcome dir_listing::query_name(FileInfo& info, native_string_view) const {
  return query_file_info(info);
}

}  // namespace ostrel::scan
