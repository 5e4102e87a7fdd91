#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "runtime/cancellation.h"
#include "runtime/exceptions.h"

namespace ostrel {
namespace {

TEST(Cancellation, CallbacksRunOnceOnRequestAtOnceWhenLateAndNeverOnceDeregisteredOrWithoutASource) {
  cancellation_token none;
  EXPECT_FALSE(none.can_be_cancelled());
  cancellation_source source;
  int early = 0, late = 0, gone = 0;
  cancellation_registration never(none, [&] { ++gone; });
  {
    cancellation_registration d(source.token(), [&] { ++gone; });
  }
  {
    cancellation_registration r(source.token(), [&] { ++early; });
    source.request_cancellation();
    source.request_cancellation();
    EXPECT_EQ(early, 1);
  }
  cancellation_registration r2(source.token(), [&] { ++late; });
  EXPECT_EQ(late, 1);
  EXPECT_EQ(gone, 0);
  EXPECT_THROW(source.token().throw_if_cancellation_requested(), operation_cancelled);
}

TEST(Cancellation, CallbackMayDestroyItsOwnRegistration) {
  cancellation_source source;
  auto* r = new cancellation_registration*(nullptr);
  bool called = false;
  *r = new cancellation_registration(source.token(), [&] {
    called = true;
    delete *r;
  });
  source.request_cancellation();
  EXPECT_TRUE(called);
  delete r;
}

// The destructor of a registration whose callback is running on another
// thread waits for it: what the callback touches stays alive.
TEST(Cancellation, DestructorWaitsForACallbackRunningElsewhere) {
  for (int round = 0; round < 200; ++round) {
    cancellation_source source;
    std::atomic<bool> entered{false};
    auto state = std::make_unique<int>(0);
    auto registration = std::make_unique<cancellation_registration>(source.token(), [&] {
      entered = true;
      std::this_thread::sleep_for(std::chrono::microseconds(round % 7 == 0 ? 200 : 0));
      ++*state;
    });
    std::thread canceller([&] { source.request_cancellation(); });
    while (round % 2 == 0 && !entered) std::this_thread::yield();
    registration.reset();
    int seen = *state;  // if the callback ran, it has finished by now
    EXPECT_TRUE(seen == 0 || seen == 1);
    canceller.join();
    if (entered) {
      EXPECT_EQ(*state, 1);
    }
  }
}

}  // namespace
}  // namespace ostrel
