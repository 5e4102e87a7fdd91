#include "queues.h"

#include <iterator>

namespace ostrel::telemetry {

void event_queue::push(TvkRecord record) {
  std::lock_guard lock(mutex_);
  records_.push_back(std::move(record));
}

std::vector<TvkRecord> event_queue::take_all() {
  std::vector<TvkRecord> batch;
  std::lock_guard lock(mutex_);
  batch.reserve(records_.size());
  for (auto& r : records_) batch.push_back(std::move(r));
  records_.clear();
  return batch;
}

void event_queue::requeue_front(std::vector<TvkRecord> batch) {
  std::lock_guard lock(mutex_);
  records_.insert(records_.begin(), std::make_move_iterator(batch.begin()), std::make_move_iterator(batch.end()));
}

std::size_t event_queue::size() const {
  std::lock_guard lock(mutex_);
  return records_.size();
}

bool fact_queue::post(std::string name, std::map<std::string, std::string> attributes) {
  std::lock_guard lock(mutex_);
  if (sinks_ == 0) return false;
  facts_.push_back({std::move(name), std::move(attributes)});
  return true;
}

std::vector<fact> fact_queue::take_all() {
  std::vector<fact> batch;
  std::lock_guard lock(mutex_);
  batch.reserve(facts_.size());
  for (auto& f : facts_) batch.push_back(std::move(f));
  facts_.clear();
  return batch;
}

void fact_queue::set_sink_count(std::size_t sinks) {
  std::lock_guard lock(mutex_);
  sinks_ = sinks;
  if (sinks == 0) facts_.clear();
}

std::size_t fact_queue::sink_count() const {
  std::lock_guard lock(mutex_);
  return sinks_;
}

std::size_t fact_queue::size() const {
  std::lock_guard lock(mutex_);
  return facts_.size();
}

}  // namespace ostrel::telemetry
