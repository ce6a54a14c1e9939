// What the camera and its remote-access service encipher: bodies, answers, request tokens and the
// refer file. All of them are Blowfish in 8-bit cipher feedback, in base64; keys and wrapping differ.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace decode {

enum class Kind {
  body,    // camera to service: six digits, XML, zero bytes up to a multiple of 8
  answer,  // service to camera: XML
  token,   // client nonce of a request: 32 characters of base64 over repeated digits
  refer,   // var data = "..."; timestamp and host id, with a key of its own
};

const char* to_text(Kind kind);
std::optional<Kind> parse_kind(std::string_view text);

/// What came of an input. `text` is what could be read, empty when nothing could; `faults` are
/// sentences on what is wrong with the input, `notes` on what a reader may want to know.
struct Result {
  Kind kind = Kind::body;
  std::string text;
  std::vector<std::string> notes;
  std::vector<std::string> faults;
};

/// Decodes an input of the given kind. Blanks and line ends inside base64 are passed over.
Result decode(Kind kind, std::string_view input);

/// Decodes an input of the kind that it looks like; a fault when it looks like none.
Result decode_any(std::string_view input);

/// The opposite, for making examples: XML for a body or an answer, six digits for a token, timestamp
/// and host id for a refer file. `digits` go in front of a body. A token whose cipher text holds a
/// zero byte is shorter, and is filled with random hexadecimal digits, as the camera does.
Result encode(Kind kind, std::string_view text, std::string_view digits);

}  // namespace decode
