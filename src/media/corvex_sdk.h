/* The media SDK's interface, as the module binds it: the function table that
 * "getCorvexSDKC" returns, the player object that its entry 6 creates, and
 * the listener through which the player reports what happens to it.
 *
 * Plain C on purpose: the SDK may be built by another compiler, so nothing
 * of C++ (classes, exceptions, standard types) crosses this boundary. Every
 * string is UTF-8 and NUL-terminated; the SDK never keeps a pointer that it
 * was given beyond the call, except the listener (see below).
 *
 * Threads. Every player function may be called from any thread, and from
 * several at once. The SDK calls the listener on threads of its own, possibly
 * several at the same time, until `destroy_player` has returned; after that
 * it never calls it again. The listener must return quickly and must not
 * call back into the player. */
#ifndef OSTREL_MEDIA_CORVEX_SDK_H
#define OSTREL_MEDIA_CORVEX_SDK_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#ifdef _WIN32
#define CORVEX_CALL __cdecl
#else
#define CORVEX_CALL
#endif

/* One string entry of a map, in the order the producer gave. */
typedef struct corvex_string_pair {
  const char* key;
  const char* value;
} corvex_string_pair;

/* A map of strings: `count` entries at `items` (null when count is 0). */
typedef struct corvex_string_map {
  size_t count;
  const corvex_string_pair* items;
} corvex_string_map;

/* The listener handed to `create_player`. It stays valid, unchanged, until
 * `destroy_player` of that player returns. `notify` receives each event:
 * `what` (an event code: 1 prepared, 2 playback complete, 3 buffering update,
 * 4 seek complete, 6 started, 7 paused, 8 stopped, 9 skipped, 100 error,
 * 200 info, ...), two extras (for 200, `extra1` is the info code) and an
 * optional map (null when the event has none) that is valid only during the
 * call. `creation_options` are read by `create_player` only. */
typedef struct corvex_listener {
  void* context;
  void(CORVEX_CALL* notify)(void* context, int32_t what, int32_t extra1, int32_t extra2, const corvex_string_map* info);
  const corvex_string_map* creation_options;
} corvex_listener;

typedef struct corvex_player corvex_player;

/* The player's commands. Results of 0 mean success. `prepare` only starts the
 * preparation: its outcome arrives as event 1 (prepared) or 100 (error); a
 * `stop` while preparing ends it with event 8. Positions and durations are
 * milliseconds; a negative value means "not known". */
typedef struct corvex_player_ops {
  int32_t(CORVEX_CALL* prepare)(corvex_player* player, const char* url, const corvex_string_map* headers);
  int32_t(CORVEX_CALL* start)(corvex_player* player);
  int32_t(CORVEX_CALL* pause)(corvex_player* player);
  int32_t(CORVEX_CALL* stop)(corvex_player* player);
  int32_t(CORVEX_CALL* seek_to)(corvex_player* player, int32_t position_ms);
  int32_t(CORVEX_CALL* set_volume)(corvex_player* player, float left, float right);
  int32_t(CORVEX_CALL* set_option)(corvex_player* player, const char* key, const char* value);
  int64_t(CORVEX_CALL* current_position)(corvex_player* player);
  int64_t(CORVEX_CALL* duration)(corvex_player* player);
  int64_t(CORVEX_CALL* playable_duration)(corvex_player* player);
  int32_t(CORVEX_CALL* is_playing)(corvex_player* player); /* 1 playing, 0 not */
} corvex_player_ops;

/* What `create_player` returns: the SDK's object, reached through `ops`. */
struct corvex_player {
  const corvex_player_ops* ops;
};

/* The SDK's function table, entries 0 to 8 in this order. The module calls
 * entries 0, 1, 6 and 7 only. */
typedef struct CorvexSdkApi {
  const char*(CORVEX_CALL* version)(void);                                     /* 0 */
  int32_t(CORVEX_CALL* bind_network_library)(uint64_t znet_pointer);           /* 1: 0 = success */
  void*(CORVEX_CALL* entry2)(const char* text);                                /* 2: not called */
  int32_t(CORVEX_CALL* entry3)(const char* a, const char* b);                  /* 3: not called */
  int32_t(CORVEX_CALL* entry4)(const char* a, const char* b, char** out);      /* 4: not called */
  int32_t(CORVEX_CALL* entry5)(void);                                          /* 5: not called */
  corvex_player*(CORVEX_CALL* create_player)(const corvex_listener* listener); /* 6: null on failure */
  void(CORVEX_CALL* destroy_player)(corvex_player* player);                    /* 7 */
  int64_t(CORVEX_CALL* clock_ns)(void);                                        /* 8: not called */
} CorvexSdkApi;

/* The player library's one entry point. */
typedef const CorvexSdkApi*(CORVEX_CALL* getCorvexSDKC_fn)(void);
#define CORVEX_SDK_ENTRY_NAME "getCorvexSDKC"

#ifdef __cplusplus
}
#endif

#endif /* OSTREL_MEDIA_CORVEX_SDK_H */
