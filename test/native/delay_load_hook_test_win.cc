// The hook as the delay-load helper calls it, with and without a host module
// named varno.dll (a stub the build places beside the test) in the process.
#include <windows.h>
// after windows.h
#include <delayimp.h>
#include <gtest/gtest.h>

#include "main/delay_load_hook.h"

namespace ostrel {
namespace {

TEST(DelayLoadHookWin, DefaultsToNodeExeUntilTheHostModuleIsLoaded) {
  ASSERT_EQ(GetModuleHandleW(L"varno.dll"), nullptr);
  EXPECT_EQ(host_runtime_hook(dliNotePreLoadLibrary, "node.exe"), nullptr);

  HMODULE host = LoadLibraryW(L"varno.dll");
  ASSERT_NE(host, nullptr) << "varno.dll stub missing, error " << GetLastError();
  EXPECT_EQ(host_runtime_hook(dliNotePreLoadLibrary, "NODE.EXE"), host);
  // Other libraries and other notifications load as usual.
  EXPECT_EQ(host_runtime_hook(dliNotePreLoadLibrary, "kernel32.dll"), nullptr);
  EXPECT_EQ(host_runtime_hook(dliNotePreGetProcAddress, "node.exe"), nullptr);
  EXPECT_EQ(host_runtime_hook(dliStartProcessing, "node.exe"), nullptr);
  // The hook only looks the module up: it takes no reference of its own.
  EXPECT_TRUE(FreeLibrary(host));
  EXPECT_EQ(GetModuleHandleW(L"varno.dll"), nullptr);
}

TEST(DelayLoadHookWin, IsInstalledAsTheNotifyHook) {
  EXPECT_NE(__pfnDliNotifyHook2, nullptr);
}

}  // namespace
}  // namespace ostrel
