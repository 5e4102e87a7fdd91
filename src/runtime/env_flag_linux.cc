#include <cstdlib>

#include "env_flag.h"

namespace ostrel {
std::string read_environment(const char* name) {
  const char* v = std::getenv(name);
  return v ? v : "";
}
}  // namespace ostrel
