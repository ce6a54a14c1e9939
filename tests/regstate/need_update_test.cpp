// The update decision: which differences between two cycles are reported, and what the log says of it.
#include "regstate/need_update.h"

#include <cstring>
#include <iterator>
#include <map>
#include <numeric>
#include <tuple>

#include "regstate/regstate_fakes.h"
#include "regstate/state_table.h"

namespace kestrel {
namespace {

using UpdateDecision = RegstateTest;

/// What the log says behind the 16 lines of both records.
std::string logged() {
  return std::accumulate(fake.log.begin() + 16, fake.log.end(), std::string());
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
  const std::pair<std::string, char*> fields[] = {
      {"eip", last.e.ip}, {"ueip", last.ue.ip}, {"ueport", last.ue.port}, {"iip", last.i.ip}, {"iport", last.i.port}};
  for (const auto& [state, compared] : rows) {
    // A bit for each field that differs; the last one is for the last state.
    for (unsigned differing = 0; differing < 1U << 6; ++differing) {
      begin(state);
      now.prefinal_state = state;
      last = now;
      last.state = (differing >> 5) != 0 ? LumenDevDone : LumenDevPartDone;
      std::string expected = std::string("<> last succeeded state: ") + state_name(last.state) + "\n";
      const std::size_t head = expected.size();
      std::map<std::string, bool> differs;
      for (unsigned i = 0; i < std::size(fields); ++i) {
        if ((differing >> i & 1) == 0) continue;
        differs[fields[i].first] = differs[fields[i].first + '*'] = true;
        fields[i].second[0] = 'x';
      }
      for (const std::string& field : split(compared)) {
        const std::string name = field.substr(0, field.find('*'));
        if (differs[field]) expected += "<> " + name + " isn't the same. " + name + " changed. must update.\n";
        if (differs[field] && name != field) break;
      }
      const int result = expected.size() > head ? 1 : 0;
      if (compared[0] == '\0') expected += std::string("<> unhandled state=") + state_name(state) + "\n";
      EXPECT_EQ(need_update(now), result) << state_name(state) << ' ' << differing;
      EXPECT_EQ(logged(), expected) << state_name(state) << ' ' << differing;
    }
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
  static_cast<void>(need_update(now));
  const std::string dashes = "-------------------------------------------------------------\n";
  EXPECT_EQ(std::accumulate(fake.log.begin(), fake.log.begin() + 16, std::string()),
            dashes +
                "hid: c(HID00001)-l(H)\nsname : c(s)-l(S)\nuid   : c(LC_0A0B0C)-l(U)\npfok  : c(1)-l(0)\n"
                "dev->upd.resut     : c(7)-l(3)\npdev->upd.starttime: c(99)-l(4)\n"
                "state Current: CF(NATM)-LF(LumenDevDone)\nstate CPF(NoUPnP)-LPF(PublicMode)\n"
                "pdev->e.ip   : c(203.0.113.5)-l(1)\npdev->e.port : c(4711)-l(2)\n"
                "pdev->ue.ip  : c(10.1.2.3)-l(3)\npdev->ue.port: c(58081)-l(4)\n"
                "pdev->i.ip   : c(192.168.1.20)-l(5)\npdev->i.port : c(50080)-l(6)\n" +
                dashes);
}

TEST_F(UpdateDecision, UpdateWhenTheLastCycleDoesNotCompare) {
  const std::tuple<RegState, RegState, const char*> rows[] = {
      // the last cycle's state and the one before its end
      {START, NATM, "must do first update\n"},
      {LumenDevNotReady, PublicMode, "different prefinal state,must update\n"},
      {LumenDevNotReady, NATM, "<> last state (LumenDevNotReady), need to update\n"},
      {IpReady, NATM, "<> last state (IpReady), need to update\n"},
  };
  for (const auto& [state, prefinal, line] : rows) {
    begin(NATM);
    now.prefinal_state = NATM;
    last = now;
    last.state = state;
    last.prefinal_state = prefinal;
    EXPECT_EQ(need_update(now), 1);
    EXPECT_EQ(logged(), line);
  }
}

}  // namespace
}  // namespace kestrel
