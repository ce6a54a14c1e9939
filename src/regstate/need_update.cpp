// The update decision, see need_update.h.
#include "regstate/need_update.h"

#include <array>
#include <cstring>

#include "core/debug_log.h"
#include "regstate/state_table.h"

namespace kestrel {

namespace {

/// What a difference in a field means to a state: nothing, a report, or a report without a look at the others.
enum Weight : std::uint8_t { ignored, compared, decisive };

struct StateWeights {
  RegState state;
  Weight eip, ueip, ueport, iip, iport;
};

constexpr std::array<StateWeights, 5> state_weights = {{
    {PublicMode, compared, ignored, ignored, compared, compared},
    {NoUPnP, compared, ignored, ignored, compared, compared},
    {NATM, decisive, decisive, ignored, compared, compared},
    {UpnpPfFailed, decisive, decisive, ignored, compared, compared},
    {UpnpPfReady, decisive, decisive, decisive, compared, compared},
}};

constexpr char dashes[] = "-------------------------------------------------------------\n";

void log_both(const DeviceContext& c, const DeviceContext& l) {
  debug_log(dashes);
  debug_log("hid: c(%s)-l(%s)\n", c.hid, l.hid);
  debug_log("sname : c(%s)-l(%s)\n", c.sname, l.sname);
  debug_log("uid   : c(%s)-l(%s)\n", c.uid, l.uid);
  debug_log("pfok  : c(%d)-l(%d)\n", static_cast<int>(c.pfok), static_cast<int>(l.pfok));
  debug_log("dev->upd.resut     : c(%d)-l(%d)\n", static_cast<int>(c.upd.resut), static_cast<int>(l.upd.resut));
  debug_log("pdev->upd.starttime: c(%d)-l(%d)\n", static_cast<int>(c.upd.starttime), static_cast<int>(l.upd.starttime));
  debug_log("state Current: CF(%s)-LF(%s)\n", state_name(load_word(c.state)), state_name(l.state));
  debug_log("state CPF(%s)-LPF(%s)\n", state_name(c.prefinal_state), state_name(l.prefinal_state));
  debug_log("pdev->e.ip   : c(%s)-l(%s)\n", c.e.ip, l.e.ip);
  debug_log("pdev->e.port : c(%s)-l(%s)\n", c.e.port, l.e.port);
  debug_log("pdev->ue.ip  : c(%s)-l(%s)\n", c.ue.ip, l.ue.ip);
  debug_log("pdev->ue.port: c(%s)-l(%s)\n", c.ue.port, l.ue.port);
  debug_log("pdev->i.ip   : c(%s)-l(%s)\n", c.i.ip, l.i.ip);
  debug_log("pdev->i.port : c(%s)-l(%s)\n", c.i.port, l.i.port);
  debug_log(dashes);
}

/// 1 when a field that counts for the state differs.
int compare_fields(const StateWeights& row, const DeviceContext& c, const DeviceContext& l) {
  const struct {
    Weight weight;
    const char *current, *last, *line;
  } fields[] = {
      {row.eip, c.e.ip, l.e.ip, "<> eip isn't the same. eip changed. must update.\n"},
      {row.ueip, c.ue.ip, l.ue.ip, "<> ueip isn't the same. ueip changed. must update.\n"},
      {row.ueport, c.ue.port, l.ue.port, "<> ueport isn't the same. ueport changed. must update.\n"},
      {row.iip, c.i.ip, l.i.ip, "<> iip isn't the same. iip changed. must update.\n"},
      {row.iport, c.i.port, l.i.port, "<> iport isn't the same. iport changed. must update.\n"},
  };
  int result = 0;
  for (const auto& field : fields) {
    if (field.weight == ignored || std::strcmp(field.current, field.last) == 0) continue;
    debug_log(field.line);
    if (field.weight == decisive) return 1;
    result = 1;
  }
  return result;
}

}  // namespace

int need_update(const DeviceContext& current) {
  const DeviceContext& last = *current.last;
  log_both(current, last);
  if (last.state == START) {
    debug_log("must do first update\n");
    return 1;
  }
  if (current.prefinal_state != last.prefinal_state) {
    debug_log("different prefinal state,must update\n");
    return 1;
  }
  if (last.state != LumenDevDone && last.state != LumenDevPartDone) {
    debug_log("<> last state (%s), need to update\n", state_name(last.state));
    return 1;
  }
  debug_log("<> last succeeded state: %s\n", state_name(last.state));
  const RegState state = load_word(current.state);
  for (const StateWeights& row : state_weights) {
    if (row.state == state) return compare_fields(row, current, last);
  }
  debug_log("<> unhandled state=%s\n", state_name(state));
  return 0;
}

}  // namespace kestrel
