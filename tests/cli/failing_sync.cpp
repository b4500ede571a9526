// Preloaded into palimbo-cli by the record tests: every fdatasync fails, as it does when the
// disk loses the cached write-back.
#include <cerrno>

extern "C" int fdatasync(int) {
  errno = EIO;
  return -1;
}
