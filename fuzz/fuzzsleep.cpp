// Linked into the fuzz targets that run the suite's tool (the CAP file, whose
// texts are expanded while it is read, and the substitution): a command's
// output is polled once a second, which would make every input that runs one
// cost seconds. This sleep counts milliseconds for seconds instead, so the poll
// loop, its budget of passes and its outcome stay as they are, only faster.
// It stands in for the C library's sleep within these programs alone; the
// ThreadSanitizer runtime's own sleep is weak and gives way too.
#include <unistd.h>

extern "C" unsigned int sleep(unsigned int seconds) {
  usleep(static_cast<useconds_t>(seconds) * 1000);
  return 0;
}
