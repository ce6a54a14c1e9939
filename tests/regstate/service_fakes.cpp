// The service and its servers, see regstate_fakes.h.
#include "core/text.h"
#include "net/server_location.h"
#include "regstate/regstate_fakes.h"
#include "service/requests.h"

namespace kestrel {

Endpoint seen_by_service{};

int called(const std::string& call, int natural) {
  fake_record(call);
  return fake_result(call.substr(0, call.find(' ')).c_str(), natural);
}

int srv_get_eip(DeviceContext* ctx) {
  const int result = called("eip", 1);
  if (result == 1) ctx->e = seen_by_service;
  return result;
}

int srv_get_daip(DeviceContext* /*ctx*/) {
  return called("daip", 1);
}

int srv_update(DeviceContext* dev, unsigned* word, AuthenticateInfo* info) {
  return called(word == &dev->update_word && info == &dev->auth_info ? "update" : "update of something else", 1);
}

int srv_connectback(DeviceContext* /*dev*/) {
  return called("cb", 1);
}

int srv_enable_dev_account(DeviceContext* ctx, int enable, AuthenticateInfo* auth) {
  return called(auth == &ctx->auth_info ? "enable " + std::to_string(enable) : "enable something else", 1);
}

int get_proxy_addr(char* ip, char* port) {
  const int result = called("proxy", 0);
  if (result != 0) copy_text(ip, ip_len, relay.ip);
  if (result != 0) copy_text(port, port_len, relay.port);
  return result;
}

int resolve_redirect_server(char* ip) {
  const int result = called("redirect", 1);
  if (result != 0) copy_text(ip, ip_len, redirect_server);
  return result;
}

int write_refer_file(const char* hid, const char* timestamp) {
  return called("refer " + std::string(hid) + " " + timestamp, 1);
}

}  // namespace kestrel
