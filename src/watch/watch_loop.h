// The two reading loops of a session and the classification of their
// change records into script events.
#pragma once

#include <memory>

#include "runtime/task.h"
#include "watch_data.h"

namespace ostrel::watch {

// Reads the session's root in one mode until the session stops: opens it,
// reads batch after batch, hands each record to classification, and owns
// the recovery rules (reopening, the back-off of two immediate retries then
// one a second, the wait for a deleted root to come back).
task<void> WatchLoop(std::shared_ptr<WatchData> w, bool dir_mode);

// Starts both loops, file mode first.
void start_watch_loops(const std::shared_ptr<WatchData>& w);

// Sends an error event (errorCode, errorReason, code) to the session.
void SendWatchError(WatchData& w, std::int64_t error_code, std::string reason, std::string code);
// Logs "HandleLastError : <message>" and sends the error with the system's
// message and an empty code; an error of 0 does nothing.
void HandleLastError(WatchData& w, std::uint32_t error);

}  // namespace ostrel::watch
