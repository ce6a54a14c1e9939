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

TEST(Address, TheFirstInterfacesTextsEndInTheirFields) {
  const auto endless = [](ACT_IF_INFO* all, int* index) {
    EXPECT_EQ(*index, 0);
    std::memset(all, 'x', sizeof(*all));
    std::memset(all + 1, 'y', sizeof(*all));
    return *index = 7;
  };
  ACT_IF_INFO out{};
  EXPECT_EQ(first_iface(endless, out), 7);
  for (const char* end : {out.mac, out.mask, out.gw, out.name, out.name + sizeof(out.name)}) EXPECT_EQ(end[-1], '\0');
  EXPECT_EQ(out.ip, std::string(sizeof(out.ip) - 1, 'x'));
}

TEST(Address, TheUidIsTheModelAndTheEndOfTheMac) {
  const struct {
    std::string model;
    int size;
    const char* missing;
    int result;
    std::string uid;
  } rows[] = {
      {"LC-100", uid_len, "", 1, "LC-100_0A0B0C"},
      {std::string(80, 'x'), 1, "", 1, std::string(56, 'x') + "_0A0B0C"},
      {"LC-100", 0, "", 0, "old"},
      {"LC-100", -1, "", 0, "old"},
      {"", 1, "dev_get_model_name", 0, "old"},
      {"LC-100", 1, "tessel_get_mac3", 0, "old"},
  };
  for (const auto& row : rows) {
    fake_reset();
    fake.model = row.model;
    fake.mac3 = "0A0B0CDD";
    fake.always[row.missing] = 0;
    char uid[uid_len] = "old";
    EXPECT_EQ(make_uid(uid, row.size), row.result) << row.model << row.size;
    EXPECT_EQ(uid, row.uid);
  }
}

class Net : public FakeTest {
 protected:
  Trace trace{{{"tessel_get_skyport_url " + std::string(63, 'd'), "host"},
               {"get_redirsrv_ip", "recall"},
               {"cre_get_skyport_domain_ip", ""},
               {"net_get_", ""}}};

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
  const std::string endless(90, '1'), cut(63, '1'), blank(90, ' '), blank_name(63, ' '), blank_ip(15, ' ');
  const struct {
    std::string host, configured, remembered;
    int result;
    std::string ip, trace;
  } rows[] = {
      {"192.0.2.10", "192.0.2.9", "", 1, "192.0.2.10",
       "host/rdurl=192.0.2.10/redirip=192.0.2.9, gethostbyname_addr=192.0.2.10/set_redirsrv_ip 192.0.2.10/"},
      {"192.0.2.10", "192.0.2.10", "", 1, "192.0.2.10",
       "host/rdurl=192.0.2.10/redirip=192.0.2.10, gethostbyname_addr=192.0.2.10/"},
      {"192.0.2.10", endless, "", 1, "192.0.2.10",
       "host/rdurl=192.0.2.10/redirip=" + cut + ", gethostbyname_addr=192.0.2.10/set_redirsrv_ip 192.0.2.10/"},
      {"no such host", "192.0.2.9", "192.0.2.8", 1, "192.0.2.8",
       "host/rdurl=no such host/get name failed/recall/use addr=192.0.2.8/"},
      {"no such host", "192.0.2.9", "", 0, "", "host/rdurl=no such host/get name failed/recall/"},
      {"", "192.0.2.9", "192.0.2.8", 0, "", "host/"},
      {blank, "192.0.2.9", blank, 1, blank_ip,
       "host/rdurl=" + blank_name + "/get name failed/recall/use addr=" + blank_ip + "/"},
  };
  for (const auto& row : rows) {
    begin();
    fake.domain = std::string(90, 'd');
    fake.redirect_host = row.host;
    fake.domain_ip = row.configured;
    fake.stored_redirect_ip = row.remembered;
    char ip[ip_len] = "";
    EXPECT_EQ(resolve_redirect_server(ip), row.result) << row.host;
    EXPECT_EQ(ip, row.ip);
    EXPECT_EQ(trace.take(), row.trace);
  }
}

}  // namespace

}  // namespace kestrel
