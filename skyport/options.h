// The command line of skyport.
#pragma once

#include "requests.h"

namespace skyport {

/// Reads the command line into `settings`. -1 to go on; otherwise the exit status, after help, version or one sentence
/// on standard error.
int read_options(int argc, char** argv, Settings& settings);

}  // namespace skyport
