// The update decision: which differences between two cycles are reported, and what the log says of it.
#include "regstate/need_update.h"

#include <cstring>
#include <numeric>

#include "regstate/choices.h"
#include "regstate/regstate_fakes.h"
#include "regstate/state_table.h"

namespace kestrel {
namespace {

using UpdateDecision = RegstateTest;

/// Sets the named fields, and every one that the decision must not look at.
void change(DeviceContext& ctx, const std::string& fields) {
  std::strcpy(ctx.hid, "other");
  std::strcpy(ctx.uid, "other");
  std::strcpy(ctx.sname, "other");
  std::strcpy(ctx.e.port, "9");
  ctx.pfok = 1;
  ctx.upd = {1, 2};
  const std::map<std::string, char*> texts = {
      {"eip", ctx.e.ip}, {"ueip", ctx.ue.ip}, {"iip", ctx.i.ip}, {"ueport", ctx.ue.port}, {"iport", ctx.i.port}};
  for (const std::string& field : split(fields)) std::strcpy(texts.at(field), "9");
}

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
  for (const auto& row : rows) {
    Choices choices;
    do {
      std::string changed;
      for (const char* field : {"eip ", "ueip ", "ueport ", "iip ", "iport "}) {
        if (choices.choose(2) == 1) changed += field;
      }
      begin(row.state);
      now.prefinal_state = row.state;
      last = now;
      last.state = choices.choose(2) == 0 ? LumenDevDone : LumenDevPartDone;
      change(last, changed);
      std::string expected = std::string("<> last succeeded state: ") + state_name(last.state) + "\n";
      int result = 0;
      for (const std::string& field : split(row.compared)) {
        const std::string name = split(field, '*')[0];
        if ((" " + changed).find(" " + name + " ") == changed.npos) continue;
        expected += "<> " + name + " isn't the same. " + name + " changed. must update.\n";
        result = 1;
        if (field.back() == '*') break;
      }
      if (row.compared[0] == '\0') expected += std::string("<> unhandled state=") + state_name(row.state) + "\n";
      EXPECT_EQ(need_update(now), result) << state_name(row.state) << ' ' << changed;
      EXPECT_EQ(logged(), expected) << state_name(row.state) << ' ' << changed;
    } while (choices.next());
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
