// net/: addresses and where the servers are.
#include "net/address.h"

#include <cstring>

#include "core/device_context.h"
#include "fake_platform/fixture.h"
#include "net/server_location.h"
#include "support/trace.h"

namespace kestrel {
namespace {

TEST(Address, OnlyTheThreeRangesArePrivate) {
  for (const char* ip :
       {"10.0.0.0", "10.255.255.255", "172.16.0.0", "172.31.255.255", "192.168.0.0", "192.168.255.255"})
    EXPECT_EQ(is_private_ip(ip), 1) << ip;
  for (const char* ip : {"9.255.255.255", "11.0.0.0", "172.15.255.255", "172.32.0.0", "192.167.255.255", "192.169.0.0",
                         "127.0.0.1", "255.255.255.255", "", "192.168.0.256", "10.0.0.1.2"})
    EXPECT_EQ(is_private_ip(ip), 0) << ip;
}

class Net : public FakeTest {
 protected:
  Trace trace{{{"tessel_get_skyport_url skyport.test", "host"}, {"cre_get_skyport_domain_ip", ""}, {"net_get_", ""}}};

  void begin() {
    fake_reset();
    trace.listen();
  }
};

TEST_F(Net, ProxyAddress) {
  const struct {
    const char* host;
    int port, result;
    const char *found, *trace;
  } rows[] = {
      {"192.0.2.77", 65535, 1, "192.0.2.77:65535", "proxy addr=192.0.2.77:65535/"},
      {"1.23", 1, 1, "1.0.0.23:1", "proxy addr=1.0.0.23:1/"},
      {"192.0.2.77", 0, 0, "old:old", ""},
      {"192.0.2.77", -5, 0, "old:old", ""},
      {"1.2", 8080, 0, "old:old", ""},
      {"no such host", 8080, 0, "old:old", "can not get proxy ip by name./"},
  };
  for (const auto& row : rows) {
    begin();
    fake.proxy_host = row.host;
    fake.proxy_port = row.port;
    char ip[ip_len] = "old";
    char port[port_len] = "old";
    EXPECT_EQ(get_proxy_addr(ip, port), row.result) << row.host << row.port;
    EXPECT_EQ(std::string(ip) + ":" + port, row.found);
    EXPECT_EQ(trace.take(), row.trace);
  }
}

TEST_F(Net, RedirectServerIsResolvedRememberedOrRecalled) {
  struct Row {
    std::string host, configured, remembered;
    int result;
    std::string ip;
    Texts stored, log;
  };
  const std::string endless(90, '1');
  const Texts kept = {"set_redirsrv_ip 192.0.2.10"};
  // clang-format off
  const Row rows[] = {
      {"192.0.2.10", "192.0.2.9", "", 1, "192.0.2.10", kept,
       {"rdurl=192.0.2.10\n", "redirip=192.0.2.9, gethostbyname_addr=192.0.2.10\n"}},
      {"192.0.2.10", "192.0.2.10", "", 1, "192.0.2.10", {},
       {"rdurl=192.0.2.10\n", "redirip=192.0.2.10, gethostbyname_addr=192.0.2.10\n"}},
      {"192.0.2.10", endless, "", 1, "192.0.2.10", kept,
       {"rdurl=192.0.2.10\n", "redirip=" + endless.substr(0, 63) + ", gethostbyname_addr=192.0.2.10\n"}},
      {"no such host", "192.0.2.9", "192.0.2.8", 1, "192.0.2.8", {},
       {"rdurl=no such host\n", "get name failed\n", "use addr=192.0.2.8\n"}},
      {"no such host", "192.0.2.9", "", 0, "", {}, {"rdurl=no such host\n", "get name failed\n"}},
      {"", "192.0.2.9", "192.0.2.8", 0, "", {}, {}},
  };
  // clang-format on
  for (const Row& row : rows) {
    fake_reset();
    fake.redirect_host = row.host;
    fake.domain_ip = row.configured;
    fake.stored_redirect_ip = row.remembered;
    char ip[ip_len] = "";
    EXPECT_EQ(resolve_redirect_server(ip), row.result) << row.host;
    EXPECT_EQ(ip, row.ip);
    EXPECT_EQ(fake_calls({"set_redirsrv_ip"}), row.stored) << row.host << row.configured;
    EXPECT_EQ(fake.log, row.log);
    EXPECT_EQ(fake_calls({"tessel_get_skyport_url"}), Texts{"tessel_get_skyport_url skyport.test"});
  }
}

}  // namespace

}  // namespace kestrel
