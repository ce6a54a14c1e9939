// What the bench service reads of a request: the Authorization header (first line of the input) and the body, up to
// the elements of an update.
#include <algorithm>

#include "../../skyport/digest.h"
#include "../../skyport/request_body.h"
#include "fuzz.h"
#include "support/nettle_cipher.h"

/// Instead of a header: the body is not sealed yet. No mutation of a sealed one is ever XML.
constexpr std::string_view plain_xml = "xml\n";

/// The elements of an update, as they are wanted.
std::string update() {
  std::string text = "<dev>\n";
  for (const skyport::Element& element : skyport::update_elements) {
    const std::string path = element.path, name = path.substr(path.find('/') + 1);
    if (path == "ch/chno") text += "</dev>\n<ch>\n";
    const char* const value = element.text == skyport::Text::http ? "HTTP" : name == "prot" ? "TP" : "1";
    text += "<" + name + ">" + value + "</" + name + ">\n";
  }
  return text + "</ch>\n";
}

Texts fuzz_seeds() {
  const std::string fields = R"(username="HID00001", realm="sky", nonce="ab", uri="/ext.html", qop=auth, nc=00000001)";
  return {
      "Digest " + fields + "\n" + nettle_cipher::seal("012345<?xml version=\"1.0\"?>\n<ldev>\n</ldev>\n"),
      "Digest realm=\"a \\\"q\\\" , b\" , NC = 1\n" + nettle_cipher::seal(std::string("999999<a/>\0\0\0", 13)),
      "Basic YTpi\n" + nettle_cipher::seal("12345x<ldev>"),
      std::string(plain_xml) + "000000" + std::string(skyport::xml_head) + update() + std::string(skyport::xml_tail),
      std::string(plain_xml) + "000000" + std::string(skyport::xml_head) +
          "<dev>\n<hid>&#233;&lt;\xc3\xa9</hid><a><b/></a></dev>x<?p?><!-- c -->" + std::string(skyport::xml_tail)};
}

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string input = text_of(data, size), header = input.substr(0, input.find('\n'));
  skyport::Credentials fields;
  if (skyport::parse_authorization(header, fields)) {
    require(header.size() > 6 && (header[0] | 0x20) == 'd', "only Digest is taken");
    for (const auto& [name, value] : fields) {
      require(!name.empty() && std::ranges::none_of(name, [](char c) { return c >= 'A' && c <= 'Z'; }), "lower case");
      require(value.size() <= header.size(), "a value stands in the header");
    }
  }
  const std::string text = input.substr(std::min(header.size() + 1, input.size()));
  const std::string sent =
      header + "\n" == plain_xml ? nettle_cipher::seal(text + std::string(-text.size() % 8, '\0')) : text;
  skyport::RequestBody body;
  skyport::Fields leaves;
  const std::string error = skyport::read_body(sent, skyport::update_elements, body, leaves);
  require(!error.empty() || leaves.size() == std::size(skyport::update_elements), "an update is whole, or refused");
  if (!body.error.empty()) return 0;
  const std::string read = body.digits + body.xml, plain = nettle_cipher::unseal(sent);
  require(body.digits.size() == 6 && body.digits.find_first_not_of("0123456789") == read.npos, "six digits");
  require(plain.starts_with(read) && plain.size() - read.size() < 8, "the body is what was sent");
  require(plain.find_first_not_of('\0', read.size()) == plain.npos, "nothing but zeros behind it");
  return 0;
}
