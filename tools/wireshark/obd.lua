-- Wireshark dissector for OBD captures (link type USER0, 147).
--
-- Install: copy this one file into the personal Lua plugins folder
-- (~/.local/lib/wireshark/plugins/), or load it for one run with
-- `tshark -X lua_script:obd.lua -r capture.pcap`.
--
-- Every packet opens with the 8-byte capture header (version, channel, direction, flags, bus
-- id, little-endian); the rest is a frame of the box link (protocol `obd`), a bus message
-- (protocol `obdbus`) or an inertial sample (protocol `obdimu`).
--
-- The payload decoders mirror obd-frame's field names and meanings, so that the two tools can be
-- compared packet by packet. Nothing here may raise a Lua error on bad input: every read is
-- checked against the bytes present, and what does not fit is marked malformed.

local cap = Proto.new("obdcap", "OBD capture header")
local obd = Proto.new("obd", "OBD box link frame")
local bus = Proto.new("obdbus", "OBD plug-in bus message")
local imu = Proto.new("obdimu", "OBD inertial sample")

---------------------------------------------------------------------------------------------
-- Tables

local CHANNELS = { [1] = "line frame", [2] = "line chunk", [3] = "garbage", [4] = "bus message",
                   [5] = "inertial sample", [6] = "run facts" }
local DIRECTIONS = { [0] = "to the plug-in", [1] = "from the plug-in" }

-- The command table, by obdcmd_t index; the names drop the OBD_CMD_ prefix as obd-frame does.
local COMMANDS = {
  [0] = { 0x0000, "NONE" }, { 0x2103, "READ_HW_VER" }, { 0x6103, "READ_HW_VER_ACK" },
  { 0x2105, "READ_SW_VER" }, { 0x6105, "READ_SW_VER_ACK" }, { 0x2407, "UPG_START" },
  { 0x6407, "UPG_START_ACK" }, { 0x2402, "UPG_FILE_NAME" }, { 0x6402, "UPG_FILE_NAME_ACK" },
  { 0x2403, "UPG_FILE_DATA" }, { 0x6403, "UPG_FILE_DATA_ACK" }, { 0x2404, "UPG_MD5" },
  { 0x6404, "UPG_MD5_ACK" }, { 0x2111, "UPG_END" }, { 0x6111, "UPG_END_ACK" },
  { 0x2C01, "START_TS" }, { 0x6C01, "START_TS_ACK" }, { 0x2C04, "STOP_TS" },
  { 0x6C04, "STOP_TS_ACK" }, { 0x0000, "FAIL" }, { 0x0000, "RESERVED" },
  { 0x2C03, "CFG_ENGINE" }, { 0x6C03, "CFG_ENGINE_ACK" }, { 0x2C23, "CFG_STL" },
  { 0x6C23, "CFG_STL_ACK" }, { 0x2C43, "CFG_DSL" }, { 0x6C43, "CFG_DSL_ACK" },
  { 0x2C22, "READ_STL" }, { 0x6C22, "READ_STL_ACK" }, { 0x2C42, "READ_DSL" },
  { 0x6C42, "READ_DSL_ACK" }, { 0x2C12, "READ_ENGINE" }, { 0x6C12, "READ_ENGINE_ACK" },
  { 0x2C10, "LINK" }, { 0x2C10, "LINK_ACK" }, { 0x2C81, "DATA_STREAM" }, { 0x6C7F, "IGNORED" },
  { 0x2506, "RESTART" }, { 0x2114, "JUMP_APP" }, { 0x2CF1, "READ_FAULT_CODE" },
  { 0x6CF1, "READ_FAULT_CODE_ACK" },
}
local IDX = {}
for i = 0, #COMMANDS do IDX[COMMANDS[i][2]] = i end
local STOP_ACK_ALT = 0x2301 -- the box's other acknowledgement of a stop

-- The obdcmd_t index of a code; the link code is the request towards the box and the answer
-- from it. -1 for a code not in the table.
local function command_index(code, from_box)
  if code == 0 then return -1 end
  if code == STOP_ACK_ALT then return IDX.STOP_TS_ACK end
  local found = -1
  for i = 0, #COMMANDS do
    if COMMANDS[i][1] == code and (found < 0 or from_box) then found = i end
  end
  return found
end

-- Requests whose answer sits at the next index (restart and jump are never answered).
local ANSWERED = {}
for _, n in ipairs({ "READ_HW_VER", "READ_SW_VER", "UPG_START", "UPG_FILE_NAME", "UPG_FILE_DATA",
                     "UPG_MD5", "UPG_END", "START_TS", "STOP_TS", "CFG_ENGINE", "CFG_STL",
                     "CFG_DSL", "READ_STL", "READ_DSL", "READ_ENGINE", "LINK",
                     "READ_FAULT_CODE" }) do
  ANSWERED[IDX[n]] = true
end
local REQUESTS = { RESTART = true, JUMP_APP = true }
for i in pairs(ANSWERED) do REQUESTS[COMMANDS[i][2]] = true end

-- The data items by data id (1-59); only those the analyser reads have a name.
local ITEM_NAMES = { [1] = "mileage", [2] = "gross", [3] = "mileage2", [4] = "fuel",
                     [7] = "engine_speed", [8] = "speed", [9] = "battery_volt",
                     [10] = "coolant_temp", [15] = "accelerator", [16] = "clutch", [17] = "brake",
                     [18] = "running_brake", [58] = "oil_temp" }
local ITEM_COUNT = 59
local function item_name(id) return ITEM_NAMES[id] or ("id_" .. id) end

local MESSAGES = {
  [348] = "MSG_GDS_PARAM_UPDATE", [1071] = "MSG_INERTIA_SENSOR_DATA", [1194] = "MSG_POWER_DOWN",
  [6698] = "MSG_GET_GDS_CONFIG_INFO", [6699] = "MSG_GDS_CONFIG_INFO_REPORT",
  [6702] = "MSG_OBD_ORIGINAL_DATA", [6714] = "MSG_BLACKBOX_OBD_DATA", [6720] = "MSG_GDS_ALARM",
  [6729] = "MSG_TRIGGER_PERIPHERAL_UPGRADE", [6730] = "MSG_PERIPHERAL_UPGRADE_STATE",
  [6731] = "MSG_GET_PERIPHERAL_UPGRADE_STATE", [6779] = "MSG_TRIGGER_OBD_DEMACATE",
  [6877] = "MSG_CAN_BOX_DATA", [6893] = "MSG_CAN_BOX_TOTAL_MILEAGE",
  [6898] = "MSG_CAN_BOX_OBD_DATA_IN", [6899] = "MSG_CAN_BOX_OBD_DATA_OUT",
  [33115] = "MSG_GDS_PARAM_UPDATE_EX",
}
local UPG_STATES = { [0] = "progress", [9] = "failed", [10] = "success" }

---------------------------------------------------------------------------------------------
-- Fields

local F = {}
local LISTS = { [cap] = {}, [obd] = {}, [bus] = {}, [imu] = {} }
local function field(proto, key, f)
  assert(F[key] == nil, "field key used twice: " .. key)
  F[key] = f
  table.insert(LISTS[proto], f)
  return f
end

local function cf(key, f) return field(cap, key, f) end
cf("cap_version", ProtoField.uint8("obdcap.version", "Version"))
cf("cap_channel", ProtoField.uint8("obdcap.channel", "Channel", base.DEC, CHANNELS))
cf("cap_dir", ProtoField.uint8("obdcap.direction", "Direction", base.DEC, DIRECTIONS))
cf("cap_flags", ProtoField.uint8("obdcap.flags", "Flags", base.HEX))
cf("cap_resp", ProtoField.bool("obdcap.flags.response", "Response", 8, nil, 0x01))
cf("cap_cut", ProtoField.bool("obdcap.flags.cut", "Cut off", 8, nil, 0x02))
cf("cap_busid", ProtoField.uint32("obdcap.busid", "Bus id", base.DEC, MESSAGES))

local function of(key, f) return field(obd, key, f) end
of("head", ProtoField.uint16("obd.head", "Head", base.HEX))
of("mark", ProtoField.uint16("obd.mark", "Direction mark", base.HEX,
   { [0xF0F8] = "to the box", [0xF8F0] = "from the box" }))
of("dir", ProtoField.string("obd.dir", "Direction"))
of("length", ProtoField.uint16("obd.length", "Length"))
of("seq", ProtoField.uint8("obd.seq", "Sequence number"))
of("code", ProtoField.uint16("obd.code", "Code", base.HEX))
of("cmd", ProtoField.string("obd.cmd", "Command"))
of("payload", ProtoField.bytes("obd.payload", "Payload"))
of("checksum", ProtoField.uint8("obd.checksum", "Checksum", base.HEX))
of("checksum_ok", ProtoField.bool("obd.checksum_ok", "Checksum good"))
of("checksum_expected", ProtoField.uint8("obd.checksum_expected", "Checksum expected", base.HEX))
of("escapes", ProtoField.uint16("obd.escapes", "Escape pairs undone"))
of("length_counts_escapes", ProtoField.bool("obd.length_counts_escapes",
   "Length counts the escape pairs"))
of("not_escaped", ProtoField.bool("obd.not_escaped", "7D pairs read as they are"))
of("unescaped", ProtoField.bytes("obd.unescaped", "Unescaped body"))
of("note", ProtoField.string("obd.note", "Note"))
of("rest", ProtoField.bytes("obd.rest", "Not read"))
of("chunk", ProtoField.bytes("obd.chunk", "Line chunk"))
of("garbage", ProtoField.bytes("obd.garbage", "Garbage"))
cf("run", ProtoField.string("obdcap.run", "Run facts"))
of("cut", ProtoField.bytes("obd.cut", "Cut-off frame"))
of("request_in", ProtoField.framenum("obd.request_in", "Answers the command in",
   base.NONE, frametype.REQUEST))
of("answer_in", ProtoField.framenum("obd.answer_in", "Answered in", base.NONE,
   frametype.RESPONSE))
of("retry_of", ProtoField.framenum("obd.retry_of", "Repeats the frame", base.NONE))
-- Answers
for _, n in ipairs({ "HwName", "DevSerialNum", "HWVer", "VerDate", "DevType", "BootVer", "DLVer",
                     "DiagSWVer" }) do
  of("v_" .. n, ProtoField.string("obd.version." .. n, n))
end
of("engine", ProtoField.uint16("obd.engine", "Engine code", base.HEX_DEC))
of("levels", ProtoField.uint8("obd.levels", "Levels"))
of("level", ProtoField.uint8("obd.level", "Level"))
of("level_time", ProtoField.uint32("obd.level.time", "Time"))
of("level_len", ProtoField.uint8("obd.level.len", "Data length"))
of("level_data", ProtoField.bytes("obd.level.data", "Data"))
of("status", ProtoField.uint8("obd.status", "Status"))
of("verdict", ProtoField.string("obd.verdict", "Verdict"))
of("fault_codes", ProtoField.bytes("obd.fault_codes", "Fault codes"))
of("item_id", ProtoField.uint8("obd.item.id", "Data id"))
for id = 1, ITEM_COUNT do
  of("item" .. id, ProtoField.float("obd.item." .. item_name(id), item_name(id)))
end
-- Requests
of("upg_name", ProtoField.string("obd.upg.name", "File name"))
of("upg_name_len", ProtoField.uint16("obd.upg.name_len", "Name length"))
of("upg_size", ProtoField.uint32("obd.upg.size", "File size"))
of("upg_offset", ProtoField.uint32("obd.upg.offset", "Chunk offset"))
of("upg_length", ProtoField.uint16("obd.upg.length", "Chunk length"))
of("upg_data", ProtoField.bytes("obd.upg.data", "Chunk"))
of("upg_md5", ProtoField.string("obd.upg.md5", "MD5"))

local function bf(key, f) return field(bus, key, f) end
bf("id", ProtoField.uint32("obdbus.id", "Message id", base.DEC, MESSAGES))
bf("name", ProtoField.string("obdbus.name", "Message"))
bf("response", ProtoField.bool("obdbus.response", "Answer to a request"))
bf("size", ProtoField.uint32("obdbus.size", "Payload size"))
bf("unread", ProtoField.bytes("obdbus.unread", "Not read"))
bf("reserved", ProtoField.bytes("obdbus.reserved", "Reserved"))
-- data table
bf("tbl_id", ProtoField.int32("obdbus.table.id", "Item id"))
for id = 1, ITEM_COUNT do
  bf("bitem" .. id, ProtoField.float("obdbus.item." .. item_name(id), item_name(id)))
end
-- status record
bf("mask", ProtoField.uint32("obdbus.cfg.mask", "Valid fields", base.HEX))
for _, n in ipairs({ "HwName", "DevSerialNum", "HWVer", "VerDate", "DevType", "BootVer", "DLVer",
                     "DiagSWVer" }) do
  bf("bv_" .. n, ProtoField.string("obdbus.cfg.version." .. n, n))
end
bf("stl_num", ProtoField.int32("obdbus.cfg.stl.num", "Scan-time levels"))
bf("stl_level", ProtoField.int32("obdbus.cfg.stl.level", "Level"))
bf("stl_time", ProtoField.uint32("obdbus.cfg.stl.time", "Time"))
bf("dsl_num", ProtoField.int32("obdbus.cfg.dsl.num", "Data-scan levels"))
bf("dsl_level", ProtoField.int32("obdbus.cfg.dsl.level", "Level"))
bf("dsl_len", ProtoField.int32("obdbus.cfg.dsl.len", "Data length"))
bf("dsl_data", ProtoField.bytes("obdbus.cfg.dsl.data", "Data"))
bf("engine_id", ProtoField.uint16("obdbus.engine.id", "Engine code", base.HEX_DEC))
bf("engine_name", ProtoField.string("obdbus.engine.name", "Engine name"))
bf("gds_version", ProtoField.string("obdbus.cfg.gds_version", "GDS version"))
bf("thresholds", ProtoField.bytes("obdbus.cfg.thresholds", "Alarm thresholds"))
bf("six_axis", ProtoField.bytes("obdbus.cfg.six_axis", "Six-axis calibration"))
bf("mode", ProtoField.uint8("obdbus.cfg.mode", "Mode"))
bf("obd_state", ProtoField.uint8("obdbus.cfg.obd_state", "OBD state", base.HEX))
bf("obd_data", ProtoField.bool("obdbus.cfg.obd_state.data", "Data arriving", 8, nil, 0x01))
bf("obd_known", ProtoField.bool("obdbus.cfg.obd_state.known", "Box known", 8, nil, 0x02))
-- alarms
for k = 1, 4 do
  bf("event" .. k, ProtoField.uint64("obdbus.alarm.event" .. k, "eventType" .. k .. "Alarms",
     base.HEX))
end
bf("ended", ProtoField.string("obdbus.alarm.ended", "Ended alarm"))
bf("continue", ProtoField.uint16("obdbus.alarm.duration", "Duration (ms)"))
bf("threshold", ProtoField.uint16("obdbus.alarm.threshold", "Threshold"))
bf("max", ProtoField.int16("obdbus.alarm.max", "Max value"))
-- black box
bf("bb_count", ProtoField.uint16("obdbus.blackbox.records", "Records"))
bf("bb_time", ProtoField.bytes("obdbus.blackbox.time", "Time"))
bf("bb_items", ProtoField.uint32("obdbus.blackbox.items", "Items"))
bf("bb_id", ProtoField.uint8("obdbus.blackbox.id", "Item id"))
bf("bb_value", ProtoField.double("obdbus.blackbox.value", "Value"))
-- upgrade state and requests
bf("upg_source", ProtoField.int8("obdbus.upg.source", "Source"))
bf("upg_device", ProtoField.uint8("obdbus.upg.device", "Device", base.DEC, { [7] = "OBD box" }))
bf("upg_state", ProtoField.uint8("obdbus.upg.state", "State", base.DEC, UPG_STATES))
bf("upg_percent", ProtoField.int8("obdbus.upg.percent", "Percent"))
bf("upg_verify", ProtoField.uint8("obdbus.upg.verify", "Verify"))
bf("upg_file_source", ProtoField.uint8("obdbus.upg.file_source", "File source"))
bf("result", ProtoField.int32("obdbus.result", "Result"))
-- CAN-box summary and mileage
bf("can_speed", ProtoField.uint32("obdbus.can.speed", "Speed x 100"))
bf("can_engine_speed", ProtoField.uint32("obdbus.can.engine_speed", "Engine speed x 100"))
bf("can_mileage", ProtoField.uint32("obdbus.can.mileage", "Total mileage x 100"))
bf("can_engine_time", ProtoField.uint32("obdbus.can.engine_time", "Engine time"))
bf("mileage", ProtoField.double("obdbus.mileage", "Total mileage"))
bf("engine_time", ProtoField.uint32("obdbus.engine_time", "Engine-time counter"))
bf("relay_len", ProtoField.int32("obdbus.relay.length", "Box bytes"))
-- the host's inertial message
bf("in_kind", ProtoField.uint8("obdbus.inertial.kind", "Sample kind", base.DEC,
   { [0] = "three-axis", [1] = "six-axis" }))
for _, n in ipairs({ "acc_x", "acc_y", "acc_z", "rot_x", "rot_y", "rot_z" }) do
  bf("in_" .. n, ProtoField.uint16("obdbus.inertial." .. n, n))
  field(imu, "imu_" .. n, ProtoField.int16("obdimu." .. n, n))
end

-- Expert info
local E = {}
E.cap_bad = ProtoExpert.new("obdcap.malformed", "Malformed capture header",
  expert.group.MALFORMED, expert.severity.ERROR)
E.obd_bad = ProtoExpert.new("obd.malformed", "Malformed frame", expert.group.MALFORMED,
  expert.severity.ERROR)
E.checksum = ProtoExpert.new("obd.checksum_bad", "Bad checksum", expert.group.CHECKSUM,
  expert.severity.ERROR)
E.refused = ProtoExpert.new("obd.refused", "The box refused", expert.group.RESPONSE_CODE,
  expert.severity.WARN)
E.retry = ProtoExpert.new("obd.retry", "Command repeated", expert.group.SEQUENCE,
  expert.severity.NOTE)
E.unanswered = ProtoExpert.new("obd.unanswered", "Command not answered", expert.group.SEQUENCE,
  expert.severity.WARN)
E.unknown = ProtoExpert.new("obd.unknown_code", "Code not in the command table",
  expert.group.UNDECODED, expert.severity.WARN)
E.note = ProtoExpert.new("obd.plugin_note", "The plug-in refuses or stops here",
  expert.group.PROTOCOL, expert.severity.WARN)
E.cut = ProtoExpert.new("obd.cut_off", "Frame cut off", expert.group.SEQUENCE,
  expert.severity.WARN)
E.garbage = ProtoExpert.new("obd.garbage_bytes", "Bytes outside any frame",
  expert.group.SEQUENCE, expert.severity.NOTE)
E.bus_bad = ProtoExpert.new("obdbus.malformed", "Malformed bus message", expert.group.MALFORMED,
  expert.severity.ERROR)
E.bus_refused = ProtoExpert.new("obdbus.failed", "Failure reported", expert.group.RESPONSE_CODE,
  expert.severity.WARN)
E.imu_bad = ProtoExpert.new("obdimu.malformed", "Malformed inertial sample",
  expert.group.MALFORMED, expert.severity.ERROR)
E.lua = ProtoExpert.new("obdcap.dissector_error", "Dissector error", expert.group.MALFORMED,
  expert.severity.ERROR)
cap.experts = { E.cap_bad, E.lua }
obd.experts = { E.obd_bad, E.checksum, E.refused, E.retry, E.unanswered, E.unknown, E.note, E.cut,
                E.garbage }
bus.experts = { E.bus_bad, E.bus_refused }
imu.experts = { E.imu_bad }

cap.fields, obd.fields, bus.fields, imu.fields = LISTS[cap], LISTS[obd], LISTS[bus], LISTS[imu]

---------------------------------------------------------------------------------------------
-- Helpers

local function hex(bytes, from, to)
  local t = {}
  for i = from, to do t[#t + 1] = string.format("%02X", bytes[i]) end
  return table.concat(t, " ")
end

-- A reader over a tvb window [base, base + n): every read is checked, and a read past the
-- end marks the tree malformed once and yields nil.
local Reader = {}
Reader.__index = Reader
local function reader(tvb, base, n, tree, ef)
  return setmetatable({ tvb = tvb, base = base, n = n, tree = tree, ef = ef }, Reader)
end
function Reader:has(off, len) return off >= 0 and len >= 0 and off + len <= self.n end
function Reader:range(off, len)
  if not self:has(off, len) then
    if not self.short then
      self.short = true
      self.tree:add_proto_expert_info(self.ef, string.format(
        "%d bytes needed at offset %d, %d present", len, off, self.n))
    end
    return nil
  end
  return self.tvb(self.base + off, len)
end
function Reader:u8(off) local r = self:range(off, 1); return r and r:uint() end
function Reader:u16(off) local r = self:range(off, 2); return r and r:uint() end
function Reader:u32(off) local r = self:range(off, 4); return r and r:uint() end
function Reader:add(f, off, len, value)
  local r = self:range(off, len)
  if not r then return nil end
  if value ~= nil then return self.tree:add(f, r, value) end
  return self.tree:add(f, r)
end
function Reader:add_le(f, off, len)
  local r = self:range(off, len)
  if not r then return nil end
  return self.tree:add_le(f, r)
end
-- A NUL-terminated text in a fixed field.
function Reader:text(f, off, len)
  local r = self:range(off, len)
  if not r then return nil end
  return self.tree:add(f, r, r:stringz())
end

---------------------------------------------------------------------------------------------
-- Box frames

-- Per-capture state of the command tracking: filled on the first pass, read on every pass.
local track = {}
local function track_reset()
  track = { retry = {}, unanswered = {}, prev_unanswered = {}, answer_of = {}, answered_by = {},
            last_to_box = nil, pending = nil }
end
track_reset()

-- Undoes the box's escaping at raw[j] (1-based): the byte and the next position.
local function escaped_at(raw, n, j)
  if j > n then return nil, j, 0 end
  local b = raw[j]
  if b == 0x7D and j + 1 <= n and raw[j + 1] >= 1 and raw[j + 1] <= 3 then
    return ({ 0x7E, 0x7F, 0x7D })[raw[j + 1]], j + 2, 1
  end
  return b, j + 1, 0
end

local function xor_all(list, from, to, x)
  for i = from, to do x = bit32.bxor(x, list[i]) end
  return x
end

-- Reads a whole frame as the capture holds it (the decoder already cut it): which reading of
-- its length fits its size, with the checksum that decides between readings.
local function read_frame(raw, n)
  local from_box = raw[3] == 0xF8 and raw[4] == 0xF0
  local raw_length = raw[5] * 256 + raw[6]
  local length, body_start, length_pairs = raw_length, 7, 0
  if from_box then
    local hi, lo, p1, p2
    hi, body_start, p1 = escaped_at(raw, n, 5)
    lo, body_start, p2 = escaped_at(raw, n, body_start)
    if hi == nil or lo == nil then return nil end
    length, length_pairs = hi * 256 + lo, p1 + p2
  end
  local candidates = {}
  local function seal(c)
    c.checksum = raw[n]
    c.computed = xor_all(c.body, 1, #c.body,
      bit32.bxor(raw[3], raw[4], bit32.rshift(c.length, 8), bit32.band(c.length, 0xFF)))
    c.ok = c.checksum == c.computed
    candidates[#candidates + 1] = c
  end
  local undone = length_pairs > 0
  if from_box then
    -- L counting the unescaped bytes
    local a = { length = length, pairs = length_pairs, body = {} }
    local j, b, p = body_start, nil, 0
    while #a.body < length and j <= n - 1 do
      b, j, p = escaped_at(raw, n - 1, j)
      a.body[#a.body + 1] = b
      a.pairs = a.pairs + p
    end
    if #a.body == length and j == n then
      undone = undone or a.pairs > 0
      seal(a)
    end
    -- L counting the raw bytes, pairs included
    if body_start + length == n then
      local c = { length = length, pairs = length_pairs, body = {}, counts = true }
      j = body_start
      while j < n do
        b, j, p = escaped_at(raw, n - 1, j)
        c.body[#c.body + 1] = b
        c.pairs = c.pairs + p
      end
      if c.pairs > length_pairs then undone = true; seal(c) end
    end
  end
  if 7 + raw_length == n and raw_length >= 3 and (undone or #candidates == 0) then
    local c = { length = raw_length, pairs = 0, body = {}, plain = true, not_escaped = undone }
    for i = 7, n - 1 do c.body[#c.body + 1] = raw[i] end
    seal(c)
  end
  local chosen
  for _, c in ipairs(candidates) do if c.ok then chosen = c; break end end
  chosen = chosen or candidates[1]
  if chosen then chosen.reported_length = length end
  return chosen, from_box, raw_length
end

-- Payload decoders: (rd, out) with rd a Reader over the payload; `out` collects the notes and
-- verdicts for the expert info.
local P = {}

local function rest(rd, from)
  if from < rd.n then rd:add(F.rest, from, rd.n - from) end
end
local function note(rd, out, text)
  rd.tree:add(F.note, rd.tvb(0, 0), text):set_generated()
  rd.tree:add_proto_expert_info(E.note, text)
end

local function version_answer(rd, names, sizes)
  local pos = 0
  for k, name in ipairs(names) do
    local value, r = "", nil
    if pos + 2 <= rd.n then
      local len = rd:u16(pos)
      if len >= 1 and len <= sizes[k] - 1 and pos + 2 + len <= rd.n then
        r = rd.tvb(rd.base + pos, 2 + len)
        value = rd.tvb(rd.base + pos + 2, len):raw()
        value = value:match("^[^%z]*")
      end
      pos = pos + 2 + len
    end
    local item = rd.tree:add(F["v_" .. name], r or rd.tvb(0, 0), value)
    if not r then item:set_generated() end
  end
end
P[IDX.READ_HW_VER_ACK] = function(rd)
  version_answer(rd, { "HwName", "DevSerialNum", "HWVer", "VerDate", "DevType" },
    { 28, 16, 12, 12, 12 })
end
P[IDX.READ_SW_VER_ACK] = function(rd)
  version_answer(rd, { "BootVer", "DLVer", "DiagSWVer" }, { 12, 12, 12 })
end
P[IDX.READ_ENGINE_ACK] = function(rd, out)
  if rd.n < 2 then
    note(rd, out, "no engine code: the plug-in refuses the answer")
    return rest(rd, 0)
  end
  rd:add(F.engine, 0, 2)
  if rd.n > 2 then rd:add(F.rest, 2, rd.n - 2) end
end
P[IDX.READ_STL_ACK] = function(rd, out)
  if rd.n < 1 then return note(rd, out, "no count: the plug-in refuses the answer") end
  local announced = rd:u8(0)
  local kept = math.min(announced, 3, math.floor((rd.n - 1) / 5))
  rd.tree:add(F.levels, rd:range(0, 1), kept)
  for k = 0, kept - 1 do
    local e = 1 + 5 * k
    rd:add(F.level, e, 1)
    rd:add(F.level_time, e + 1, 4)
  end
  if announced ~= kept then note(rd, out, string.format("%d announced, %d kept", announced, kept)) end
end
P[IDX.READ_DSL_ACK] = function(rd, out)
  if rd.n < 1 then return note(rd, out, "no count: the plug-in refuses the answer") end
  local announced = rd:u8(0)
  local pos, k = 1, 0
  local entries = {}
  while k < announced and k < 3 and pos + 2 <= rd.n do
    local len = rd:u8(pos + 1)
    local copy = math.min(len, rd.n - pos - 2, 32)
    entries[#entries + 1] = { pos, copy }
    pos = pos + 2 + len
    k = k + 1
  end
  rd.tree:add(F.levels, rd:range(0, 1), k)
  for _, e in ipairs(entries) do
    rd:add(F.level, e[1], 1)
    rd.tree:add(F.level_len, rd:range(e[1] + 1, 1), e[2])
    if e[2] > 0 then rd:add(F.level_data, e[1] + 2, e[2]) end
  end
  if announced ~= k then note(rd, out, string.format("%d announced, %d kept", announced, k)) end
end
local function upgrade_answer(rd, out)
  if rd.n < 1 then return note(rd, out, "no status byte: the plug-in refuses the answer") end
  local status = rd:u8(0)
  rd:add(F.status, 0, 1)
  local accepted = status == 4 or status == 0
  rd.tree:add(F.verdict, rd:range(0, 1), accepted and "accepted" or "refused")
  if not accepted then out.refused = string.format("status %d", status) end
  rest(rd, 1)
end
for _, n in ipairs({ "UPG_START_ACK", "UPG_FILE_NAME_ACK", "UPG_FILE_DATA_ACK", "UPG_MD5_ACK",
                     "UPG_END_ACK" }) do
  P[IDX[n]] = upgrade_answer
end
P[IDX.CFG_ENGINE_ACK] = function(rd, out)
  if rd.n ~= 1 then
    note(rd, out, string.format("%d bytes, not 1: the plug-in reports a failed calibration", rd.n))
    out.refused = "answer of the wrong length"
    return rest(rd, 0)
  end
  local status = rd:u8(0)
  rd:add(F.status, 0, 1)
  rd.tree:add(F.verdict, rd:range(0, 1), status == 0 and "success" or "failure")
  if status ~= 0 then out.refused = string.format("status %d", status) end
end
P[IDX.READ_FAULT_CODE_ACK] = function(rd)
  rd:add(F.fault_codes, 0, rd.n)
end
P[IDX.DATA_STREAM] = function(rd, out)
  if rd.n == 0 or rd.n % 5 ~= 0 then
    note(rd, out, string.format("%d bytes, not a multiple of 5: the plug-in refuses the frame", rd.n))
  end
  local pos = 0
  while pos + 5 <= rd.n do
    local id = rd:u8(pos)
    if id == 0 or id > ITEM_COUNT then
      note(rd, out, string.format("id %d: the plug-in stops reading here", id))
      break
    end
    local sub = rd.tree:add(obd, rd:range(pos, 5), "Item " .. id .. " " .. item_name(id))
    sub:add(F.item_id, rd:range(pos, 1))
    sub:add_le(F["item" .. id], rd:range(pos + 1, 4))
    pos = pos + 5
  end
  rest(rd, pos)
end
P[IDX.CFG_ENGINE] = function(rd, out)
  if rd.n < 2 then
    note(rd, out, "no engine code")
    return rest(rd, 0)
  end
  rd:add(F.engine, 0, 2)
  if rd.n ~= 10 then note(rd, out, string.format("%d bytes, not 10", rd.n)) end
end
P[IDX.CFG_STL] = function(rd, out)
  if rd.n < 1 then return note(rd, out, "no count") end
  local count = rd:u8(0)
  rd:add(F.levels, 0, 1)
  local pos, k = 1, 0
  while k < count and pos + 5 <= rd.n do
    rd:add(F.level, pos, 1)
    rd:add(F.level_time, pos + 1, 4)
    k, pos = k + 1, pos + 5
  end
  rest(rd, pos)
end
P[IDX.CFG_DSL] = function(rd, out)
  if rd.n < 1 then return note(rd, out, "no count") end
  local count = rd:u8(0)
  rd:add(F.levels, 0, 1)
  local pos, k = 1, 0
  while k < count and pos + 2 <= rd.n do
    local len = rd:u8(pos + 1)
    local have = math.min(len, rd.n - pos - 2)
    rd:add(F.level, pos, 1)
    rd:add(F.level_len, pos + 1, 1)
    if have > 0 then rd:add(F.level_data, pos + 2, have) end
    if have < len then
      note(rd, out, string.format("entry cut off after %d of %d bytes", have, len))
    end
    k, pos = k + 1, pos + 2 + have
  end
  rest(rd, pos)
end
P[IDX.UPG_FILE_NAME] = function(rd, out)
  if rd.n < 2 then return note(rd, out, "no name length") end
  local len = rd:u16(0)
  if 2 + len + 4 > rd.n then
    note(rd, out, string.format("name of %d bytes and size do not fit %d bytes", len, rd.n))
    return rest(rd, 0)
  end
  rd:add(F.upg_name_len, 0, 2)
  local r = rd:range(2, len)
  rd.tree:add(F.upg_name, r or rd:range(0, 2), len > 0 and r:raw():match("^[^%z]*") or "")
  rd:add(F.upg_size, 2 + len, 4)
  rest(rd, 2 + len + 4)
end
P[IDX.UPG_FILE_DATA] = function(rd, out)
  if rd.n < 6 then
    note(rd, out, "no offset and length")
    return rest(rd, 0)
  end
  rd:add(F.upg_offset, 0, 4)
  rd:add(F.upg_length, 4, 2)
  local len = rd:u16(4)
  if rd.n > 6 then rd:add(F.upg_data, 6, rd.n - 6) end
  if rd.n - 6 ~= len then
    note(rd, out, string.format("%d data bytes carried, %d announced", rd.n - 6, len))
  end
end
P[IDX.UPG_MD5] = function(rd, out)
  if rd.n > 0 then rd:add(F.upg_md5, 0, rd.n, rd:range(0, rd.n):raw():match("^[^%z]*")) end
  if rd.n ~= 32 then note(rd, out, string.format("%d bytes, not 32", rd.n)) end
end

-- One frame, as the capture holds it (escapes as on the wire). `tracked`: whether it takes part
-- in the command tracking (frames relayed on the bus are seen twice in CAN-box mode).
local function dissect_frame(tvb, pinfo, root, tracked)
  local n = tvb:len()
  local tree = root:add(obd, tvb(), "OBD frame")
  if n < 10 then
    tree:add(F.cut, tvb())
    tree:add_proto_expert_info(E.obd_bad, string.format("%d bytes, a frame has at least 10", n))
    return
  end
  local raw = {}
  for i = 0, n - 1 do raw[i + 1] = tvb(i, 1):uint() end
  local mark = raw[3] * 256 + raw[4]
  tree:add(F.head, tvb(0, 2))
  tree:add(F.mark, tvb(2, 2))
  if (raw[1] ~= 0x55 or raw[2] ~= 0xAA) or (mark ~= 0xF0F8 and mark ~= 0xF8F0) then
    tree:add_proto_expert_info(E.obd_bad, "no frame head")
    return
  end
  local c, from_box, raw_length = read_frame(raw, n)
  tree:add(F.dir, tvb(2, 2), from_box and "from_box" or "to_box")
  if not c then
    tree:add(F.length, tvb(4, 2))
    tree:add_proto_expert_info(E.obd_bad, string.format(
      "%d bytes do not fit the length %d in any reading", n, raw_length))
    return
  end
  local escaped = c.pairs > 0 and not c.not_escaped
  tree:add(F.length, tvb(4, 2), c.reported_length)
  if escaped then
    tree:add(F.escapes, tvb(4, 2), c.pairs):set_generated()
    tree:add(F.length_counts_escapes, tvb(4, 2), c.counts == true):set_generated()
  end
  if c.not_escaped then tree:add(F.not_escaped, tvb(4, 2), true):set_generated() end
  if #c.body < 3 then
    tree:add_proto_expert_info(E.obd_bad, "no sequence number and code")
    return
  end
  -- The body the payload is read from: the wire bytes, or the unescaped copy.
  local btvb, boff
  if escaped or c.length ~= raw_length then
    local ba = ByteArray.new()
    ba:set_size(#c.body)
    for i, b in ipairs(c.body) do ba:set_index(i - 1, b) end
    btvb, boff = ba:tvb("Unescaped frame body"), 0
  else
    btvb, boff = tvb, 6
  end
  local seq = c.body[1]
  local code = c.body[2] * 256 + c.body[3]
  local index = command_index(code, from_box)
  local name = index >= 0 and COMMANDS[index][2] or "unknown"
  tree:add(F.seq, btvb(boff, 1))
  tree:add(F.code, btvb(boff + 1, 2))
  tree:add(F.cmd, btvb(boff + 1, 2), name)
  if index < 0 then tree:add_proto_expert_info(E.unknown, string.format("code 0x%04X", code)) end
  local csum = tree:add(F.checksum, tvb(n - 1, 1))
  tree:add(F.checksum_ok, tvb(n - 1, 1), c.ok)
  if not c.ok then
    tree:add(F.checksum_expected, tvb(n - 1, 1), c.computed):set_generated()
    csum:add_proto_expert_info(E.checksum, string.format(
      "bad checksum %02X, expected %02X", c.checksum, c.computed))
  end
  local plen = #c.body - 3
  local ptree = tree:add(obd, btvb(boff + 3, plen > 0 and plen or 0), "Payload")
  if plen > 0 then ptree:add(F.payload, btvb(boff + 3, plen)) end
  local rd = reader(btvb, boff + 3, plen, ptree, E.obd_bad)
  local out = {}
  -- The plug-in's own reading of an escaped frame whose checksum fails.
  if escaped and not c.ok then
    if raw_length + 7 < n then
      note(rd, out, string.format("the plug-in cuts the frame at L + 7 = %d of its %d bytes",
        raw_length + 7, n))
    elseif raw_length > #c.body then
      note(rd, out, string.format("the plug-in takes L - 3 = %d payload bytes, %d more than there are",
        raw_length - 3, raw_length - #c.body))
    end
  end
  local decode = P[index]
  if decode then decode(rd, out) else rest(rd, 0) end
  if out.refused then tree:add_proto_expert_info(E.refused, name .. ": " .. out.refused) end

  pinfo.cols.info:append(string.format("%s%s seq %d %s", (tostring(pinfo.cols.info) ~= "") and " | " or "",
    from_box and "<-" or "->", seq, name))

  if not tracked then return end
  local num = pinfo.number
  if not pinfo.visited then
    if not from_box and REQUESTS[name] then
      local last = track.last_to_box
      if last and last.code == code and last.seq == seq then track.retry[num] = last.num end
      local pend = track.pending
      if pend then
        track.unanswered[pend.num] = num
        track.prev_unanswered[num] = pend
      end
      track.pending = ANSWERED[index] and { num = num, index = index, name = name, seq = seq } or
        { num = num, index = -10, name = name, seq = seq }
      track.last_to_box = { num = num, code = code, seq = seq }
    elseif not from_box then
      track.last_to_box = { num = num, code = code, seq = seq }
    elseif track.pending and index == track.pending.index + 1 then
      track.answer_of[num] = track.pending.num
      track.answered_by[track.pending.num] = num
      track.pending = nil
    end
  end
  if track.answer_of[num] then tree:add(F.request_in, tvb(6, 1), track.answer_of[num]):set_generated() end
  if track.answered_by[num] then tree:add(F.answer_in, tvb(6, 1), track.answered_by[num]):set_generated() end
  if track.retry[num] then
    tree:add(F.retry_of, tvb(6, 1), track.retry[num]):set_generated()
    tree:add_proto_expert_info(E.retry, string.format("%s repeated (seq %d, first in frame %d)",
      name, seq, track.retry[num]))
  end
  local prev = track.prev_unanswered[num]
  if prev then
    tree:add_proto_expert_info(E.unanswered, string.format(
      "the command before, %s (seq %d, frame %d), got no answer", prev.name, prev.seq, prev.num))
  end
  if track.unanswered[num] then
    tree:add_proto_expert_info(E.unanswered, string.format(
      "%s not answered before the next command (frame %d)", name, track.unanswered[num]))
  end
end

-- A frame cut off: a head whose frame never completed.
local function dissect_cut(tvb, pinfo, root)
  local tree = root:add(obd, tvb(), "OBD frame, cut off")
  tree:add(F.cut, tvb())
  tree:add_proto_expert_info(E.cut, string.format("%d bytes of a frame that never completed",
    tvb:len()))
  local n = tvb:len()
  if n >= 4 then
    tree:add(F.head, tvb(0, 2))
    tree:add(F.mark, tvb(2, 2))
  end
  if n >= 6 then tree:add(F.length, tvb(4, 2)) end
  if n >= 9 then
    tree:add(F.seq, tvb(6, 1))
    local code = tvb(7, 2):uint()
    tree:add(F.code, tvb(7, 2))
    local index = command_index(code, tvb(2, 1):uint() == 0xF8)
    tree:add(F.cmd, tvb(7, 2), index >= 0 and COMMANDS[index][2] or "unknown")
  end
  pinfo.cols.info:set("cut-off frame, " .. n .. " bytes")
end

---------------------------------------------------------------------------------------------
-- Bus messages

local B = {}

local function version_record(rd, base)
  local names = { "HwName", "DevSerialNum", "HWVer", "VerDate", "DevType", "BootVer", "DLVer",
                  "DiagSWVer" }
  local sizes = { 28, 16, 12, 12, 12, 12, 12, 12 }
  local off = base
  for k, n in ipairs(names) do
    rd:text(F["bv_" .. n], off, sizes[k])
    off = off + sizes[k]
  end
end

local function need(rd, size)
  if rd.n ~= size then
    rd.tree:add_proto_expert_info(E.bus_bad, string.format("%d bytes, expected %d", rd.n, size))
  end
  return rd.n >= size
end

-- Payloads read from their first bytes: more is allowed, fewer is marked.
local function at_least(rd, size, text)
  if rd.n < size then
    rd.tree:add_proto_expert_info(E.bus_bad, string.format("%d bytes, " .. text, rd.n))
  end
  return rd.n >= size
end

local function data_table(rd)
  local present = 0
  for k = 0, ITEM_COUNT - 1 do
    local off = 8 * k
    local r = rd:range(off, 8)
    if not r then break end
    local id = rd.tvb(rd.base + off, 4):le_int()
    if id >= 0 then
      present = present + 1
      local sub = rd.tree:add(bus, r, "Item " .. (k + 1) .. " " .. item_name(k + 1))
      sub:add_le(F.tbl_id, rd.tvb(rd.base + off, 4))
      sub:add_le(F["bitem" .. (k + 1)], rd.tvb(rd.base + off + 4, 4))
    end
  end
  return present
end

B[6702] = function(rd, pinfo)
  if not need(rd, 504) then return end
  local present = data_table(rd)
  rd:add(F.reserved, 472, 32)
  pinfo.cols.info:append(", " .. present .. " items present")
end

local function config_record(rd)
  if not need(rd, 652) then return end
  rd:add_le(F.mask, 0, 4)
  local vt = rd.tree:add(bus, rd:range(4, 116), "Versions")
  version_record(reader(rd.tvb, rd.base, rd.n, vt, E.bus_bad), 4)
  local st = rd.tree:add(bus, rd:range(120, 28), "Scan-time levels")
  local sr = reader(rd.tvb, rd.base, rd.n, st, E.bus_bad)
  sr:add_le(F.stl_num, 120, 4)
  for k = 0, 2 do
    sr:add_le(F.stl_level, 124 + 8 * k, 4)
    sr:add_le(F.stl_time, 128 + 8 * k, 4)
  end
  local dt = rd.tree:add(bus, rd:range(148, 124), "Data-scan levels")
  local dr = reader(rd.tvb, rd.base, rd.n, dt, E.bus_bad)
  dr:add_le(F.dsl_num, 148, 4)
  for k = 0, 2 do
    local e = 152 + 40 * k
    dr:add_le(F.dsl_level, e, 4)
    dr:add_le(F.dsl_len, e + 4, 4)
    dr:add(F.dsl_data, e + 8, 32)
  end
  rd:add_le(F.engine_id, 272, 2)
  rd:text(F.engine_name, 276, 48)
  rd:text(F.gds_version, 324, 32)
  rd:add(F.thresholds, 360, 238)
  rd:add(F.six_axis, 598, 12)
  rd:add(F.mode, 610, 1)
  local s = rd:add(F.obd_state, 611, 1)
  if s then
    s:add(F.obd_data, rd:range(611, 1))
    s:add(F.obd_known, rd:range(611, 1))
  end
end
B[6699] = config_record

local function alarm_detail(rd, name, off, curve)
  local r = rd:range(off, curve and 8 or 32)
  if not r then return end
  local zero = true
  for i = 0, r:len() - 1 do if r(i, 1):uint() ~= 0 then zero = false; break end end
  if zero then return end
  local sub = rd.tree:add(bus, r, "Ended: " .. name)
  sub:add(F.ended, r, name)
  if curve then
    sub:add_le(F.threshold, rd.tvb(rd.base + off, 2))
    sub:add_le(F.max, rd.tvb(rd.base + off + 2, 2))
  else
    sub:add_le(F.continue, rd.tvb(rd.base + off, 2))
    sub:add_le(F.threshold, rd.tvb(rd.base + off + 2, 2))
    sub:add_le(F.max, rd.tvb(rd.base + off + 4, 2))
  end
end
B[6720] = function(rd)
  if not need(rd, 208) then return end
  for k = 1, 4 do rd:add_le(F["event" .. k], 8 * (k - 1), 8) end
  alarm_detail(rd, "neutral glide", 80)
  alarm_detail(rd, "idling", 112)
  alarm_detail(rd, "overspeed", 144)
  alarm_detail(rd, "curve", 176, true)
end

B[6714] = function(rd, pinfo)
  if not at_least(rd, 24, "at least 24 expected") then return end
  local count = rd:range(0, 2):le_uint()
  rd:add_le(F.bb_count, 0, 2)
  local off = 12
  local k = 0
  while k < count do
    if not rd:has(off, 12) then
      rd.tree:add_proto_expert_info(E.bus_bad, string.format("record %d of %d missing", k + 1, count))
      return
    end
    local items = rd.tvb(rd.base + off + 8, 4):le_uint()
    local size = 28 + 4 * items
    if items > ITEM_COUNT or not rd:has(off, size) then
      rd.tree:add_proto_expert_info(E.bus_bad, string.format(
        "record %d announces %d items, more than the message holds", k + 1, items))
      return
    end
    local sub = rd.tree:add(bus, rd:range(off, size), "Record " .. (k + 1))
    sub:add(F.bb_time, rd.tvb(rd.base + off, 6))
    sub:add_le(F.bb_items, rd.tvb(rd.base + off + 8, 4))
    for i = 0, items - 1 do
      local w = rd.tvb(rd.base + off + 12 + 4 * i, 4)
      local word = w:le_uint()
      local id = bit32.band(word, 0xFF)
      local it = sub:add(F.bb_id, w, id)
      it:append_text(" " .. item_name(id + 1))
      sub:add(F.bb_value, w, bit32.rshift(word, 8) / 100)
    end
    off, k = off + size, k + 1
  end
  if rd.n - off ~= 12 then
    rd.tree:add_proto_expert_info(E.bus_bad, string.format(
      "%d bytes after the records, 12 expected", rd.n - off))
  end
  pinfo.cols.info:append(", " .. count .. " records")
end

local function upgrade_state(rd)
  if not need(rd, 20) then return end
  rd:add(F.upg_source, 0, 1)
  rd:add(F.upg_device, 1, 1)
  local state = rd:u8(2)
  local item = rd:add(F.upg_state, 2, 1)
  rd:add(F.upg_percent, 3, 1)
  if state == 9 then item:add_proto_expert_info(E.bus_refused, "upgrade failed") end
end
B[6730] = upgrade_state

B[6877] = function(rd)
  if not need(rd, 20) then return end
  rd:add_le(F.can_speed, 4, 4)
  rd:add_le(F.can_engine_speed, 8, 4)
  rd:add_le(F.can_mileage, 12, 4)
  rd:add_le(F.can_engine_time, 16, 4)
end

-- Inbound messages (the payload after the host's 16-byte head).
B[6729] = function(rd)
  if not at_least(rd, 4, "4 expected") then return end
  rd:add(F.upg_source, 0, 1)
  rd:add(F.upg_verify, 1, 1)
  rd:add(F.upg_device, 2, 1)
  rd:add(F.upg_file_source, 3, 1)
end
B[6731] = function(rd)
  if not at_least(rd, 2, "2 expected") then return end
  rd:add(F.upg_source, 0, 1)
  rd:add(F.upg_device, 1, 1)
end
B[6779] = function(rd)
  if not need(rd, 52) then return end
  rd:add_le(F.engine_id, 0, 2)
  rd:text(F.engine_name, 4, 48)
end
B[6893] = function(rd)
  if not need(rd, 16) then return end
  rd:add_le(F.mileage, 0, 8)
  rd:add_le(F.engine_time, 8, 4)
end
B[1071] = function(rd)
  if not need(rd, 32) then return end
  for _, p in ipairs({ { "acc_x", 6 }, { "acc_y", 8 }, { "acc_z", 10 }, { "rot_x", 18 },
                       { "rot_y", 20 }, { "rot_z", 22 } }) do
    rd:add_le(F["in_" .. p[1]], p[2], 2)
  end
  rd:add(F.in_kind, 24, 1)
end
-- Messages whose payload the plug-in does not read: the power-down notice, the threshold
-- updates and the configuration query.
local function not_read(rd)
  rd.tree:add(F.name, rd.tvb(rd.base, 0), "payload not read by the plug-in"):set_generated()
  if rd.n > 0 then rd:add(F.unread, 0, rd.n) end
end
B[1194], B[348], B[33115], B[6698] = not_read, not_read, not_read, not_read
-- Box bytes relayed in CAN-box mode: an int32 count, then the bytes.
local function relayed(rd, pinfo, root, one_frame)
  if rd.n < 4 then
    rd.tree:add_proto_expert_info(E.bus_bad, string.format("%d bytes, no count", rd.n))
    return
  end
  local count = rd.tvb(rd.base, 4):le_int()
  rd:add_le(F.relay_len, 0, 4)
  if count < 0 or count > rd.n - 4 then
    rd.tree:add_proto_expert_info(E.bus_bad, string.format(
      "%d bytes announced, %d carried", count, rd.n - 4))
    return
  end
  if count == 0 then return end
  local sub = rd.tvb(rd.base + 4, count):tvb()
  if one_frame then dissect_frame(sub, pinfo, root, false) else root:add(F.chunk, sub()) end
end
B[6898] = function(rd, pinfo, root) relayed(rd, pinfo, root, false) end
B[6899] = function(rd, pinfo, root) relayed(rd, pinfo, root, true) end

-- Answers carry the request's id.
local ANSWERS = {
  [6698] = config_record,
  [6729] = upgrade_state,
  [6731] = upgrade_state,
  [6779] = function(rd)
    if not need(rd, 4) then return end
    local r = rd:add_le(F.result, 0, 4)
    if rd.tvb(rd.base, 4):le_int() ~= 0 then
      r:add_proto_expert_info(E.bus_refused, "calibration failed")
    end
  end,
}

local function dissect_bus(tvb, off, pinfo, root, id, response)
  local n = tvb:len() - off
  local tree = root:add(bus, tvb(off), "OBD bus message " .. id)
  local name = MESSAGES[id] or "unknown"
  tree:add_le(F.id, tvb(4, 4))
  tree:add(F.name, tvb(4, 4), name):set_generated()
  tree:add(F.response, tvb(3, 1), response):set_generated()
  tree:add(F.size, tvb(off), n):set_generated()
  pinfo.cols.info:set(string.format("%s%s %d, %d bytes", response and "answer to " or "", name,
    id, n))
  local rd = reader(tvb, off, n, tree, E.bus_bad)
  local decode = response and ANSWERS[id] or B[id]
  if decode then
    decode(rd, pinfo, root)
  elseif n > 0 then
    rd:add(F.unread, 0, n)
  end
end

---------------------------------------------------------------------------------------------
-- Inertial samples

local function dissect_imu(tvb, off, pinfo, root)
  local n = tvb:len() - off
  local tree = root:add(imu, tvb(off), "Inertial sample")
  pinfo.cols.info:set("inertial sample")
  local rd = reader(tvb, off, n, tree, E.imu_bad)
  if n ~= 12 then
    tree:add_proto_expert_info(E.imu_bad, string.format("%d bytes, expected 12", n))
  end
  -- Six 16-bit values, high byte first, as the analyser takes them.
  for k, name in ipairs({ "acc_x", "acc_y", "acc_z", "rot_x", "rot_y", "rot_z" }) do
    if not rd:add(F["imu_" .. name], 2 * (k - 1), 2) then break end
  end
end

---------------------------------------------------------------------------------------------
-- The capture header and the entry point

local function dissect(tvb, pinfo, root)
  local n = tvb:len()
  pinfo.cols.protocol:set("OBD")
  pinfo.cols.info:clear()
  local tree = root:add(cap, tvb(0, math.min(n, 8)), "OBD capture header")
  if n < 8 then
    tree:add_proto_expert_info(E.cap_bad, string.format("%d bytes, the header has 8", n))
    return n
  end
  tree:add(F.cap_version, tvb(0, 1))
  local channel = tvb(1, 1):uint()
  tree:add(F.cap_channel, tvb(1, 1))
  local dir = tvb(2, 1):uint()
  tree:add(F.cap_dir, tvb(2, 1))
  local flags = tree:add(F.cap_flags, tvb(3, 1))
  flags:add(F.cap_resp, tvb(3, 1))
  flags:add(F.cap_cut, tvb(3, 1))
  local id = tvb(4, 4):le_uint()
  tree:add_le(F.cap_busid, tvb(4, 4))
  if tvb(0, 1):uint() ~= 1 then
    tree:add_proto_expert_info(E.cap_bad, "unknown header version " .. tvb(0, 1):uint())
  end
  local flagbits = tvb(3, 1):uint()
  local payload = n > 8 and tvb(8):tvb() or nil
  if channel == 1 then
    pinfo.cols.protocol:set("OBD")
    if not payload then
      tree:add_proto_expert_info(E.cap_bad, "a frame packet without bytes")
    elseif bit32.band(flagbits, 0x02) ~= 0 then
      dissect_cut(payload, pinfo, root)
    else
      dissect_frame(payload, pinfo, root, true)
    end
  elseif channel == 2 then
    local t = root:add(obd, tvb(8), "OBD line chunk")
    t:add(F.chunk, tvb(8))
    pinfo.cols.info:set(string.format("%s chunk, %d bytes", dir == 1 and "write" or "read", n - 8))
  elseif channel == 3 then
    local t = root:add(obd, tvb(8), "Bytes outside any frame")
    if payload then t:add(F.garbage, tvb(8)) end
    t:add_proto_expert_info(E.garbage, string.format("%d bytes of garbage", n - 8))
    pinfo.cols.info:set(string.format("garbage, %d bytes", n - 8))
  elseif channel == 4 then
    pinfo.cols.protocol:set("OBDBUS")
    dissect_bus(tvb, 8, pinfo, root, id, bit32.band(flagbits, 0x01) ~= 0)
  elseif channel == 5 then
    pinfo.cols.protocol:set("OBDIMU")
    dissect_imu(tvb, 8, pinfo, root)
  elseif channel == 6 then
    local text = payload and payload:raw() or ""
    local t = root:add(cap, tvb(8), "Run facts")
    if payload then t:add(F.run, tvb(8)) end
    pinfo.cols.info:set("run: " .. text:gsub("\n+$", ""):gsub("\n", " "))
  else
    tree:add_proto_expert_info(E.cap_bad, "unknown channel " .. channel)
  end
  return n
end

function cap.dissector(tvb, pinfo, root)
  local ok, err = pcall(dissect, tvb, pinfo, root)
  if not ok then
    -- A fault of this file, never of the input: shown, never raised.
    root:add_proto_expert_info(E.lua, tostring(err))
  end
  return tvb:len()
end

function cap.init()
  track_reset()
end

local encaps = wtap_encap or wtap_encaps
DissectorTable.get("wtap_encap"):add(encaps.USER0, cap)
