// The portable part of the device exports: classification, the protocol
// test, the client information, the listing's walk and counts, dates, names.
#include <gtest/gtest.h>

#include <cmath>
#include <cwchar>
#include <map>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include "mtp/mtp_model.h"

namespace ostrel::mtp {
namespace {

TEST(MtpModel, ClassifiesContentTypes) {
  guid_value almost_image = content_type_image;
  almost_image.data4[7] ^= 1;
  struct row {
    std::optional<guid_value> type;
    const char* expected;
  };
  const row rows[] = {
      {content_type_image, "IMAGE"},   {content_type_video, "VIDEO"},
      {content_type_folder, "FOLDER"}, {content_type_functional_object, "FOLDER"},
      {almost_image, "UNKNOW"},        {std::nullopt, "UNKNOW"},
  };
  for (const row& r : rows) {
    content_kind kind = classify(r.type);
    EXPECT_STREQ(content_kind_name(kind), r.expected);
    EXPECT_EQ(is_container(kind), std::string(r.expected) == "FOLDER");
  }
}

// Generated protocol texts against the rule: MTP only when it begins with "MTP".
TEST(MtpModel, ProtocolMustBeginWithMtpExactly) {
  std::mt19937 rng(3);
  const wchar_t* other = L"MTPmtp :X";
  for (int i = 0; i < 20000; ++i) {
    // A cut of "MTP: 1.00" or "PTP: 1.00", a character changed or put before it.
    std::wstring protocol = std::wstring(rng() % 2 ? L"MTP: 1.00" : L"PTP: 1.00").substr(0, rng() % 10);
    if (rng() % 2 && !protocol.empty()) protocol[rng() % protocol.size()] = other[rng() % 9];
    if (rng() % 4 == 0) protocol.insert(protocol.begin(), other[rng() % 9]);
    EXPECT_EQ(is_mtp_protocol(protocol), protocol.starts_with(L"MTP")) << std::string(protocol.begin(), protocol.end());
  }
}

// Records what was set; fails the keys it is told to.
class recording_sink : public client_info_sink {
 public:
  std::map<client_key, std::int32_t> failures;
  std::vector<client_key> order;
  std::map<client_key, std::wstring> set;

  std::int32_t set_string(client_key key, const wchar_t* value) override {
    order.push_back(key);
    if (failures.count(key)) return failures[key];
    set[key] = value;
    return 0;
  }
  std::int32_t set_number(client_key key, std::uint32_t value) override {
    return set_string(key, std::to_wstring(value).c_str());
  }
};

// Every key is tried whatever fails before it; each failure is one line;
// the access asked for is GENERIC_READ alone, never GENERIC_WRITE.
TEST(MtpModel, ClientInformationTriesEveryKeyAndAsksForReadAccessOnly) {
  struct row {
    std::map<client_key, std::int32_t> failures;
    std::vector<std::wstring> lines;
  };
  const std::vector<row> rows = {
      {{}, {}},
      {{{client_key::name, static_cast<std::int32_t>(0x80004005u)}},
       {L"! Failed to set WPD_CLIENT_NAME, hr = 0x80004005"}},
      {{{client_key::major_version, -1},
        {client_key::minor_version, -2},
        {client_key::security_quality_of_service, -3}},
       {L"! Failed to set WPD_CLIENT_MAJOR_VERSION, hr = 0xffffffff",
        L"! Failed to set WPD_CLIENT_MINOR_VERSION, hr = 0xfffffffe",
        L"! Failed to set WPD_CLIENT_SECURITY_QUALITY_OF_SERVICE, hr = 0xfffffffd"}},
  };
  for (const row& r : rows) {
    recording_sink sink;
    sink.failures = r.failures;
    std::vector<std::wstring> lines;
    int failed = apply_client_information(sink, [&](const std::wstring& l) { lines.push_back(l); });
    EXPECT_EQ(failed, static_cast<int>(r.failures.size()));
    EXPECT_EQ(lines, r.lines);
    EXPECT_EQ(sink.order.size(), 6u);
    EXPECT_EQ(sink.set.size(), 6u - r.failures.size());
    EXPECT_EQ(sink.set[client_key::desired_access], std::to_wstring(0x80000000u));
  }
  EXPECT_EQ(values_creation_failure_line(0x80040154u),
            L"! Failed to CoCreateInstance CLSID_PortableDeviceValues, hr = 0x80040154");
}

TEST(MtpModel, CountsPhotosAndVideosAndTheirSize) {
  std::vector<object_record> objects(5);
  const content_kind kinds[] = {content_kind::image, content_kind::video, content_kind::folder, content_kind::unknown,
                                content_kind::image};
  for (int i = 0; i < 5; ++i) {
    objects[i].kind = kinds[i];
    objects[i].size = std::uint64_t(100) << (8 * i);  // the folder's and the unknown's not counted
  }
  listing_totals t = tally(objects);
  EXPECT_EQ(t.photos, 2u);
  EXPECT_EQ(t.videos, 1u);
  EXPECT_EQ(t.total_size, 100u + (100u << 8) + (100ull << 32));
}

TEST(MtpModel, NamesPreferTheOriginalFileName) {
  EXPECT_EQ(display_name(L"IMG_1.JPG", L"IMG_1"), L"IMG_1.JPG");
  EXPECT_EQ(display_name(std::wstring(), L"IMG_1"), L"IMG_1");
  EXPECT_EQ(display_name(std::nullopt, L"Camera"), L"Camera");
  EXPECT_EQ(display_name(std::nullopt, std::nullopt), L"");
}

// Days from 1970-01-01 on the proleptic Gregorian calendar (the oracle).
long long days_from_civil(long long y, unsigned m, unsigned d) {
  y -= m <= 2;
  const long long era = (y >= 0 ? y : y - 399) / 400;
  const unsigned yoe = static_cast<unsigned>(y - era * 400);
  const unsigned doy = (153 * (m > 2 ? m - 3 : m + 9) + 2) / 5 + d - 1;
  const unsigned doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
  return era * 146097 + static_cast<long long>(doe) - 719468;
}

TEST(MtpModel, AutomationDatesBecomeWallClockMilliseconds) {
  struct row {
    double date;  // as SystemTimeToVariantTime makes it
    int y, mo, d, h, mi, s;
  };
  const row rows[] = {
      {25569.0, 1970, 1, 1, 0, 0, 0},
      {45244.92592592593, 2023, 11, 14, 22, 13, 20},  // not exact in binary: rounds to the second
      {0.0, 1899, 12, 30, 0, 0, 0},
      {-1.25, 1899, 12, 29, 6, 0, 0},  // before day 0 the time of day still counts forward
      {-0.75, 1899, 12, 30, 18, 0, 0},
      {2958465.999988426, 9999, 12, 31, 23, 59, 59},
      {-657434.0, 100, 1, 1, 0, 0, 0},
  };
  for (const row& r : rows) {
    const double expected =
        double(days_from_civil(r.y, unsigned(r.mo), unsigned(r.d)) * 86400 + r.h * 3600 + r.mi * 60 + r.s) * 1000.0;
    std::optional<double> ms = automation_date_to_wall_clock_ms(r.date);
    ASSERT_TRUE(ms) << r.date;
    EXPECT_EQ(*ms, expected) << r.date;
    EXPECT_EQ(*ms, std::round(*ms)) << "whole milliseconds";
  }
  for (double bad : {std::nan(""), HUGE_VAL, -HUGE_VAL, 2958466.0, -657435.0, 1e300}) {
    EXPECT_FALSE(automation_date_to_wall_clock_ms(bad)) << bad;
  }
  EXPECT_EQ(hresult_text(0x80070005u), "0x80070005");
  EXPECT_EQ(hresult_text(0), "0x0");
}

// Folder -> children; "!" marks a functional object, "?" one whose listing fails.
struct graph_case {
  const char* name;
  std::map<std::wstring, std::vector<std::wstring>> children;
  std::vector<std::wstring> expected;  // ids in listing order
  std::size_t log_lines;
};

std::vector<std::wstring> walk(const graph_case& c, std::vector<std::wstring>& log, bool recursive = true) {
  walk_hooks hooks;
  hooks.children = [&c](const std::wstring& parent, const std::wstring& storage) {
    std::vector<object_record> out;
    if (parent.starts_with(L"?")) throw folder_unreadable("refused");
    auto it = c.children.find(parent);
    if (it == c.children.end()) return out;
    for (const std::wstring& id : it->second) {
      object_record r;
      r.id = id;
      r.kind = id.starts_with(L"f") || id.starts_with(L"!") || id.starts_with(L"?") ? content_kind::folder
                                                                                    : content_kind::image;
      r.functional = id.starts_with(L"!") || id.starts_with(L"?!");
      r.storage_id = storage.empty() ? id : storage;
      out.push_back(r);
    }
    return out;
  };
  hooks.check_cancel = [] {};
  hooks.log = [&log](const std::wstring& line) { log.push_back(line); };
  std::vector<std::wstring> ids;
  for (const object_record& r : walk_objects(L"DEVICE", L"", recursive, hooks)) ids.push_back(r.id);
  return ids;
}

TEST(MtpModel, WalksAnUntrustedObjectGraph) {
  const graph_case cases[] = {
      {"a tree", {{L"DEVICE", {L"!s"}}, {L"!s", {L"f1", L"p1"}}, {L"f1", {L"p2"}}}, {L"!s", L"f1", L"p2", L"p1"}, 0},
      {"an ancestor loop",
       {{L"DEVICE", {L"!s"}}, {L"!s", {L"f1"}}, {L"f1", {L"f2"}}, {L"f2", {L"!s", L"f1", L"p"}}},
       {L"!s", L"f1", L"f2", L"p"},
       2},
      {"the root listed below", {{L"DEVICE", {L"!s"}}, {L"!s", {L"DEVICE", L"p"}}}, {L"!s", L"p"}, 1},
      {"a service that cannot be listed",
       {{L"DEVICE", {L"?!svc", L"!s"}}, {L"!s", {L"p"}}},
       {L"?!svc", L"!s", L"p"},
       1},
  };
  for (const graph_case& c : cases) {
    std::vector<std::wstring> log;
    EXPECT_EQ(walk(c, log), c.expected) << c.name;
    EXPECT_EQ(log.size(), c.log_lines) << c.name;
  }
  // An unlistable folder ends the walk: a list with holes would drop photos silently.
  std::vector<std::wstring> log;
  graph_case broken{"a folder that cannot be listed", {{L"DEVICE", {L"!s"}}, {L"!s", {L"?f"}}}, {}, 0};
  EXPECT_THROW(walk(broken, log), folder_unreadable);
}

TEST(MtpModel, ADeviceThatNestsForeverIsCutAtTheDepthBound) {
  // Every folder holds a new folder and a photo, past the bound.
  graph_case deep{"nested", {}, {}, 0};
  for (std::size_t n = 0; n <= max_listing_depth; ++n) {
    deep.children[n ? L"f" + std::to_wstring(n) : L"DEVICE"] = {L"f" + std::to_wstring(n + 1),
                                                                L"p" + std::to_wstring(n + 1)};
  }
  std::vector<std::wstring> log;
  EXPECT_EQ(walk(deep, log).size(), 2 * max_listing_depth);
  ASSERT_EQ(log.size(), 1u);
  EXPECT_NE(log[0].find(L"deeper than"), std::wstring::npos);
  EXPECT_EQ(walk(deep, log, false).size(), 2u);  // one level only: no descent at all
}

TEST(MtpModel, DestinationNames) {
  const std::pair<const wchar_t*, bool> rows[] = {
      {L"C:\\photos\\IMG_1.JPG", false}, {L"C:\\photos\\CON", true},
      {L"C:\\photos\\con.txt", true},    {L"C:\\photos\\COM1", true},
      {L"C:\\photos\\lpt9.jpg", true},   {L"C:\\photos\\COM\u00B9", true},
      {L"C:\\photos\\CON .txt", true},   {L"C:\\photos\\CONSOLE", false},
      {L"C:\\photos\\COM10", false},     {L"C:\\photos\\a.", true},
      {L"C:\\photos\\", true},           {L"C:/photos/aux", true},
      {L"C:\\CON\\a.jpg", false},        {L"relative", false},
  };
  for (const auto& [path, refused] : rows) {
    EXPECT_EQ(destination_name_problem(path) != nullptr, refused) << std::string(path, path + std::wcslen(path));
  }
  EXPECT_EQ(long_path_form(L"C:\\a\\b"), L"\\\\?\\C:\\a\\b");
  EXPECT_EQ(long_path_form(L"\\\\server\\share\\b"), L"\\\\?\\UNC\\server\\share\\b");
  EXPECT_EQ(long_path_form(L"\\\\?\\C:\\a"), L"\\\\?\\C:\\a");
}

TEST(MtpModel, TemporaryNamesStayWithinAComponent) {
  EXPECT_EQ(temporary_name(L"C:\\d\\IMG.JPG", 0xabcdef12u), L"C:\\d\\IMG.JPG.abcdef12.ostrel-part");
  for (std::size_t length : {1u, 200u, 233u, 234u, 235u, 255u}) {
    std::wstring name(length, L'x');
    std::wstring tmp = temporary_name(L"C:\\d\\" + name, 7);
    std::wstring component = tmp.substr(5);
    EXPECT_LE(component.size(), max_component_length) << length;
    EXPECT_TRUE(component.ends_with(L".00000007.ostrel-part")) << length;
    EXPECT_TRUE(tmp.starts_with(L"C:\\d\\x")) << length;
  }
  // A surrogate pair at the cut is not split.
  std::wstring name(233, L'x');
  name += L"\xD83D\xDCF7";  // U+1F4F7
  std::wstring tmp = temporary_name(name, 1);
  EXPECT_EQ(tmp, std::wstring(233, L'x') + L".00000001.ostrel-part");
}

}  // namespace
}  // namespace ostrel::mtp
