// The WMI value readers and the COM guard's counter.
#include <gtest/gtest.h>

#include <limits>
#include <stdexcept>
#include <string>

#include "storage/com_guard.h"
#include "storage/storage_records.h"
#include "storage/wmi_values.h"
#include "storage_fake.h"

namespace ostrel::storage {
namespace {

TEST(StorageValues, ParseStoullLikeTheDecimalConversion) {
  struct row {
    const char* text;
    std::uint64_t value;
  };
  const row cases[] = {
      {"0", 0},
      {"123", 123},
      {"  42", 42},
      {"\t7", 7},
      {"+9", 9},
      {"12abc", 12},
      {"1000202039296", 1000202039296ull},
      {"18446744073709551615", std::numeric_limits<std::uint64_t>::max()},
      {"-1", std::numeric_limits<std::uint64_t>::max()},  // negated modulo 2^64
  };
  for (const row& c : cases) EXPECT_EQ(parse_stoull(c.text), c.value) << c.text;
}

TEST(StorageValues, ParseStoullFailuresCarryTheirTexts) {
  for (const char* bad : {"", "abc", " ", "-", "+", "x12",
                          "\xE2\x80\x8B"
                          "1"}) {
    try {
      parse_stoull(bad);
      ADD_FAILURE() << "no exception for '" << bad << "'";
    } catch (const std::invalid_argument& e) {
      EXPECT_STREQ(e.what(), "invalid stoull argument") << bad;
    }
  }
  for (const char* big : {"18446744073709551616", "99999999999999999999999"}) {
    try {
      parse_stoull(big);
      ADD_FAILURE() << "no exception for " << big;
    } catch (const std::out_of_range& e) {
      EXPECT_STREQ(e.what(), "stoull argument out of range") << big;
    }
  }
}

TEST(StorageValues, ReadersByVariantKind) {
  struct row {
    wmi_value v;
    const char* text;
    std::uint64_t size;
    std::uint32_t drive_type;
  };
  const row cases[] = {
      {wmi_value::string("C:"), "C:", 0, 0},  // a string size that does not parse is tested above
      {wmi_value::string("500"), "500", 500, 0}, {wmi_value::uint64(1ull << 40), "unknown", 1ull << 40, 0},
      {wmi_value::int32(3), "unknown", 0, 3},    {wmi_value::int32(-1), "unknown", 0, 0xFFFFFFFFu},
      {wmi_value::null(), "unknown", 0, 0},      {wmi_value{}, "unknown", 0, 0},
      {wmi_value::other(), "unknown", 0, 0},
  };
  for (const row& c : cases) {
    EXPECT_EQ(read_text(c.v), c.text);
    if (c.v.type != wmi_value::kind::string || c.size) {
      EXPECT_EQ(read_size(c.v), c.size) << c.text;
    }
    EXPECT_EQ(read_drive_type(c.v), c.drive_type) << c.text;
  }
  EXPECT_THROW(read_size(wmi_value::string("C:")), std::invalid_argument);
}

// The guard's counter is process-wide, and other suites leave it at -1 (a
// machine asked for security twice refuses the second time, as COM does):
// each case starts from a fresh process's 0.
TEST(StorageComGuard, SecurityOnlyForTheFirstLiveGuard) {
  com_guard::reset_for_tests();
  auto m = std::make_shared<fake::machine>();
  fake::com com(m);
  ASSERT_EQ(com_guard::live(), 0);
  {
    com_guard outer(com);
    EXPECT_EQ(com_guard::live(), 1);
    {
      com_guard inner(com);
      EXPECT_EQ(com_guard::live(), 2);
    }
    EXPECT_EQ(com_guard::live(), 1);
  }
  EXPECT_EQ(com_guard::live(), 0);
  EXPECT_EQ(m->initialize_calls, 2);
  EXPECT_EQ(m->security_calls, 1);
  EXPECT_EQ(m->uninitialize_calls, 2);
  EXPECT_EQ(m->unbalanced_uninitialize, 0);
  // No guard alive: security is asked again (of a machine where nothing
  // set it yet; COM itself allows it once per process).
  auto fresh = std::make_shared<fake::machine>();
  fake::com fresh_com(fresh);
  { com_guard again(fresh_com); }
  EXPECT_EQ(fresh->security_calls, 1);
  EXPECT_EQ(com_guard::live(), 0);
}

TEST(StorageComGuard, SecurityAlreadyInitialisedIsLoggedAndTheEndStillUninitialises) {
  com_guard::reset_for_tests();
  auto m = std::make_shared<fake::machine>();
  m->security = fake::rpc_e_too_late;
  fake::com com(m);
  testing::internal::CaptureStderr();
  {
    com_guard g(com);
    EXPECT_EQ(com_guard::live(), 0);  // set back to 0
  }
  std::string err = testing::internal::GetCapturedStderr();
  EXPECT_NE(err.find("Failed to initialize security. Error code = 0x80010119"), std::string::npos) << err;
  EXPECT_EQ(m->uninitialize_calls, 2);       // once after the failure, once at the end
  EXPECT_EQ(m->unbalanced_uninitialize, 1);  // the end's, with COM already gone: COM ignores it
  EXPECT_EQ(com_guard::live(), -1);          // the end decrements unconditionally
  // With the counter below zero no later guard asks for security again.
  m->security = 0;
  { com_guard g(com); }
  EXPECT_EQ(m->security_calls, 1);
  EXPECT_EQ(com_guard::live(), -1);
}

TEST(StorageComGuard, FailedInitializeIsLoggedAndTheEndStillRuns) {
  auto m = std::make_shared<fake::machine>();
  m->initialize = static_cast<hresult>(0x80010106u);  // RPC_E_CHANGED_MODE
  fake::com com(m);
  std::int32_t before = com_guard::live();
  testing::internal::CaptureStderr();
  { com_guard g(com); }
  std::string err = testing::internal::GetCapturedStderr();
  EXPECT_NE(err.find("Failed to initialize COM"), std::string::npos);
  EXPECT_EQ(m->security_calls, 0);
  EXPECT_EQ(m->uninitialize_calls, 1);
  EXPECT_EQ(com_guard::live(), before - 1);
}

}  // namespace
}  // namespace ostrel::storage
