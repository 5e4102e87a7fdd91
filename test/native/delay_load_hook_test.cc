#include <gtest/gtest.h>

#include "main/delay_load_hook.h"

namespace ostrel {
namespace {

TEST(DelayLoadHook, RecognisesTheRuntimeImportWhateverItsCase) {
  EXPECT_TRUE(is_host_runtime_import("node.exe"));
  EXPECT_TRUE(is_host_runtime_import("NODE.EXE"));
  EXPECT_TRUE(is_host_runtime_import("Node.Exe"));
  EXPECT_FALSE(is_host_runtime_import("node.exe.bak"));
  EXPECT_FALSE(is_host_runtime_import("node.ex"));
  EXPECT_FALSE(is_host_runtime_import("kernel32.dll"));
  EXPECT_FALSE(is_host_runtime_import(""));
  EXPECT_FALSE(is_host_runtime_import(nullptr));
}

}  // namespace
}  // namespace ostrel
