-- Dissector of the camera finder protocol (UDP port 62977): requests of a PC tool, replies of a camera.
-- Install it in Wireshark's personal Lua plugin folder, or: tshark -X lua_script:kestrel-finder.lua

local PORT, HEADER = 62977, 22
local REQUEST, REPLY = 0xFDFD, 0xFEEE

local operations = {
  [0x00A1] = "Survey",
  [0x00A3] = "Unassigned (known users)",
  [0x00A5] = "Operation list",
  [0x00D1] = "Service state",
  [0x00D2] = "Service on or off",
  [0x0102] = "Registration state",
  [0x0105] = "Service address",
  [0x0106] = "Alias",
  [0x0107] = "Alias change",
  [0x0108] = "Alias state",
  [0x0109] = "Service survey",
  [0x010A] = "Domain change",
}
local open_operations = { [0x00A1] = true, [0x00D1] = true, [0x0102] = true, [0x0105] = true, [0x0109] = true }

local magics = { [REQUEST] = "Request", [REPLY] = "Reply" }
local results = { [0] = "Success", [1] = "Failure" }
local switch = { [0] = "Off", [1] = "On" }
local product_types = { [0] = "Unknown", [1] = "Platform type 0", [2] = "Platform type 1" }
local states = { [1] = "Registering", [2] = "Done: registered and reachable", [3] = "Not ready: not registered",
                 [4] = "Partly done: registered, not reachable" }
local reasons = { [0] = "None", [1] = "IpReady", [2] = "PublicMode", [3] = "NoUPnP", [4] = "UPnP", [5] = "NATM",
                  [6] = "UpnpPfFailed", [7] = "UpnpPfReady" }
local details = { [0] = "None", [2] = "Service switched off", [3] = "Authentication failed", [4] = "Update failed" }
local alias_errors = { [0] = "None", [1] = "Failed", [2] = "Duplicate", [3] = "Not set through the finder" }
local change_errors = { [0] = "None", [1] = "Failed", [2] = "A change is pending" }
local alias_states = { [0] = "Final", [2] = "In progress" }

local finder = Proto("kestrel_finder", "Camera Finder Protocol")
local f = finder.fields

local function field(kind, name, title, ...)
  local made = ProtoField[kind]("kestrel_finder." .. name, title, ...)
  f[name] = made
  return made
end

field("uint16", "magic", "Magic", base.HEX, magics)
field("uint16", "tag", "Tag", base.HEX)
field("uint16", "opcode", "Operation", base.HEX, operations)
field("ether", "mac", "Camera MAC address")
field("bytes", "reserved", "Reserved")
field("ipv4", "address", "Camera address")
field("uint16", "result", "Result", base.DEC, results)
field("uint16", "flag", "Flag", base.DEC)
field("uint16", "length", "Payload length", base.DEC)
field("string", "user_base64", "User (base64)")
field("string", "user", "User")
field("string", "password_base64", "Password (base64)")
field("string", "password", "Password")
field("uint8", "service", "Service", base.DEC, switch)
field("string", "alias", "Alias")
field("string", "domain", "Domain")
field("bytes", "argument", "Argument")
field("bytes", "zero", "Zero")
field("bytes", "payload", "Payload")
field("uint16", "operation", "Announced operation", base.HEX, operations)
field("string", "brand", "Brand")
field("string", "product", "Product")
field("string", "model", "Model")
field("string", "oem_version", "OEM version")
field("string", "client_version", "Client version")
field("string", "name", "Camera name")
field("string", "url", "Service address")
field("string", "local_time", "Local time")
field("uint16", "product_type", "Product type", base.DEC, product_types)
field("uint32", "hardware", "Hardware specification", base.HEX)
field("ether", "interface_mac", "Interface MAC address")
field("ipv4", "interface_address", "Interface address")
field("uint16", "http_port", "HTTP port", base.DEC)
field("uint8", "https", "HTTPS", base.DEC)
field("ipv4", "netmask", "Network mask")
field("ipv4", "gateway", "Gateway")
field("ipv4", "dns", "DNS server")
field("uint8", "dhcp", "DHCP", base.DEC, switch)
field("uint16", "timezone", "Timezone", base.DEC)
field("uint8", "dst", "Daylight saving", base.DEC, switch)
field("uint32", "conf_state", "Registration state", base.DEC, states)
field("uint32", "reason", "Reason", base.DEC, reasons)
field("uint32", "detail", "Detail", base.DEC, details)
field("uint32", "error", "Error number", base.DEC)
field("uint32", "alias_error", "Error number", base.DEC, alias_errors)
field("uint32", "change_error", "Error number", base.DEC, change_errors)
field("uint32", "handle", "Handle", base.DEC)
field("uint32", "alias_status", "Alias status", base.DEC, alias_states)
field("uint32", "wait", "Time until the camera is back (ms)", base.DEC)

local bad_length = ProtoExpert.new("kestrel_finder.bad_length", "Length field does not match the datagram",
                                   expert.group.MALFORMED, expert.severity.ERROR)
local bad_layout = ProtoExpert.new("kestrel_finder.bad_layout", "Payload has another size than this operation's",
                                   expert.group.PROTOCOL, expert.severity.WARN)
local refused = ProtoExpert.new("kestrel_finder.refused", "Authentication refused",
                                expert.group.RESPONSE_CODE, expert.severity.NOTE)
local no_target = ProtoExpert.new("kestrel_finder.no_target", "Only surveys may be addressed to every camera",
                                  expert.group.PROTOCOL, expert.severity.WARN)
finder.experts = { bad_length, bad_layout, refused, no_target }

-- Replies by operation: rows of field and size in their order; numbers are little-endian ("le").
local survey = {
  { "brand", 64 }, { "product", 64 }, { "model", 32 }, { "oem_version", 32 }, { "product_type", 2, "le" },
  { "hardware", 4, "le" }, { "interface_mac", 6 }, { "name", 64 }, { "interface_address", 4 },
  { "http_port", 2, "le" }, { "zero", 2 }, { "netmask", 4 }, { "gateway", 4 }, { "dns", 4 }, { "dns", 4 },
  { "dhcp", 1 }, { "local_time", 15 }, { "zero", 1 }, { "timezone", 2, "le" }, { "dst", 1 },
}
local service_survey = {
  { "brand", 64 }, { "model", 32 }, { "oem_version", 32 }, { "client_version", 32 }, { "interface_mac", 6 },
  { "name", 64 }, { "url", 64 }, { "interface_address", 4 }, { "http_port", 2, "le" }, { "https", 1 }, { "zero", 3 },
}
local list = {}
for i = 1, 17 do list[i] = { "operation", 2, "le" } end
local refusal = { { "zero", 16 } }
local replies = {
  [0x00A1] = survey,
  [0x00A5] = list,
  [0x00D1] = { { "service", 1 }, { "zero", 15 } },
  [0x00D2] = { { "error", 4, "le" }, { "zero", 12 } },
  [0x0102] = { { "conf_state", 4, "le" }, { "reason", 4, "le" }, { "detail", 4, "le" }, { "zero", 4 } },
  [0x0105] = { { "url", 64 } },
  [0x0106] = { { "alias", 64 } },
  [0x0107] = { { "change_error", 4, "le" }, { "handle", 4, "le" }, { "zero", 8 } },
  [0x0108] = { { "alias_error", 4, "le" }, { "alias_status", 4, "le" }, { "zero", 8 } },
  [0x0109] = service_survey,
  [0x010A] = { { "error", 4, "le" }, { "zero", 4 }, { "wait", 4, "le" }, { "zero", 4 } },
}

local function size_of(rows)
  local total = 0
  for _, row in ipairs(rows) do total = total + row[2] end
  return total
end

local function add_rows(tree, payload, rows)
  local at = 0
  for _, row in ipairs(rows) do
    local range = payload(at, row[2])
    if row[3] == "le" then tree:add_le(f[row[1]], range) else tree:add(f[row[1]], range) end
    at = at + row[2]
  end
end

local function all_zero(range)
  return range:bytes():tohex():find("[^0]") == nil
end

-- Up to the first NUL or, without one, to the end of the field.
local function text_of(range)
  return range:raw():match("^[^\0]*")
end

-- Adds a base64 text and, under it, what it stands for; returns the latter.
local function add_base64(tree, range, name)
  local item = tree:add(f[name .. "_base64"], range)
  local encoded = text_of(range)
  if encoded == "" then return "" end
  local plain = ByteArray.new(encoded, true):base64_decode():raw()
  item:add(f[name], range, plain):set_generated()
  return plain
end

local function add_request(tree, payload, opcode, info)
  if payload:len() < 128 then
    tree:add(f.payload, payload)
    if not open_operations[opcode] then tree:add_proto_expert_info(bad_layout) end
    return
  end
  local user = add_base64(tree, payload(0, 64), "user")
  add_base64(tree, payload(64, 64), "password")
  info[#info + 1] = "user=" .. user
  if payload:len() == 128 then return end
  local argument = payload(128)
  if opcode == 0x00D2 then
    tree:add(f.service, argument(0, 1))
    info[#info + 1] = "service=" .. argument(0, 1):uint()
  elseif opcode == 0x0107 or opcode == 0x010A then
    local name = opcode == 0x0107 and "alias" or "domain"
    tree:add(f[name], argument)
    info[#info + 1] = name .. "=" .. text_of(argument)
  else
    tree:add(f.argument, argument)
  end
end

local function add_reply(tree, payload, opcode, result, info)
  local rows = replies[opcode]
  if result == 1 and not open_operations[opcode] and payload:len() == 16 and all_zero(payload) then
    rows = refusal
    tree:add_proto_expert_info(refused)
    info[#info + 1] = "authentication refused"
  elseif result ~= 0 then
    info[#info + 1] = "result=" .. result
  end
  if rows == nil or size_of(rows) ~= payload:len() then
    tree:add(f.payload, payload)
    tree:add_proto_expert_info(bad_layout)
    return
  end
  add_rows(tree, payload, rows)
end

function finder.dissector(buffer, pinfo, root)
  if buffer:len() < HEADER then return 0 end
  local magic = buffer(0, 2):le_uint()
  if magics[magic] == nil then return 0 end
  local opcode = buffer(4, 2):le_uint()
  local length = buffer(20, 2):le_uint()
  local is_request = magic == REQUEST
  local info = { magics[magic] .. ": " .. (operations[opcode] or string.format("operation 0x%04X", opcode)) }

  pinfo.cols.protocol = "FINDER"
  pinfo.cols.info = info[1]
  local tree = root:add(finder, buffer())
  tree:append_text(", " .. info[1])
  tree:add_le(f.magic, buffer(0, 2))
  tree:add_le(f.tag, buffer(2, 2))
  tree:add_le(f.opcode, buffer(4, 2))
  tree:add(f.mac, buffer(6, 6))
  local result = 0
  if is_request then
    tree:add(f.reserved, buffer(12, 8))
    if buffer(6, 6):bytes():tohex() == "FFFFFFFFFFFF" and opcode ~= 0x00A1 and opcode ~= 0x0109 then
      tree:add_proto_expert_info(no_target)
    end
  else
    result = buffer(16, 2):le_uint()
    tree:add(f.address, buffer(12, 4))
    tree:add_le(f.result, buffer(16, 2))
    tree:add_le(f.flag, buffer(18, 2))
  end
  tree:add_le(f.length, buffer(20, 2))

  if length ~= buffer:len() - HEADER then
    tree:add_proto_expert_info(bad_length)
    info[#info + 1] = "bad length"
    if buffer:len() > HEADER then tree:add(f.payload, buffer(HEADER)) end
  elseif length > 0 then
    local payload = buffer(HEADER)
    if is_request then
      add_request(tree, payload, opcode, info)
    else
      add_reply(tree, payload, opcode, result, info)
    end
  end
  pinfo.cols.info = table.concat(info, ", ")
  return buffer:len()
end

DissectorTable.get("udp.port"):add(PORT, finder)
