#include "mtp_model.h"

#include <cstdio>

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

// 1970-01-01 is day 25569 of the automation calendar.
double automation_date_to_unix_ms(double date) {
  return (date - 25569.0) * 86400000.0;
}

double unix_ms_to_automation_date(double ms) {
  return ms / 86400000.0 + 25569.0;
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
