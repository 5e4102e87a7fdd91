#include <gtest/gtest.h>

#include "main/delay_load_hook.h"

namespace ostrel {
namespace {

TEST(DelayLoadHook, RecognisesTheRuntimeImportWhateverItsCase) {
  for (const char* name : {"node.exe", "NODE.EXE", "Node.Exe"}) EXPECT_TRUE(is_host_runtime_import(name)) << name;
  for (const char* name : {"node.exe.bak", "node.ex", "kernel32.dll", ""})
    EXPECT_FALSE(is_host_runtime_import(name)) << name;
  EXPECT_FALSE(is_host_runtime_import(nullptr));
}

}  // namespace
}  // namespace ostrel
