#include "file_query.h"

#include <chrono>
#include <exception>

#include "runtime/blocking.h"
#include "runtime/log.h"
#include "runtime/runtime.h"
#include "runtime/strings.h"

namespace ostrel::scan {

task<bool> FillFileInfoAsync(std::shared_ptr<FileInfo> info, int attempt,
                             std::shared_ptr<const std::atomic<bool>> stop) {
  try {
    for (;; ++attempt) {
      if (!info->readable) co_return true;
      if (attempt > max_attempt) {
        info->readable = false;
        info->clear_metadata();
        co_return false;
      }
      int settled = settle_outcome(*info, query_file_info(*info));
      if (settled >= 0) co_return settled == 1;
      auto io = runtime::io();
      if (!io || (stop && stop->load())) co_return false;
      co_await io->schedule_after(std::chrono::milliseconds(100));
      // The query may block on a slow share: on the blocking executor, never
      // on the I/O service's thread or the CPU pool.
      co_await on_blocking();
      if (stop && stop->load()) co_return false;
    }
  } catch (const std::exception& e) {
    log::wout(L"FillFileInfoAsync: exception: " + to_wide(e.what()));
  } catch (...) {
    log::wout(L"FillFileInfoAsync: unknown exception");
  }
  co_return false;
}

}  // namespace ostrel::scan
