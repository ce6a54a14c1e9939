// host/: settings, the lock, the status file, HTTP requests, challenges and base64, through the platform's ABI.
#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <memory>
#include <thread>
#include <utility>
#include <vector>

#include "faults.h"
#include "platform/sptcontrol.h"
#include "platform/tessel.h"
#include "platform/tesselcfg.h"
#include "support/child.h"

namespace {

namespace fs = std::filesystem;
using namespace std::string_literals;

/// `text` with its one `from` replaced.
std::string with(std::string text, const std::string& from, const std::string& to) {
  const std::size_t at = text.find(from);
  EXPECT_NE(at, std::string::npos) << from;
  return at == std::string::npos ? text : text.replace(at, from.size(), to);
}

/// A settings file that begins as the sample, and a run directory.
class Host : public ::testing::Test {
 protected:
  Host() {
    char pattern[] = "/tmp/kestrel_host_XXXXXX";
    dir = mkdtemp(pattern);
    conf = dir + "/camera.conf";
    sample = with(read_file(KESTREL_SAMPLE_CONF), "#run_dir=/run/kestrel", "run_dir=" + dir + "/run/deep");
    write_file(conf, sample);
    setenv("KESTREL_CONF", conf.c_str(), 1);
  }
  ~Host() override { fs::remove_all(dir); }

  std::string dir, conf, sample;
};

// ---- Settings ----

int store_domain() {
  char domain[] = "new.example.org";
  return cre_set_skyport_domain(domain);
}
int store_alias(const std::string& alias, char status) {
  std::string copy = alias;
  return srv_update_aliasname_status(copy.data(), status);
}
int read_model() {
  char text[64];
  return dev_get_model_name(text, sizeof(text));
}
int read_port() {
  int port = 0;
  return net_get_http_srv_port(&port);
}
int read_account() {
  char hid[64], password[64];
  return get_dev_sip_account(hid, password);
}
int read_url() {
  char url[64];
  return tessel_get_skyport_http_url(url);
}

TEST_F(Host, AProblemIsSaidOnceWithFileGroupAndKey) {
  struct Row {
    const char *from, *to;  // edit of the sample
    int (*call)();
    const char* sentence;  // behind the file's name; null for no failure, empty for a failure that is none
  };
  const std::string overlong(1024UL * 1024, '#');
  // clang-format off
  const Row rows[] = {
      {"brand=Lumen", "brand=Lumen", read_model, nullptr},
      {"model=LC-1200\n", "", read_model, "[device] model is missing"},
      {"model=LC-1200", "model=\\qx", read_model, "[device] model cannot be read: "},
      {"http_port=80\n", "http_port=65536\n", read_port, "[network] http_port \"65536\" is not a number from 1 to 65535"},
      {"hid=\npassword=", "hid=\npassword=", read_account, ""},
      {"hid=\npassword=", "hid=ABCD1234\npassword=", read_account, "[skyport] password has 0 bytes and must have 1 to 51"},
      {"hid=\npassword=", "hid=ABCD-234\npassword=x", read_account, "[skyport] hid \"ABCD-234\" is not a host id of letters and digits"},
      {"#url_format=http://", "hid=ABCD1234\nurl_format=http://{name}", read_url, "[skyport] url_format \"http://{name}{alias-or-hid}.{domain}/\" is not an HTTP URL"},
      {"[device]", "no settings", read_model, "these are no settings: "},
      {"[device]", overlong.c_str(), read_model, "cannot read the settings: File too large"},
      {"[device]", "no settings", store_domain, "settings are not stored: these are no settings: "},
      {"", "", [] { return store_alias("\xff\xfe", ALIAS_OK); }, "[skyport] alias is not stored: its text is not UTF-8"},
      {"", "", [] { char text[] = "1.2.3"; return set_redirsrv_ip(text); }, "[skyport] redirsrv_ip is not stored: "},
      {"", "", [] { return cre_set_skyport_enable_state(2); }, ""},
      {"", "", [] { fault = {"write", 1, ENOSPC}; return store_domain(); }, "settings are not stored: cannot be replaced: No space left on device"},
      {"", "", [] { return unlink(getenv("KESTREL_CONF")) + store_domain(); }, "settings are not stored: cannot read the settings: No such file or directory"},
  };
  // clang-format on
  for (const Row& row : rows) {
    write_file(conf, with(sample, row.from, row.to));
    const Child child = run_child([&] {
      const int result = row.call();
      EXPECT_EQ(result, row.sentence == nullptr ? 1 : 0);
      for (int again = 0; row.sentence != nullptr && fs::exists(conf) && again < 3; ++again) row.call();
      return 0;
    });
    const std::string expected = row.sentence == nullptr ? "" : row.sentence;
    EXPECT_EQ(child.status, 0) << row.to << ": " << child.out;
    EXPECT_EQ(std::ranges::count(child.err, '\n'), expected.empty() ? 0 : 1) << row.to << ": " << child.err;
    const std::string said = expected.empty() ? "" : "kestrel: " + conf + ": " + expected;
    EXPECT_EQ(child.err.substr(0, said.size()), said);
  }
}

TEST_F(Host, ASetKeepsCommentsOrderModeAndLink) {
  fs::permissions(conf, fs::perms::owner_read | fs::perms::owner_write | fs::perms::group_read);
  const std::string link = dir + "/link.conf";
  fs::create_symlink("camera.conf", link);
  setenv("KESTREL_CONF", link.c_str(), 1);
  char hid[] = "ABCD1234", ip[] = "203.0.113.9";
  EXPECT_EQ(store_domain() & cre_set_skyport_hid(hid) & set_redirsrv_ip(ip) & cre_set_skyport_enable_state(0), 1);
  const std::string longest = " m\\y;#" + std::string(24, 'x');  // the character behind it would be cut in half
  EXPECT_EQ(store_alias(longest + "\xc3\xa9", ALIAS_OK) & store_alias("wanted", ALIAS_REQUESTED), 1);
  std::string expected = sample;
  for (const auto& [from, to] : {std::pair{"\ndomain=skyport.example.net", "\ndomain=new.example.org"},
                                 {"\nenabled=1", "\nenabled=0"},
                                 {"stored_hid=", "stored_hid=ABCD1234"},
                                 {"redirsrv_ip=", "redirsrv_ip=203.0.113.9"},
                                 {"\nalias=", "\nalias=wanted"},
                                 {"alias_status=0", "alias_status=1"},
                                 {"last_alias=", "last_alias=\\sm\\\\y;#xxxxxxxxxxxxxxxxxxxxxxxx"}}) {
    expected = with(expected, from, to);
  }
  EXPECT_EQ(read_file(conf), expected);
  EXPECT_TRUE(fs::is_symlink(link));
  EXPECT_EQ(fs::status(conf).permissions(), fs::perms(0640));
  char text[64];
  EXPECT_EQ(srv_get_skyport_last_alias_name(text, sizeof(text)), 1);
  EXPECT_EQ(text, longest);
  EXPECT_EQ(store_alias("caf\xc3\xa9", ALIAS_OK) & srv_get_skyport_last_alias_name(text, sizeof("caf\xc3")), 1);
  EXPECT_STREQ(text, "caf");
}

TEST_F(Host, NoChangeIsLostBetweenThreadsAndProcesses) {
  constexpr int turns = 40;
  const auto repeat = [](auto&& work) {
    int done = 0;
    for (int i = 0; i < turns; ++i) done += work(i) & read_model() & read_port();
    return done;
  };
  const auto store_ip = [](int i) { return set_redirsrv_ip(("10.0.0." + std::to_string(i)).data()); };
  const pid_t other = fork();
  if (other == 0) _exit(repeat(store_ip));
  int done_by_second = 0, status = -1;
  std::thread second([&] { done_by_second = repeat([](int i) { return store_alias("a" + std::to_string(i), 1); }); });
  EXPECT_EQ(repeat([](int i) { return cre_set_skyport_enable_state(static_cast<char>(i & 1)); }), turns);
  second.join();
  EXPECT_EQ(done_by_second, turns);
  waitpid(other, &status, 0);
  EXPECT_EQ(WEXITSTATUS(status), turns);
  const std::string expected = with(with(sample, "\nalias=", "\nalias=a39"), "alias_status=0", "alias_status=1");
  EXPECT_EQ(read_file(conf), with(expected, "redirsrv_ip=", "redirsrv_ip=10.0.0.39"));
}

TEST_F(Host, AChangeByAnotherHandIsSeenWithinATick) {
  for (int i = 0; i < 30; ++i) {
    write_file(conf, with(sample, "enabled=1", i % 2 == 0 ? "enabled=0" : "enabled=1"));
    std::this_thread::sleep_for(std::chrono::milliseconds(12));
    char enabled = 9;
    ASSERT_EQ(cre_get_skyport_enable_state(&enabled), 1);
    ASSERT_EQ(enabled, i % 2) << i;
  }
}

TEST_F(Host, AFaultSpoilsNothingAndIsForgottenByTheNextCall) {
  const std::string changed = with(sample, "\ndomain=skyport.example.net", "\ndomain=new.example.org");
  const std::string other = dir + "/other.conf";
  write_file(other, sample);
  std::this_thread::sleep_for(std::chrono::milliseconds(50));  // the files are old enough to be kept in mind
  const auto survive = [&](bool storing, int turn) {
    char model[32] = "";
    // Told the other file than the last time, a getter has to read.
    setenv("KESTREL_CONF", storing || turn % 2 == 0 ? conf.c_str() : other.c_str(), 1);
    const int result = storing ? store_domain() : dev_get_model_name(model, sizeof(model));
    const bool came = std::exchange(fault, {}).turn <= 0;
    const std::string kept = read_file(conf);
    EXPECT_TRUE(kept == sample ? !storing || result == 0 : kept == changed) << kept;
    EXPECT_STREQ(model, result == 1 && !storing ? "LC-1200" : "");
    EXPECT_FALSE(fs::exists(conf + ".new"));
    EXPECT_EQ(storing ? store_domain() : read_model(), 1);
    if (storing) write_file(conf, sample);
    return came;
  };
  const Child child = run_child([&] {  // to keep what is said out of the way
    int faults = 0;
    using Case = std::pair<const char*, int>;
    for (const auto& [call, error] :
         {Case("open", EMFILE), Case("stat", EIO), Case("fstat", EIO), Case("read", EIO), Case("read", EINTR),
          Case("read", 0), Case("write", ENOSPC), Case("fchmod", EPERM), Case("rename", EIO), Case("new", ENOMEM)}) {
      for (const bool storing : {false, true}) {
        const ::testing::ScopedTrace trace(call, storing ? 1 : 0, std::to_string(error));
        int turn = 0;
        do fault = {call, ++turn, error};
        while (survive(storing, turn));
        faults += turn - 1;
      }
    }
    EXPECT_GT(faults, 20);
    return 0;
  });
  EXPECT_EQ(child.status, 0) << child.out;
}

TEST_F(Host, TheUrlCarriesTheAcceptedAliasOrTheHid) {
  const std::pair<const char*, const char*> rows[] = {
      {"stored_hid=\n", nullptr},
      {"hid=ABCD1234\nlast_alias=rose\n", "http://rose.skyport.example.net/"},
      {"hid=ABCD1234\nalias=wanted\n", "http://ABCD1234.skyport.example.net/"},
      {"hid=ABCD1234\nurl_format=http://{domain}:8/{hid}?{alias}\nlast_alias=r\n",
       "http://skyport.example.net:8/ABCD1234?r"},
      {"hid=ABCD1234\nlast_alias=a-name-of-thirty-one-characters\ndomain=long.domain.of.skyport.example.net\n",
       nullptr},
  };
  for (const auto& [settings, expected] : rows) {
    write_file(conf, sample + "\n[skyport]\n" + settings);
    char url[64] = "";
    EXPECT_EQ(tessel_get_skyport_http_url(url), expected == nullptr ? 0 : 1) << settings;
    EXPECT_STREQ(url, expected == nullptr ? "" : expected);
  }
}

// ---- Lock and status file ----

TEST_F(Host, TheLockIsHeldUntilTheProcessEnds) {
  int told[2];
  ASSERT_EQ(pipe(told), 0);
  const pid_t holder = fork();
  if (holder == 0) {
    const char byte = tessel_get_lock("kestreld_lock") == 1 ? '1' : '0';
    _exit(write(told[1], &byte, 1) == 1 ? pause() : 1);
  }
  char byte = 0;
  ASSERT_EQ(read(told[0], &byte, 1), 1);
  EXPECT_EQ(byte, '1');
  EXPECT_EQ(tessel_get_lock("kestreld_lock"), 0);
  EXPECT_EQ(tessel_get_lock("another"), 1);
  EXPECT_EQ(fs::status(dir + "/run/deep/another").permissions(), fs::perms(0600)) << "nobody else may flock it";
  EXPECT_EQ(tessel_get_lock("../outside"), 0);
  kill(holder, SIGKILL);
  waitpid(holder, nullptr, 0);
  EXPECT_EQ(tessel_get_lock("kestreld_lock"), 1);
  EXPECT_EQ(tessel_get_lock("kestreld_lock"), 1) << "its holder has it";
  for (const int fd : told) close(fd);
}

TEST_F(Host, ALockThatCannotBeTakenSaysWhy) {
  write_file(dir + "/file", "");
  const std::string in_the_way = with(sample, "run/deep", "file/deep");
  for (const auto& [content, reason] :
       {std::pair{"?"s, "set KESTREL_CONF to"s}, {in_the_way, "file/deep: cannot be made"}}) {
    write_file(conf, content);
    const Child child = run_child([] { return tessel_get_lock("kestreld_lock"); });
    EXPECT_EQ(child.status, 0);
    EXPECT_NE(child.err.find(reason), std::string::npos) << child.err;
  }
}

TEST_F(Host, TheStatusFileHasOneEntryALineAndMakesUpForFailures) {
  const auto status = [&] { return read_file(dir + "/run/deep/status"); };
  SetSptOnLineStatus(0);
  SetSptURI("http://x\nonline=1");
  EXPECT_EQ(status(), "online=0\nuri=http://x?online=1\n");
  fault = {"rename", 1, EIO, 2};
  EXPECT_EQ(SetSptOnLineStatus(1), 1);
  EXPECT_TRUE(status().starts_with("online=1\n")) << "no other call may come for days";
  fault = {"rename", 1, EIO, 3};
  EXPECT_EQ(SetSptOnLineStatus(0), 0);
  EXPECT_TRUE(status().starts_with("online=1\n"));
  SetSptURI(std::string(500, 'u').c_str());
  EXPECT_EQ(status(), "online=0\nuri=" + std::string(127, 'u') + "\n");
}

// ---- HTTP ----

TEST(HttpPackets, NothingBreaksOutOfItsPlaceInTheHead) {
  const std::string head =
      "POST /a HTTP/1.1\r\nHost: h:80\r\nUser-Agent: kestrel\r\nConnection: close\r\n"
      "Authorization: Digest x\r\nContent-Length: 9\r\n\r\n";
  std::string rows[][4] = {{"h", "/a", "Digest x", head},
                           {"h\r\nX: y", "/a", "Digest x", ""},
                           {"h", "/a b", "Digest x", ""},
                           {"h", "/a", "Digest x\r\nX: y", ""},
                           {"h", "/" + std::string(9000, 'a'), "Digest x", ""}};
  for (auto& [host, path, authorization, expected] : rows) {
    char user[] = "u", method[] = "POST", *raw = nullptr;
    packetheader* packet = httpBuildPacket_Auth_Encrypt(
        user, host.data(), 80, path.data(), method, 9, authorization.data(), static_cast<int>(authorization.size()), 1);
    EXPECT_EQ(ILibGetRawPacket(packet, &raw), static_cast<int>(expected.size()));
    EXPECT_EQ(raw == nullptr ? "" : raw, expected) << path;
    std::free(raw);
    ILibDestructPacket(packet);
  }
}

TEST(Challenge, TheDigestThatCanBeAnsweredIsTaken) {
  struct Row {
    std::vector<const char*> challenges;
    std::vector<std::string> taken;  // realm, nonce, algorithm, qop
  };
  const std::string overlong =
      "Digest realm=\"" + std::string(500, 'r') + "\", nonce=\"" + std::string(500, 'n') + "\"";
  // clang-format off
  const Row rows[] = {
      {{R"(Digest realm="sky port", nonce="abc==", qop="auth,auth-int", algorithm=MD5, opaque="z", stale=FALSE)"}, {"sky port", "abc==", "MD5", "auth"}},
      {{R"(dIGEST REALM=tok ,nonce = n1==,qop=auth-int)"}, {"tok", "n1==", "", "auth-int"}},
      {{R"(Digest realm="a \"q\" \\ b", nonce="1", qop=" foo , AUTH")"}, {"a \"q\" \\ b", "1", "", "auth"}},
      {{R"(Digest realm="x", nonce="1", qop="foo", realm="later")"}, {"x", "1", "", ""}},
      {{R"(Basic realm="b, Digest realm=evil", charset="UTF-8", Digest realm="good", nonce=2)"}, {"good", "2", "", ""}},
      {{"Negotiate a87421000492aa874209af8bc028==, Digest nonce=5"}, {"", "5", "", ""}},
      {{R"(Basic realm="b")", R"(Digest realm="s", algorithm=SHA-256, nonce="1")", R"(Digest realm="m", algorithm=MD5, nonce="2")"}, {"m", "2", "MD5", ""}},
      {{overlong.c_str()}, {std::string(31, 'r'), std::string(127, 'n'), "", ""}},
      {{R"(Basic realm="x")"}, {"", "", "", ""}},
      {{R"(Digest realm="unclosed)"}, {"unclosed", "", "", ""}},
      {{R"(Digest realm="a\)"}, {"a\\", "", "", ""}},
      {{"Digest"}, {"", "", "", ""}},
      {{"\"=,=\",,  \" ="}, {"", "", "", ""}},
      {{}, {"", "", "", ""}},
  };
  // clang-format on
  for (const Row& row : rows) {
    std::vector<packetheader_field_node> nodes{{"X", "Digest realm=wrong", nullptr}};
    for (const char* challenge : row.challenges) nodes.push_back({"www-authenticate", challenge, nullptr});
    for (std::size_t i = 1; i < nodes.size(); ++i) nodes[i - 1].NextField = &nodes[i];
    AuthenticateInfo auth;
    std::memset(&auth, 'x', sizeof(auth));  // an earlier challenge's values do not stay
    GetAuthenticateInfo(nodes.data(), &auth);
    const std::vector<std::string> taken{auth.realm, auth.nonce, auth.algorithm, auth.qop};
    EXPECT_EQ(taken, row.taken) << (row.challenges.empty() ? "none" : row.challenges[0]);
  }
}

TEST(Base64, DecodingStopsAtTheFirstCharacterThatDoesNotBelong) {
  // clang-format off
  const std::pair<std::string, std::string> rows[] = {
      {"", ""}, {"Zg==", "f"}, {"Zm8=", "fo"}, {"Zm9vYmFy", "foobar"}, {"+/+/", "\xfb\xff\xbf"},
      {"Zm9v Ym", "foo"}, {"Zm9v\nYm", "foo"}, {"Zm8=Zm9v", "fo"}, {"Zm9vY", "foo"}, {"Zm9vYg", "foob"}, {"-_", ""}, {"\xff", ""},
  };
  // clang-format on
  for (const auto& [text, plain] : rows) {
    const std::unique_ptr<char[]> out(new char[3 * (text.size() / 4) + 3]);  // the contract's bound
    EXPECT_EQ(b64_decode(text.data(), static_cast<unsigned>(text.size()), out.get()), static_cast<int>(plain.size()));
    EXPECT_EQ(out.get(), plain) << text;
    char encoded[16];
    const int len = b64_encode(plain.data(), static_cast<unsigned>(plain.size()), encoded);
    EXPECT_EQ(static_cast<std::size_t>(len), (plain.size() + 2) / 3 * 4);
    EXPECT_EQ(text == encoded, text.size() % 4 == 0 && text != "Zm8=Zm9v") << text;
  }
}

}  // namespace
