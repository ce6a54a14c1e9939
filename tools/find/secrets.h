// Where the administrator's password and a person's consent come from: never the argument list.
#pragma once

#include <string>

namespace finder {

/// The password: first line of `file` when named, else the environment variable KESTREL_PASSWORD,
/// else typed at a prompt without echo, which comes once a run. Throws Failure when there is none or it can't be sent.
std::string read_password(const std::string& file, const std::string& user);

/// Prints the text, which must be printable, and asks "Go on?"; true for an answer that begins with y. Throws Failure
/// when standard input is no terminal.
bool confirm(const std::string& text);

}  // namespace finder
