// The update decision: which differences between two cycles are reported, and what the log says of it.
#include "regstate/need_update.h"

#include <cstring>
#include <iterator>
#include <numeric>

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
  const struct {
    RegState state;
    const char* compared;  // in order; a difference in one with a star decides at once
  } rows[] = {
      {PublicMode, "eip iip iport"},
      {NoUPnP, "eip iip iport"},
      {NATM, "eip* ueip* iip iport"},
      {UpnpPfFailed, "eip* ueip* iip iport"},
      {UpnpPfReady, "eip* ueip* ueport* iip iport"},
      {NAT1, ""},
  };
  const struct {
    std::string name;
    char *now, *last;
  } fields[] = {{"eip", now.e.ip, last.e.ip},
                {"ueip", now.ue.ip, last.ue.ip},
                {"ueport", now.ue.port, last.ue.port},
                {"iip", now.i.ip, last.i.ip},
                {"iport", now.i.port, last.i.port}};
  for (const auto& row : rows) {
    // A bit for each field that differs; the last one is for the last state.
    for (unsigned differing = 0; differing < 1U << 6; ++differing) {
      begin(row.state);
      now.prefinal_state = last.prefinal_state = row.state;
      last.state = (differing >> 5) != 0 ? LumenDevDone : LumenDevPartDone;
      std::string expected = std::string("<> last succeeded state: ") + state_name(last.state) + "\n";
      int result = 0;
      bool decided = false;
      for (unsigned i = 0; i < std::size(fields); ++i) {
        const std::string& name = fields[i].name;
        if ((differing >> i & 1) == 0) std::strcpy(fields[i].last, fields[i].now);
        const std::size_t at = (" " + std::string(row.compared)).find(" " + name);
        if ((differing >> i & 1) == 0 || at == std::string::npos || decided) continue;
        expected += "<> " + name + " isn't the same. " + name + " changed. must update.\n";
        result = 1;
        decided = row.compared[at + name.size()] == '*';
      }
      if (row.compared[0] == '\0') expected += std::string("<> unhandled state=") + state_name(row.state) + "\n";
      EXPECT_EQ(need_update(now), result) << state_name(row.state) << ' ' << differing;
      EXPECT_EQ(logged(), expected) << state_name(row.state) << ' ' << differing;
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
  const struct {
    RegState last, last_prefinal;
    const char* line;
  } rows[] = {
      {START, NATM, "must do first update\n"},
      {LumenDevNotReady, PublicMode, "different prefinal state,must update\n"},
      {LumenDevNotReady, NATM, "<> last state (LumenDevNotReady), need to update\n"},
      {IpReady, NATM, "<> last state (IpReady), need to update\n"},
  };
  for (const auto& row : rows) {
    begin(NATM);
    now.prefinal_state = NATM;
    last = now;
    last.state = row.last;
    last.prefinal_state = row.last_prefinal;
    EXPECT_EQ(need_update(now), 1);
    EXPECT_EQ(logged(), row.line);
  }
}

}  // namespace
}  // namespace kestrel
