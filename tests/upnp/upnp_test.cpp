// The port-mapping strategy against a router with a table, row by row: what it finds, what it is asked, and what
// the log says of it, in order.
#include "upnp/port_mapping.h"

#include <cstdio>
#include <cstring>

#include "core/device_context.h"
#include "core/gateway_texts.h"
#include "fake_platform/fixture.h"
#include "support/trace.h"

namespace kestrel {
namespace {

constexpr char uid[] = "LC_0A0B0C";
constexpr std::uint16_t http_port = 8000;  // the camera's

const Trace::Names router_calls = {{"Mupnpcp_query_eport_ex ", "query "},
                                   {"Mupnpcp_query_eport_all ", "entry "},
                                   {"Mupnp_add_eport ", "add "},
                                   {"Mupnp_del_eport ", "del "}};

/// "443|away|Game|3074": external port, internal client, description, internal port; several apart by blanks.
std::map<int, FakeMapping> router_table(const std::string& text) {
  std::map<int, FakeMapping> table;
  for (const std::string& entry : split(text)) {
    const Texts field = split(entry, '|');
    table[std::stoi(field[0])] = {field[2], std::stoi(field[3]), field[1] == "here", 0};
  }
  return table;
}

/// The trace of a query up to its result.
std::string queried(const std::string& port, const char* result) {
  return "Querying eport:(" + port + ")/query " + port + " 1 8/ret=" + result + "/";
}

/// Of a candidate that another client has, with the given name.
std::string foreign(const std::string& port, const std::string& name) {
  return queried(port, "2") + ">>ueport:(" + port + ") occupied/" +
         (name.empty() ? ">>no service name, eport:(" + port + ") occupied/"
                       : "eport:(" + port + ") Added by:(" + name + "), try netxt/");
}

/// Of an add that the router takes. The name keeps the first candidate's number.
std::string added(const std::string& which, const std::string& port, const std::string& first = "80") {
  const std::string done = "Port mapping i(8000)-e(" + port + ") ok!/";
  return "add LC_0A0B0C-1.2-" + first + " " + port + " 8000 1 8/" + done + which + " " + done + "=> 1 " + port;
}

/// Of an add that fails twice.
std::string not_added(const std::string& which, const std::string& port) {
  const std::string add = "add LC_0A0B0C-1.2-80 " + port + " 8000 1 8/";
  return add + add + "***" + which + " Port mapping add port (" + port + ") failed,try next/";
}

/// Of a free port, which is then mapped.
std::string mapped(const std::string& port, const std::string& first = "80") {
  return queried(port, "3") + ">>ueport:(" + port + ") EMPTY, start adding/" + added("B1", port, first);
}

const std::string del80 = "!delete port=80/del 80 1 8/";

class UpnpTest : public FakeTest {
 protected:
  std::uint32_t reload = 0;
  char port[port_len] = "";
  Trace trace{router_calls};

  void SetUp() override { begin(""); }
  void begin(const char* stored, const char* table = "", const char* results = "") {
    fake_reset();
    trace.listen(results);
    fake.mappings = router_table(table);
    reload = 0;
    current_record.run = 1;
    std::snprintf(port, sizeof(port), "%s", stored);
  }
  /// The whole dialogue of a search, its result and the port text after it.
  std::string search() {
    const int result = UPF(uid, http_port, port, &reload);
    return trace.take() + "=> " + std::to_string(result) + " " + port;
  }
};

TEST_F(UpnpTest, ReplaceCases) {
  const struct {
    std::string name;
    const char* table;
    std::string found;
    const char* gone;  // behind the line of a delete that failed; A4 alone has it
  } cases[] = {
      {"A1", "80|here|LC_0A0B0C-1.2-80|81", queried("80", "1") + "same ip, different iport/", ""},
      {"A2", "80|here|G|8000", queried("80", "1") + "different service name,ip may changed/", ""},
      {"A3", "80|here||81", queried("80", "1") + "***no service name/", ""},
      {"A4", "80|away|LC_0A0B0C-1.2-80|8000",
       queried("80", "2") + ">>ueport:(80) occupied/Previously Added by Me, my ip changed!/", ",try next"},
  };
  for (const auto& row : cases) {
    SCOPED_TRACE(row.name);
    const std::string done = "Port mapping delete port (80) success/";
    const std::string success = row.name + " " + done;
    const std::string gone = "***" + row.name + " Port mapping delete port (80) failed" + row.gone + "/";
    // Only the answer that there is no such mapping is a failed delete; after two others the add shows.
    const struct {
      const char* results;
      std::string trace;
    } outcomes[] = {
        {"", del80 + done + success + added(row.name, "80")},
        {"del=7", del80 + del80 + done + success + added(row.name, "80")},
        {"del=7,-1", del80 + del80 + success + added(row.name, "80")},
        {"del=4", del80 + gone + mapped("443")},
        {"add=718,718", del80 + done + success + not_added(row.name, "80") + mapped("443")},
    };
    for (const auto& outcome : outcomes) {
      begin("", row.table, outcome.results);
      EXPECT_EQ(search(), row.found + outcome.trace) << outcome.results;
    }
  }
}

TEST_F(UpnpTest, SearchesOverCandidates) {
  const std::string asked = "Querying eport:(80)/query 80 1 8/", stopped = "unhandled return value(-1),UPF() failed/";
  const std::string timeout = "*** timeout! in querying eport:(80) retry(", again = timeout + "0)/query 80 1 8/";
  const std::string empty = queried("80", "3") + ">>ueport:(80) EMPTY, start adding/";
  const std::string own_80 = "80|here|LC_0A0B0C-1.2-80|8000", game_80 = "80|away|Game|1";
  const std::string add = "add LC_0A0B0C-1.2-80 80 8000 1 8/", next = "Querying eport:(443)/=> 0 ";
  const std::string unadded = " Port mapping add port (80) failed,try next/" + next;
  const struct {
    const char* stored;
    std::string table;
    const char* results;
    const char* signal;  // "reload" or "exit", and the call during which it comes
    std::string trace;
  } rows[] = {
      {"", own_80, "", "", queried("80", "1") + "ignore adding port mapping/=> 1 80"},
      {"", "", "add=1,1", "", empty + not_added("B1", "80") + mapped("443")},
      {"", "", "add=725", "", empty + add + added("B1", "80")},
      {"", game_80 + " 443|away||8000 8081|away|LC_0A0B0C-1.2|8000", "", "",
       foreign("80", "Game") + foreign("443", "") + foreign("8081", "LC_0A0B0C-1.2") + mapped("8082")},
      // The name keeps the number of the first candidate, which is the one behind the stored port.
      {"443", "8081|away|Game|1 8082|here|LC_0A0B0C-1.2-8081|8000", "", "",
       foreign("8081", "Game") + queried("8082", "1") + "ignore adding port mapping/=> 1 8082"},
      {"8081", "", "", "", mapped("8082", "8082")},
      {"", own_80, "query=-1,-1", "", asked + again + timeout + "1)/ret=-1/" + stopped + "=> 0 "},
      {"", own_80, "query=-1", "", asked + again + "ret=1/ignore adding port mapping/=> 1 80"},
      {"", "", "query=0", "", queried("80", "0") + "unhandled return value(0),UPF() failed/=> 0 "},
      {"", "", "", "reload", "Querying eport:(80)/=> 0 "},
      {"", game_80, "", "reload Mupnpcp_query", foreign("80", "Game") + next},
      {"", "", "query=-1", "reload Mupnpcp_query", asked + timeout + "0)/ret=5/=> 5 "},
      {"", "", "", "reload Mupnpcp_query", mapped("80")},
      // An exit request lets the call under way end, and no more.
      {"", game_80, "", "exit Mupnpcp_query", foreign("80", "Game") + next},
      {"", "", "query=-1", "exit Mupnpcp_query", asked + timeout + "0)/ret=5/=> 5 "},
      {"", "", "", "exit Mupnpcp_query", empty + "***B1" + unadded},
      {"", "", "add=1", "exit Mupnp_add", empty + add + "***B1" + unadded},
      {"", "80|here||81", "del=7", "exit Mupnp_del",
       queried("80", "1") + "***no service name/" + del80 + "A3 Port mapping delete port (80) success/***A3" + unadded},
  };
  for (const auto& row : rows) {
    begin(row.stored, row.table.c_str(), row.results);
    const Texts signal = split(row.signal);
    trace.on_call = [&](const std::string& call) {
      if (signal.size() < 2 || !call.starts_with(signal[1])) return;
      (signal[0] == "exit" ? current_record.run : reload) = signal[0] == "exit" ? 0U : 1U;
    };
    reload = signal.size() == 1 ? 1 : 0;
    EXPECT_EQ(search(), row.trace);
  }
}

TEST_F(UpnpTest, ConsoleTellsOfEveryQuery) {
  begin("", "80|away|Game|1");
  fake.mappings[80].lease_s = 9;
  search();
  const std::string before = "before Mupnpcp_query_eport_ex,sname=", after = "after Mupnpcp_query_eport_ex, ret = ";
  // Of what the query before it found, the description alone is left.
  const std::string rest = ",newInternalClient=,newInternalPort=0\nnewLeaseDuration=0,ueport=";
  const std::string end = ",type=1,UPNP_DEF_TIMEOUT=8\n\n";
  EXPECT_EQ(fake.console,
            (Texts{before + rest + "80" + end, after + "2\n", before + "Game" + rest + "443" + end, after + "3\n"}));
}

TEST_F(UpnpTest, TheFourthOfMoreAttemptsIsTheLast) {
  fake.always = {{"Mupnpcp_query_eport_ex", -1}, {"Mupnp_add_eport", 1}, {"Mupnp_del_eport", 7}};
  struct {
    char description[MUPNP_DESCRIPTION_LEN], client[MUPNP_CLIENT_LEN];
    int port, lease_s;
  } at{};
  trace.on_call = [&](const std::string&) { std::memset(&at, 'x', sizeof(at)); };  // the texts end nowhere
  EXPECT_EQ(query_eport_retry(at.description, at.client, &at.port, &at.lease_s, 80, 1, 5, &reload), -1);
  EXPECT_EQ(std::strlen(at.description) + std::strlen(at.client), 126U);
  EXPECT_EQ(add_eport_retry("name", 80, http_port, 1, 5) + delete_port(80, 5), 0);
  std::string expected;
  for (const char* attempt : {"0", "1", "2", "3"})
    expected += "query 80 1 8/*** timeout! in querying eport:(80) retry(" + std::string(attempt) + ")/";
  expected += "*** query eport:(80) failed! stop/";
  for (int attempt = 0; attempt < 4; ++attempt) expected += "add name 80 8000 1 8/";
  expected += "*** Port mapping add port 80 failed/" + del80 + del80 + del80 + del80;
  EXPECT_EQ(trace.take(), expected + "*** Port mapping delete port (80) failed/");
}

TEST_F(UpnpTest, FiftyCandidatesFollowTheStoredPort) {
  const std::pair<const char*, const char*> rows[] = {
      {"port", "80 443 8081 "}, {"8081", "8082 8083 8084 "}, {"8080", "8080 8080 8080 "}, {"65534", "65535 0 80 "}};
  for (const auto& [stored, candidates] : rows) {
    begin(stored);
    fake.always["Mupnpcp_query_eport_ex"] = MUPNP_MAPPED_ELSEWHERE;
    EXPECT_TRUE(search().ends_with(std::string("=> 0 ") + stored));
    const Texts asked = fake_calls({"Mupnp"});
    ASSERT_EQ(asked.size(), 50U);
    std::string first;
    for (std::size_t i = 0; i < 3; ++i) first += split(asked[i])[1] + " ";
    EXPECT_EQ(first, candidates);
  }
}

// A library that fills the whole buffer is cut, and its text never equals ours.
TEST_F(UpnpTest, LongTextsAreCut) {
  fake.mappings = {{80, {std::string(80, 'G'), 80, false, 0}}};
  EXPECT_EQ(search(), foreign("80", std::string(63, 'G')) + mapped("443"));
  begin("");
  EXPECT_EQ(UPF(std::string(63, 'u').c_str(), http_port, port, &reload), 1);
  EXPECT_EQ(fake.mappings[80].description, std::string(63, 'u'));
  EXPECT_EQ(delete_port(80, 1), 1);

  MupnpIgd igd{};
  std::memset(&fake.igd, 'x', sizeof(fake.igd));
  EXPECT_EQ(find_gateway(&igd), 0);
  for (const GatewayText& text : gateway_texts) EXPECT_EQ(std::strlen(gateway_text(igd, text)), text.size - 1);

  char ip[ip_len] = "";
  fake.router_ip = "198.51.100.7.198.51";
  EXPECT_EQ(get_router_address(ip), 0);
  EXPECT_STREQ(ip, "198.51.100.7.19");
  fake.always["Mupnpcp_get_eip"] = MUPNP_NONE;
  EXPECT_EQ(get_router_address(ip), MUPNP_NONE);
  EXPECT_STREQ(ip, "198.51.100.7.19");
}

TEST_F(UpnpTest, CleanUpRemovesOwnMappings) {
  const std::string other = "===========> Occupy by other service <=============//";
  const auto own = [](const std::string& number) {
    return "===========> Remove pollution ExtPort(" + number + ") myself<=============//del " + number + " 1 8/";
  };
  const struct {
    const char *table, *results;
    std::string trace;
    bool exit = false;  // requested during the first delete
  } rows[] = {
      {"80|here|LC_0A0B0C-1.2-80|80 8081|away|LC_0A0B0C-1.2-443|80", "",
       "entry 0 8/" + own("80") + "entry 0 8/" + own("8081") + "entry 0 8/"},
      {"80|here|LC_0A0B0C-1.2-80|80 443|here|LC_0A0B0C-1.2-80|80", "del=501",
       "entry 0 8/" + own("80") + "entry 1 8/" + own("443") + "entry 1 8/"},
      {"80|away|Game|1 443|here||80 8081|here|LC_0A0B0C-1.|80 8082|here|LC_0A0B0C-1.2-80|80", "",
       "entry 0 8/" + other + "entry 1 8/" + other + "entry 2 8/" + other + "entry 3 8/" + own("8082") + "entry 3 8/"},
      {"80|here|LC_0A0B0C-1.2-80|80 443|here|LC_0A0B0C-1.2-80|80", "", "entry 0 8/" + own("80"), true},
      {"80|away|Game|1 443|here|LC_0A0B0C-1.2-80|80", "entry=0,713", "entry 0 8/" + other + "entry 1 8/"},
  };
  for (const auto& row : rows) {
    begin("", row.table, row.results);
    if (row.exit)
      trace.on_call = [](const std::string& call) { current_record.run = call.starts_with("Mupnp_del") ? 0 : 1; };
    EXPECT_EQ(remove_own_mappings(uid), 0);
    EXPECT_EQ(trace.take(), "======== uid_info : LC_0A0B0C-1.2 ========/" + row.trace);
  }
}

TEST_F(UpnpTest, CleanUpEndsWithATableThatNeverEmpties) {
  int next = 1;
  fake.mappings[next] = {"LC_0A0B0C-1.2-80", http_port, true, 0};
  trace.on_call = [&](const std::string& call) {
    if (call.starts_with("Mupnp_del_eport")) fake.mappings[++next] = {"LC_0A0B0C-1.2-80", http_port, true, 0};
  };
  EXPECT_EQ(remove_own_mappings(uid), 0);
  EXPECT_EQ(fake.calls.size(), 2U * 1024);
}

}  // namespace
}  // namespace kestrel
