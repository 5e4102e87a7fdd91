# Node-API and libuv for both targets.
#
# Linux: the module is a shared object whose Node-API and libuv symbols stay
# undefined and resolve from the node process that loads it.
# Windows (mingw-w64): those functions are imported from "node.exe" through a
# delay-load import library generated here with dlltool from the .def files
# of the node-api-headers package and our own list of libuv functions; the
# module's delay-load hook then binds them on first use.

set(OSTREL_NODE_MODULES "${CMAKE_SOURCE_DIR}/node_modules")
set(NODE_API_HEADERS_DIR "${OSTREL_NODE_MODULES}/node-api-headers")
set(NODE_ADDON_API_DIR "${OSTREL_NODE_MODULES}/node-addon-api")
if(NOT EXISTS "${NODE_API_HEADERS_DIR}/include/node_api.h" OR NOT EXISTS "${NODE_ADDON_API_DIR}/napi.h")
  message(FATAL_ERROR "node-api-headers and node-addon-api are missing: run 'npm run setup' first")
endif()

# uv.h comes from the Node installation (Debian's nodejs ships it, with
# uv/win.h for the cross build): node-gyp's header folder when npm names one
# (a package's "node_gyp_nodedir" config), else the installation of the node
# on PATH, else the usual prefixes.
find_program(OSTREL_NODE node NO_CMAKE_FIND_ROOT_PATH)
set(node_prefixes "$ENV{npm_package_config_node_gyp_nodedir}" "$ENV{npm_config_nodedir}")
if(OSTREL_NODE)
  file(REAL_PATH "${OSTREL_NODE}" node_exe)
  get_filename_component(node_bin "${node_exe}" DIRECTORY)
  get_filename_component(node_prefix "${node_bin}" DIRECTORY)
  list(APPEND node_prefixes "${node_prefix}")
endif()
list(APPEND node_prefixes /usr /usr/local)
list(FILTER node_prefixes EXCLUDE REGEX "^$")
list(TRANSFORM node_prefixes APPEND "/include/node")
find_path(OSTREL_UV_INCLUDE uv.h PATHS ${node_prefixes} NO_DEFAULT_PATH NO_CMAKE_FIND_ROOT_PATH)
if(NOT OSTREL_UV_INCLUDE)
  message(FATAL_ERROR "uv.h not found: install Node.js with its headers (Debian package nodejs)")
endif()

add_library(ostrel_node_api INTERFACE)
# The uv folder goes after the Node-API headers so that their node_api.h wins.
target_include_directories(ostrel_node_api INTERFACE
  "${NODE_API_HEADERS_DIR}/include" "${NODE_ADDON_API_DIR}")
target_include_directories(ostrel_node_api SYSTEM INTERFACE "${OSTREL_UV_INCLUDE}")
target_compile_definitions(ostrel_node_api INTERFACE
  NAPI_VERSION=8 NAPI_CPP_EXCEPTIONS NODE_ADDON_API_DISABLE_DEPRECATED
  # A call into a terminating environment (a Worker being ended) must not
  # abort the process while an error value is wrapped.
  NODE_API_SWALLOW_UNTHROWABLE_EXCEPTIONS)

if(WIN32)
  find_program(OSTREL_DLLTOOL NAMES ${CMAKE_DLLTOOL} x86_64-w64-mingw32-dlltool REQUIRED)
  set(def_sources
    "${NODE_API_HEADERS_DIR}/def/js_native_api.def"
    "${NODE_API_HEADERS_DIR}/def/node_api.def"
    "${CMAKE_SOURCE_DIR}/src/main/uv_imports.def")
  set(merged_def "${CMAKE_BINARY_DIR}/node_imports.def")
  set(delay_lib "${CMAKE_BINARY_DIR}/libnode_delay.a")
  string(REPLACE ";" "|" def_list "${def_sources}")
  add_custom_command(
    OUTPUT "${delay_lib}"
    COMMAND ${CMAKE_COMMAND} -DOUT=${merged_def} "-DINPUTS=${def_list}" -P "${CMAKE_SOURCE_DIR}/cmake/merge_defs.cmake"
    COMMAND ${OSTREL_DLLTOOL} --input-def "${merged_def}" --dllname node.exe --output-delaylib "${delay_lib}"
    DEPENDS ${def_sources} "${CMAKE_SOURCE_DIR}/cmake/merge_defs.cmake"
    COMMENT "Generating the delay-load import library for node.exe"
    VERBATIM)
  add_custom_target(ostrel_node_delaylib DEPENDS "${delay_lib}")
  add_library(ostrel_node_imports STATIC IMPORTED GLOBAL)
  set_target_properties(ostrel_node_imports PROPERTIES IMPORTED_LOCATION "${delay_lib}")
  add_dependencies(ostrel_node_imports ostrel_node_delaylib)
  # The delay-load helper (__delayLoadHelper2) lives in mingw-w64's libmingwex.
  target_link_libraries(ostrel_node_api INTERFACE ostrel_node_imports)
endif()

# Builds a loadable add-on named <name>.node.
function(ostrel_add_node_module name)
  add_library(${name} SHARED ${ARGN})
  set_target_properties(${name} PROPERTIES PREFIX "" SUFFIX ".node"
    CXX_VISIBILITY_PRESET hidden VISIBILITY_INLINES_HIDDEN ON)
  if(WIN32)
    target_link_options(${name} PRIVATE -Wl,--exclude-all-symbols)
    add_dependencies(${name} ostrel_node_delaylib)
  else()
    # Node-API and libuv resolve from the loading process.
    target_link_options(${name} PRIVATE -Wl,--allow-shlib-undefined -Wl,-z,lazy)
  endif()
endfunction()
