// Reads a variable of the process environment as it is now, including
// changes the script made with process.env after start-up.
#pragma once

#include <string>

namespace ostrel {
// Empty when the variable is not set.
std::string read_environment(const char* name);
}  // namespace ostrel
