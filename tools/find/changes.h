// The commands that ask one camera as its administrator, or change it.
#pragma once

#include "commands.h"

namespace finder {

Exit service(const Options& options, const Network& network);
Exit alias(const Options& options, const Network& network);
Exit alias_status(const Options& options, const Network& network);
Exit domain(const Options& options, const Network& network);
Exit operations(const Options& options, const Network& network);

}  // namespace finder
