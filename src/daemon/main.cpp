// kestreld. The command line is not used.
#include "daemon/kestreld.h"

int main() {
  return kestrel::run_daemon();
}
