// The update decision: which differences between two cycles are reported, and what the log says of it.
#include "regstate/need_update.h"

#include <cstring>
#include <iterator>
#include <numeric>
#include <set>
#include <tuple>

#include "regstate/regstate_fakes.h"
#include "regstate/state_table.h"

namespace kestrel {
namespace {

using UpdateDecision = RegstateTest;

std::string logged() {
  return std::accumulate(fake.log.begin(), fake.log.end(), std::string());
}

TEST_F(UpdateDecision, UpdateWhenAComparedFieldChanged) {
  const std::pair<RegState, const char*> rows[] = {
      // compared, in order; a difference in one with a star decides at once
      {PublicMode, "eip iip iport"},
      {NoUPnP, "eip iip iport"},
      {NATM, "eip* ueip* iip iport"},
      {UpnpPfFailed, "eip* ueip* iip iport"},
      {UpnpPfReady, "eip* ueip* ueport* iip iport"},
      {NAT1, ""},
  };
  // The last cycle's end, and whether it compares.
  const std::tuple<RegState, bool, const char*> ends[] = {
      {START, false, "must do first update\n"},
      {LumenDevNotReady, false, "<> last state (LumenDevNotReady), need to update\n"},
      {LumenDevPartDone, true, "<> last succeeded state: LumenDevPartDone\n"},
      {LumenDevDone, true, "<> last succeeded state: LumenDevDone\n"},
  };
  const std::pair<std::string, char*> fields[] = {
      {"eip", last.e.ip}, {"ueip", last.ue.ip}, {"ueport", last.ue.port}, {"iip", last.i.ip}, {"iport", last.i.port}};
  for (unsigned i = 0; i < std::size(rows) * std::size(ends) << std::size(fields); ++i) {
    const auto& [state, compared] = rows[i % std::size(rows)];
    const auto& [end, compares, head] = ends[i / std::size(rows) % std::size(ends)];
    begin(state);
    now.prefinal_state = state;
    last = now;
    last.state = end;
    std::set<std::string> differing;
    for (unsigned bit = 0; bit < std::size(fields); ++bit) {
      if ((i / std::size(rows) / std::size(ends) >> bit & 1) == 0) continue;
      differing.insert({fields[bit].first, fields[bit].first + '*'});
      fields[bit].second[0] = 'x';
    }
    std::string expected = head;
    for (const std::string& field : split(compares ? compared : "")) {
      const std::string name = field.substr(0, field.find('*'));
      if (differing.contains(field)) expected += "<> " + name + " isn't the same. " + name + " changed. must update.\n";
      if (differing.contains(field) && name != field) break;
    }
    const int result = !compares || expected != head ? 1 : 0;
    if (compares && state == NAT1) expected += "<> unhandled state=NAT1\n";
    EXPECT_EQ(need_update(now), result) << expected;
    EXPECT_EQ(logged().substr(logged().rfind("--\n") + 3), expected) << state_name(state);
  }
}

TEST_F(UpdateDecision, BothRecordsAreLogged) {
  begin(NATM);
  std::strcpy(now.sname, "s");
  last.state = LumenDevDone;
  last.prefinal_state = PublicMode;
  last.upd = {3, 4};
  last.e = {"1", "2"};
  last.ue = {"3", "4"};
  last.i = {"5", "6"};
  std::strcpy(last.hid, "H");
  std::strcpy(last.uid, "U");
  std::strcpy(last.sname, "S");
  EXPECT_EQ(need_update(now), 1);
  const std::string dashes = "-------------------------------------------------------------\n";
  EXPECT_EQ(logged(), dashes +
                          "hid: c(HID00001)-l(H)\nsname : c(s)-l(S)\nuid   : c(LC_0A0B0C)-l(U)\npfok  : c(1)-l(0)\n"
                          "dev->upd.resut     : c(7)-l(3)\npdev->upd.starttime: c(99)-l(4)\n"
                          "state Current: CF(NATM)-LF(LumenDevDone)\nstate CPF(NoUPnP)-LPF(PublicMode)\n"
                          "pdev->e.ip   : c(203.0.113.5)-l(1)\npdev->e.port : c(4711)-l(2)\n"
                          "pdev->ue.ip  : c(10.1.2.3)-l(3)\npdev->ue.port: c(58081)-l(4)\n"
                          "pdev->i.ip   : c(192.168.1.20)-l(5)\npdev->i.port : c(50080)-l(6)\n" +
                          dashes + "different prefinal state,must update\n");
}

}  // namespace
}  // namespace kestrel
