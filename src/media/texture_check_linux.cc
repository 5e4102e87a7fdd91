#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <unistd.h>

#include <cstring>
#include <string>

#include "texture_check.h"

namespace ostrel::media {

namespace {

bool render_node_opens() {
  DIR* dir = opendir("/dev/dri");
  if (!dir) return false;
  bool ok = false;
  while (dirent* e = readdir(dir)) {
    if (std::strncmp(e->d_name, "renderD", 7) != 0) continue;
    int fd = open((std::string("/dev/dri/") + e->d_name).c_str(), O_RDWR | O_CLOEXEC);
    if (fd >= 0) {
      close(fd);
      ok = true;
      break;
    }
  }
  closedir(dir);
  return ok;
}

bool egl_loads() {
  void* egl = dlopen("libEGL.so.1", RTLD_NOW | RTLD_LOCAL);
  if (!egl) return false;
  bool ok = dlsym(egl, "eglGetDisplay") != nullptr;
  dlclose(egl);
  return ok;
}

}  // namespace

bool test_external_texture_support() {
  return render_node_opens() && egl_loads();
}

}  // namespace ostrel::media
