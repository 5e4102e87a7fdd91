#include "corvex_names.h"

#include <algorithm>
#include <array>

namespace ostrel::media {

namespace {

struct code_name {
  std::int32_t code;
  const char* name;
};

constexpr std::array event_names = {
    code_name{0, "MEDIA_NOP"},
    code_name{1, "MEDIA_PREPARED"},
    code_name{2, "MEDIA_PLAYBACK_COMPLETE"},
    code_name{3, "MEDIA_BUFFERING_UPDATE"},
    code_name{4, "MEDIA_SEEK_COMPLETE"},
    code_name{5, "MEDIA_SET_VIDEO_SIZE"},
    code_name{6, "MEDIA_STARTED"},
    code_name{7, "MEDIA_PAUSED"},
    code_name{8, "MEDIA_STOPPED"},
    code_name{9, "MEDIA_SKIPPED"},
    code_name{98, "MEDIA_NOTIFY_TIME"},
    code_name{99, "MEDIA_TIMED_TEXT"},
    code_name{100, "MEDIA_ERROR"},
    code_name{200, "MEDIA_INFO"},
    code_name{201, "MEDIA_SUBTITLE_DATA"},
    code_name{202, "MEDIA_META_DATA"},
    code_name{210, "MEDIA_DRM_INFO"},
    code_name{211, "MEDIA_TIME_DISCONTINUITY"},
    code_name{10000, "MEDIA_AUDIO_ROUTING_CHANGED"},
};

constexpr std::array info_names = {
    code_name{1, "MEDIA_INFO_UNKNOWN"},
    code_name{2, "MEDIA_INFO_STARTED_AS_NEXT"},
    code_name{3, "MEDIA_INFO_RENDERING_START"},
    code_name{601, "MEDIA_INFO_RETRY"},
    code_name{602, "MEDIA_INFO_T3"},
    code_name{607, "MEDIA_INFO_WHOLE_FILE_BUFFERING_UPDATE"},
    code_name{608, "MEDIA_INFO_SWITCH_VIDEO"},
    code_name{609, "MEDIA_INFO_LOOP"},
    code_name{610, "MEDIA_INFO_SWITCH_VIDEO_EXCEPTION"},
    code_name{611, "MEDIA_INFO_DROP_FRAME"},
    code_name{612, "MEDIA_INFO_VIDEO_LATENCY_POS"},
    code_name{613, "MEDIA_INFO_VIDEO_LATENCY_NEG"},
    code_name{620, "MEDIA_INFO_HWA_DECODE_ERROR"},
    code_name{621, "MEDIA_INFO_DOWNLOAD_SPEED"},
    code_name{622, "MEDIA_INFO_SWITCH_SAME_SOURCE_RESULT"},
    code_name{623, "MEDIA_INFO_DETECT_BLACK_MARGIN_RESULT"},
    code_name{624, "MEDIA_INFO_DOWNLOAD_PREVIEW"},
    code_name{625, "MEDIA_INFO_FILE_DOWNLOAD_FAILED"},
    code_name{626, "MEDIA_INFO_FIRST_RENDER_AFTER_SURFACE_CHANGED"},
    code_name{627, "MEDIA_INFO_SEI_FRAME_PLAYED"},
    code_name{628, "MEDIA_INFO_INTERCEPT_REQUEST"},
    code_name{629, "MEDIA_INFO_ADAPTIVE_STREAM_SWITCH"},
    code_name{630, "MEDIA_INFO_ADD_SUBTITLE_RESULT"},
    code_name{631, "MEDIA_INFO_RESOLUTION_INFO"},
    code_name{632, "MEDIA_INFO_SPECIFIC_DATA_DOWNLOAD_COMPLETED"},
    code_name{633, "MEDIA_INFO_DETECT_OBVIOUS_NOISE"},
    code_name{634, "MEDIA_INFO_WATERMARK_COORDINATES"},
    code_name{635, "MEDIA_INFO_SWITCH_PLAYER_DONE"},
    code_name{636, "MEDIA_INFO_SUGGEST_SWITCH_SAME_SOURCE"},
    code_name{637, "MEDIA_INFO_TRACK_LANGUAGE_DETECTED"},
    code_name{700, "MEDIA_INFO_VIDEO_TRACK_LAGGING"},
    code_name{701, "MEDIA_INFO_BUFFERING_START"},
    code_name{702, "MEDIA_INFO_BUFFERING_END"},
    code_name{703, "MEDIA_INFO_NETWORK_BANDWIDTH"},
    code_name{800, "MEDIA_INFO_BAD_INTERLEAVING"},
    code_name{801, "MEDIA_INFO_NOT_SEEKABLE"},
    code_name{802, "MEDIA_INFO_METADATA_UPDATE"},
    code_name{804, "MEDIA_INFO_PLAY_AUDIO_ERROR"},
    code_name{805, "MEDIA_INFO_PLAY_VIDEO_ERROR"},
    code_name{900, "MEDIA_INFO_TIMED_TEXT_ERROR"},
    code_name{901, "MEDIA_INFO_DOWNLOAD_RATE_CHANGE"},
    code_name{902, "MEDIA_INFO_DOWNLOADED_BYTES_UPDATE"},
    code_name{904, "MEDIA_INFO_BITRATE_UPDATE"},
    code_name{905, "MEDIA_INFO_CACHED_DURATION_UPDATE"},
    code_name{906, "MEDIA_INFO_STAT_INFO"},
    code_name{907, "MEDIA_INFO_AUDIO_NO_DRIVER"},
};

template <std::size_t N>
const char* find(const std::array<code_name, N>& table, std::int32_t code) {
  auto it = std::find_if(table.begin(), table.end(), [code](const code_name& c) { return c.code == code; });
  return it == table.end() ? nullptr : it->name;
}

}  // namespace

std::string event_name(std::int32_t what) {
  const char* n = find(event_names, what);
  return n ? n : "UNKNOWN";
}

std::string info_name(std::int32_t info) {
  const char* n = find(info_names, info);
  return n ? std::string(n) : "MEDIA_INFO_UNKNOWN(" + std::to_string(info) + ")";
}

std::int32_t listener_code(std::string_view name) {
  static constexpr std::pair<std::string_view, std::int32_t> names[] = {
      {"prepared", 1}, {"playback_complete", 2}, {"buffering_update", 3}, {"seek_complete", 4}, {"started", 6},
      {"paused", 7},   {"stopped", 8},           {"skipped", 9},          {"error", 100},       {"info", 200},
  };
  for (const auto& [n, code] : names) {
    if (n == name) return code;
  }
  return 200;
}

std::string join_t3(const std::vector<std::pair<std::string, std::string>>& map) {
  std::string out;
  for (const auto& [k, v] : map) {
    out += k;
    out += '=';
    for (char ch : v) out += ch == ',' ? '@' : ch;
    out += ',';
  }
  return out;
}

}  // namespace ostrel::media
