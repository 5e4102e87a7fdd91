// The portable part of the portable-device exports: classification, the
// protocol test, the client information and its failure lines, the
// listing's counts and the date conversion.
#include <gtest/gtest.h>

#include <cwchar>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "mtp/mtp_model.h"

namespace ostrel::mtp {
namespace {

TEST(MtpModel, ClassifiesContentTypes) {
  const guid_value audio = {0x4AD2C85E, 0x5E2D, 0x45E5, {0x88, 0x64, 0x4F, 0x22, 0x9E, 0x3C, 0x6C, 0xF0}};
  guid_value almost_image = content_type_image;
  almost_image.data4[7] ^= 1;
  struct row {
    std::optional<guid_value> type;
    const char* expected;
  };
  const row rows[] = {
      {content_type_image, "IMAGE"},
      {content_type_video, "VIDEO"},
      {content_type_folder, "FOLDER"},
      {content_type_functional_object, "FOLDER"},
      {audio, "UNKNOW"},
      {almost_image, "UNKNOW"},
      {std::nullopt, "UNKNOW"},
      {guid_value{}, "UNKNOW"},
  };
  for (const row& r : rows) {
    content_kind kind = classify(r.type);
    EXPECT_STREQ(content_kind_name(kind), r.expected);
    EXPECT_EQ(is_container(kind), std::string(r.expected) == "FOLDER");
  }
}

TEST(MtpModel, ProtocolMustBeginWithMtpExactly) {
  struct row {
    const wchar_t* protocol;
    bool mtp;
  };
  const row rows[] = {
      {L"MTP: 1.00", true}, {L"MTP", true}, {L"MTPX", true},  {L"mtp: 1.00", false}, {L"MSC:", false},
      {L"MT", false},       {L"", false},   {L" MTP", false}, {L"PTP: 1.00", false}, {L"Mtp", false},
  };
  for (const row& r : rows)
    EXPECT_EQ(is_mtp_protocol(r.protocol), r.mtp) << std::string(r.protocol, r.protocol + wcslen(r.protocol));
}

// Records what was set; fails the keys it is told to.
class recording_sink : public client_info_sink {
 public:
  std::map<client_key, std::int32_t> failures;
  std::vector<client_key> order;
  std::map<client_key, std::wstring> strings;
  std::map<client_key, std::uint32_t> numbers;

  std::int32_t set_string(client_key key, const wchar_t* value) override {
    order.push_back(key);
    if (failures.count(key)) return failures[key];
    strings[key] = value;
    return 0;
  }
  std::int32_t set_number(client_key key, std::uint32_t value) override {
    order.push_back(key);
    if (failures.count(key)) return failures[key];
    numbers[key] = value;
    return 0;
  }
};

TEST(MtpModel, ClientInformationSetsEveryKeyInOrderWithReadAccessOnly) {
  recording_sink sink;
  std::vector<std::wstring> lines;
  EXPECT_EQ(apply_client_information(sink, [&](const std::wstring& l) { lines.push_back(l); }), 0);
  EXPECT_TRUE(lines.empty());
  const std::vector<client_key> expected_order = {client_key::name,
                                                  client_key::major_version,
                                                  client_key::minor_version,
                                                  client_key::revision,
                                                  client_key::security_quality_of_service,
                                                  client_key::desired_access};
  EXPECT_EQ(sink.order, expected_order);
  EXPECT_EQ(sink.strings[client_key::name], L"VARNO DRIVE WPD Application");
  EXPECT_EQ(sink.numbers[client_key::major_version], 1u);
  EXPECT_EQ(sink.numbers[client_key::minor_version], 0u);
  EXPECT_EQ(sink.numbers[client_key::revision], 2u);
  EXPECT_EQ(sink.numbers[client_key::security_quality_of_service], 0x20000u);
  // GENERIC_READ and nothing else: never GENERIC_WRITE (0x40000000).
  EXPECT_EQ(sink.numbers[client_key::desired_access], 0x80000000u);
}

TEST(MtpModel, AKeyThatFailsIsReportedAndTheOthersAreStillSet) {
  struct row {
    std::map<client_key, std::int32_t> failures;
    std::vector<std::wstring> lines;
  };
  const std::vector<row> rows = {
      {{{client_key::name, static_cast<std::int32_t>(0x80004005u)}},
       {L"! Failed to set WPD_CLIENT_NAME, hr = 0x80004005"}},
      {{{client_key::revision, static_cast<std::int32_t>(0x8007000Eu)},
        {client_key::desired_access, static_cast<std::int32_t>(0x80070057u)}},
       {L"! Failed to set WPD_CLIENT_REVISION, hr = 0x8007000e",
        L"! Failed to set WPD_CLIENT_DESIRED_ACCESS, hr = 0x80070057"}},
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
    EXPECT_EQ(sink.order.size(), 6u);  // every key was still tried
    EXPECT_EQ(sink.strings.size() + sink.numbers.size(), 6u - r.failures.size());
  }
  EXPECT_EQ(values_creation_failure_line(0x80040154u),
            L"! Failed to CoCreateInstance CLSID_PortableDeviceValues, hr = 0x80040154");
}

TEST(MtpModel, CountsPhotosAndVideosAndTheirSize) {
  auto object = [](content_kind kind, std::uint64_t size) {
    object_record r;
    r.kind = kind;
    r.size = size;
    return r;
  };
  std::vector<object_record> objects = {
      object(content_kind::image, 100),   object(content_kind::video, 5000), object(content_kind::folder, 7),
      object(content_kind::unknown, 300), object(content_kind::image, 0),    object(content_kind::image, 1ull << 40),
  };
  listing_totals t = tally(objects);
  EXPECT_EQ(t.photos, 3u);
  EXPECT_EQ(t.videos, 1u);
  EXPECT_EQ(t.total_size, 100u + 5000u + (1ull << 40));
  EXPECT_EQ(tally({}).photos, 0u);
}

TEST(MtpModel, NamesPreferTheOriginalFileName) {
  EXPECT_EQ(display_name(L"IMG_1.JPG", L"IMG_1"), L"IMG_1.JPG");
  EXPECT_EQ(display_name(std::wstring(), L"IMG_1"), L"IMG_1");
  EXPECT_EQ(display_name(std::nullopt, L"Camera"), L"Camera");
  EXPECT_EQ(display_name(std::nullopt, std::nullopt), L"");
}

TEST(MtpModel, AutomationDatesBecomeUnixMilliseconds) {
  EXPECT_DOUBLE_EQ(automation_date_to_unix_ms(25569.0), 0.0);
  EXPECT_DOUBLE_EQ(automation_date_to_unix_ms(25569.5), 43200000.0);
  // 2023-11-14T22:13:20Z
  EXPECT_NEAR(automation_date_to_unix_ms(unix_ms_to_automation_date(1700000000000.0)), 1700000000000.0, 1.0);
  EXPECT_EQ(hresult_text(0x80070005u), "0x80070005");
  EXPECT_EQ(hresult_text(0), "0x0");
}

}  // namespace
}  // namespace ostrel::mtp
