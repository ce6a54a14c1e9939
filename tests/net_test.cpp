// net/: addresses and where the servers are.
#include "net/address.h"

#include <cstring>

#include "core/device_context.h"
#include "fake_platform/fixture.h"
#include "net/server_location.h"

namespace kestrel {

namespace {

TEST(PrivateIp, OnlyTheThreeRangesArePrivate) {
  const std::pair<const char*, int> rows[] = {
      {"9.255.255.255", 0},
      {"10.0.0.0", 1},
      {"10.255.255.255", 1},
      {"11.0.0.0", 0},
      {"172.15.255.255", 0},
      {"172.16.0.0", 1},
      {"172.31.255.255", 1},
      {"172.32.0.0", 0},
      {"192.167.255.255", 0},
      {"192.168.0.0", 1},
      {"192.168.255.255", 1},
      {"192.169.0.0", 0},
      {"127.0.0.1", 0},
      {"169.254.1.1", 0},
      {"100.64.0.1", 0},
      {"255.255.255.255", 0},
      {"", 0},
      {"192.168.0.256", 0},
      {"null", 0},
      {"10.0.0.1.2", 0},
  };
  for (const auto& [ip, expected] : rows) EXPECT_EQ(is_private_ip(ip), expected) << ip;
}

TEST(PadToBlock, FillsUpToWholeBlocksWithZeros) {
  const std::pair<std::int32_t, std::int32_t> rows[] = {{0, 0}, {1, 8}, {7, 8}, {8, 8}, {13, 16}, {16, 16}, {-3, -3}};
  for (const auto& [len, expected] : rows) {
    unsigned char buffer[32];
    std::memset(buffer, 0xEE, sizeof(buffer));
    std::int32_t now = len;
    pad_to_block(buffer + 8, &now);
    EXPECT_EQ(now, expected) << len;
    for (std::int32_t i = -8; i < 24; ++i) {
      const bool padding = i >= len && i < expected;
      EXPECT_EQ(buffer[i + 8], padding ? 0 : 0xEE) << len << " at " << i;
    }
  }
}

class Net : public FakeTest {};

TEST_F(Net, UidIsModelAndMac) {
  struct Row {
    const char* what;
    const char* model;
    int model_result, mac_result, size, result;
    std::string uid;
  };
  const Row rows[] = {
      {"usual", "LC-100", 1, 1, 64, 1, "LC-100_0A0B0C"},
      {"size is only a switch", "LC-100", 1, 1, 1, 1, "LC-100_0A0B0C"},
      {"size 0", "LC-100", 1, 1, 0, 0, "untouched"},
      {"negative size", "LC-100", 1, 1, -1, 0, "untouched"},
      {"no model", "LC-100", 0, 1, 64, 0, "untouched"},
      {"no mac", "LC-100", 1, 0, 64, 0, "untouched"},
  };
  for (const Row& row : rows) {
    fake_reset();
    fake.model = row.model;
    fake.always = {{"dev_get_model_name", row.model_result}, {"tessel_get_mac3", row.mac_result}};
    char uid[uid_len] = "untouched";
    EXPECT_EQ(make_uid(uid, row.size), row.result) << row.what;
    EXPECT_EQ(uid, row.uid) << row.what;
  }
}

TEST_F(Net, UidOfAnEndlessModelStaysInItsField) {
  fake.model = std::string(100, 'M');
  fake.mac3 = "0A0B0CDDDDDD";
  char uid[uid_len];
  EXPECT_EQ(make_uid(uid, sizeof(uid)), 1);
  EXPECT_STREQ(uid, (std::string(56, 'M') + "_0A0B0C").c_str());
}

TEST_F(Net, ProxyAddress) {
  struct Row {
    const char* host;
    int port, result;
    std::string ip, port_text;
    Texts log;
  };
  const Row rows[] = {
      {"192.0.2.77", 8080, 1, "192.0.2.77", "8080", {"proxy addr=192.0.2.77:8080\n"}},
      {"192.0.2.77", 65535, 1, "192.0.2.77", "65535", {"proxy addr=192.0.2.77:65535\n"}},
      {"1.23", 1, 1, "1.0.0.23", "1", {"proxy addr=1.0.0.23:1\n"}},
      {"192.0.2.77", 0, 0, "old", "old", {}},
      {"192.0.2.77", -5, 0, "old", "old", {}},
      {"", 8080, 0, "old", "old", {}},
      {"1.2", 8080, 0, "old", "old", {}},
      {"no such host", 8080, 0, "old", "old", {"can not get proxy ip by name.\n"}},
  };
  for (const Row& row : rows) {
    fake_reset();
    fake.proxy_host = row.host;
    fake.proxy_port = row.port;
    char ip[ip_len] = "old";
    char port[port_len] = "old";
    EXPECT_EQ(get_proxy_addr(ip, port), row.result) << row.host << row.port;
    EXPECT_EQ(ip, row.ip);
    EXPECT_EQ(port, row.port_text);
    EXPECT_EQ(fake.log, row.log);
  }
}

TEST_F(Net, RedirectServerIsResolvedRememberedOrRecalled) {
  struct Row {
    const char* what;
    std::string host, configured, remembered;
    int result;
    std::string ip;
    Texts calls, log;
  };
  const Row rows[] = {
      {"new address",
       "192.0.2.10",
       "192.0.2.9",
       "",
       1,
       "192.0.2.10",
       {"set_redirsrv_ip 192.0.2.10"},
       {"rdurl=192.0.2.10\n", "redirip=192.0.2.9, gethostbyname_addr=192.0.2.10\n"}},
      {"the stored one",
       "192.0.2.10",
       "192.0.2.10",
       "",
       1,
       "192.0.2.10",
       {},
       {"rdurl=192.0.2.10\n", "redirip=192.0.2.10, gethostbyname_addr=192.0.2.10\n"}},
      {"unknown name",
       "no such host",
       "192.0.2.9",
       "192.0.2.8",
       1,
       "192.0.2.8",
       {"get_redirsrv_ip"},
       {"rdurl=no such host\n", "get name failed\n", "use addr=192.0.2.8\n"}},
      {"unknown and nothing remembered",
       "no such host",
       "192.0.2.9",
       "",
       0,
       "",
       {"get_redirsrv_ip"},
       {"rdurl=no such host\n", "get name failed\n"}},
      {"no host name", "", "192.0.2.9", "192.0.2.8", 0, "", {}, {}},
      {"an address that fills its field",
       "192.0.2.10",
       std::string(90, '1'),
       "",
       1,
       "192.0.2.10",
       {"set_redirsrv_ip 192.0.2.10"},
       {"rdurl=192.0.2.10\n", "redirip=" + std::string(63, '1') + ", gethostbyname_addr=192.0.2.10\n"}},
  };
  for (const Row& row : rows) {
    fake_reset();
    fake.redirect_host = row.host;
    fake.domain_ip = row.configured;
    fake.stored_redirect_ip = row.remembered;
    char ip[ip_len] = "";
    EXPECT_EQ(resolve_redirect_server(ip), row.result) << row.what;
    EXPECT_EQ(ip, row.ip) << row.what;
    EXPECT_EQ(fake_calls({"set_redirsrv_ip", "get_redirsrv_ip"}), row.calls) << row.what;
    EXPECT_EQ(fake.log, row.log) << row.what;
    EXPECT_EQ(fake_calls({"tessel_get_skyport_url"}), Texts{"tessel_get_skyport_url skyport.test"});
  }
}

}  // namespace

}  // namespace kestrel
