// What two waiting threads cost: one in select for 15 s, over and over, one in a longer wait. It links to the same
// libraries as the daemon.
#include <poll.h>
#include <pthread.h>
#include <sys/select.h>

static void* wait_for_datagrams(void* unused) {
  for (;;) {
    struct timeval limit = {15, 0};
    select(0, NULL, NULL, NULL, &limit);
  }
  return unused;
}

int main(void) {
  pthread_t thread;
  if (pthread_create(&thread, NULL, wait_for_datagrams, NULL) != 0) return 1;
  for (;;) poll(NULL, 0, 300 * 1000);
}
