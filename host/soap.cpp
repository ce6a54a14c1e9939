// Calls of a gateway's actions, see soap.h.
#include "soap.h"

#include <charconv>

#include "transfer.h"
#include "xml_text.h"

namespace host {

namespace {

constexpr int least_error = 400;  // UPnP error codes, both included
constexpr int greatest_error = 899;

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
  return code >= least_error && code <= greatest_error ? code : SOAP_BAD_ANSWER;
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
  if (const auto error = element_text(transfer.body(), "errorCode")) return {error_in(*error), {}};
  const bool answered = element_text(transfer.body(), std::string(action) + "Response").has_value();
  if (transfer.status() != 200 || !answered) return {SOAP_BAD_ANSWER, {}};
  return {SOAP_OK, transfer.body()};
}

std::string element_of(const SoapAnswer& answer, std::string_view name) {
  return element_text(answer.xml, name).value_or("");
}

}  // namespace host
