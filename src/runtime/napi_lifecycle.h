// Start-up and tear-down of the runtime for one script environment, shared
// by the module's initialiser and the test add-on.
#pragma once

#include <node_api.h>

#include <cstddef>

namespace ostrel::lifecycle {

// Binds the main-thread scheduler to the environment's event loop and the
// calling thread.
void bind_scheduler(napi_env env);
// Creates the alive token, the I/O service and a pool of `pool_size`
// workers, and starts the service's loop on one of them.
void start_runtime(std::size_t pool_size);
// Registers the clean-up hook that tears everything down, in order: log
// "Ostrel Cleaning ...", stop the service, join the pool, stop the
// scheduler, free the pool and the service, free the alive token's task.
void install_cleanup_hook(napi_env env);

}  // namespace ostrel::lifecycle
