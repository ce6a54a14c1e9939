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
