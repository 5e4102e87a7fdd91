#include "mtp_model.h"

#include <cmath>
#include <cstdio>
#include <cwchar>
#include <unordered_set>

namespace ostrel::mtp {

content_kind classify(const std::optional<guid_value>& content_type) {
  if (!content_type) return content_kind::unknown;
  if (*content_type == content_type_image) return content_kind::image;
  if (*content_type == content_type_video) return content_kind::video;
  if (*content_type == content_type_folder || *content_type == content_type_functional_object) {
    return content_kind::folder;
  }
  return content_kind::unknown;
}

const char* content_kind_name(content_kind kind) {
  switch (kind) {
    case content_kind::image:
      return "IMAGE";
    case content_kind::video:
      return "VIDEO";
    case content_kind::folder:
      return "FOLDER";
    case content_kind::unknown:
      break;
  }
  return "UNKNOW";
}

bool is_mtp_protocol(std::wstring_view protocol) {
  return protocol.size() >= 3 && protocol[0] == L'M' && protocol[1] == L'T' && protocol[2] == L'P';
}

const std::array<client_info_entry, 6>& client_information() {
  static const std::array<client_info_entry, 6> entries = {{
      {client_key::name, "WPD_CLIENT_NAME", L"VARNO DRIVE WPD Application", 0},
      {client_key::major_version, "WPD_CLIENT_MAJOR_VERSION", nullptr, 1},
      {client_key::minor_version, "WPD_CLIENT_MINOR_VERSION", nullptr, 0},
      {client_key::revision, "WPD_CLIENT_REVISION", nullptr, 2},
      // SECURITY_IMPERSONATION: the driver may impersonate the client.
      {client_key::security_quality_of_service, "WPD_CLIENT_SECURITY_QUALITY_OF_SERVICE", nullptr, 0x20000},
      // GENERIC_READ alone: devices are only ever read.
      {client_key::desired_access, "WPD_CLIENT_DESIRED_ACCESS", nullptr, 0x80000000u},
  }};
  return entries;
}

std::string hresult_text(std::uint32_t hr) {
  char buffer[16];
  std::snprintf(buffer, sizeof buffer, "0x%lx", static_cast<unsigned long>(hr));
  return buffer;
}

namespace {
std::wstring widen_ascii(std::string_view text) {
  return std::wstring(text.begin(), text.end());
}
}  // namespace

std::wstring client_info_failure_line(const char* key_name, std::uint32_t hr) {
  return L"! Failed to set " + widen_ascii(key_name) + L", hr = " + widen_ascii(hresult_text(hr));
}

std::wstring values_creation_failure_line(std::uint32_t hr) {
  return L"! Failed to CoCreateInstance CLSID_PortableDeviceValues, hr = " + widen_ascii(hresult_text(hr));
}

int apply_client_information(client_info_sink& sink, const std::function<void(const std::wstring&)>& report) {
  int failed = 0;
  for (const client_info_entry& e : client_information()) {
    std::int32_t hr = e.text ? sink.set_string(e.key, e.text) : sink.set_number(e.key, e.number);
    if (hr < 0) {
      ++failed;
      report(client_info_failure_line(e.key_name, static_cast<std::uint32_t>(hr)));
    }
  }
  return failed;
}

std::wstring display_name(const std::optional<std::wstring>& original_file_name,
                          const std::optional<std::wstring>& object_name) {
  if (original_file_name && !original_file_name->empty()) return *original_file_name;
  if (object_name) return *object_name;
  return {};
}

// 1970-01-01 is day 25569 of the automation calendar; 100-01-01 is day
// -657434 and 9999-12-31 day 2958465.
std::optional<double> automation_date_to_wall_clock_ms(double date) {
  if (!std::isfinite(date) || date <= -657435.0 || date >= 2958466.0) return std::nullopt;
  const double day = std::trunc(date);
  const double time_of_day = std::fabs(date - day);
  return (day - 25569.0) * 86400000.0 + std::round(time_of_day * 86400000.0);
}

std::vector<object_record> walk_objects(const std::wstring& root, const std::wstring& root_storage, bool recursive,
                                        const walk_hooks& hooks) {
  struct frame {
    std::vector<object_record> records;
    std::size_t next = 0;
  };
  std::unordered_set<std::wstring> seen{root};
  std::vector<object_record> out;
  std::vector<frame> stack;
  stack.push_back({hooks.children(root, root_storage), 0});
  while (!stack.empty()) {
    frame& top = stack.back();
    if (top.next == top.records.size()) {
      stack.pop_back();
      continue;
    }
    hooks.check_cancel();
    object_record record = std::move(top.records[top.next++]);
    if (!seen.insert(record.id).second) {
      hooks.log(L"Object " + record.id + L" was listed again by the device (a folder that lists itself or an " +
                L"ancestor); listed once");
      continue;
    }
    const bool descend = recursive && is_container(record.kind);
    const bool functional = record.functional;
    std::wstring id = record.id;
    std::wstring storage = record.storage_id;
    out.push_back(std::move(record));
    if (!descend) continue;
    if (stack.size() >= max_listing_depth) {
      hooks.log(L"Folder " + id + L" is nested deeper than " + std::to_wstring(max_listing_depth) +
                L" levels; its contents are not listed");
      continue;
    }
    std::vector<object_record> children;
    try {
      children = hooks.children(id, storage);
    } catch (const folder_unreadable& e) {
      if (!functional) throw;
      std::string why = e.what();
      hooks.log(L"Functional object " + id + L" cannot be listed (" + std::wstring(why.begin(), why.end()) +
                L"); skipped");
      continue;
    }
    stack.push_back({std::move(children), 0});
  }
  return out;
}

namespace {

bool ascii_iequal(std::wstring_view a, std::wstring_view b) {
  if (a.size() != b.size()) return false;
  for (std::size_t i = 0; i < a.size(); ++i) {
    wchar_t x = a[i], y = b[i];
    if (x >= L'a' && x <= L'z') x = wchar_t(x - L'a' + L'A');
    if (y >= L'a' && y <= L'z') y = wchar_t(y - L'a' + L'A');
    if (x != y) return false;
  }
  return true;
}

std::size_t last_component_start(std::wstring_view path) {
  std::size_t slash = path.find_last_of(L"\\/");
  return slash == std::wstring_view::npos ? 0 : slash + 1;
}

}  // namespace

const char* destination_name_problem(std::wstring_view path) {
  std::wstring_view name = path.substr(last_component_start(path));
  if (name.empty()) return "The destination names a folder, not a file";
  if (name.back() == L'.' || name.back() == L' ') return "The destination name ends with a dot or a space";
  // The device names apply whatever the extension and with trailing spaces.
  std::wstring_view base = name.substr(0, name.find(L'.'));
  while (!base.empty() && base.back() == L' ') base.remove_suffix(1);
  static const wchar_t* const fixed[] = {L"CON", L"PRN", L"AUX", L"NUL", L"CONIN$", L"CONOUT$"};
  for (const wchar_t* reserved : fixed) {
    if (ascii_iequal(base, reserved)) return "The destination is a reserved device name";
  }
  if (base.size() == 4 && (ascii_iequal(base.substr(0, 3), L"COM") || ascii_iequal(base.substr(0, 3), L"LPT"))) {
    // COM0-COM9, LPT0-LPT9 and the superscript digits 1, 2 and 3.
    const wchar_t d = base[3];
    if ((d >= L'0' && d <= L'9') || d == L'\u00B9' || d == L'\u00B2' || d == L'\u00B3') {
      return "The destination is a reserved device name";
    }
  }
  return nullptr;
}

std::wstring long_path_form(std::wstring_view full_path) {
  if (full_path.starts_with(L"\\\\?\\") || full_path.starts_with(L"\\\\.\\")) return std::wstring(full_path);
  if (full_path.starts_with(L"\\\\")) return L"\\\\?\\UNC\\" + std::wstring(full_path.substr(2));
  return L"\\\\?\\" + std::wstring(full_path);
}

std::wstring temporary_name(std::wstring_view destination, std::uint32_t random) {
  wchar_t suffix[32];
  std::swprintf(suffix, 32, L".%08x.ostrel-part", static_cast<unsigned>(random));
  const std::size_t start = last_component_start(destination);
  const std::size_t room = max_component_length - std::wcslen(suffix);
  std::size_t keep = destination.size() - start;
  if (keep > room) {
    keep = room;
    // Never half of a surrogate pair.
    const wchar_t last = destination[start + keep - 1];
    if (last >= 0xD800 && last <= 0xDBFF) --keep;
  }
  return std::wstring(destination.substr(0, start + keep)) + suffix;
}

listing_totals tally(const std::vector<object_record>& objects) {
  listing_totals t;
  for (const object_record& o : objects) {
    if (o.kind == content_kind::image) {
      ++t.photos;
    } else if (o.kind == content_kind::video) {
      ++t.videos;
    } else {
      continue;
    }
    t.total_size += o.size;
  }
  return t;
}

}  // namespace ostrel::mtp
