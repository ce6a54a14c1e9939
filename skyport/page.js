// The bench service's page: cameras, what they say, and the faults that strike them. What comes from cameras is shown
// as text alone; the service's /events tell what happens.
const most_exchanges = 20000, shown_at_once = 200, longest_fact = 300, first_exchanges = 500, older_exchanges = 2000;
const most_backs = 20, longest_name = 80;
const silent_after_ms = 660000; // more than two of a camera's longest waits

// What an update's <st> means, in the order of the picture from top to bottom.
const reports = {
  4: { level: "good", words: "reachable: public address", short: "public address" },
  12: { level: "good", words: "reachable: mapped port", short: "mapped port" },
  13: { level: "part", words: "registered only: no port could be mapped", short: "no port" },
  11: { level: "part", words: "registered only: behind two routers", short: "two routers" },
  6: { level: "part", words: "registered only: no UPnP router", short: "no UPnP" },
};
const report_order = ["4", "12", "13", "11", "6"];

const byId = (id) => document.getElementById(id);
const cameras = new Map(); // hid: { device, row }
let exchanges = []; // oldest first
let clock_ahead_ms = 0; // the service's clock against this machine's
let selected = "", listed = shown_at_once, service_start = 0;
const oldest_asked = new Map(); // by selection: the id before which older exchanges can be asked for; 0 when none is left

/** An element with attributes and children; texts become text, never markup. */
function element(name, attributes = {}, ...children) {
  const made = document.createElement(name);
  for (const [key, value] of Object.entries(attributes))
    if (key.startsWith("on")) made.addEventListener(key.slice(2), value);
    else if (value !== null) made.setAttribute(key, value);
  made.append(...children);
  return made;
}

async function ask(path, options) {
  const answer = await fetch(path, options);
  const body = await answer.json();
  if (!answer.ok) throw new Error(body.error ?? `status ${answer.status}`);
  return body;
}

// ---- Words ----

const now = () => Date.now() + clock_ahead_ms;
const two = (number) => String(number).padStart(2, "0");

function clock(time) {
  const date = new Date(time);
  return `${two(date.getHours())}:${two(date.getMinutes())}:${two(date.getSeconds())}`;
}

function when(time) {
  const date = new Date(time);
  return `${date.getFullYear()}-${two(date.getMonth() + 1)}-${two(date.getDate())} ${clock(time)}`;
}

function ago(iso) {
  const s = Math.max(0, Math.round((now() - Date.parse(iso)) / 1000));
  return s < 100 ? `${s} s ago` : s < 6000 ? `${Math.round(s / 60)} min ago` : `${Math.round(s / 3600)} h ago`;
}

/** What a camera is doing, as far as it was heard here. */
function state_of(device) {
  if (now() - Date.parse(device.seen) > silent_after_ms) return { level: "bad", words: `silent for ${ago(device.seen).replace(" ago", "")}`, rank: 0 };
  if (device.enabled === 0 && (!device.update || device.enabled_time > device.update_time))
    return { level: "off", words: "switched off by its user", rank: 3 };
  if (!device.update) return { level: "part", words: "heard, not registered yet", rank: 1 };
  const report = reports[device.update.st] ?? { level: "part", words: `registered, in state ${device.update.st}` };
  const last = device.connect_back.at(-1);
  if (report.level === "good" && last && !last.connected && last.time > device.update_time)
    return { level: "part", words: `registered, but not reached: ${last.error}`, rank: 1 };
  return { ...report, rank: report.level === "good" ? 4 : 2 };
}

function result_of(exchange) {
  if (exchange.status === 0) return "broken";
  if (exchange.status === 401 && !exchange.error) return "challenge";
  return exchange.status < 400 ? "ok" : "refused";
}

const result_words = { ok: "done", challenge: "challenge", refused: "refused", broken: "broken off" };
const result_level = { ok: "good", challenge: "off", refused: "bad", broken: "bad" };

// ---- Cameras ----

function name_of(device) {
  return device.alias ? `${device.alias} (${device.hid})` : device.hid;
}

function fill_row(camera) {
  const { device, row } = camera, update = device.update ?? {}, state = state_of(device);
  const words = [name_of(device), state.words, [update.model, update.iip].filter(Boolean).join(", ") || "unknown model", ago(device.seen)];
  const button = row.firstChild;
  button.replaceChildren(
    element("strong", { title: words[0] }, words[0]), element("span", { class: `state ${state.level}`, title: state.words }, words[1]),
    element("span", { class: "soft" }, words[2]), element("span", { class: "soft" }, words[3]));
  button.setAttribute("aria-pressed", String(device.hid === selected));
  camera.rank = state.rank;
  camera.text = [device.hid, device.alias, update.model, update.iip, update.eip, update.ueip, update.mac, update.name].join(" ").toLowerCase();
}

function take_devices(devices) {
  let placed = false;
  for (const device of devices) {
    let camera = cameras.get(device.hid);
    if (!camera) {
      const button = element("button", { type: "button", class: "row", onclick: () => select(device.hid) });
      camera = { row: element("li", {}, button) };
      cameras.set(device.hid, camera);
      placed = true;
    }
    // An event tells the last connection back alone.
    const earlier = (camera.device?.connect_back ?? []).filter((back) => !device.connect_back[0] || back.time < device.connect_back[0].time);
    device.connect_back = [...earlier, ...device.connect_back].slice(-most_backs);
    camera.device = device;
    fill_row(camera);
    if (device.hid === selected) show_facts();
  }
  if (placed || byId("order").value !== "hid") place_rows();
  else filter_rows();
}

const orders = {
  hid: (a, b) => a.device.hid.localeCompare(b.device.hid),
  state: (a, b) => a.rank - b.rank || orders.hid(a, b),
  seen: (a, b) => b.device.seen.localeCompare(a.device.seen),
  model: (a, b) => (a.device.update?.model ?? "").localeCompare(b.device.update?.model ?? "") || orders.hid(a, b),
};

function place_rows() {
  const focused = document.activeElement;
  const sorted = [...cameras.values()].sort(orders[byId("order").value]);
  const list = byId("camera-list");
  if (sorted.some((camera, i) => list.children[i] !== camera.row)) list.replaceChildren(...sorted.map((camera) => camera.row));
  if (list.contains(focused)) focused.focus({ preventScroll: true });
  filter_rows();
}

function filter_rows() {
  const wanted = byId("search").value.toLowerCase().split(/\s+/);
  let shown = 0, good = 0;
  for (const camera of cameras.values()) {
    camera.row.hidden = !wanted.every((word) => camera.text.includes(word));
    shown += camera.row.hidden ? 0 : 1;
    good += camera.rank === 4 ? 1 : 0;
  }
  place_tab_stop();
  byId("camera-count").textContent = shown === cameras.size ? `${shown}` : `${shown} of ${cameras.size}`;
  byId("no-camera").hidden = cameras.size > 0;
  byId("summary").textContent = `${good} of ${cameras.size} reachable; up since ${service_start ? when(service_start) : "?"}`;
}

/** The list is one stop of the Tab key: its focused or selected row, else its first; arrows go on from there. */
function place_tab_stop(wanted = document.activeElement?.parentElement) {
  const rows = [...byId("camera-list").children].filter((row) => !row.hidden);
  const stop = [wanted, cameras.get(selected)?.row, rows[0]].find((row) => rows.includes(row));
  for (const row of rows) row.firstChild.tabIndex = row === stop ? 0 : -1;
}

function move_in_list(event) {
  const rows = [...byId("camera-list").children].filter((row) => !row.hidden);
  const at = rows.indexOf(event.target.closest("li"));
  const to = { ArrowDown: at + 1, ArrowUp: at - 1, Home: 0, End: rows.length - 1, PageDown: at + 10, PageUp: at - 10 }[event.key];
  if (to === undefined || at < 0) return;
  event.preventDefault();
  const row = rows[Math.max(0, Math.min(to, rows.length - 1))];
  row.firstChild.focus();
  place_tab_stop(row);
}

function select(hid) {
  selected = hid;
  listed = shown_at_once;
  for (const camera of cameras.values()) camera.row.firstChild.setAttribute("aria-pressed", String(camera.device.hid === hid));
  if (hid !== hash_hid()) location.hash = encodeURIComponent(hid);
  byId("camera-title").textContent = hid === "" ? "All exchanges" : hid;
  for (const id of ["facts", "walk", "back"]) byId(id).hidden = hid === "";
  show_facts();
  show_exchanges();
  if (hid !== "") {
    byId("camera-title").focus({ preventScroll: innerWidth >= 900 });
    load_camera(hid);
  }
}

/** The camera that the page's address names, if any. */
function hash_hid() {
  try {
    return decodeURIComponent(location.hash.slice(1));
  } catch {
    return ""; // no text that this page wrote
  }
}

/** What a camera has said before this page was opened. A service that does not answer is told of elsewhere. */
async function load_camera(hid) {
  const query = encodeURIComponent(hid), asked = [ask(`exchanges?hid=${query}&last=${first_exchanges}`), ask(`devices?hid=${query}`)];
  const [said, [device]] = await Promise.all(asked).catch(() => [[], []]);
  note_oldest(hid, said, first_exchanges);
  keep_exchanges(said);
  if (selected !== hid) return;
  if (device) take_devices([device]);
  show_exchanges();
}

function show_facts() {
  const device = cameras.get(selected)?.device;
  if (!device) return byId("facts").replaceChildren();
  const update = device.update ?? {}, state = state_of(device);
  const facts = [
    ["State", element("span", { class: `state ${state.level}` }, state.words)],
    ["Heard", `${ago(device.seen)}; without a long silence since ${when(device.since)}`],
    ["Alias", device.alias ?? "none"],
    ["Model", [update.model, update.ver && `firmware ${update.ver}`, update.sptver && `protocol ${update.sptver}`].filter(Boolean).join(", ") || "not told"],
    ["Addresses", update.iip ? `${update.iip}:${update.iport} on its LAN; router says ${update.ueip}:${update.ueport}; seen from ${update.eip}:${update.eport}` : "not told"],
    ["Hardware", [update.mac, update.oif].filter(Boolean).join(" on ") || "not told"],
    ["Last update", device.update ? `${when(device.update_time)}, number ${device.updates}: ${reports[update.st]?.words ?? `state ${update.st}`}` : "none"],
    ["Why it came", device.update ? reason_of_update() : "none"],
    ["Switch", device.enabled === null ? "not told" : `${device.enabled ? "on" : "off"}, ${when(device.enabled_time)}`],
    ["First connection", device.first_connection?.trim() || "not told"],
    ["Connections back", connect_backs_of(device)],
  ];
  const cut = (value) => typeof value === "string" && value.length > longest_fact ? `${value.slice(0, longest_fact)}…` : value;
  byId("facts").replaceChildren(...facts.flatMap(([what, value]) => [element("dt", {}, what), element("dd", {}, cut(value))]));
  byId("camera-title").textContent = name_of(device);
  show_walk();
}

const elements_of = (xml) => new Map([...xml.matchAll(/<(\w+)>([^<]*)<\/\1>/g)].map(([, name, text]) => [name, text]));

/** What an update changed against the one before it; the daemon reports at its start, and when something has changed. */
function reason_of_update() {
  const mine = exchanges.filter((e) => e.user === selected && e.authorized && e.path === "/iupd.html" && e.status === 200);
  if (mine.length === 0) return "it is no longer among the exchanges";
  if (mine.length === 1) return "the first one among the exchanges";
  const [before, last] = mine.slice(-2).map((e) => elements_of(e.request));
  if (before.get("tstamp") !== last.get("tstamp")) return "the camera has started or reloaded";
  const changed = [...last].filter(([name, text]) => before.get(name) !== text && name !== "eport");
  return changed.map(([name, text]) => `${name}: ${before.get(name) || "none"} → ${text || "none"}`).join(", ") || "nothing has changed: reported once more";
}

function connect_backs_of(device) {
  const list = element("span", {});
  for (const back of device.connect_back.slice(-5).reverse())
    list.append(element("span", { class: back.connected ? "good" : "bad" },
      `${clock(back.time)} ${back.address}:${back.port} ${back.connected ? `reached in ${back.took_ms} ms` : back.error}`), element("br"));
  return list.childNodes.length ? list : "none yet";
}

// ---- The walk ----

const svg_name = "http://www.w3.org/2000/svg";
function drawn(name, attributes, text) {
  const made = document.createElementNS(svg_name, name);
  for (const [key, value] of Object.entries(attributes)) made.setAttribute(key, value);
  if (text !== undefined) made.append(text);
  return made;
}

function show_walk() {
  const mine = exchanges.filter((e) => e.user === selected && e.authorized);
  const steps = [], marks = [];
  for (const e of mine) {
    const time = Date.parse(e.time), st = /<st>(\d+)<\/st>/.exec(e.request)?.[1];
    if (e.path === "/iupd.html" && e.status === 200 && st) steps.push({ time, row: report_order.indexOf(st), words: reports[st]?.words ?? st });
    if (e.path === "/enable.html" && e.status === 200 && e.request.includes("<enable>0<")) steps.push({ time, row: report_order.length, words: "switched off" });
    if (e.path === "/connectbk.html" && (e.status === 200 || e.status === 404)) marks.push({ time, reached: e.status === 200, words: e.error || (e.fault ? `struck by the fault ${e.fault}` : "reached") });
  }
  const figure = byId("walk"), old = figure.querySelector("svg");
  if (old) old.remove();
  figure.hidden = selected === "" || steps.length + marks.length === 0;
  if (figure.hidden) return;
  const width = 640, left = 92, right = 14, top = 8, gap = 22, rows = [...report_order.map((st) => reports[st].short), "off"];
  const bottom = top + gap * (rows.length - 1) + 12, from = Math.min(...[...steps, ...marks].map((s) => s.time)), to = Math.max(now(), from + 60000);
  const x = (time) => left + (time - from) / (to - from) * (width - left - right), y = (row) => top + gap * row;
  const picture = drawn("svg", { viewBox: `0 0 ${width} ${bottom + 22}`, role: "img",
    "aria-label": `States from ${when(from)}: ${steps.slice(-5).map((s) => s.words).join(", then ") || "no report"}; ${marks.filter((m) => m.reached).length} of ${marks.length} connections back made it` });
  rows.forEach((words, row) => picture.append(
    drawn("line", { class: "grid", x1: left, x2: width - right, y1: y(row), y2: y(row) }), drawn("text", { x: 0, y: y(row) + 4 }, words)));
  let path = "", row = -1;
  for (const step of steps.filter((s) => s.row >= 0)) {
    path += path === "" ? `M${x(step.time)},${y(step.row)}` : `H${x(step.time)}V${y(step.row)}`;
    row = step.row;
  }
  if (path !== "") picture.append(drawn("path", { class: "walk", d: `${path}H${x(to)}` }));
  for (const mark of marks) {
    const at = x(mark.time), before = steps.filter((s) => s.row >= 0 && s.time <= mark.time).at(-1), line = y(before ? before.row : Math.max(row, 0));
    const shape = mark.reached ? drawn("circle", { class: "reached", cx: at, cy: line, r: 4 })
      : drawn("path", { class: "missed", d: `M${at - 4},${line - 4}l8,8m0,-8l-8,8` });
    shape.append(drawn("title", {}, `${when(mark.time)}: connection back ${mark.words}`));
    picture.append(shape);
  }
  picture.append(drawn("text", { x: left, y: bottom + 16 }, when(from)), drawn("text", { x: width - right, y: bottom + 16, "text-anchor": "end" }, clock(to)));
  figure.append(picture);
}

// ---- Exchanges ----

function keep_exchanges(more) {
  const known = new Set(exchanges.map((e) => e.id));
  const fresh = more.filter((e) => !known.has(e.id));
  if (fresh.length === 0) return [];
  const in_order = exchanges.length === 0 || fresh[0].id > exchanges.at(-1).id;
  exchanges.push(...fresh);
  if (!in_order) exchanges.sort((a, b) => a.id - b.id);
  if (exchanges.length > most_exchanges) exchanges = exchanges.slice(-most_exchanges);
  return fresh;
}

function is_wanted(exchange) {
  const path = byId("filter-path").value, result = byId("filter-result").value;
  if (selected !== "" && exchange.user !== selected) return false;
  if (path !== "" && exchange.path !== path) return false;
  return result === "" || (result === "fault" ? exchange.fault !== "" : result_of(exchange) === result);
}

/** XML with its tags and texts told apart by colour. */
function coloured(xml) {
  const block = element("pre", {});
  for (const part of xml.split(/(<[^<>]*>)/))
    if (part !== "") block.append(element("span", { class: part.startsWith("<") ? "tag" : "value" }, part));
  return block;
}

function opened(exchange) {
  const head = [`${exchange.method} ${exchange.target}`, `Host: ${exchange.host}`, `from ${exchange.peer} to ${exchange.local}${exchange.relay ? ", through a relay" : ""}`];
  if (exchange.user) head.push(`credentials of ${exchange.user}${exchange.authorized ? "" : ", refused"}: uri ${exchange.uri}, nc ${exchange.nc}, cnonce ${exchange.cnonce}`);
  const parts = [element("pre", {}, head.filter((line) => line.trim() !== "").join("\n"))];
  if (exchange.error) parts.push(element("p", { class: "bad" }, exchange.error));
  if (exchange.fault) parts.push(element("p", { class: "bad" }, `struck by the fault ${exchange.fault}`));
  if (exchange.request) parts.push(element("div", { class: "soft" }, `said (behind the six digits ${exchange.digits})`), coloured(exchange.request));
  if (exchange.answer) parts.push(element("div", { class: "soft" }, "was answered"), coloured(exchange.answer));
  return parts;
}

const shortened = (text) => text.length > longest_name ? `${text.slice(0, longest_name)}…` : text;

function exchange_item(exchange) {
  const result = result_of(exchange), status = exchange.status === 0 ? "" : ` ${exchange.status}`;
  const details = element("details", {},
    element("summary", {},
      element("time", { datetime: exchange.time, title: exchange.time }, clock(exchange.time)),
      element("span", {}, shortened(`${exchange.method} ${exchange.path}`.trim()) || "no request"),
      element("span", { class: `state ${result_level[result]}` }, `${result_words[result]}${status}`),
      element("span", { class: "soft" }, `${exchange.took_ms} ms`),
      selected === "" ? element("span", { class: "soft" }, shortened(exchange.user) || exchange.peer) : "",
      exchange.fault ? element("span", { class: "bad" }, `fault ${exchange.fault.slice(0, 60)}`) : "",
      exchange.error ? element("span", { class: "bad" }, exchange.error.slice(0, 100)) : ""));
  details.addEventListener("toggle", () => { if (details.open && details.children.length === 1) details.append(...opened(exchange)); });
  return element("li", { "data-id": exchange.id }, details);
}

function count_exchanges(found) {
  const all_known = oldest_asked.get(selected) === 0;
  byId("exchange-count").textContent = `${Math.min(found, listed)} of ${found}${all_known ? "" : " or more"} shown`;
  byId("more").hidden = found <= listed && all_known;
}

/** After an answer to a question for the last `asked` exchanges of a selection. */
function note_oldest(hid, said, asked) {
  oldest_asked.set(hid, said.length < asked ? 0 : said[0].id);
}

/** Shows more, and asks the service for older ones when these are not enough. */
async function show_older() {
  const hid = selected;
  listed += shown_at_once;
  byId("more").disabled = true;
  while (selected === hid && exchanges.filter(is_wanted).length < listed && oldest_asked.get(hid) !== 0) {
    const said = await ask(`exchanges?hid=${encodeURIComponent(hid)}&before=${oldest_asked.get(hid) ?? Number.MAX_SAFE_INTEGER}&last=${older_exchanges}`).catch(() => []);
    note_oldest(hid, said, older_exchanges);
    keep_exchanges(said);
  }
  byId("more").disabled = false;
  show_exchanges();
}

function show_exchanges() {
  const found = exchanges.filter(is_wanted);
  byId("exchange-list").replaceChildren(...found.slice(-listed).reverse().map(exchange_item));
  count_exchanges(found.length);
  show_walk();
}

function add_exchanges(more) {
  const fresh = keep_exchanges(more).filter(is_wanted), list = byId("exchange-list");
  if (fresh.length === 0) return;
  list.prepend(...fresh.slice(-listed).reverse().map(exchange_item));
  while (list.children.length > listed) list.lastChild.remove();
  count_exchanges(exchanges.filter(is_wanted).length);
  if (selected !== "") show_walk();
}

// ---- Faults ----

function show_faults(faults) {
  const chips = faults.map((fault) => element("li", {}, fault,
    element("button", { type: "button", "aria-label": `Clear ${fault}`, onclick: () => order(`faults?fault=${encodeURIComponent(fault)}`, { method: "DELETE" }) }, "✕")));
  byId("active").replaceChildren(...(chips.length ? chips : [element("li", { class: "none" }, "none in force")]));
  byId("faults").classList.toggle("struck", chips.length > 0);
  byId("striking").textContent = chips.length ? `${chips.length} fault${chips.length > 1 ? "s" : ""} in force: ${faults.map(shortened).slice(0, 3).join("  ")}${chips.length > 3 ? " …" : ""}` : "";
}

async function order(path, options) {
  try {
    show_faults(await ask(path, options));
    byId("fault-error").textContent = "";
  } catch (error) {
    byId("fault-error").textContent = error.message;
  }
}

function fit_fault_form(kinds) {
  const kind = kinds.find((row) => row.kind === byId("fault-kind").value);
  byId("fault-argument-label").hidden = kind.argument === "none";
  byId("fault-when-label").hidden = !kind.narrowed;
  const input = byId("fault-argument");
  input.value = "";
  input.placeholder = kind.argument === "number" ? (kind.usual >= 0 ? `${kind.usual}` : `${kind.least} to ${kind.most}`) : "";
  input.required = kind.argument === "text" || (kind.argument === "number" && kind.usual < 0);
}

async function set_up_faults() {
  const { paths, kinds } = await ask("faults/kinds");
  byId("fault-path").replaceChildren(element("option", { value: "*" }, "all"), ...paths.map((path) => element("option", {}, path)));
  byId("fault-kind").replaceChildren(...kinds.map((row) => element("option", {}, row.kind)));
  byId("filter-path").replaceChildren(element("option", { value: "" }, "all"), ...paths.map((path) => element("option", {}, path)));
  byId("fault-kind").onchange = () => fit_fault_form(kinds);
  fit_fault_form(kinds);
}

byId("fault-form").addEventListener("submit", (event) => {
  event.preventDefault();
  const value = (id) => byId(id).closest("label").hidden ? "" : byId(id).value;
  const argument = value("fault-argument"), count = value("fault-count");
  const text = `${value("fault-path")}:${value("fault-kind")}${argument && `=${argument}`}${value("fault-when")}${count && `*${count}`}`;
  order("faults", { method: "POST", body: text });
});
byId("fault-clear").onclick = () => order("faults", { method: "DELETE" });
byId("fault-start").onclick = () => order("faults/start", { method: "POST" });

// ---- Following the service ----

function follow(since = exchanges.at(-1)?.id ?? 0) {
  const events = new EventSource(`events?since=${since}`);
  const say = (state, words) => { byId("link").dataset.state = state; byId("link").textContent = words; };
  const on = (name, take) => events.addEventListener(name, (event) => take(JSON.parse(event.data)));
  on("hello", (hello) => {
    clock_ahead_ms = hello.now - Date.now();
    if (service_start && hello.start !== service_start) return begin(); // another run, with ids of its own
    service_start = hello.start;
    say("live", "live");
    filter_rows();
  });
  on("lost", begin); // too much has happened since, and with it what became of the cameras
  on("exchanges", add_exchanges);
  on("devices", take_devices);
  on("faults", show_faults);
  events.onerror = () => {
    say("lost", "the service does not answer; trying again");
    events.close();
    clearTimeout(follow.timer);
    follow.timer = setTimeout(follow, 1000);
  };
  follow.source = events;
}

async function begin() {
  follow.source?.close();
  exchanges = [];
  oldest_asked.clear();
  service_start = 0;
  try {
    const since = (await ask("exchanges?last=1")).at(-1)?.id ?? 0; // what comes from now on is told by events
    const said = ask(`exchanges?last=${first_exchanges}`), forms = set_up_faults();
    said.catch(() => {}), forms.catch(() => {}); // told by the awaits below
    const devices = await ask("devices?backs=1");
    cameras.clear();
    take_devices(devices);
    place_rows();
    requestAnimationFrame(() => performance.mark("first-camera"));
    note_oldest("", await said, first_exchanges);
    keep_exchanges(await said);
    await forms;
    show_facts();
    show_exchanges();
    if (selected !== "") load_camera(selected);
    follow(since);
  } catch {
    byId("link").dataset.state = "lost";
    byId("link").textContent = "the service does not answer; trying again";
    setTimeout(begin, 1000);
  }
}

byId("search").oninput = filter_rows;
byId("order").onchange = place_rows;
byId("back").onclick = () => select("");
byId("more").onclick = show_older;
byId("camera-list").onkeydown = move_in_list;
addEventListener("hashchange", () => { if (hash_hid() !== selected) select(hash_hid()); });
for (const id of ["filter-path", "filter-result"]) byId(id).onchange = show_exchanges;
setInterval(() => { for (const camera of cameras.values()) fill_row(camera); place_rows(); if (selected !== "") show_facts(); }, 10000);
selected = hash_hid();
await begin();
if (selected !== "") select(selected);
