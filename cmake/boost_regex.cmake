# Boost.Regex headers (header-only since Boost 1.76; Debian's libboost1.81-dev)
# for both targets. The mingw-w64 build must not see /usr/include (glibc's
# headers would replace its own), so the build tree gets a folder holding
# only a `boost` link to the system's Boost headers, and that folder is what
# both builds add as a system include directory.
find_path(OSTREL_BOOST_ROOT boost/regex.hpp PATHS /usr/include /usr/local/include NO_DEFAULT_PATH NO_CMAKE_FIND_ROOT_PATH)
if(NOT OSTREL_BOOST_ROOT)
  message(FATAL_ERROR "Boost.Regex headers not found: install Debian's libboost1.81-dev (scripts/setup.sh does)")
endif()
file(STRINGS "${OSTREL_BOOST_ROOT}/boost/version.hpp" boost_version_line REGEX "^#define BOOST_VERSION [0-9]+")
string(REGEX REPLACE "^#define BOOST_VERSION ([0-9]+).*" "\\1" OSTREL_BOOST_VERSION "${boost_version_line}")
if(NOT OSTREL_BOOST_VERSION OR OSTREL_BOOST_VERSION LESS 108100)
  message(FATAL_ERROR "Boost ${OSTREL_BOOST_VERSION} in ${OSTREL_BOOST_ROOT} is older than 1.81: install libboost1.81-dev")
endif()

set(OSTREL_BOOST_INCLUDE "${CMAKE_BINARY_DIR}/boost-include")
file(MAKE_DIRECTORY "${OSTREL_BOOST_INCLUDE}")
file(CREATE_LINK "${OSTREL_BOOST_ROOT}/boost" "${OSTREL_BOOST_INCLUDE}/boost" SYMBOLIC)

add_library(ostrel_boost_regex INTERFACE)
target_include_directories(ostrel_boost_regex SYSTEM INTERFACE "${OSTREL_BOOST_INCLUDE}")
