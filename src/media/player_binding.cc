// The script class CorvexMediaPlayer and the export CreateMediaPlayer. Each
// player owns a session: the SDK player's holder, its mailbox, a scheduler
// reference and a registration with its environment, all released by
// dispose (or by the environment's clean-up, or when the object is
// collected undisposed). A pump task per player carries the SDK's
// notifications from the mailbox to the script listeners on the main
// thread.
//
// Interleavings of commands, events and dispose:
// - Notifications arrive on SDK threads and only touch the mailbox (flags,
//   statistics, queue); the mailbox outlives every notification (see
//   player_core.h). The pump reaches script only after its hop to the main
//   thread, and checks there that the player is neither released nor
//   finalized before each delivery.
// - A command in flight (prepare, play) holds the holder, so dispose cannot
//   destroy the SDK player under it; dispose releases the mailbox, which
//   ends the command's wait at once, and the last owner destroys the player.
// - Synchronous commands run on the main thread, as dispose does, so they
//   see either the holder or nothing.
#include <napi.h>

#include <algorithm>
#include <chrono>
#include <functional>
#include <map>
#include <mutex>
#include <memory>
#include <string>
#include <vector>

#include "corvex_names.h"
#include "main/export_steps.h"
#include "player_core.h"
#include "runtime/blocking.h"
#include "runtime/environment.h"
#include "runtime/log.h"
#include "runtime/napi_util.h"
#include "runtime/spawn.h"
#include "sdk_loader.h"

namespace ostrel {

namespace media {
namespace {

// How long prepare and play wait for the SDK's answer to a prepare.
constexpr std::chrono::milliseconds prepare_wait{30000};
// What playDemo plays: a public sample video.
constexpr const char* demo_url = "https://commondatastorage.googleapis.com/gtv-videos-bucket/sample/BigBuckBunny.mp4";

class CorvexMediaPlayer;

// The mailbox as the environment's stop action sees it: set on the main
// thread once the SDK player exists, read by the stop action on any thread.
struct mailbox_slot {
  std::mutex mutex;
  std::shared_ptr<player_mailbox> mailbox;
  bool stopped = false;

  void set(std::shared_ptr<player_mailbox> m) {
    std::lock_guard lock(mutex);
    mailbox = std::move(m);
    if (stopped) mailbox->release();
  }
  void stop() {
    std::lock_guard lock(mutex);
    stopped = true;
    if (mailbox) mailbox->release();
  }
};

// The native state of one script player. Main thread only, except the
// mailbox slot and the stop action.
struct player_session {
  std::shared_ptr<scheduler> sched;
  std::shared_ptr<player_holder> holder;  // null once disposed
  std::shared_ptr<player_mailbox> mailbox;
  std::shared_ptr<mailbox_slot> slot = std::make_shared<mailbox_slot>();
  session_registry::ticket ticket;
  CorvexMediaPlayer* owner = nullptr;
  // The script object is pinned (a strong reference) from construction
  // until dispose (or until the SDK gave no player): a player that script
  // no longer references plays on and delivers its events, as the
  // scheduler reference keeps the loop alive for it.
  bool pinned = false;
  // The SDK player is being created on a job thread; commands that return
  // a promise wait for it (run from `after_creation`), the others act as
  // without a player.
  bool creating = false;
  bool closed = false;  // disposed (or the environment ended)
  std::vector<std::function<void()>> after_creation;

  bool muted = false;
  double volume = 1.0;
  bool prepared = false;
  std::string url;
  string_pairs headers;
  // Bumped by stop: a prepare that began before a stop must not mark its
  // source as prepared after it.
  std::uint64_t generation = 0;

  // Main thread; idempotent.
  void close();
};

// Per environment: the class constructor, released at clean-up.
struct media_env_state {
  Napi::FunctionReference constructor;
};

class CorvexMediaPlayer : public Napi::ObjectWrap<CorvexMediaPlayer> {
 public:
  static Napi::Function define(Napi::Env env);

  explicit CorvexMediaPlayer(const Napi::CallbackInfo& info);
  ~CorvexMediaPlayer() override;

  bool has_player() const noexcept { return session_ && session_->holder != nullptr; }
  // Main thread: calls the listener registered for `n.what`, if any.
  void deliver(const notification& n);
  // Main thread: the outcome of the SDK player's creation (null: none).
  void attach(std::shared_ptr<player_holder> holder);
  // Main thread: runs `fn` once the SDK player's creation has ended (at
  // once when it is not under way).
  void when_created(std::function<void()> fn) {
    if (session_->creating) {
      session_->after_creation.push_back(std::move(fn));
    } else {
      fn();
    }
  }

 private:
  Napi::Value version(const Napi::CallbackInfo& info);
  Napi::Value current_time(const Napi::CallbackInfo& info);
  Napi::Value duration(const Napi::CallbackInfo& info);
  Napi::Value playable_duration(const Napi::CallbackInfo& info);
  Napi::Value paused(const Napi::CallbackInfo& info);
  Napi::Value playing(const Napi::CallbackInfo& info);
  Napi::Value buffering(const Napi::CallbackInfo& info);
  void ignore_set(const Napi::CallbackInfo&, const Napi::Value&) {}

  Napi::Value prepare(const Napi::CallbackInfo& info);
  Napi::Value play(const Napi::CallbackInfo& info);
  Napi::Value play_demo(const Napi::CallbackInfo& info);
  Napi::Value pause(const Napi::CallbackInfo& info);
  Napi::Value stop(const Napi::CallbackInfo& info);
  Napi::Value set_corvex_str(const Napi::CallbackInfo& info);
  Napi::Value set_play_speed(const Napi::CallbackInfo& info);
  Napi::Value set_volume(const Napi::CallbackInfo& info);
  Napi::Value set_mute(const Napi::CallbackInfo& info);
  Napi::Value seek_to(const Napi::CallbackInfo& info);
  Napi::Value add_event_listener(const Napi::CallbackInfo& info);
  Napi::Value dispose(const Napi::CallbackInfo& info);

  Napi::Value start_play(Napi::Env env, bool with_source, const std::string& url, string_pairs headers);
  // Starts a prepare/play task for `p`, or queues it until the SDK player
  // exists; "not init" without one.
  void start_command(std::shared_ptr<promise> p, bool do_prepare, bool do_start, std::string url, string_pairs headers);
  void drop_listeners() noexcept;
  bool apply_volume();
  std::int64_t sdk_duration() const;

  std::shared_ptr<player_session> session_;
  std::map<std::int32_t, Napi::FunctionReference> listeners_;
};

void player_session::close() {
  closed = true;
  slot->stop();
  if (mailbox) mailbox->release();
  holder.reset();  // the SDK's destroy runs on a thread of its own
  ticket.reset();
  if (pinned) {
    pinned = false;
    if (owner) owner->Unref();
  }
}

// The payload handed to a listener: { what, name, extra1, extra2 }, plus
// "infoName" for an info event (200) and "info" (the map, in the SDK's
// order) when the event carries one.
//
// The properties are defined as own data properties, not assigned: an
// accessor that script put on Object.prototype under the same name (a key
// of the SDK's map may be any text, "__proto__" included) is neither called
// nor able to swallow the value.
void define_value(Napi::Env env, Napi::Object o, const std::string& key, napi_value value) {
  napi_value name;
  napi_check(env, napi_create_string_utf8(env, key.data(), key.size(), &name));
  napi_property_descriptor d{};
  d.name = name;
  d.value = value;
  d.attributes = static_cast<napi_property_attributes>(napi_writable | napi_enumerable | napi_configurable);
  napi_check(env, napi_define_properties(env, o, 1, &d));
}

Napi::Object payload(Napi::Env env, const notification& n) {
  Napi::Object o = Napi::Object::New(env);
  define_value(env, o, "what", Napi::Number::New(env, n.what));
  define_value(env, o, "name", Napi::String::New(env, event_name(n.what)));
  define_value(env, o, "extra1", Napi::Number::New(env, n.extra1));
  define_value(env, o, "extra2", Napi::Number::New(env, n.extra2));
  if (n.what == 200) define_value(env, o, "infoName", Napi::String::New(env, info_name(n.extra1)));
  if (n.has_info) {
    Napi::Object map = Napi::Object::New(env);
    for (const auto& [k, v] : n.info) define_value(env, map, k, Napi::String::New(env, v));
    define_value(env, o, "info", map);
  }
  return o;
}

// The pump's scheduler reference, given back as the pump ends however it
// ends (a delivery that throws included). Only the main thread can give it
// back; off it the pump ends because the scheduler stopped, which dropped
// every reference already.
class scheduler_reference {
 public:
  explicit scheduler_reference(std::shared_ptr<scheduler> s) noexcept : sched_(std::move(s)) {}
  scheduler_reference(const scheduler_reference&) = delete;
  scheduler_reference& operator=(const scheduler_reference&) = delete;
  ~scheduler_reference() {
    if (sched_->is_main_thread() && !sched_->is_stopped()) sched_->release();
  }

 private:
  std::shared_ptr<scheduler> sched_;
};

// The pump: one per player, for the player's whole life. It holds the
// mailbox and only a weak link to the session, so that wherever it ends it
// frees nothing that needs the main thread. It owns the player's scheduler
// reference and gives it back on the main thread as it ends: had dispose
// released it instead, a pump queued on the scheduler at that moment would
// be dropped with the queue and never freed.
task<void> pump(std::shared_ptr<player_mailbox> mailbox, std::weak_ptr<player_session> weak,
                std::shared_ptr<scheduler> sched) {
  scheduler_reference reference(sched);
  // At most this many notifications, for at most this long, per turn on
  // the main thread: between turns the pump queues behind other work, so a
  // storm of events or a slow listener cannot hold the event loop.
  constexpr std::size_t per_turn = 64;
  constexpr auto turn_budget = std::chrono::milliseconds(20);
  // Drops are logged at most once a second, with their count.
  std::size_t dropped_unreported = 0;
  auto last_drop_log = std::chrono::steady_clock::now() - std::chrono::seconds(2);
  bool ended = false;
  while (!ended) {
    co_await mailbox->wake();
    // TRICKY: the wake may resume us on an SDK thread, inside its
    // notification (or inside dispose); nothing before this hop may touch
    // script or block. Once stopped (environment clean-up) the hop throws
    // and the pump ends where it is, its reference gone with the scheduler.
    co_await sched->schedule();
    for (;;) {
      std::shared_ptr<player_session> s = weak.lock();
      if (!s || !s->owner || mailbox->released()) {
        ended = true;
        break;
      }
      const auto turn_start = std::chrono::steady_clock::now();
      std::size_t dropped = 0;
      std::size_t delivered = 0;
      bool drained = false;
      while (delivered < per_turn && std::chrono::steady_clock::now() - turn_start < turn_budget) {
        std::vector<notification> one = mailbox->take(1, dropped);
        dropped_unreported += dropped;
        if (dropped_unreported > 0 && std::chrono::steady_clock::now() - last_drop_log > std::chrono::seconds(1)) {
          log::err("CorvexMediaPlayer dropped " + std::to_string(dropped_unreported) +
                   " notifications: its listeners fall behind the player");
          dropped_unreported = 0;
          last_drop_log = std::chrono::steady_clock::now();
        }
        // A listener may have disposed the player: nothing is delivered
        // after that.
        if (one.empty() || !s->owner || mailbox->released()) {
          drained = true;
          break;
        }
        ++delivered;
        Napi::HandleScope scope(Napi::Env(sched->env()));
        try {
          s->owner->deliver(one.front());
        } catch (const Napi::Error& e) {
          // The payload could not be made (the heap is exhausted): this one
          // notification is lost, the pump goes on.
          log::err("CorvexMediaPlayer could not deliver a notification: " + safe_message(e));
        }
      }
      if (drained) break;
      co_await sched->schedule();  // the next turn, behind other work
    }
  }
}

Napi::Function CorvexMediaPlayer::define(Napi::Env env) {
  return DefineClass(
      env, "CorvexMediaPlayer",
      {
          InstanceAccessor<&CorvexMediaPlayer::version, &CorvexMediaPlayer::ignore_set>("version"),
          InstanceAccessor<&CorvexMediaPlayer::current_time, &CorvexMediaPlayer::ignore_set>("currentTime"),
          InstanceAccessor<&CorvexMediaPlayer::duration, &CorvexMediaPlayer::ignore_set>("duration"),
          InstanceAccessor<&CorvexMediaPlayer::playable_duration, &CorvexMediaPlayer::ignore_set>("playableDuration"),
          InstanceAccessor<&CorvexMediaPlayer::paused, &CorvexMediaPlayer::ignore_set>("paused"),
          InstanceAccessor<&CorvexMediaPlayer::playing, &CorvexMediaPlayer::ignore_set>("playing"),
          InstanceAccessor<&CorvexMediaPlayer::buffering, &CorvexMediaPlayer::ignore_set>("buffering"),
          InstanceMethod<&CorvexMediaPlayer::prepare>("prepare"),
          InstanceMethod<&CorvexMediaPlayer::play>("play"),
          InstanceMethod<&CorvexMediaPlayer::play_demo>("playDemo"),
          InstanceMethod<&CorvexMediaPlayer::pause>("pause"),
          InstanceMethod<&CorvexMediaPlayer::stop>("stop"),
          InstanceMethod<&CorvexMediaPlayer::set_corvex_str>("setCorvexStr"),
          InstanceMethod<&CorvexMediaPlayer::set_play_speed>("setPlaySpeed"),
          InstanceMethod<&CorvexMediaPlayer::set_volume>("setVolume"),
          InstanceMethod<&CorvexMediaPlayer::set_mute>("setMute"),
          InstanceMethod<&CorvexMediaPlayer::seek_to>("seekTo"),
          InstanceMethod<&CorvexMediaPlayer::add_event_listener>("addEventListener"),
          InstanceMethod<&CorvexMediaPlayer::dispose>("dispose"),
      });
}

// Creates the SDK player (entry 6 and the two options) on a job thread:
// the SDK may take its time, and the event loop must not wait for it. Then,
// on the main thread, hands it to the player (or disposes of it when the
// player was disposed meanwhile), which runs what waited for it.
task<void> create_task(std::weak_ptr<player_session> weak, std::shared_ptr<scheduler> sched) {
  std::shared_ptr<player_holder> holder;
  try {
    auto job = on_own_thread([] { return player_holder::create(true); });
    holder = co_await job;
  } catch (...) {
    log_task_failure();
    holder.reset();
  }
  co_await sched->schedule();
  std::shared_ptr<player_session> s = weak.lock();
  if (s && s->owner) s->owner->attach(std::move(holder));
}

CorvexMediaPlayer::CorvexMediaPlayer(const Napi::CallbackInfo& info) : Napi::ObjectWrap<CorvexMediaPlayer>(info) {
  auto owner = environment::current();
  if (!owner) throw Napi::Error::New(info.Env(), "CorvexMediaPlayer must be created on the thread that loaded ostrel");
  session_ = std::make_shared<player_session>();
  session_->sched = owner->shared_scheduler();
  session_->owner = this;
  if (!sdk_inited()) return;
  session_->creating = true;
  Ref();
  session_->pinned = true;
  std::weak_ptr<player_session> weak = session_;
  std::shared_ptr<mailbox_slot> slot = session_->slot;
  std::shared_ptr<scheduler> sched = session_->sched;
  // The environment's clean-up disposes the player; off the main thread a
  // stop can only wake its waits.
  session_->ticket = session_registry::add(owner->sessions(), [weak, slot, sched] {
    if (!sched->is_main_thread()) {
      slot->stop();
      return;
    }
    if (auto s = weak.lock()) s->close();
  });
  start_async(create_task(weak, sched));
}

void CorvexMediaPlayer::attach(std::shared_ptr<player_holder> holder) {
  session_->creating = false;
  std::vector<std::function<void()>> waiting;
  waiting.swap(session_->after_creation);
  const bool live = holder && !session_->closed;
  if (live) {
    session_->holder = std::move(holder);
    session_->mailbox = session_->holder->mailbox();
    session_->slot->set(session_->mailbox);
    session_->sched->add_ref();  // given back by the pump as it ends
    spawn(pump(session_->mailbox, session_, session_->sched), runtime::alive());
  }
  for (auto& run : waiting) run();
  if (!live) {
    holder.reset();  // disposed meanwhile: the SDK player goes at once
    // Nothing will ever be delivered: the player is no longer pinned, and
    // its listeners are let go.
    session_->close();
    drop_listeners();
  }
}

void CorvexMediaPlayer::drop_listeners() noexcept {
  // The references go with the map; a listener that refers to its player
  // no longer makes a cycle through a persistent handle.
  std::map<std::int32_t, Napi::FunctionReference> gone;
  gone.swap(listeners_);
}

CorvexMediaPlayer::~CorvexMediaPlayer() {
  // Collected after dispose (a player is pinned until then), or the
  // environment is ending: a player never disposed is disposed now.
  // Finalizers run on the main thread.
  if (session_) {
    session_->owner = nullptr;
    session_->after_creation.clear();
    session_->close();
  }
}

void CorvexMediaPlayer::deliver(const notification& n) {
  auto it = listeners_.find(n.what);
  if (it == listeners_.end() || it->second.IsEmpty()) return;
  Napi::Env env = Env();
  napi_value arg = payload(env, n);
  script_call_result r = call_script(env, it->second.Value(), Value(), 1, &arg);
  if (r.terminating) throw environment_terminating();
  if (!r.ok) log::out_value("Caught Napi::Error in CorvexMediaPlayer listener: ", r.thrown);
}

Napi::Value CorvexMediaPlayer::version(const Napi::CallbackInfo& info) {
  return Napi::String::New(info.Env(), sdk_version());
}

std::int64_t CorvexMediaPlayer::sdk_duration() const {
  if (!has_player()) return 0;
  const auto& h = session_->holder;
  return std::max<std::int64_t>(0, h->ops().duration(h->player()));
}

Napi::Value CorvexMediaPlayer::current_time(const Napi::CallbackInfo& info) {
  std::int64_t v = 0;
  if (has_player()) v = std::max<std::int64_t>(0, session_->holder->ops().current_position(session_->holder->player()));
  return Napi::Number::New(info.Env(), static_cast<double>(v));
}

Napi::Value CorvexMediaPlayer::duration(const Napi::CallbackInfo& info) {
  return Napi::Number::New(info.Env(), static_cast<double>(sdk_duration()));
}

Napi::Value CorvexMediaPlayer::playable_duration(const Napi::CallbackInfo& info) {
  std::int64_t v = 0;
  if (has_player()) {
    v = std::max<std::int64_t>(0, session_->holder->ops().playable_duration(session_->holder->player()));
  }
  return Napi::Number::New(info.Env(), static_cast<double>(v));
}

Napi::Value CorvexMediaPlayer::paused(const Napi::CallbackInfo& info) {
  return Napi::Boolean::New(info.Env(), session_->mailbox && session_->mailbox->paused());
}

Napi::Value CorvexMediaPlayer::playing(const Napi::CallbackInfo& info) {
  bool v = has_player() && session_->holder->ops().is_playing(session_->holder->player()) == 1;
  return Napi::Boolean::New(info.Env(), v);
}

Napi::Value CorvexMediaPlayer::buffering(const Napi::CallbackInfo& info) {
  return Napi::Boolean::New(info.Env(), session_->mailbox && session_->mailbox->buffering());
}

// The request headers of an options argument: its "headers" object's own
// enumerable properties, names and values converted with the script's own
// string conversion. Any other shape gives none.
string_pairs read_headers(Napi::Env env, const Napi::Value& options) {
  string_pairs out;
  if (!options.IsObject() && !options.IsFunction()) return out;
  Napi::Value headers = options.As<Napi::Object>().Get("headers");
  if (!headers.IsObject() && !headers.IsFunction()) return out;
  Napi::Object h = headers.As<Napi::Object>();
  napi_value raw_names;
  napi_check(env, napi_get_all_property_names(env, h, napi_key_own_only,
                                              static_cast<napi_key_filter>(napi_key_enumerable | napi_key_skip_symbols),
                                              napi_key_numbers_to_strings, &raw_names));
  Napi::Array names(env, raw_names);
  for (std::uint32_t i = 0; i < names.Length(); ++i) {
    Napi::Value name = names.Get(i);
    std::string value = h.Get(name).ToString();
    out.emplace_back(name.ToString().Utf8Value(), std::move(value));
  }
  return out;
}

// True when a header's name or value holds a NUL character, which the SDK's
// C strings would cut short unseen.
bool has_nul(const string_pairs& headers) {
  for (const auto& [k, v] : headers) {
    if (k.find('\0') != std::string::npos || v.find('\0') != std::string::npos) return true;
  }
  return false;
}

// A URL argument: a string without NUL characters; false otherwise.
bool read_url(const Napi::Value& v, std::string& url) {
  if (!v.IsString()) return false;
  url = v.As<Napi::String>().Utf8Value();
  return url.find('\0') == std::string::npos;
}

enum class play_step { ok, prepare_failed, start_failed };

// Holds the session only weakly: a task that ends off the main thread (its
// environment ending) must not be the one to free it.
task<void> play_task(std::weak_ptr<player_session> weak, std::shared_ptr<scheduler> sched,
                     std::shared_ptr<player_holder> h, std::shared_ptr<promise> p, bool do_prepare, bool do_start,
                     std::string url, string_pairs headers, std::uint64_t generation) {
  auto job = on_own_thread([h, do_prepare, do_start, url, headers]() -> play_step {
    if (do_prepare && h->prepare(url, headers, prepare_wait) != prepare_outcome::prepared) {
      return play_step::prepare_failed;
    }
    if (do_start && h->ops().start(h->player()) != 0) return play_step::start_failed;
    return play_step::ok;
  });
  play_step r = co_await job;
  h.reset();
  co_await sched->schedule();
  std::shared_ptr<player_session> s = weak.lock();
  if (s && r == play_step::ok && do_prepare && generation == s->generation && s->holder) {
    s->prepared = true;
    s->url = std::move(url);
    s->headers = std::move(headers);
  }
  if (r == play_step::ok) {
    p->resolve(Napi::Env(sched->env()).Undefined());
  } else {
    p->reject(do_start ? "play failed" : "prepare failed");
  }
}

Napi::Value rejected(Napi::Env env, const char* message) {
  promise p(env);
  Napi::Value v = p.value();
  p.reject(message);
  return v;
}

void CorvexMediaPlayer::start_command(std::shared_ptr<promise> p, bool do_prepare, bool do_start, std::string url,
                                      string_pairs headers) {
  if (session_->creating) {
    // Runs once the SDK player exists (or turned out not to).
    when_created([this, p, do_prepare, do_start, url = std::move(url), headers = std::move(headers)]() mutable {
      start_command(std::move(p), do_prepare, do_start, std::move(url), std::move(headers));
    });
    return;
  }
  if (!has_player()) {
    p->reject("not init");
    return;
  }
  start_async(play_task(session_, session_->sched, session_->holder, std::move(p), do_prepare, do_start, std::move(url),
                        std::move(headers), session_->generation));
}

Napi::Value CorvexMediaPlayer::prepare(const Napi::CallbackInfo& info) {
  Napi::Env env = info.Env();
  std::string url;
  if (info.Length() == 0 || !read_url(info[0], url)) return rejected(env, "invalid arguments");
  if (!has_player() && !session_->creating) return rejected(env, "not init");
  string_pairs headers = read_headers(env, info[1]);
  if (has_nul(headers)) return rejected(env, "invalid arguments");
  auto p = std::make_shared<promise>(env);
  Napi::Value v = p->value();
  start_command(p, true, false, std::move(url), std::move(headers));
  return v;
}

Napi::Value CorvexMediaPlayer::start_play(Napi::Env env, bool with_source, const std::string& url,
                                          string_pairs headers) {
  if (!has_player() && !session_->creating) return rejected(env, "not init");
  if (!with_source && !session_->prepared) return rejected(env, "not init");
  auto p = std::make_shared<promise>(env);
  Napi::Value v = p->value();
  start_command(p, with_source, true, url, std::move(headers));
  return v;
}

Napi::Value CorvexMediaPlayer::play(const Napi::CallbackInfo& info) {
  Napi::Env env = info.Env();
  if (info.Length() == 0) return start_play(env, false, {}, {});
  std::string url;
  if (!read_url(info[0], url)) return rejected(env, "invalid arguments");
  string_pairs headers = read_headers(env, info[1]);
  if (has_nul(headers)) return rejected(env, "invalid arguments");
  return start_play(env, true, url, std::move(headers));
}

Napi::Value CorvexMediaPlayer::play_demo(const Napi::CallbackInfo& info) {
  return start_play(info.Env(), true, demo_url, {});
}

Napi::Value CorvexMediaPlayer::pause(const Napi::CallbackInfo& info) {
  bool ok = has_player() && session_->holder->ops().pause(session_->holder->player()) == 0;
  return Napi::Boolean::New(info.Env(), ok);
}

Napi::Value CorvexMediaPlayer::stop(const Napi::CallbackInfo& info) {
  if (has_player()) {
    // A prepare still waiting fails now, rather than at the SDK's leisure.
    session_->mailbox->cancel_prepare();
    session_->holder->ops().stop(session_->holder->player());
  }
  session_->prepared = false;
  session_->url.clear();
  session_->headers.clear();
  ++session_->generation;
  session_->volume = 1.0;
  session_->muted = false;
  return Napi::Boolean::New(info.Env(), true);
}

Napi::Value CorvexMediaPlayer::set_corvex_str(const Napi::CallbackInfo& info) {
  Napi::Env env = info.Env();
  napi_value arg = info[0];
  std::size_t length = 0;
  napi_check(env, napi_get_value_string_utf8(env, arg, nullptr, 0, &length));
  std::string text = info[0].As<Napi::String>().Utf8Value();
  // The SDK takes C strings: a NUL would cut the text short unseen.
  bool ok = has_player() && text.find('\0') == std::string::npos &&
            session_->holder->set_option("rw.instance.corvex_str", text) == 0;
  return Napi::Boolean::New(env, ok);
}

Napi::Value CorvexMediaPlayer::set_play_speed(const Napi::CallbackInfo& info) {
  std::string speed = info[0].ToString().Utf8Value();
  bool ok = has_player() && speed.find('\0') == std::string::npos &&
            session_->holder->set_option("rw.instance.set_playback_speed", speed) == 0;
  return Napi::Boolean::New(info.Env(), ok);
}

bool CorvexMediaPlayer::apply_volume() {
  if (!has_player()) return false;
  float v = session_->muted ? 0.0f : static_cast<float>(session_->volume);
  return session_->holder->ops().set_volume(session_->holder->player(), v, v) == 0;
}

Napi::Value CorvexMediaPlayer::set_volume(const Napi::CallbackInfo& info) {
  Napi::Env env = info.Env();
  double v = 0;
  napi_check(env, napi_get_value_double(env, info[0], &v));
  // Capped above, deliberately not below.
  session_->volume = std::min(v, 1.0);
  if (session_->muted) return Napi::Boolean::New(env, true);
  return Napi::Boolean::New(env, apply_volume());
}

Napi::Value CorvexMediaPlayer::set_mute(const Napi::CallbackInfo& info) {
  Napi::Env env = info.Env();
  bool muted = false;
  napi_check(env, napi_get_value_bool(env, info[0], &muted));
  session_->muted = muted;
  return Napi::Boolean::New(env, apply_volume());
}

Napi::Value CorvexMediaPlayer::seek_to(const Napi::CallbackInfo& info) {
  Napi::Env env = info.Env();
  std::int32_t position = 0;
  napi_check(env, napi_get_value_int32(env, info[0], &position));
  if (position < 0 || position > sdk_duration() || !has_player()) return Napi::Boolean::New(env, false);
  return Napi::Boolean::New(env, session_->holder->ops().seek_to(session_->holder->player(), position) == 0);
}

Napi::Value CorvexMediaPlayer::add_event_listener(const Napi::CallbackInfo& info) {
  Napi::Env env = info.Env();
  check_arg_types(info, {napi_string, napi_function});
  std::int32_t code = listener_code(info[0].As<Napi::String>().Utf8Value());
  // A player that can no longer deliver (disposed, or the SDK gave none)
  // keeps no listener: a strong reference to a function that refers to the
  // player would keep both alive for good.
  if (!session_->pinned) return env.Undefined();
  listeners_[code] = Napi::Persistent(info[1].As<Napi::Function>());
  return env.Undefined();
}

Napi::Value CorvexMediaPlayer::dispose(const Napi::CallbackInfo& info) {
  session_->close();
  drop_listeners();
  return Napi::Boolean::New(info.Env(), true);
}

Napi::Value create_media_player(const Napi::CallbackInfo& info) {
  Napi::Env env = info.Env();
  InitCorvex();
  if (!sdk_inited()) return rejected(env, "CreateMediaPlayer failed: corvex not initialized");
  auto owner = environment::current();
  if (!owner) throw Napi::Error::New(env, "CreateMediaPlayer must be called on the thread that loaded ostrel");
  Napi::Object instance = owner->data<media_env_state>().constructor.New({});
  CorvexMediaPlayer* player = CorvexMediaPlayer::Unwrap(instance);
  auto p = std::make_shared<promise>(env);
  Napi::Value v = p->value();
  // Resolved with the player once its SDK player exists, and also when the
  // SDK gave none (CreateUniqueMediaPlayer failed, logged): a player whose
  // commands all fail.
  player->when_created([player, p] { p->resolve(player->Value()); });
  return v;
}

}  // namespace
}  // namespace media

namespace exports {

void register_media_player(Napi::Env env, Napi::Object exports) {
  Napi::Function cls = media::CorvexMediaPlayer::define(env);
  if (auto owner = environment::current()) owner->data<media::media_env_state>().constructor = Napi::Persistent(cls);
  exports.Set("CorvexMediaPlayer", cls);
  attach_export(env, exports, "CreateMediaPlayer", media::create_media_player);
}

}  // namespace exports
}  // namespace ostrel
