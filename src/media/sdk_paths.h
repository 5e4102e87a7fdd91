// Where the media SDK's libraries are looked for: the full path of one
// library in a directory, and the candidate directories of the two layouts
// (a development checkout, where the module sits in build/<config>/, and an
// installed application).
#pragma once

#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

namespace ostrel::media {

// `dir`, then `separator` unless `dir` already ends in "/" or "\", then
// `name`; just `name` when `dir` is empty (the system's library search).
std::string join_library_path(std::string_view dir, std::string_view name, char separator);

// True when `dir` (UTF-8) is an absolute path: a drive and its root
// or a UNC or device path on Windows ("C:\x", "\\server\share"), a leading "/" on Linux.
// Empty and relative folders ("x", "C:x", "\x" on Windows) are not.
bool is_absolute_folder(std::string_view dir);

// `p` with its last `n` components removed (the parent of the root is the
// root itself).
std::filesystem::path ancestor(const std::filesystem::path& p, int n);

enum class sdk_layout { development, installed };

// Development when the module path has a parent, that parent has a parent,
// and the last component of the grandparent is exactly "build" (case
// matters: "Build" is the installed layout).
sdk_layout choose_layout(const std::filesystem::path& module_path);

struct sdk_candidate {
  std::filesystem::path dir;
  std::string label;  // corvex_source once loaded from here
};

// The development layout's candidates, in the order they are tried:
// P7/assets/corvex, P8/assets/corvex and P3/corvex_lib/<platform>/lib/x86_64
// (Pn: the module path less its last n components).
std::vector<sdk_candidate> development_candidates(const std::filesystem::path& module_path);
// The installed layout's one candidate, InstallLocation/resources/assets/
// corvex; none when the install location is empty.
std::vector<sdk_candidate> installed_candidates(const std::filesystem::path& install_location);

// UTF-8 text of a path and back.
std::string path_to_utf8(const std::filesystem::path& p);
std::filesystem::path path_from_utf8(std::string_view utf8);

}  // namespace ostrel::media
