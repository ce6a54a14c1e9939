// kestreld. The command line is not used.
#include "core/kestreld.h"

int main() {
  return kestrel::run_daemon();
}
