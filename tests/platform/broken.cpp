// A platform that breaks its contract, a function a way; what is not here is the host platform's.
#include <fcntl.h>
#include <unistd.h>

#include <csignal>
#include <cstring>

#include "platform/tessel.h"
#include "platform/tesselcfg.h"

int cre_get_skyport_enable_state(char* enabled) {
  std::memset(enabled, 1, 2);
  return 1;
}
int get_dev_sip_account(char* hid, char* password) {
  std::strcpy(password, "secret");
  std::strcpy(hid, "10203040");
  hid[-1] = '\0';
  return 1;
}
int dev_get_brand_name(char* name, unsigned /*size*/) {
  std::strcpy(name, "a brand of any length");
  return 1;
}
int get_redirsrv_ip(char* ip) {
  std::memset(ip, '1', 16);
  return 1;
}
int net_get_http_srv_port(int* /*port*/) {
  return 1;
}
int dev_get_model_name(char* name, int /*size*/) {
  std::strcpy(name, "LC");
  return 0;
}
const IF_METRIC* dev_get_if_metric(int* /*count*/) {
  static IF_METRIC one{1, "lo"};
  return &one;
}
int tessel_get_mac3(char* text, unsigned size) {
  std::strncpy(text, "102030", size);
  return open("/dev/null", O_RDONLY) >= 0 ? 1 : 0;
}
int dev_get_dst(char* dst) {
  usleep(1'300'000);
  *dst = 0;
  return 1;
}
int dev_get_timezone(char* /*timezone*/) {
  return raise(SIGKILL);
}
int tessel_get_lock(const char* /*name*/) {
  return 1;
}
void ILibForceClose(void* reader) {
  close(static_cast<ILibHCHTTPReaderObject*>(reader)->ClientSocket);
}
int b64_encode(const void* /*in*/, unsigned /*len*/, void* out) {
  std::memcpy(out, "YQ==YWI=", 8);
  return 4;
}
int cre_set_skyport_domain(char* /*domain*/) {
  return 1;
}
