#include "player_core.h"

#include <algorithm>
#include <exception>
#include <map>
#include <stdexcept>

#include "corvex_names.h"
#include "media_stats.h"
#include "runtime/log.h"
#include "runtime/runtime.h"
#include "sdk_loader.h"
#include "telemetry/telemetry.h"

namespace ostrel::media {

namespace {

constexpr std::int32_t event_prepared = 1;
constexpr std::int32_t event_complete = 2;
constexpr std::int32_t event_started = 6;
constexpr std::int32_t event_paused = 7;
constexpr std::int32_t event_stopped = 8;
constexpr std::int32_t event_error = 100;
constexpr std::int32_t event_info = 200;
constexpr std::int32_t info_buffering_start = 701;
constexpr std::int32_t info_buffering_end = 702;
constexpr std::int32_t info_t3 = 602;

// A base-10 integer, the whole text; a missing key counts as 0.
std::int64_t integer_of(const string_pairs& map, const char* key) {
  for (const auto& [k, v] : map) {
    if (k != key) continue;
    std::size_t used = 0;
    long long n = std::stoll(v, &used, 10);
    if (used != v.size()) throw std::invalid_argument(std::string(key) + " is not an integer: " + v);
    return n;
  }
  return 0;
}

bool has_key(const string_pairs& map, const char* key) {
  for (const auto& kv : map) {
    if (kv.first == key) return true;
  }
  return false;
}

std::string value_of(const string_pairs& map, const char* key) {
  for (const auto& [k, v] : map) {
    if (k == key) return v;
  }
  return {};
}

// The options of every player the module creates: audio enabled, and
// notifications on the SDK's own threads (the mailbox takes them there).
const corvex_string_pair creation_option_items[] = {
    {"rw.instance.enable_audio_mode", "1"},
    {"rw.instance.non_platform_thread_callback", "1"},
};
const corvex_string_map creation_options = {2, creation_option_items};

}  // namespace

std::int64_t t3_cost(const string_pairs& map) {
  return integer_of(map, "endMs") - integer_of(map, "startMs");
}

std::int64_t stat_info_cost(const string_pairs& map) {
  return integer_of(map, "an_t3") - integer_of(map, "an_f_start");
}

void report_notification_stats(const notification& n) noexcept {
  try {
    if (n.what == event_info && n.extra1 == info_t3 && n.has_info) {
      report_media_stat("CorvexT3", t3_cost(n.info), true, "CorvexT3", 0,
                        {{"bl1", join_t3(n.info)}, {"wl_avgv2", std::to_string(n.extra2)}});
    }
    if (n.what == event_error) {
      report_media_stat("CorvexError", 0, false, "CorvexError", n.extra1,
                        {{"c2", std::to_string(n.extra1)}, {"c3", std::to_string(n.extra2)}});
    }
    if (n.has_info && has_key(n.info, "a_result")) {
      // The fact goes first: a map whose times are unreadable still reaches
      // the fact sinks whole.
      std::map<std::string, std::string> attributes(n.info.begin(), n.info.end());
      telemetry::post_fact("corvex_stat", std::move(attributes));
      bool ok = value_of(n.info, "a_result") == "0";
      report_media_stat("CorvexStatInfo", stat_info_cost(n.info), ok, "CorvexStatInfo", ok ? 0 : -1, n.info);
    }
  } catch (...) {
    report_media_stat("onNotifyError", 0, false, "onNotifyError", -1, {});
  }
}

player_mailbox::player_mailbox(bool queue_events) : queue_events_(queue_events) {
  listener_.context = this;
  listener_.notify = &player_mailbox::notify_thunk;
  listener_.creation_options = &creation_options;
}

void CORVEX_CALL player_mailbox::notify_thunk(void* context, std::int32_t what, std::int32_t extra1,
                                              std::int32_t extra2, const corvex_string_map* info) {
  static_cast<player_mailbox*>(context)->on_notify(what, extra1, extra2, info);
}

void player_mailbox::on_notify(std::int32_t what, std::int32_t extra1, std::int32_t extra2,
                               const corvex_string_map* info) noexcept {
  received_.fetch_add(1, std::memory_order_relaxed);
  // The state flags first, at once, on this thread.
  if (what == event_started) {
    paused_ = false;
  } else if (what == event_paused) {
    paused_ = true;
  } else if (what == event_stopped || what == event_complete) {
    paused_ = true;
    buffering_ = false;
  } else if (what == event_info && extra1 == info_buffering_start) {
    buffering_ = true;
  } else if (what == event_info && extra1 == info_buffering_end) {
    buffering_ = false;
  }
  notification n;
  n.what = what;
  n.extra1 = extra1;
  n.extra2 = extra2;
  try {
    if (info) {
      n.has_info = true;
      n.info.reserve(info->count);
      for (std::size_t i = 0; i < info->count; ++i) {
        const corvex_string_pair& p = info->items[i];
        n.info.emplace_back(p.key ? p.key : "", p.value ? p.value : "");
      }
    }
  } catch (...) {
    report_media_stat("onNotifyError", 0, false, "onNotifyError", -1, {});
    return;
  }
  report_notification_stats(n);
  bool queued = false;
  try {
    std::lock_guard lock(mutex_);
    if (answered_id_ < prepare_id_ && (what == event_prepared || what == event_error)) {
      answered_id_ = prepare_id_;
      answer_ = what == event_prepared ? prepare_outcome::prepared : prepare_outcome::failed;
      cv_.notify_all();
    }
    if (queue_events_ && !released_) {
      if (queue_.size() < max_queued) {
        queue_.push_back(std::move(n));
        queued = true;
      } else {
        ++dropped_;
      }
    }
  } catch (...) {
    report_media_stat("onNotifyError", 0, false, "onNotifyError", -1, {});
  }
  // Outside the lock: this may resume the pump on this thread, up to its hop
  // to the main thread.
  if (queued) wake_.set();
}

std::vector<notification> player_mailbox::take(std::size_t max, std::size_t& dropped) {
  std::lock_guard lock(mutex_);
  std::size_t n = std::min(max, queue_.size());
  std::vector<notification> out(std::make_move_iterator(queue_.begin()),
                                std::make_move_iterator(queue_.begin() + static_cast<std::ptrdiff_t>(n)));
  queue_.erase(queue_.begin(), queue_.begin() + static_cast<std::ptrdiff_t>(n));
  dropped = std::exchange(dropped_, 0);
  return out;
}

std::uint64_t player_mailbox::begin_prepare() {
  std::lock_guard lock(mutex_);
  // A preparation still waiting is superseded: it fails.
  cv_.notify_all();
  return ++prepare_id_;
}

prepare_outcome player_mailbox::wait_prepare(std::uint64_t id, std::chrono::milliseconds timeout) {
  std::unique_lock lock(mutex_);
  bool done = cv_.wait_for(lock, timeout, [&] { return released_ || answered_id_ >= id || prepare_id_ != id; });
  if (released_) return prepare_outcome::released;
  if (!done) return prepare_outcome::timed_out;
  if (prepare_id_ != id && answered_id_ < id) return prepare_outcome::failed;
  return answered_id_ == id ? answer_ : prepare_outcome::failed;
}

void player_mailbox::cancel_prepare() noexcept {
  std::lock_guard lock(mutex_);
  if (answered_id_ < prepare_id_) {
    answered_id_ = prepare_id_;
    answer_ = prepare_outcome::failed;
    cv_.notify_all();
  }
}

void player_mailbox::release() noexcept {
  {
    std::lock_guard lock(mutex_);
    if (released_.exchange(true)) return;
    queue_.clear();
    cv_.notify_all();
  }
  wake_.set();
}

std::shared_ptr<player_holder> player_holder::create(bool queue_events) {
  auto start = std::chrono::steady_clock::now();
  auto mailbox = std::make_shared<player_mailbox>(queue_events);
  corvex_player* p = sdk_create_player(mailbox->listener());
  std::int64_t ms =
      std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::steady_clock::now() - start).count() / 1000000;
  bool ok = p != nullptr && p->ops != nullptr;
  report_media_stat("CreateUniqueMediaPlayer", ms, ok, "CreateUniqueMediaPlayer", ok ? 0 : -1,
                    {{"bl1", sdk_version()}, {"c2", ok ? "0" : "-1"}});
  if (!ok) {
    if (p) sdk_destroy_player(p);
    log::err("CreateUniqueMediaPlayer failed");
    return nullptr;
  }
  std::shared_ptr<player_holder> holder(new player_holder(std::move(mailbox), p));
  holder->set_option("rw.instance.enable_audio_mode", "1");
  holder->set_option("rw.instance.add_stat", "b_type=9&b_stype=900");
  return holder;
}

player_holder::~player_holder() {
  mailbox_->release();
  // The SDK's destroy may block (a source on a share that stopped
  // answering): it runs on a thread of its own, which nothing waits for and
  // which may be abandoned. The SDK may call the listener until the destroy
  // returns; the thread keeps the mailbox alive until then.
  corvex_player* player = player_;
  std::shared_ptr<player_mailbox> mailbox = mailbox_;
  auto destroy = [player, mailbox]() noexcept { sdk_destroy_player(player); };
  bool started = false;
  try {
    started = runtime::start_job_thread(destroy);
  } catch (...) {
    started = false;
  }
  if (!started) destroy();  // the runtime is gone: on this thread, then
}

prepare_outcome player_holder::prepare(const std::string& url, const string_pairs& headers,
                                       std::chrono::milliseconds timeout) {
  std::vector<corvex_string_pair> items;
  items.reserve(headers.size());
  for (const auto& [k, v] : headers) items.push_back({k.c_str(), v.c_str()});
  corvex_string_map map{items.size(), items.empty() ? nullptr : items.data()};
  std::uint64_t id = mailbox_->begin_prepare();
  if (mailbox_->released()) return prepare_outcome::released;
  if (player_->ops->prepare(player_, url.c_str(), &map) != 0) return prepare_outcome::failed;
  return mailbox_->wait_prepare(id, timeout);
}

std::int32_t player_holder::set_option(const std::string& key, const std::string& value) {
  return player_->ops->set_option(player_, key.c_str(), value.c_str());
}

}  // namespace ostrel::media
