// Detached tasks. spawn() starts a task at once on the calling thread and
// owns its end: a failure is logged (and, for a script error on the main
// thread, raised into script) and never reaches the caller.
#pragma once

#include <memory>

#include "runtime.h"
#include "task.h"

namespace ostrel {

void spawn(task<void> t, std::shared_ptr<alive_token> token);

// The entry by which an export starts asynchronous work. On the main thread
// it takes a scheduler reference for the task's lifetime, runs the task on a
// pool worker and releases the reference back on the main thread when the
// task has ended. Off the main thread it only runs the task on the pool.
void start_async(task<void> t);

// Logs a failure that escaped a task, as the spawn wrapper does. Call from
// inside a catch block.
void log_task_failure();

}  // namespace ostrel
