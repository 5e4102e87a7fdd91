#pragma once

namespace ostrel {
// The add-on's version as script and telemetry see it.
inline constexpr char version_text[] = "1.5.14";
}  // namespace ostrel
