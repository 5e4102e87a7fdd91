// Finding, loading and initialising the media SDK: the module-wide state
// (one per process, never reset while the module is loaded), LoadCorvexSdk,
// the automatic search InitCorvex, InitCorvexV2 from one directory, and the
// binding of the host's network library. Every attempt is logged and
// reported as a statistic (media_stats.h).
//
// The state is process-wide and guarded by one lock, so the main thread and
// Workers may initialise at the same time; `sdk_inited` and `sdk_api` may be
// read from any thread.
#pragma once

#include <cstdint>
#include <string>

#include "corvex_sdk.h"

namespace ostrel::media {

bool sdk_inited() noexcept;
// The SDK's function table; null before a load and when the player library
// had no entry point.
const CorvexSdkApi* sdk_api() noexcept;
std::string corvex_source();
std::string last_load_error();

// Loads the three libraries from `dir` (UTF-8; empty: by bare name) in
// order and resolves the entry point. 0 on success, -1 on failure. Once the
// player library is loaded (even without its entry point) it returns 0 at
// once.
int LoadCorvexSdk(const std::string& dir);

// The automatic search over the module's layout (see sdk_paths.h).
void InitCorvex();
// Initialises from one directory. False when the SDK was already
// initialised (nothing done, nothing logged): of several environments
// racing to initialise, only one goes on to bind the network library.
bool InitCorvexV2(const std::string& dir);

// The network-library half of InitCorvexSync, after InitCorvexV2:
// `pointer_ok` (a BigInt was given), `available` (znetAvailable), `pointer`;
// `read_error` is the text of a failure to read them (then nothing is bound).
void BindZNetPointer(bool pointer_ok, bool available, std::uint64_t pointer, const std::string& read_error = {});

// Entry 0 ("" without a table), entry 6 and entry 7 (null / nothing without
// a table).
std::string sdk_version();
corvex_player* sdk_create_player(const corvex_listener* listener);
void sdk_destroy_player(corvex_player* player) noexcept;

}  // namespace ostrel::media
