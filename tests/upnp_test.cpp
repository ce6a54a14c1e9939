// The port-mapping strategy against a router with a table, row by row: what it finds, what it is asked, and what
// the log says of it, in order.
#include "upnp/port_mapping.h"

#include <cstdio>
#include <cstring>
#include <sstream>

#include "core/device_context.h"
#include "fake_platform/fixture.h"
#include "trace.h"

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
  std::istringstream entries(text);
  for (std::string entry; entries >> entry;) {
    std::string field[4];
    std::istringstream fields(entry);
    for (std::string& one : field) std::getline(fields, one, '|');
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
    trace.listen();
    trace.script(results);
    fake.mappings = router_table(table);
    reload = 0;
    std::snprintf(port, sizeof(port), "%s", stored);
  }
  int map() { return UPF(uid, http_port, port, &reload); }
  /// The whole dialogue of a search, its result and the port text after it.
  std::string search() {
    const int result = map();
    return trace.take() + "=> " + std::to_string(result) + " " + port;
  }
  /// The external ports that the router maps.
  std::string left() const {
    std::string ports;
    for (const auto& [number, mapping] : fake.mappings) ports += std::to_string(number) + " ";
    return ports;
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
      {"A2", "80|here|LC_0A0B0C-1.2-443|8000", queried("80", "1") + "different service name,ip may changed/", ""},
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
        {"del=7,4", del80 + del80 + gone + mapped("443")},
        {"add=718,718", del80 + done + success + not_added(row.name, "80") + mapped("443")},
        {"del=7,7 add=1,1", del80 + del80 + success + not_added(row.name, "80") + mapped("443")},
    };
    for (const auto& outcome : outcomes) {
      begin("", row.table, outcome.results);
      EXPECT_EQ(search(), row.found + outcome.trace) << outcome.results;
    }
  }
}

TEST_F(UpnpTest, SearchesOverCandidates) {
  const struct {
    const char *name, *stored, *table, *results;
    std::string trace;
    const char* left;
  } rows[] = {
      {"FreePort", "", "", "", mapped("80"), "80 "},
      {"OwnAndRight", "", "80|here|LC_0A0B0C-1.2-80|8000", "",
       queried("80", "1") + "ignore adding port mapping/=> 1 80", "80 "},
      {"AddFails", "", "", "add=1,1",
       queried("80", "3") + ">>ueport:(80) EMPTY, start adding/" + not_added("B1", "80") + mapped("443"), "443 "},
      {"SecondAddWorks", "", "", "add=725",
       queried("80", "3") + ">>ueport:(80) EMPTY, start adding/add LC_0A0B0C-1.2-80 80 8000 1 8/" + added("B1", "80"),
       "80 "},
      {"ForeignIsLeftAlone", "", "80|away|Game|80 443|away||8000 8081|away|LC_0A0B0C-1.2|8000", "",
       foreign("80", "Game") + foreign("443", "") + foreign("8081", "LC_0A0B0C-1.2") + mapped("8082"),
       "80 443 8081 8082 "},
      {"NameOfTheFirstCandidate", "443", "8081|away|Game|1 8082|here|LC_0A0B0C-1.2-8081|8000", "",
       foreign("8081", "Game") + queried("8082", "1") + "ignore adding port mapping/=> 1 8082", "8081 8082 "},
      {"StoredPortIsNotFirst", "8081", "", "", mapped("8082", "8082"), "8082 "},
      {"QueryTimesOutTwice", "80", "", "query=-1,-1",
       "Querying eport:(443)/query 443 1 8/*** timeout! in querying eport:(443) retry(0)/query 443 1 8/"
       "*** timeout! in querying eport:(443) retry(1)/ret=-1/unhandled return value(-1),UPF() failed/=> 0 80",
       ""},
      {"QueryAnswersTheSecondTime", "", "80|here|LC_0A0B0C-1.2-80|8000", "query=-1",
       "Querying eport:(80)/query 80 1 8/*** timeout! in querying eport:(80) retry(0)/query 80 1 8/ret=1/"
       "ignore adding port mapping/=> 1 80",
       "80 "},
      {"QueryFails", "", "", "query=501", queried("80", "501") + "unhandled return value(501),UPF() failed/=> 0 ", ""},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    begin(row.stored, row.table, row.results);
    EXPECT_EQ(search(), row.trace);
    EXPECT_EQ(left(), row.left);
  }
}

TEST_F(UpnpTest, CandidatesFollowTheStoredPort) {
  const struct {
    const char *stored, *candidates;  // the first three of 50
  } rows[] = {
      {"", "80 443 8081"},       {"0", "80 443 8081"},       {"port", "80 443 8081"},    {"80", "443 8081 8082"},
      {"443", "8081 8082 8083"}, {"8081", "8082 8083 8084"}, {"1000", "1000 1000 1000"}, {"8080", "8080 8080 8080"},
      {"65534", "65535 0 80"},   {"65535", "0 80 443"},      {"-1", "0 80 443"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.stored);
    begin(row.stored);
    fake.always["Mupnpcp_query_eport_ex"] = MUPNP_MAPPED_ELSEWHERE;
    EXPECT_EQ(map(), 0);
    EXPECT_STREQ(port, row.stored);
    const Texts asked = fake_calls({"Mupnp"});
    ASSERT_EQ(asked.size(), 50U);
    std::istringstream candidates(row.candidates);
    for (std::size_t i = 0; i < 3; ++i) {
      std::string number;
      candidates >> number;
      EXPECT_EQ(asked[i], "Mupnpcp_query_eport_ex " + number + " 1 8");
    }
  }
}

TEST_F(UpnpTest, ReloadStopsTheSearch) {
  const struct {
    const char* name;
    int at_query;  // the flag is set during this query; 0: before the search
    const char* results;
    std::string trace;
  } rows[] = {
      {"AtTheTopOfAPass", 0, "", "Querying eport:(80)/=> 0 "},
      {"AtTheTopOfTheNextPass", 1, "query=2", foreign("80", "") + "Querying eport:(443)/=> 0 "},
      {"BetweenTheQueries", 1, "query=-1",
       "Querying eport:(80)/query 80 1 8/*** timeout! in querying eport:(80) retry(0)/ret=5/=> 5 "},
      {"NotOnceTheAnswerIsThere", 1, "", mapped("80")},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    begin("", "", row.results);
    reload = row.at_query == 0 ? 1 : 0;
    int queries = 0;
    trace.on_call = [&](const std::string& call) {
      if (call.starts_with("Mupnpcp_query") && ++queries == row.at_query) reload = 1;
    };
    EXPECT_EQ(search(), row.trace);
  }
}

// The description is cleared once a search, the client and the numbers for every candidate.
TEST_F(UpnpTest, QueriesAreShownOnTheConsole) {
  fake.mappings = {{80, {"Game", 3074, false, 77}}};
  EXPECT_EQ(map(), 1);
  const Texts expected = {
      "before Mupnpcp_query_eport_ex,sname=,newInternalClient=,newInternalPort=0\nnewLeaseDuration=0,ueport=80,type=1,"
      "UPNP_DEF_TIMEOUT=8\n\n",
      "after Mupnpcp_query_eport_ex, ret = 2\n",
      "before Mupnpcp_query_eport_ex,sname=Game,newInternalClient=,newInternalPort=0\nnewLeaseDuration=0,ueport=443,"
      "type=1,UPNP_DEF_TIMEOUT=8\n\n",
      "after Mupnpcp_query_eport_ex, ret = 3\n"};
  EXPECT_EQ(fake.console, expected);
}

// A library that fills the whole buffer is cut, and its text never equals ours.
TEST_F(UpnpTest, LongNamesAreCut) {
  fake.mappings = {{80, {std::string(80, 'G'), 80, false, 0}}};
  EXPECT_EQ(map(), 1);
  EXPECT_EQ(fake_logged("Added by:(" + std::string(63, 'G') + ")"), 1U);
  const std::string long_uid(63, 'u');
  begin("");
  EXPECT_EQ(UPF(long_uid.c_str(), http_port, port, &reload), 1);
  EXPECT_EQ(fake.mappings[80].description, long_uid);
}

// With more attempts than the daemon passes, the fourth failure is reported.
TEST_F(UpnpTest, FourthAttemptIsReported) {
  char description[MUPNP_DESCRIPTION_LEN] = "";
  char client[MUPNP_CLIENT_LEN] = "";
  int internal = 0;
  int lease = 0;
  const auto repeated = [](int times, const std::string& text, bool numbered = false) {
    std::string all;
    for (int i = 0; i < times; ++i) all += text + (numbered ? std::to_string(i) + ")/" : "");
    return all;
  };
  fake.always = {{"Mupnpcp_query_eport_ex", -1}, {"Mupnp_add_eport", 1}, {"Mupnp_del_eport", 9}};
  EXPECT_EQ(query_eport_retry(description, client, &internal, &lease, 80, 1, 6, &reload), -1);
  EXPECT_EQ(trace.take(), repeated(4, "query 80 1 8/*** timeout! in querying eport:(80) retry(", true) +
                              "*** query eport:(80) failed! stop/");
  EXPECT_EQ(add_eport_retry("n", 80, http_port, 1, 6), 0);
  EXPECT_EQ(trace.take(), repeated(4, "add n 80 8000 1 8/") + "*** Port mapping add port 80 failed/");
  EXPECT_EQ(delete_port(80, 6), 0);
  EXPECT_EQ(trace.take(), repeated(4, del80) + "*** Port mapping delete port (80) failed/");
  EXPECT_EQ(delete_port(80, 2), 9);
  fake.always["Mupnp_del_eport"] = 4;
  EXPECT_EQ(delete_port(80, 2), 0);
}

TEST_F(UpnpTest, CleanUpRemovesOwnMappings) {
  const std::string other = "===========> Occupy by other service <=============//";
  const auto own = [](const std::string& number) {
    return "===========> Remove pollution ExtPort(" + number + ") myself<=============//del " + number + " 1 8/";
  };
  const struct {
    const char *name, *table, *results;
    std::string trace;
    const char* left;
  } rows[] = {
      {"EmptyTable", "", "", "entry 0 8/", ""},
      {"TwoOwn", "80|here|LC_0A0B0C-1.2-80|80 8081|away|LC_0A0B0C-1.2-443|80", "",
       "entry 0 8/" + own("80") + "entry 0 8/" + own("8081") + "entry 0 8/", ""},
      {"DeleteFails", "80|here|LC_0A0B0C-1.2-80|80 443|here|LC_0A0B0C-1.2-80|80", "del=501",
       "entry 0 8/" + own("80") + "entry 1 8/" + own("443") + "entry 1 8/", "80 "},
      {"Foreign", "80|away|Game|1 443|here||80 8081|here|LC_0A0B0C-1.|80 8082|here|LC_0A0B0C-1.2-80|80", "",
       "entry 0 8/" + other + "entry 1 8/" + other + "entry 2 8/" + other + "entry 3 8/" + own("8082") + "entry 3 8/",
       "80 443 8081 "},
      {"NoAnswer", "80|here|LC_0A0B0C-1.2-80|80", "entry=-1", "entry 0 8/", "80 "},
      {"ErrorInBetween", "80|away|Game|1 443|here|LC_0A0B0C-1.2-80|80", "entry=0,713",
       "entry 0 8/" + other + "entry 1 8/", "80 443 "},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    begin("", row.table, row.results);
    EXPECT_EQ(remove_own_mappings(uid), 0);
    EXPECT_EQ(trace.take(), "======== uid_info : LC_0A0B0C-1.2 ========/" + row.trace);
    EXPECT_EQ(left(), row.left);
  }
}

TEST_F(UpnpTest, CleanUpEndsWithATableThatNeverEmpties) {
  int next = 1;
  fake.mappings[next] = {"LC_0A0B0C-1.2-80", http_port, true, 0};
  trace.on_call = [&](const std::string& call) {
    if (call.starts_with("Mupnp_del_eport")) fake.mappings[++next] = {"LC_0A0B0C-1.2-80", http_port, true, 0};
  };
  EXPECT_EQ(remove_own_mappings(uid), 0);
  EXPECT_LE(fake.calls.size(), 4096U);
  EXPECT_GE(fake.calls.size(), 128U);  // a full table of a large router is cleaned up in one go
}

TEST_F(UpnpTest, GatewayTextsAreTerminated) {
  std::memset(&fake.igd, 'x', sizeof(fake.igd));
  MupnpIgd igd{};
  EXPECT_EQ(find_gateway(&igd), 0);
  EXPECT_EQ(std::string(igd.friendlyName), std::string(63, 'x'));
  EXPECT_EQ(std::string(igd.manufacturer), std::string(63, 'x'));
  EXPECT_EQ(std::string(igd.manufacturerURL), std::string(127, 'x'));
  EXPECT_EQ(std::string(igd.modelName), std::string(31, 'x'));
  EXPECT_EQ(std::string(igd.modelNumber), std::string(31, 'x'));
  EXPECT_EQ(std::string(igd.modelDescription), std::string(127, 'x'));
  EXPECT_EQ(std::string(igd.presentationURL), std::string(127, 'x'));
  fake.gateway = false;
  EXPECT_NE(find_gateway(&igd), 0);

  char ip[ip_len] = "";
  fake.router_ip = "198.51.100.7.198.51";
  EXPECT_EQ(get_router_address(ip), 0);
  EXPECT_STREQ(ip, "198.51.100.7.19");
  fake.always["Mupnpcp_get_eip"] = MUPNP_NONE;
  EXPECT_EQ(get_router_address(ip), MUPNP_NONE);
  EXPECT_STREQ(ip, "198.51.100.7.19");
}

}  // namespace
}  // namespace kestrel
