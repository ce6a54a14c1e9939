// START: gathers the addresses, brings the service's enable state up to date and learns the access server.
#include <strings.h>
#include <cstring>

#include "core/debug_log.h"
#include "core/text.h"
#include "core/wait.h"
#include "net/address.h"
#include "net/server_location.h"
#include "platform/sptcontrol.h"
#include "platform/tessel.h"
#include "platform/tesselcfg.h"
#include "regstate/handlers.h"
#include "regstate/steps.h"
#include "service/requests.h"

namespace kestrel {

namespace {

constexpr unsigned retry_s = 10;  // when the camera's network or settings are not ready yet
constexpr int daip_attempts = 3;
constexpr std::size_t name_len = 64;

void publish_uri() {
  char domain[name_len] = "";
  char ip[name_len] = "";
  char host[name_len] = "";
  char uri[sizeof("http://") + name_len];
  cre_get_skyport_domain_ip(domain, ip);
  terminate(domain);
  // The load balancer's prefix is not part of the name under which the service is known.
  const char* name = strncasecmp(domain, "lb", 2) == 0 ? domain + 2 : domain;
  tessel_get_skyport_url(name, host);
  terminate(host);
  format_text(uri, sizeof(uri), "http://%s", host);
  SetSptURI(uri);
}

void find_proxy(DeviceContext& ctx) {
  char ip[ip_len] = "";
  char port[port_len] = "";
  if (get_proxy_addr(ip, port) == 0) {
    debug_log(" [kestreld] *** get proxy ip failed!\n");
    return;
  }
  store_text(ctx.proxy.ip, ip);
  store_text(ctx.proxy.port, port);
  debug_log(" [kestreld]: proxy srv:(%s):(%s)\n", ip, port);
}

bool find_redirect_server(DeviceContext& ctx) {
  char ip[ip_len] = "";
  const int found = resolve_redirect_server(ip);
  store_text(ctx.redir_ip, ip);
  if (found == 0) debug_log(" [kestreld] *** get ddns ip failed!\n");
  return found != 0;
}

bool find_own_address(DeviceContext& ctx) {
  debug_log(" ***[START]***\n");
  const int iface = first_iface(tessel_get_active_iface, ctx.active_if);
  if (iface < 1) {
    debug_log(" [kestreld]: *** No IP\n");
    return false;
  }
  debug_log(" [kestreld]: iface=(%d) active ip is=%s\n", iface, ctx.active_if.ip);
  copy_text(ctx.i.ip, ctx.active_if.ip);
  int port = 0;
  if (net_get_http_srv_port(&port) == 0) {
    debug_log(" [kestreld]: *** get http srv port failed\n");
    return false;
  }
  format_text(ctx.i.port, sizeof(ctx.i.port), "%d", port);
  return true;
}

bool find_access_server(DeviceContext& ctx) {
  debug_log(" IsNeedQueryDAIP=%d\n", static_cast<int>(ctx.IsNeedQueryDAIP));
  if (ctx.IsNeedQueryDAIP == 0) return true;
  debug_log(" must Query DAIP\n");
  for (int attempt = 0; attempt < daip_attempts; ++attempt) {
    if (attempt > 0 && exit_requested(ctx)) break;
    if (query_daip(ctx) == request_ok) {
      ctx.IsNeedQueryDAIP = 0;
      return true;
    }
  }
  debug_log(" get daip fail!\n");
  return false;
}

}  // namespace

void go_START(DeviceContext* ctx) {
  publish_uri();
  find_proxy(*ctx);
  if (!find_redirect_server(*ctx) || !find_own_address(*ctx)) return wait_while(ctx->run, retry_s);
  const int enabled = read_enable_switch(*ctx);
  // A store that is not ready yet says nothing about what the user wants.
  if (enabled < 0) return wait_while(ctx->run, retry_s);
  const bool told = enabled == ctx->Last_Spt_Enabled || report_enable_up_to_3(*ctx, enabled);
  // IpReady overwrites a LumenDevNotReady that a guarded request wrote before a later attempt succeeded.
  set_state(*ctx, told && enabled != 0 && find_access_server(*ctx) ? IpReady : LumenDevNotReady);
}

}  // namespace kestrel
