// Routers and what pretends to be one: the host's UPnP library in the daemon's order of calls, from the search to the
// port mapping. The input is answers with a mark between them; "S" begins a datagram, a digit the status of an answer.
#include <arpa/inet.h>
#include <curl/curl.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstdarg>
#include <cstring>
#include <list>
#include <pugixml.hpp>

#include "../../host/interfaces.h"
#include "core/device_context.h"
#include "fuzz.h"
#include "upnp/port_mapping.h"

namespace {

constexpr std::string_view mark = "\x1e\x1d";

Texts answers;  // still to come, the next one last

/// A request as libcurl would make it.
struct Request {
  std::string url;
  curl_write_callback take_body = nullptr;
  void* self = nullptr;
  long status = 0, timeout_ms = 0;
};
std::list<Request*> running;  // of the search
std::list<CURLMsg> done;

std::string next_answer() {
  return answers.empty() ? "" : answers.back();
}

/// The next answer without what its first byte says.
std::string take_answer() {
  const std::string text = next_answer();
  if (!answers.empty()) answers.pop_back();
  return text.empty() ? "" : text.substr(1);
}

CURLcode perform(Request& request) {
  const std::string server = request.url.substr(7, request.url.find_first_of("/?#", 7) - 7);
  require(request.url.starts_with("http://") && server.substr(server.rfind('@') + 1).starts_with("192.168.1."),
          "no request leaves the camera's network");
  const char first = next_answer().c_str()[0];
  std::string answer = take_answer();
  if (first == '\0') pass_ms(request.timeout_ms);
  if (first == '\0') return CURLE_OPERATION_TIMEDOUT;
  request.status = first == '2' ? 200 : 500;
  const std::size_t half = answer.size() / 2, rest = answer.size() - half;
  const bool taken = request.take_body(answer.data(), 1, half, request.self) == half &&
                     request.take_body(answer.data() + half, 1, rest, request.self) == rest;
  return taken ? CURLE_OK : CURLE_WRITE_ERROR;
}

}  // namespace

extern "C" {

#undef curl_easy_setopt
#undef curl_easy_getinfo

CURLcode curl_easy_setopt(CURL* handle, CURLoption option, ...) {
  auto& request = *static_cast<Request*>(handle);
  va_list args;
  va_start(args, option);
  if (option == CURLOPT_URL) request.url = va_arg(args, const char*);
  if (option == CURLOPT_COPYPOSTFIELDS)
    require(pugi::xml_document().load_string(va_arg(args, const char*)), "what the router is told is XML");
  if (option == CURLOPT_TIMEOUT_MS) request.timeout_ms = va_arg(args, long);
  if (option == CURLOPT_WRITEFUNCTION) request.take_body = va_arg(args, curl_write_callback);
  if (option == CURLOPT_WRITEDATA) request.self = va_arg(args, void*);
  va_end(args);
  return CURLE_OK;
}

CURLcode curl_easy_getinfo(CURL* handle, CURLINFO info, ...) {
  va_list args;
  va_start(args, info);
  *va_arg(args, long*) = static_cast<Request*>(handle)->status;
  va_end(args);
  return CURLE_OK;
}

CURLMcode curl_multi_poll(CURLM* /*multi*/, curl_waitfd* /*set*/, unsigned /*count*/, int timeout_ms, int* /*ready*/) {
  if (next_answer().empty() || (next_answer()[0] != 'S' && running.empty())) pass_ms(std::max(timeout_ms, 1));
  return CURLM_OK;
}

CURLMcode curl_multi_perform(CURLM* /*multi*/, int* /*left*/) {
  for (Request* request : running) {
    done.push_back({CURLMSG_DONE, request, {}});
    done.back().data.result = perform(*request);
  }
  running.clear();
  return CURLM_OK;
}

CURLMsg* curl_multi_info_read(CURLM* /*multi*/, int* /*left*/) {
  static CURLMsg message;
  if (done.empty()) return nullptr;
  message = done.front();
  done.pop_front();
  return &message;
}

ssize_t recvfrom(int /*fd*/, void* to, std::size_t size, int /*flags*/, sockaddr* from, socklen_t* /*len*/) {
  if (!next_answer().starts_with('S')) return -1;
  const std::string datagram = take_answer();
  sockaddr_in sender{};
  sender.sin_addr.s_addr = htonl(0xC0A80101U + static_cast<unsigned>(datagram.size() % 3));
  std::memcpy(from, &sender, sizeof(sender));
  std::memcpy(to, datagram.data(), std::min(size, datagram.size()));
  return static_cast<ssize_t>(std::min(size, datagram.size()));
}

int poll(pollfd* /*set*/, nfds_t /*count*/, int timeout_ms) {
  pass_ms(timeout_ms);
  return 0;
}

// clang-format off
CURL* curl_easy_init() { return new Request; }
void curl_easy_cleanup(CURL* handle) { delete static_cast<Request*>(handle); }
CURLcode curl_easy_perform(CURL* handle) { return perform(*static_cast<Request*>(handle)); }
CURLMcode curl_multi_add_handle(CURLM*, CURL* handle) { return running.push_back(static_cast<Request*>(handle)), CURLM_OK; }
CURLMcode curl_multi_remove_handle(CURLM*, CURL* handle) { return running.remove(static_cast<Request*>(handle)), CURLM_OK; }
int socket(int, int, int) noexcept { return dup(STDIN_FILENO); }
int bind(int, const sockaddr*, socklen_t) noexcept { return 0; }
int setsockopt(int, int, int, const void*, socklen_t) noexcept { return 0; }
ssize_t sendto(int, const void*, std::size_t size, int, const sockaddr*, socklen_t) { return static_cast<ssize_t>(size); }
// clang-format on

}  // extern "C"

namespace host {

std::vector<Interface> list_interfaces(const Settings& /*settings*/) {
  const std::uint32_t own = inet_addr("192.168.1.20"), mask = inet_addr("255.255.255.0");
  return {{"eth0", 2, true, false, {}, own, mask, inet_addr("192.168.1.1"), 0}};
}
std::optional<Interface> active_interface(const Settings& settings, const TextSetting& /*setting*/) {
  return list_interfaces(settings).front();
}

}  // namespace host

Texts fuzz_seeds() {
  const std::string gap(mark), ok = "2<s:Envelope><s:Body><u:", end = "</s:Body></s:Envelope>" + gap;
  const auto answer = [&](const std::string& action, const std::string& outputs) {
    return ok + action + "Response>" + outputs + "</u:" + action + "Response>" + end;
  };
  const auto failure = [&](int code) {
    return "5<s:Fault><errorCode>" + std::to_string(code) + "</errorCode></s:Fault>" + gap;
  };
  const auto found = [&](const std::string& types) {
    std::string services;
    for (const std::string& type : split(types, " "))
      services += "<service><serviceType>urn:schemas-upnp-org:service:" + type +
                  "</serviceType><controlURL>/c</controlURL></service>";
    return "SHTTP/1.1 200 OK\r\nLOCATION: http://192.168.1.1:5000/d.xml\r\n\r\n" + gap +
           "2<root><URLBase>http://192.168.1.1/</URLBase><device><friendlyName>R&amp;B</friendlyName>"
           "<presentationURL>http://192.168.1.1/</presentationURL><deviceList>" +
           services + "</deviceList></device></root>" + gap;
  };
  const auto entry = [&](const char* action, const std::string& text) {
    return answer(action,
                  "<NewInternalClient>192.168.1.20</NewInternalClient><NewInternalPort>80</NewInternalPort>"
                  "<NewExternalPort>443</NewExternalPort><NewProtocol>TCP</NewProtocol><NewLeaseDuration>0"
                  "</NewLeaseDuration><NewPortMappingDescription>" +
                      text + "</NewPortMappingDescription>");
  };
  const std::string one = found("WANIPConnection:1"), two = found("WANPPPConnection:1 WANIPConnection:2"),
                    ip = answer("GetExternalIPAddress", "<NewExternalIPAddress>198.51.100.7</NewExternalIPAddress>"),
                    mine = entry("GetGenericPortMappingEntry", "cam_0A0B0C-1.2-80"),
                    deleted = answer("DeletePortMapping", ""),
                    here = entry("GetSpecificPortMappingEntry", "cam_0A0B0C-1.2-80"),
                    added = answer("AddPortMapping", "");
  return {
      one + mine + deleted + failure(713) + ip + failure(714) + added + here,
      two + answer("GetStatusInfo", "<NewConnectionStatus>Connected</NewConnectionStatus>") + failure(713) + ip + here,
      one + failure(713) + ip + failure(714) + failure(725) + added + here,
      one + failure(713) + ip + entry("GetSpecificPortMappingEntry", "other") + deleted + failure(402) + added + here,
      one + failure(713) + failure(501) + failure(714) + failure(718) + failure(718) + failure(714) + added +
          failure(714)};
}

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  setenv("KESTREL_CONF", "/dev/null", 1);
  kestrel::current_record.run = 1;
  answers = split(text_of(data, size), mark);
  std::ranges::reverse(answers);
  MupnpIgd igd{};
  if (kestrel::find_gateway(&igd) != 0) return 0;
  for (const char* text : {igd.friendlyName, igd.manufacturer, igd.modelName}) require(std::strlen(text) < 64, "texts");
  kestrel::remove_own_mappings("cam_0A0B0C");
  char ip[16] = "";
  const bool known = kestrel::get_router_address(ip) == 0;
  require(!known || inet_addr(ip) != INADDR_NONE || std::string(ip) == "255.255.255.255", "an address is one");
  const std::uint32_t reload = 0;
  char port[6] = "";
  const bool mapped = kestrel::UPF("cam_0A0B0C", 80, port, &reload) == kestrel::upf_mapped;
  require(mapped == (port[0] != '\0'), "a port is told when it is mapped");
  require(running.empty() && done.empty(), "no request is left");
  return 0;
}
