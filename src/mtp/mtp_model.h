// The portable part of the portable-device exports: the records the WPD
// code fills, the content-type classification, the protocol test, the
// client information every device is opened with, and the listing's
// counts. No platform headers: the unit tests run it natively.
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace ostrel::mtp {

// A GUID as the system lays it out, without <windows.h>.
struct guid_value {
  std::uint32_t data1 = 0;
  std::uint16_t data2 = 0;
  std::uint16_t data3 = 0;
  std::array<std::uint8_t, 8> data4{};
  bool operator==(const guid_value&) const = default;
};

// WPD content types the listing tells apart.
inline constexpr guid_value content_type_functional_object = {
    0x99ED0160, 0x17FF, 0x4C44, {0x9D, 0x98, 0x1D, 0x7A, 0x6F, 0x94, 0x19, 0x21}};
inline constexpr guid_value content_type_folder = {
    0x27E2E392, 0xA111, 0x48E0, {0xAB, 0x0C, 0xE1, 0x77, 0x05, 0xA0, 0x5F, 0x85}};
inline constexpr guid_value content_type_image = {
    0xef2107d5, 0xa52a, 0x4243, {0xa2, 0x6b, 0x62, 0xd4, 0x17, 0x6d, 0x76, 0x03}};
inline constexpr guid_value content_type_video = {
    0x9261B03C, 0x3D78, 0x4519, {0x85, 0xE3, 0x02, 0xC5, 0xE1, 0xF5, 0x0B, 0xB9}};

enum class content_kind { image, video, folder, unknown };

// IMAGE and VIDEO by their content types; folders and functional objects
// (storages) are FOLDER; anything else, or no content type, UNKNOW.
content_kind classify(const std::optional<guid_value>& content_type);
// "IMAGE", "VIDEO", "FOLDER", "UNKNOW" (the system's spelling).
const char* content_kind_name(content_kind kind);
// A listing descends into folders and storages.
inline bool is_container(content_kind kind) {
  return kind == content_kind::folder;
}

// True when the protocol's first three wide characters are exactly "MTP".
bool is_mtp_protocol(std::wstring_view protocol);

// One device of the device list.
struct device_record {
  std::uint32_t index = 0;
  std::wstring id;
  std::wstring name;
  std::wstring model;
  std::wstring protocol;
  std::wstring manufacturer;
  std::wstring serial;
};

// The client information, in the order its keys are set.
enum class client_key { name, major_version, minor_version, revision, security_quality_of_service, desired_access };
struct client_info_entry {
  client_key key;
  const char* key_name;  // "WPD_CLIENT_NAME", ...
  const wchar_t* text;   // the value of a string key, else null
  std::uint32_t number;  // the value of a number key
};
const std::array<client_info_entry, 6>& client_information();

// Where the client information is set: each call returns the result code
// (negative on failure).
class client_info_sink {
 public:
  virtual ~client_info_sink() = default;
  virtual std::int32_t set_string(client_key key, const wchar_t* value) = 0;
  virtual std::int32_t set_number(client_key key, std::uint32_t value) = 0;
};
// Sets every key in order; a key that fails is reported through `report`
// with its line ("! Failed to set WPD_CLIENT_NAME, hr = 0x80004005") and
// the others are still set. Returns how many keys failed.
int apply_client_information(client_info_sink& sink, const std::function<void(const std::wstring&)>& report);
// "! Failed to set <key>, hr = 0x<hex>"
std::wstring client_info_failure_line(const char* key_name, std::uint32_t hr);
// "! Failed to CoCreateInstance CLSID_PortableDeviceValues, hr = 0x<hex>"
std::wstring values_creation_failure_line(std::uint32_t hr);

// One object of a device listing.
struct object_record {
  std::wstring id;
  std::wstring parent_id;
  std::wstring name;
  content_kind kind = content_kind::unknown;
  std::uint64_t size = 0;
  std::optional<double> created_ms;
  std::optional<double> modified_ms;
  std::wstring storage_id;
};

// The original file name when there is one, else the object name.
std::wstring display_name(const std::optional<std::wstring>& original_file_name,
                          const std::optional<std::wstring>& object_name);

// An automation date (days since 1899-12-30, fraction = time of day) as
// milliseconds since 1970-01-01 UTC.
double automation_date_to_unix_ms(double date);
double unix_ms_to_automation_date(double ms);

struct listing_totals {
  std::uint64_t photos = 0;
  std::uint64_t videos = 0;
  std::uint64_t total_size = 0;  // of the photos and videos
};
listing_totals tally(const std::vector<object_record>& objects);

// "0x80070005"
std::string hresult_text(std::uint32_t hr);

}  // namespace ostrel::mtp
