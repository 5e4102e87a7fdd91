#include <napi.h>
NAPI_MODULE_INIT() { return exports; }
