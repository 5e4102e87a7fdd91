// The portable part of the portable-device exports: the records the WPD
// code fills, the content-type classification, the protocol test, the
// client information every device is opened with, and the listing's
// counts. No platform headers: the unit tests run it natively.
#pragma once

#include <array>
#include <cstdint>
#include <exception>
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
  bool functional = false;  // a functional object (a storage or a service)
  std::uint64_t size = 0;
  std::optional<double> created_ms;
  std::optional<double> modified_ms;
  std::wstring storage_id;
};

// The original file name when there is one, else the object name.
std::wstring display_name(const std::optional<std::wstring>& original_file_name,
                          const std::optional<std::wstring>& object_name);

// A WPD date: an automation date (days since 1899-12-30; the fraction's
// magnitude is the time of day, also for the days before, where -1.25 is
// 1899-12-29 06:00) holding the device's wall-clock time, with no zone.
// Returns the milliseconds since 1970-01-01 of that wall-clock reading taken
// as UTC, rounded to the millisecond: no zone is applied, because the
// device gives none and the computer's zone need not be the device's.
// None for a value that is not a date from year 100 to 9999.
std::optional<double> automation_date_to_wall_clock_ms(double date);

// ---- the object graph of a listing

// How deep a listing descends below its root. Real devices nest a few
// levels; a driver whose folders lead ever deeper ends here.
inline constexpr std::size_t max_listing_depth = 64;

// A folder whose children the device will not give.
class folder_unreadable : public std::exception {
 public:
  explicit folder_unreadable(std::string text) : text_(std::move(text)) {}
  const char* what() const noexcept override { return text_.c_str(); }

 private:
  std::string text_;
};

struct walk_hooks {
  // The records of the children of `parent_id`, in the device's order,
  // their storage filled in. Throws folder_unreadable when the device will
  // not list them (or anything else, which ends the walk).
  std::function<std::vector<object_record>(const std::wstring& parent_id, const std::wstring& storage)> children;
  // Called before each object; throws to stop the walk.
  std::function<void()> check_cancel;
  // A line for standard error.
  std::function<void(const std::wstring&)> log;
};
// The objects under `root`, depth first, in the device's order, trusting
// nothing of the device's graph: an object id met a second time (a folder
// that lists itself, an ancestor or an object twice) is listed once and
// not descended into again; folders deeper than max_listing_depth are not
// descended into; a functional object that cannot be enumerated (a service
// that holds no files) is listed and skipped. Each is logged. The root's
// own children failing, or a folder's, throws their folder_unreadable.
std::vector<object_record> walk_objects(const std::wstring& root, const std::wstring& root_storage, bool recursive,
                                        const walk_hooks& hooks);

// ---- copies

// Why the last component of `path` cannot name a new file on Windows,
// or null: a reserved device name ("CON", "nul.txt", "COM1", ...), or a
// name ending in a dot or a space (which Windows would strip).
const char* destination_name_problem(std::wstring_view path);
// The long-path form ("\\?\C:\...", "\\?\UNC\server\share\...") of
// a full path, so that no MAX_PATH limit applies; a path already in that
// form is returned as it is.
std::wstring long_path_form(std::wstring_view full_path);
// The temporary file beside `destination` for a copy: the destination's
// name (cut so that the component stays within 255 characters) followed by
// ".<8 hex digits of random>.ostrel-part".
std::wstring temporary_name(std::wstring_view destination, std::uint32_t random);
inline constexpr std::size_t max_component_length = 255;

struct listing_totals {
  std::uint64_t photos = 0;
  std::uint64_t videos = 0;
  std::uint64_t total_size = 0;  // of the photos and videos
};
listing_totals tally(const std::vector<object_record>& objects);

// "0x80070005"
std::string hresult_text(std::uint32_t hr);

}  // namespace ostrel::mtp
