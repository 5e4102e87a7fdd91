// The first-in, first-out queues between producers on any thread and the
// delivery tasks on the main thread: event records for reporters, and named
// facts for fact sinks.
#pragma once

#include <cstddef>
#include <deque>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "tvk_record.h"

namespace ostrel::telemetry {

class event_queue {
 public:
  void push(TvkRecord record);
  // Moves every queued record out, front first.
  std::vector<TvkRecord> take_all();
  // Puts a taken batch back in front, in its order, for a later delivery.
  void requeue_front(std::vector<TvkRecord> batch);
  std::size_t size() const;

 private:
  mutable std::mutex mutex_;
  std::deque<TvkRecord> records_;
};

struct fact {
  std::string name;
  std::map<std::string, std::string> attributes;
};

// Facts are only kept while at least one sink is registered: a fact posted
// with no sink is dropped, not held for a later one.
class fact_queue {
 public:
  // False (and the fact dropped) when no sink is registered.
  bool post(std::string name, std::map<std::string, std::string> attributes);
  std::vector<fact> take_all();
  void set_sink_count(std::size_t sinks);
  std::size_t sink_count() const;
  std::size_t size() const;

 private:
  mutable std::mutex mutex_;
  std::size_t sinks_ = 0;
  std::deque<fact> facts_;
};

}  // namespace ostrel::telemetry
