// What a platform's libraries may hand over: texts of any length and content, without an end, from the identity over
// START to the device update. The input is the texts, with a byte FF between them.
#include <netdb.h>

#include <cstring>

#include "core/device_context.h"
#include "core/text.h"
#include "fake_platform/fake_platform.h"
#include "fuzz.h"
#include "regstate/handlers.h"
#include "regstate/state_init.h"
#include "support/nettle_cipher.h"

using namespace kestrel;

extern "C" hostent* gethostbyname(const char* name) {
  static char address[] = {'\xc0', 0, 2, 10};
  static char* addresses[] = {address, nullptr};
  static hostent found{nullptr, nullptr, AF_INET, 4, addresses};
  return std::strlen(name) % 2 == 0 ? &found : nullptr;
}

Texts fuzz_seeds() {
  return {
      "LC-1200\xff"
      "1.2.0\xfflbskyport.test\xffHID00001\xffsecret\xff"
      "192.168.1.20\xff",
      std::string(70, 'm') + "\xff" + std::string(300, 'f') + "\xff",
      "\xff\xffnull\xff%s%n%d<&>\"\r\n: x\xff"
      "255.255.255.255"};
}

namespace {

/// Deals the input's texts out, over and over.
class Deal {
 public:
  explicit Deal(const std::string& input) : texts_(split(input, "\xff")) {}
  const std::string& next() { return texts_[at_++ % texts_.size()]; }
  /// Fills a whole record with a text, repeated up to its last byte.
  template <typename Record>
  void fill(Record& record) {
    const std::string text = next() + "x";
    auto* bytes = reinterpret_cast<char*>(&record);
    for (std::size_t i = 0; i < sizeof(record); ++i) bytes[i] = text[i % text.size()];
  }

 private:
  Texts texts_;
  std::size_t at_ = 0;
};

template <typename... Fields>
void require_ends(const Fields&... fields) {
  require((... && (std::memchr(fields, '\0', sizeof(fields)) != nullptr)), "every text of the record has an end");
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static DeviceContext now, last;
  fake_reset();
  Deal deal(text_of(data, size));
  for (std::string* text :
       {&fake.model, &fake.firmware, &fake.domain, &fake.hid, &fake.password, &fake.domain_ip, &fake.redirect_host,
        &fake.spt_version, &fake.proxy_host, &fake.mac3, &fake.stored_redirect_ip, &fake.challenge.realm,
        &fake.challenge.nonce, &fake.challenge.algorithm, &fake.challenge.qop, &fake.alias, &fake.router_ip}) {
    *text = deal.next();
  }
  fake.proxy_port = fake.http_port = static_cast<int>(size * 7919);
  fake.refer_path = "/dev/null";
  fake.interfaces.resize(2);
  for (ACT_IF_INFO& info : fake.interfaces) deal.fill(info);
  deal.fill(fake.igd);
  fake.mappings = {{80, {deal.next()}}, {8080, {deal.next()}}};
  for (int i = 0; i < 9; ++i)
    fake.responses.push_back({i % 4 != 3, i % 3 == 1 ? 401 : 200, nettle_cipher::seal(deal.next())});
  zero(now);
  now.last = &last;
  now.run = 1;
  fake.on_wait = [&](unsigned) { store_word(now.run, 0U); };  // an account that never comes
  state_init(now);
  for (const StateHandler handler : {go_START, go_IpReady, go_PublicMode, go_LumenDevPartDone}) handler(&now);
  require_ends(now.uid, now.hid, now.redir_ip, now.da_ip, now.e.ip, now.e.port, now.i.ip, now.i.port, now.ue.ip,
               now.proxy.ip, now.proxy.port, now.active_if.ip, now.active_if.name, now.auth_info.user,
               now.auth_info.pass, now.auth_info.realm, now.auth_info.nonce, now.igd.friendlyName,
               now.igd.presentationURL);
  return 0;
}
