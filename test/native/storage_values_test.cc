// The WMI value readers and the COM guard's counter.
#include <gtest/gtest.h>

#include <random>
#include <stdexcept>
#include <string>

#include "storage/com_guard.h"
#include "storage/storage_records.h"
#include "storage/wmi_values.h"
#include "storage_fake.h"

namespace ostrel::storage {
namespace {

// The standard library's stoull is the oracle: on texts generated from a
// fixed seed, the same value or the same kind of failure, with the
// messages of the Windows runtime's conversion.
TEST(StorageValues, ParseStoullAnswersAsTheStandardConversion) {
  const char* pieces[] = {"0", "7", "12", " ", "\t", "+", "-", "a", "x", "\xE2\x80\x8B", "18446744073709551615"};
  std::mt19937 rng(3);
  for (int i = 0; i < 20000; ++i) {
    std::string text;
    for (std::size_t n = rng() % 5; n > 0; --n) text += pieces[rng() % std::size(pieces)];
    const char* expected = nullptr;
    std::uint64_t value = 0;
    try {
      value = std::stoull(text);
    } catch (const std::invalid_argument&) {
      expected = "invalid stoull argument";
    } catch (const std::out_of_range&) {
      expected = "stoull argument out of range";
    }
    try {
      EXPECT_EQ(parse_stoull(text), value) << text;
      EXPECT_EQ(expected, nullptr) << text;
    } catch (const std::logic_error& e) {
      EXPECT_STREQ(e.what(), expected) << text;
      EXPECT_EQ(dynamic_cast<const std::out_of_range*>(&e) != nullptr, expected && *expected == 's') << text;
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
