// A clock that stands still: in the place of the C library's gettimeofday and time.
#include <sys/time.h>

#include <ctime>

#include "fake_platform/fake_platform.h"

extern "C" {

int gettimeofday(timeval* now, void* /*zone*/) noexcept {
  *now = {fake.unix_time_s, fake.unix_time_us};
  return fake_result("gettimeofday", 0);
}

time_t time(time_t* now) noexcept {
  if (now != nullptr) *now = fake.unix_time_s;
  return fake.unix_time_s;
}

}  // extern "C"
