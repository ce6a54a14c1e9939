// Calls of a gateway's actions, see soap.h.
#include "soap.h"

#include <charconv>

#include "router_xml.h"
#include "transfer.h"

namespace host {

namespace {

constexpr int least_error = 400;  // UPnP error codes, both included
constexpr int greatest_error = 899;
constexpr std::size_t max_outputs = 32;  // an action has eight at most

/// The text with the characters that XML needs for itself written as entities.
std::string escaped(std::string_view text) {
  std::string out;
  for (const char c : text) {
    switch (c) {
      case '&':
        out += "&amp;";
        break;
      case '<':
        out += "&lt;";
        break;
      case '>':
        out += "&gt;";
        break;
      case '"':
        out += "&quot;";
        break;
      case '\'':
        out += "&apos;";
        break;
      default:
        out += c;
    }
  }
  return out;
}

std::string envelope(const ConnectionService& service, const char* action, const std::vector<SoapArgument>& arguments) {
  std::string xml =
      "<?xml version=\"1.0\"?>\r\n"
      "<s:Envelope xmlns:s=\"http://schemas.xmlsoap.org/soap/envelope/\" "
      "s:encodingStyle=\"http://schemas.xmlsoap.org/soap/encoding/\"><s:Body>";
  xml.append("<u:").append(action).append(" xmlns:u=\"").append(escaped(service.type)).append("\">");
  for (const SoapArgument& argument : arguments) {
    xml.append("<").append(argument.name).append(">").append(escaped(argument.value));
    xml.append("</").append(argument.name).append(">");
  }
  return xml.append("</u:").append(action).append("></s:Body></s:Envelope>\r\n");
}

int error_in(const std::string& text) {
  int code = 0;
  std::from_chars(text.data(), text.data() + text.size(), code);
  return code >= least_error && code <= greatest_error ? code : soap_bad_answer;
}

SoapAnswer read_answer(const std::string& xml, const std::string& action, long status) {
  pugi::xml_document document;
  read_router_xml(xml, document);
  if (const auto error = find_element(document, "errorCode")) return {error_in(text_of(error)), {}};
  const pugi::xml_node response = find_element(document, action + "Response");
  if (status != 200 || !response) return {soap_bad_answer, {}};
  SoapAnswer answer{soap_ok, {}};
  for (const pugi::xml_node output : response) {
    if (answer.outputs.size() == max_outputs) break;
    answer.outputs.emplace(local_name(output), text_of(output));
  }
  return answer;
}

}  // namespace

SoapAnswer soap_call(const ConnectionService& service, const char* action, const std::vector<SoapArgument>& arguments,
                     const Interface& from, const Deadline& deadline) {
  const auto url = local_url(service.control_url, "", from);
  if (!url || deadline.is_over()) return {};
  Transfer transfer(*url, from, deadline);
  transfer.post(envelope(service, action, arguments),
                {"Content-Type: text/xml; charset=\"utf-8\"", "SOAPAction: \"" + service.type + "#" + action + "\"",
                 "Connection: close", "Expect:"});
  if (!transfer.run()) return {};
  return read_answer(transfer.body(), action, transfer.status());
}

std::string output_of(const SoapAnswer& answer, const std::string& name) {
  const auto found = answer.outputs.find(name);
  return found == answer.outputs.end() ? "" : found->second;
}

}  // namespace host
