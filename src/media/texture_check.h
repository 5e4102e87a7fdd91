// Whether decoded video frames can be shared as external GPU textures.
// Windows: true on Windows 8 (6.2) or later, else when Direct3D 11 creates a
// hardware device. Linux: true when a DRM render node (/dev/dri/renderD*)
// opens for reading and writing and the EGL library (libEGL.so.1) loads
// with its eglGetDisplay entry. May throw; the caller treats a throw as
// "not supported".
#pragma once

namespace ostrel::media {

bool test_external_texture_support();

}  // namespace ostrel::media
