// The page of the status port: its files, compiled in.
#pragma once

#include "http.h"

namespace skyport {

/// "/page.html", "/page.css" or "/page.js", with what lets a browser run nothing else.
Answer page_file(const char* path);

}  // namespace skyport
