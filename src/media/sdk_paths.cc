#include "sdk_paths.h"

namespace ostrel::media {

namespace fs = std::filesystem;

std::string join_library_path(std::string_view dir, std::string_view name, char separator) {
  std::string out(dir);
  if (!out.empty() && out.back() != '/' && out.back() != '\\') out.push_back(separator);
  out.append(name);
  return out;
}

bool is_absolute_folder(std::string_view dir) {
#ifdef _WIN32
  auto sep = [](char c) { return c == '\\' || c == '/'; };
  auto letter = [](char c) { return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z'); };
  // "C:\x" (a drive and its root), or "\\server\share" and "\\?\C:\x" (two
  // separators and a name: UNC and device paths). "C:x", "\x" and "x" are
  // relative to a current directory.
  if (dir.size() >= 3 && letter(dir[0]) && dir[1] == ':' && sep(dir[2])) return true;
  return dir.size() >= 3 && sep(dir[0]) && sep(dir[1]) && !sep(dir[2]);
#else
  return !dir.empty() && dir.front() == '/';
#endif
}

fs::path ancestor(const fs::path& p, int n) {
  fs::path out = p;
  for (int i = 0; i < n; ++i) out = out.parent_path();
  return out;
}

sdk_layout choose_layout(const fs::path& module_path) {
  if (!module_path.has_parent_path()) return sdk_layout::installed;
  fs::path p1 = module_path.parent_path();
  if (!p1.has_parent_path()) return sdk_layout::installed;
  return p1.parent_path().filename() == fs::path("build") ? sdk_layout::development : sdk_layout::installed;
}

std::vector<sdk_candidate> development_candidates(const fs::path& module_path) {
#ifdef _WIN32
  const char* platform = "win";
#else
  const char* platform = "linux";
#endif
  return {
      {ancestor(module_path, 7) / "assets" / "corvex", "win_relative_corvex"},
      {ancestor(module_path, 8) / "assets" / "corvex", "win_dev_workspace"},
      {ancestor(module_path, 3) / "corvex_lib" / platform / "lib" / "x86_64", "win_dev_lib"},
  };
}

std::vector<sdk_candidate> installed_candidates(const fs::path& install_location) {
  if (install_location.empty()) return {};
  return {{install_location / "resources" / "assets" / "corvex", "win_absolute_install"}};
}

std::string path_to_utf8(const fs::path& p) {
  std::u8string s = p.u8string();
  return std::string(s.begin(), s.end());
}

fs::path path_from_utf8(std::string_view utf8) {
  return fs::path(std::u8string(utf8.begin(), utf8.end()));
}

}  // namespace ostrel::media
