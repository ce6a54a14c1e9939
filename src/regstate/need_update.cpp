// The update decision, see need_update.h.
#include "regstate/need_update.h"

#include <array>
#include <cstddef>
#include <cstring>

#include "core/debug_log.h"
#include "regstate/state_table.h"

namespace kestrel {

namespace {

enum Field { eip, ueip, ueport, iip, iport };

struct FieldRow {
  Field field;
  std::size_t at;  // in the record
  const char* line;
};

constexpr std::array<FieldRow, 5> fields = {{
    {eip, offsetof(DeviceContext, e.ip), "<> eip isn't the same. eip changed. must update.\n"},
    {ueip, offsetof(DeviceContext, ue.ip), "<> ueip isn't the same. ueip changed. must update.\n"},
    {ueport, offsetof(DeviceContext, ue.port), "<> ueport isn't the same. ueport changed. must update.\n"},
    {iip, offsetof(DeviceContext, i.ip), "<> iip isn't the same. iip changed. must update.\n"},
    {iport, offsetof(DeviceContext, i.port), "<> iport isn't the same. iport changed. must update.\n"},
}};

constexpr bool rows_stand_at_their_fields() {
  for (std::size_t i = 0; i < fields.size(); ++i) {
    if (static_cast<std::size_t>(fields[i].field) != i) return false;
  }
  return true;
}
static_assert(rows_stand_at_their_fields());

const char* text_of(const DeviceContext& ctx, const FieldRow& field) {
  return reinterpret_cast<const char*>(&ctx) + field.at;
}

/// A field that a state compares. A difference in a decisive one ends the comparison.
struct Comparison {
  Field field;
  bool decisive;
};

struct StateComparisons {
  RegState state;
  std::size_t count;
  Comparison list[5];
};

constexpr std::array<StateComparisons, 5> comparisons = {{
    {PublicMode, 3, {{eip, false}, {iip, false}, {iport, false}}},
    {NoUPnP, 3, {{eip, false}, {iip, false}, {iport, false}}},
    {NATM, 4, {{eip, true}, {ueip, true}, {iip, false}, {iport, false}}},
    {UpnpPfFailed, 4, {{eip, true}, {ueip, true}, {iip, false}, {iport, false}}},
    {UpnpPfReady, 5, {{eip, true}, {ueip, true}, {ueport, true}, {iip, false}, {iport, false}}},
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

/// 1 when a field that the state compares differs.
int compare_fields(const StateComparisons& row, const DeviceContext& current, const DeviceContext& last) {
  int result = 0;
  for (std::size_t i = 0; i < row.count; ++i) {
    const FieldRow& field = fields[row.list[i].field];
    if (std::strcmp(text_of(current, field), text_of(last, field)) == 0) continue;
    debug_log(field.line);
    result = 1;
    if (row.list[i].decisive) return result;
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
  for (const StateComparisons& row : comparisons) {
    if (row.state == state) return compare_fields(row, current, last);
  }
  debug_log("<> unhandled state=%s\n", state_name(state));
  return 0;
}

}  // namespace kestrel
