// Linked into the package's Linux module only (OSTREL_GLIBC_COMPAT, preset
// linux-release), whose C++ runtime is linked statically: libstdc++'s
// random_device refers to arc4random, which glibc has only since 2.36. This
// definition, hidden in the module, serves that reference from the kernel's
// getrandom (glibc 2.25), so that the module loads on glibc 2.34.
#include <errno.h>
#include <stdint.h>
#include <stdlib.h>
#include <sys/random.h>

__attribute__((visibility("hidden"))) uint32_t arc4random(void) {
  uint32_t value;
  for (;;) {
    ssize_t n = getrandom(&value, sizeof value, 0);
    if (n == (ssize_t)sizeof value) return value;
    if (n < 0 && errno != EINTR) abort();  // as glibc's own: no randomness is no answer
  }
}
