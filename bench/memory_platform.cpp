// The getters of a survey, answering from memory: what the finder itself costs, without the settings
// file that the host platform looks at for every one of them. They stand before the library's own.
#include <algorithm>
#include <cstring>

#include "platform/tesselcfg.h"

namespace {

int answer(const char* text, char* out, std::size_t size) {
  const std::size_t len = std::min(std::strlen(text), size - 1);
  std::memcpy(out, text, len);
  out[len] = '\0';
  return 1;
}

int answer_byte(char* out) {
  *out = 1;
  return 1;
}

}  // namespace

int dev_get_brand_name(char* name, unsigned size) {
  return answer("Lumen", name, size);
}
int dev_get_product_name(char* name, unsigned size) {
  return answer("Network Camera", name, size);
}
int dev_get_camera_name(char* name, unsigned size) {
  return answer("Bench", name, size);
}
int dev_get_model_name(char* name, int size) {
  return answer("LC-1200", name, static_cast<std::size_t>(size));
}
int dev_get_oem_version(char* version, int size) {
  return answer("1.2.0", version, static_cast<std::size_t>(size));
}
int dev_get_product_type(char* type) {
  return answer_byte(type);
}
int dev_get_timezone(char* timezone) {
  return answer_byte(timezone);
}
int dev_get_dst(char* dst) {
  return answer_byte(dst);
}
int net_get_dhcp_enable(char* enabled) {
  return answer_byte(enabled);
}

int dev_get_hw_spec(unsigned long* spec) {
  *spec = 1;
  return 1;
}

int net_get_http_srv_port(int* port) {
  *port = 80;
  return 1;
}
