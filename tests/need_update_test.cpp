// The update decision: which differences between two cycles are reported, and what the log says of it.
#include "regstate/need_update.h"

#include <cstring>
#include <sstream>

#include "choices.h"
#include "regstate/state_table.h"
#include "regstate_fakes.h"

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
  std::istringstream stream(fields);
  for (std::string field; stream >> field;) std::strcpy(texts.at(field), "9");
}

/// What the log says behind the dump of both records.
std::string decision_log() {
  std::string text;
  for (std::size_t i = 16; i < fake.log.size(); ++i) text += fake.log[i];
  return text;
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
      std::istringstream compared(row.compared);
      bool decided = false;
      for (std::string field; !decided && compared >> field;) {
        const std::string name = field.substr(0, field.find('*'));
        if ((" " + changed).find(" " + name + " ") == changed.npos) continue;
        expected += "<> " + name + " isn't the same. " + name + " changed. must update.\n";
        result = 1;
        decided = field.back() == '*';
      }
      if (row.compared[0] == '\0') expected += std::string("<> unhandled state=") + state_name(row.state) + "\n";
      EXPECT_EQ(need_update(now), result) << state_name(row.state) << ' ' << changed;
      EXPECT_EQ(decision_log(), expected) << state_name(row.state) << ' ' << changed;
    } while (choices.next());
  }
}

TEST_F(UpdateDecision, UpdateWhenTheLastCycleDoesNotCompare) {
  const struct {
    RegState last, last_prefinal;
    const char* line;
  } rows[] = {
      {START, NATM, "must do first update\n"},
      {START, NoUPnP, "must do first update\n"},
      {LumenDevDone, PublicMode, "different prefinal state,must update\n"},
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
    EXPECT_EQ(decision_log(), row.line);
  }
}

TEST_F(UpdateDecision, DecisionShowsBothRecords) {
  now.state = NATM;
  now.pfok = 1;
  change(last, "eip ueip ueport iip iport");
  last.state = static_cast<RegState>(99);
  need_update(now);
  const std::string dashes(61, '-');
  const Texts expected = {dashes + "\n",
                          "hid: c(HID00001)-l(other)\n",
                          "sname : c()-l(other)\n",
                          "uid   : c(LC_0A0B0C)-l(other)\n",
                          "pfok  : c(1)-l(1)\n",
                          "dev->upd.resut     : c(7)-l(1)\n",
                          "pdev->upd.starttime: c(99)-l(2)\n",
                          "state Current: CF(NATM)-LF(UNKNOWN)\n",
                          "state CPF(NoUPnP)-LPF(START)\n",
                          "pdev->e.ip   : c(203.0.113.5)-l(9)\n",
                          "pdev->e.port : c(4711)-l(9)\n",
                          "pdev->ue.ip  : c(10.1.2.3)-l(9)\n",
                          "pdev->ue.port: c(58081)-l(9)\n",
                          "pdev->i.ip   : c(192.168.1.20)-l(9)\n",
                          "pdev->i.port : c(50080)-l(9)\n",
                          dashes + "\n",
                          "different prefinal state,must update\n"};
  EXPECT_EQ(fake.log, expected);
}

}  // namespace
}  // namespace kestrel
