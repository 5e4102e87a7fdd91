// An I/O service pumped by its own thread, and a pool, for the duration of
// one test.
#pragma once

#include <thread>

#include "runtime/io_service.h"
#include "runtime/thread_pool.h"

namespace ostrel::testing {

struct pumped_service {
  io_service service;
  std::thread pump{[this] { service.process_events(); }};
  ~pumped_service() {
    service.stop();
    pump.join();
  }
};

}  // namespace ostrel::testing
