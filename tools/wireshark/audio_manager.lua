-- Wireshark dissectors for audio_manager's traffic:
--   amstream   the network audio datagrams on UDP port 59300: the 56-byte transport header by its
--              fields, the payload length, and the continuity of Rolling_Sample_Data_Size_Total
--              per stream (sender address and port, destination group) with an expert warning on
--              a gap or a repeat;
--   amcmd      the TLV commands to the daemon's command socket (UDP 9994) by command name and
--              fields, and the reports to cmd_core (UDP 9995) as JSON text;
--   amgenlock  the genlock service's requests (UDP 11000, from ports 11001-11004) and replies.
-- Install: `make wireshark-plugin`, or `tshark -X lua_script:audio_manager.lua ...` for one run.

local STREAM_PORT = 59300
local CMD_PORT = 9994
local REPORT_PORT = 9995
local GENLOCK_PORT = 11000

-- ---- network audio stream ---------------------------------------------------------------------
local HEAD_SIZE = 56
local COUNTER_MOD = 4294967296 -- Rolling_Sample_Data_Size_Total wraps at 2^32
local COUNTER_HALF = 2147483648

local amstream = Proto("amstream", "audio_manager network audio stream")

local sample_frequency_names = {
  [0] = "44100 Hz", [2] = "48000 Hz", [3] = "32000 Hz (plays at 48000 Hz)", [8] = "88200 Hz",
  [10] = "96000 Hz", [12] = "176400 Hz", [14] = "192000 Hz",
}
local channels_names = { [2] = "2 channels", [3] = "6 channels", [4] = "8 channels", [5] = "8 channels",
  [6] = "8 channels", [7] = "8 channels", [8] = "8 channels" }
local sample_size_names = { [16] = "16-bit, S16_LE", [24] = "24-bit, S24_LE" }
local audio_type_names = { [128] = "LPCM", [144] = "NLPCM", [160] = "DSD", [192] = "HBR" }

local sf = {
  Magic = ProtoField.uint32("amstream.Magic", "Magic", base.HEX),
  From = ProtoField.uint32("amstream.From", "From", base.DEC),
  Cfg_Change_Number = ProtoField.uint32("amstream.Cfg_Change_Number", "Cfg_Change_Number", base.HEX_DEC),
  Packet_Size = ProtoField.uint32("amstream.Packet_Size", "Packet_Size", base.DEC),
  cts = ProtoField.uint32("amstream.cts", "cts", base.DEC),
  HDCP2_Encrypted = ProtoField.uint32("amstream.HDCP2_Encrypted", "HDCP2_Encrypted", base.DEC),
  Input_Controller = ProtoField.bytes("amstream.Input_Controller", "Input_Controller", base.SPACE),
  Audio_On = ProtoField.uint8("amstream.Audio_On", "Audio_On", base.DEC),
  Sample_Frequency = ProtoField.uint8("amstream.Sample_Frequency", "Sample_Frequency", base.DEC,
    sample_frequency_names),
  Channels = ProtoField.uint8("amstream.Channels", "Channels", base.DEC, channels_names),
  Sample_Size = ProtoField.uint8("amstream.Sample_Size", "Sample_Size", base.DEC, sample_size_names),
  IO_In_Use = ProtoField.uint8("amstream.IO_In_Use", "IO_In_Use", base.DEC),
  Enable_Upstream = ProtoField.uint8("amstream.Enable_Upstream", "Enable_Upstream", base.DEC),
  Down_Sampling = ProtoField.uint8("amstream.Down_Sampling", "Down_Sampling", base.DEC),
  Mode_16bits = ProtoField.uint8("amstream.Mode_16bits", "Mode_16bits", base.DEC),
  Audio_Type = ProtoField.uint8("amstream.Audio_Type", "Audio_Type", base.DEC, audio_type_names),
  SPDIF = ProtoField.uint8("amstream.SPDIF", "SPDIF", base.DEC),
  Audio_Info_Frame = ProtoField.bytes("amstream.Audio_Info_Frame", "Audio_Info_Frame", base.SPACE),
  IEC60958_Channel_Stats = ProtoField.bytes("amstream.IEC60958_Channel_Stats", "IEC60958_Channel_Stats",
    base.SPACE),
  Rolling_Sample_Data_Size_Total = ProtoField.uint32("amstream.Rolling_Sample_Data_Size_Total",
    "Rolling_Sample_Data_Size_Total", base.DEC),
  payload_length = ProtoField.uint32("amstream.payload_length", "Payload length", base.DEC),
  payload = ProtoField.bytes("amstream.payload", "Payload"),
  expected_total = ProtoField.uint32("amstream.expected_total", "Expected Rolling_Sample_Data_Size_Total",
    base.DEC),
  lost_bytes = ProtoField.uint32("amstream.lost_bytes", "Bytes missing before this datagram", base.DEC),
  repeated_bytes = ProtoField.uint32("amstream.repeated_bytes", "Bytes sent again (repeat or reorder)",
    base.DEC),
}
-- Header layout in wire order: field, offset, width (byte arrays are added as bytes).
local head_layout = {
  { "Magic", 0, 4 }, { "From", 4, 4 }, { "Cfg_Change_Number", 8, 4 }, { "Packet_Size", 12, 4 },
  { "cts", 16, 4 }, { "HDCP2_Encrypted", 20, 4 }, { "Input_Controller", 24, 8 }, { "Audio_On", 32, 1 },
  { "Sample_Frequency", 33, 1 }, { "Channels", 34, 1 }, { "Sample_Size", 35, 1 }, { "IO_In_Use", 36, 1 },
  { "Enable_Upstream", 37, 1 }, { "Down_Sampling", 38, 1 }, { "Mode_16bits", 39, 1 },
  { "Audio_Type", 40, 1 }, { "SPDIF", 41, 1 }, { "Audio_Info_Frame", 42, 5 },
  { "IEC60958_Channel_Stats", 47, 5 }, { "Rolling_Sample_Data_Size_Total", 52, 4 },
}
local byte_fields = { Input_Controller = true, Audio_Info_Frame = true, IEC60958_Channel_Stats = true }

local se = {
  gap = ProtoExpert.new("amstream.gap", "Rolling_Sample_Data_Size_Total gap: datagrams lost",
    expert.group.SEQUENCE, expert.severity.WARN),
  ["repeat"] = ProtoExpert.new("amstream.repeat", "Rolling_Sample_Data_Size_Total repeat: duplicate or reordered datagram",
    expert.group.SEQUENCE, expert.severity.WARN),
  resync = ProtoExpert.new("amstream.resync", "Rolling_Sample_Data_Size_Total is 0: the sender (re)started",
    expert.group.SEQUENCE, expert.severity.NOTE),
  short = ProtoExpert.new("amstream.short", "Datagram too short: no payload after the 56-byte header",
    expert.group.MALFORMED, expert.severity.ERROR),
  size = ProtoExpert.new("amstream.size_mismatch", "Packet_Size differs from the payload length (the receiver drops it)",
    expert.group.MALFORMED, expert.severity.ERROR),
}

local stream_fields = {}
for _, f in pairs(sf) do stream_fields[#stream_fields + 1] = f end
amstream.fields = stream_fields
amstream.experts = { se.gap, se["repeat"], se.resync, se.short, se.size }

-- Continuity state. next_total: per stream, the counter expected in its next datagram (first
-- pass only, frames are visited in order). verdicts: per frame number, what the first pass found,
-- so that a re-dissection (filtering, clicking a packet) shows the same result.
local next_total = {}
local verdicts = {}

function amstream.init()
  next_total = {}
  verdicts = {}
end

local function stream_key(pinfo)
  return tostring(pinfo.src) .. ":" .. tostring(pinfo.src_port) .. ">" .. tostring(pinfo.dst)
end

-- The verdict of a datagram carrying `total` with `size` payload bytes: kind "first", "ok",
-- "resync", "gap" or "repeat", the expected counter and the byte difference.
local function continuity(pinfo, total, size)
  local v = verdicts[pinfo.number]
  if v ~= nil or pinfo.visited then
    return v
  end
  local key = stream_key(pinfo)
  local expected = next_total[key]
  if expected == nil then
    v = { kind = "first" }
  elseif expected == 0 or total == 0 then
    v = { kind = "resync", expected = expected }
  else
    local diff = (total - expected) % COUNTER_MOD
    if diff == 0 then
      v = { kind = "ok", expected = expected }
    elseif diff < COUNTER_HALF then
      v = { kind = "gap", expected = expected, bytes = diff }
    else
      v = { kind = "repeat", expected = expected, bytes = COUNTER_MOD - diff }
    end
  end
  next_total[key] = (total + size) % COUNTER_MOD
  verdicts[pinfo.number] = v
  return v
end

function amstream.dissector(tvb, pinfo, tree)
  local len = tvb:len()
  if len < HEAD_SIZE then
    return 0
  end
  pinfo.cols.protocol = "AMSTREAM"
  local t = tree:add(amstream, tvb(), "audio_manager network audio stream")
  local h = t:add(amstream, tvb(0, HEAD_SIZE), "Transport header (56 bytes)")
  for _, row in ipairs(head_layout) do
    local name, off, width = row[1], row[2], row[3]
    if byte_fields[name] then
      h:add(sf[name], tvb(off, width))
    else
      h:add_le(sf[name], tvb(off, width))
    end
  end
  local payload_len = len - HEAD_SIZE
  local packet_size = tvb(12, 4):le_uint()
  local total = tvb(52, 4):le_uint()
  t:add(sf.payload_length, payload_len):set_generated()
  if payload_len > 0 then
    t:add(sf.payload, tvb(HEAD_SIZE, payload_len))
  else
    t:add_proto_expert_info(se.short)
  end
  if packet_size ~= payload_len then
    t:add_proto_expert_info(se.size, string.format("Packet_Size %d but %d payload bytes", packet_size,
      payload_len))
  end
  local info = string.format("Audio stream total=%u len=%u", total, payload_len)
  local v = continuity(pinfo, total, packet_size)
  if v ~= nil and v.expected ~= nil then
    t:add(sf.expected_total, v.expected):set_generated()
  end
  if v ~= nil and v.kind == "gap" then
    t:add(sf.lost_bytes, v.bytes):set_generated()
    t:add_proto_expert_info(se.gap, string.format("Gap of %u bytes: expected %u, got %u", v.bytes,
      v.expected, total))
    info = info .. string.format(" [GAP %u bytes]", v.bytes)
  elseif v ~= nil and v.kind == "repeat" then
    t:add(sf.repeated_bytes, v.bytes):set_generated()
    t:add_proto_expert_info(se["repeat"], string.format("Repeat: expected %u, got %u (%u bytes back)",
      v.expected, total, v.bytes))
    info = info .. " [REPEAT]"
  elseif v ~= nil and v.kind == "resync" then
    t:add_proto_expert_info(se.resync)
  end
  pinfo.cols.info = info
  return len
end

-- ---- control protocol (TLV) -------------------------------------------------------------------
local MSG_TYPE_CMD = 2
local REPORT_TYPE = 0x00040502
local DROP_EVENT_TYPE = 0x00040503
local TLV_HEAD = 8

local amcmd = Proto("amcmd", "audio_manager control")

local command_names = {
  [1] = "QB_AUDIO_CMD_INPUT_SRC_MAC", [2] = "QB_AUDIO_CMD_OUTPUT_MUTE_CTRL",
  [3] = "QB_AUDIO_CMD_OUTPUT_LATENCY_CTRL", [4] = "QB_AUDIO_CMD_OUTPUT_SRC_SELECT",
  [5] = "QB_AUDIO_CMD_OUTPUT_DWM_MODE", [6] = "QB_AUDIO_CMD_OUTPUT_ANALOG_VOLUME",
  [7] = "QB_AUDIO_CMD_OUTPUT_ANALOG_FULLSCALEVRMS", [8] = "QB_AUDIO_CMD_CHANNEL_INFO",
  [9] = "QB_AUDIO_CMD_STREAM_INPUT_FORLOCAL", [10] = "QB_AUDIO_CMD_STREAM_INPUT_FROMNET",
  [11] = "QB_AUDIO_CMD_STREAM_OUTPUT_TONET", [12] = "QB_AUDIO_CMD_CEC_PHY_ADDR",
  [13] = "QB_AUDIO_CMD_IT6621_MODE", [14] = "QB_AUDIO_CMD_INPUT_ANALOG_FULLSCALEVRMS",
  [15] = "QB_AUDIO_CMD_MONITOR_STATUS", [16] = "QB_AUDIO_CMD_STREAM_INPUT_FALLBACK_FORLOCAL",
  [17] = "QB_AUDIO_CMD_DETAILS_STATUS", [18] = "QB_AUDIO_CMD_EARC_ENABLE_CTRL",
  [19] = "QB_AUDIO_CMD_EARC_ONLYARC",
}
local op_names = { [1] = "GET", [2] = "SET", [3] = "NOTIFY" }
local port_names = { [0] = "analog", [1] = "hdmi", [2] = "spdif", [3] = "earc", [4] = "stream", [5] = "dsp",
  [6] = "hdmiDownmix" }

local cf = {
  outer_type = ProtoField.int32("amcmd.type", "Message type", base.DEC),
  outer_length = ProtoField.int32("amcmd.length", "Message length", base.DEC),
  item_type = ProtoField.uint32("amcmd.item_type", "Item type", base.HEX),
  command = ProtoField.uint16("amcmd.command", "Command", base.DEC, command_names),
  op = ProtoField.uint16("amcmd.op", "Operation", base.DEC, op_names),
  item_length = ProtoField.int32("amcmd.item_length", "Payload length", base.DEC),
  payload = ProtoField.bytes("amcmd.payload", "Payload"),
  report = ProtoField.string("amcmd.report", "Report (JSON)"),
  drop_event = ProtoField.string("amcmd.drop_event", "Drop event (JSON)"),
}
-- Payload fields by name: ProtoField constructor, display base, value names.
local payload_field_defs = {
  { "ch", ProtoField.uint32 }, { "enable", ProtoField.uint32 }, { "mute", ProtoField.uint32 },
  { "time", ProtoField.uint32 }, { "src", ProtoField.uint32, base.DEC, port_names },
  { "mode", ProtoField.uint32 }, { "vol", ProtoField.uint32 }, { "vrms", ProtoField.uint32 },
  { "sid", ProtoField.uint32 }, { "fallback_sid", ProtoField.int32 }, { "deviceID", ProtoField.stringz },
  { "streamID", ProtoField.int32 }, { "subscriptionID", ProtoField.int32 }, { "source", ProtoField.int32 },
  { "vaxoMac", ProtoField.stringz }, { "mac", ProtoField.stringz }, { "cec_phy_addr", ProtoField.uint32, base.HEX },
  { "it6621_mode", ProtoField.int32 }, { "connected", ProtoField.int32 }, { "chs", ProtoField.int32 },
  { "onlyArc", ProtoField.uint32 }, { "Audio_On", ProtoField.uint8 }, { "SampleFrequency", ProtoField.uint8,
    base.DEC, sample_frequency_names }, { "ValidCh", ProtoField.uint8 }, { "SampleSize", ProtoField.uint8 },
  { "io_in_use", ProtoField.uint8 }, { "enable_upstream", ProtoField.uint8 }, { "DownSampling", ProtoField.uint8 },
  { "Mode16bits", ProtoField.uint8 }, { "Audio_Type", ProtoField.uint8, base.DEC, audio_type_names },
  { "bSPDIF", ProtoField.uint8 }, { "AUD_DB", ProtoField.bytes, base.SPACE },
  { "ChStat", ProtoField.bytes, base.SPACE },
}
local pf = {}
for _, d in ipairs(payload_field_defs) do
  local name, ctor, b, names = d[1], d[2], d[3], d[4]
  if ctor == ProtoField.stringz then
    pf[name] = ctor("amcmd." .. name, name)
  elseif ctor == ProtoField.bytes then
    pf[name] = ctor("amcmd." .. name, name, b)
  else
    pf[name] = ctor("amcmd." .. name, name, b or base.DEC, names)
  end
end
-- Payload records by command id: field name and width; strings are NUL-padded text.
local u32 = 4
local record_channel_info = {
  { "ch", u32 }, { "Audio_On", 1 }, { "SampleFrequency", 1 }, { "ValidCh", 1 }, { "SampleSize", 1 },
  { "io_in_use", 1 }, { "enable_upstream", 1 }, { "DownSampling", 1 }, { "Mode16bits", 1 },
  { "Audio_Type", 1 }, { "bSPDIF", 1 }, { "AUD_DB", 5 }, { "ChStat", 5 },
}
local records = {
  [1] = { { "mac", -1 } },
  [2] = { { "ch", u32 }, { "enable", u32 }, { "mute", u32 } },
  [3] = { { "ch", u32 }, { "time", u32 } },
  [4] = { { "ch", u32 }, { "src", u32 } },
  [5] = { { "ch", u32 }, { "mode", u32 } },
  [6] = { { "vol", u32 } },
  [7] = { { "vrms", u32 } },
  [8] = record_channel_info,
  [9] = { { "ch", u32 }, { "sid", u32 }, { "fallback_sid", u32 } },
  [10] = { { "deviceID", 16 }, { "streamID", u32 }, { "subscriptionID", u32 } },
  [11] = { { "streamID", u32 }, { "source", u32 }, { "vaxoMac", 16 } },
  [12] = { { "cec_phy_addr", u32 } },
  [13] = { { "it6621_mode", u32 } },
  [14] = { { "vrms", u32 } },
  [15] = { { "connected", u32 } },
  [16] = { { "ch", u32 }, { "sid", u32 }, { "fallback_sid", u32 } },
  [17] = { { "chs", u32 } },
  [18] = { { "ch", u32 }, { "enable", u32 }, { "onlyArc", u32 } },
  [19] = { { "onlyArc", u32 } },
}
local text_fields = { mac = true, deviceID = true, vaxoMac = true }
local bytes_fields = { AUD_DB = true, ChStat = true }

local ce = {
  truncated = ProtoExpert.new("amcmd.truncated", "TLV item runs past the end of the datagram",
    expert.group.MALFORMED, expert.severity.ERROR),
  short = ProtoExpert.new("amcmd.short_payload", "Payload shorter than the command's record",
    expert.group.MALFORMED, expert.severity.WARN),
  not_cmd = ProtoExpert.new("amcmd.not_cmd", "Outer type is not 2: the daemon logs \"invalid cmd\"",
    expert.group.PROTOCOL, expert.severity.WARN),
}
local cmd_fields = {}
for _, f in pairs(cf) do cmd_fields[#cmd_fields + 1] = f end
for _, f in pairs(pf) do cmd_fields[#cmd_fields + 1] = f end
amcmd.fields = cmd_fields
amcmd.experts = { ce.truncated, ce.short, ce.not_cmd }

-- The JSON dissector of Wireshark, when this build has one (Dissector.get raises an error otherwise).
local json_found, json_dissector = pcall(Dissector.get, "json")
if not json_found then
  json_dissector = nil
end

local function add_record(tree, tvb, id)
  local record = records[id]
  if record == nil or tvb:len() == 0 then
    return
  end
  local off = 0
  for _, row in ipairs(record) do
    local name, width = row[1], row[2]
    if width < 0 then
      width = tvb:len() - off
    end
    if off + width > tvb:len() then
      tree:add_proto_expert_info(ce.short)
      return
    end
    if text_fields[name] or bytes_fields[name] or width == 1 then
      tree:add(pf[name], tvb(off, width))
    else
      tree:add_le(pf[name], tvb(off, width))
    end
    off = off + width
  end
end

-- A JSON text item (report or drop event): the text, then the JSON dissector's tree.
local function add_json(tree, field, tvb, pinfo)
  local n = tvb:len()
  if n > 0 and tvb(n - 1, 1):uint() == 0 then
    n = n - 1 -- the text is stored with its terminating NUL
  end
  if n == 0 then
    return
  end
  tree:add(field, tvb(0, n))
  if json_dissector ~= nil then
    json_dissector:call(tvb(0, n):tvb(), pinfo, tree)
  end
end

-- The inner box: one item per command (or one report). Returns the names for the Info column.
local function dissect_inner(tvb, pinfo, tree, is_report)
  local names = {}
  local off = 0
  while off + TLV_HEAD <= tvb:len() do
    local item_type = tvb(off, 4):le_uint()
    local item_len = tvb(off + 4, 4):le_int()
    local op = item_type % 65536
    local id = math.floor(item_type / 65536)
    if item_len < 0 or off + TLV_HEAD + item_len > tvb:len() then
      tree:add_proto_expert_info(ce.truncated)
      break
    end
    local value = tvb(off + TLV_HEAD, item_len)
    if is_report and (item_type == REPORT_TYPE or item_type == DROP_EVENT_TYPE) then
      local report = item_type == REPORT_TYPE
      local it = tree:add(amcmd, tvb(off, TLV_HEAD + item_len), report and "Status report" or "Drop event")
      it:add_le(cf.item_type, tvb(off, 4))
      it:add_le(cf.item_length, tvb(off + 4, 4))
      if item_len > 0 then
        add_json(it, report and cf.report or cf.drop_event, value:tvb(), pinfo)
      end
      names[#names + 1] = report and "report" or "drop event"
    else
      local name = command_names[id] or string.format("command %d", id)
      local label = string.format("%s %s", op_names[op] or string.format("op %d", op), name)
      local it = tree:add(amcmd, tvb(off, TLV_HEAD + item_len), label)
      it:add_le(cf.item_type, tvb(off, 4))
      it:add_le(cf.op, tvb(off, 2))
      it:add_le(cf.command, tvb(off + 2, 2))
      it:add_le(cf.item_length, tvb(off + 4, 4))
      if item_len > 0 then
        it:add(cf.payload, value)
        add_record(it, value:tvb(), id)
      end
      names[#names + 1] = label
    end
    off = off + TLV_HEAD + item_len
  end
  return names
end

function amcmd.dissector(tvb, pinfo, tree)
  if tvb:len() < TLV_HEAD then
    return 0
  end
  local is_report = pinfo.dst_port == REPORT_PORT
  pinfo.cols.protocol = "AMCMD"
  local t = tree:add(amcmd, tvb(), is_report and "audio_manager report" or "audio_manager command")
  local names = {}
  local off = 0
  while off + TLV_HEAD <= tvb:len() do
    local outer_type = tvb(off, 4):le_int()
    local outer_len = tvb(off + 4, 4):le_int()
    t:add_le(cf.outer_type, tvb(off, 4))
    t:add_le(cf.outer_length, tvb(off + 4, 4))
    if outer_len < 0 or off + TLV_HEAD + outer_len > tvb:len() then
      t:add_proto_expert_info(ce.truncated)
      break
    end
    if outer_type ~= MSG_TYPE_CMD then
      t:add_proto_expert_info(ce.not_cmd)
    elseif outer_len > 0 then
      for _, n in ipairs(dissect_inner(tvb(off + TLV_HEAD, outer_len):tvb(), pinfo, t, is_report)) do
        names[#names + 1] = n
      end
    end
    off = off + TLV_HEAD + outer_len
  end
  pinfo.cols.info = (is_report and "Report: " or "Command: ") .. table.concat(names, ", ")
  return tvb:len()
end

-- ---- genlock service --------------------------------------------------------------------------
local amgenlock = Proto("amgenlock", "audio_manager genlock service")
local genlock_commands = {
  [0x1234] = "QB_SI5351_SET_PARAM", [0x1235] = "QB_SI5351_SET_INC", [0x1236] = "QB_SI5351_SET_DEC",
  [0x1237] = "QB_SI5351_SET_RESET", [0x1238] = "QB_FIFO_REPORT", [0x1239] = "QB_SI5351_DUMP",
}
local FIFO_REPORT = 0x1238
local SET_PARAM = 0x1234
local GENLOCK_MSG_LEN = 12
local gf = {
  command = ProtoField.uint32("amgenlock.command", "command", base.HEX, genlock_commands),
  channel = ProtoField.int32("amgenlock.channel", "channel", base.DEC),
  arg1 = ProtoField.int32("amgenlock.arg1", "arg1", base.DEC),
  rate = ProtoField.int32("amgenlock.rate", "rate (Hz)", base.DEC),
  fifoTotal = ProtoField.int32("amgenlock.fifoTotal", "fifoTotal", base.DEC),
  fifoUsed = ProtoField.int32("amgenlock.fifoUsed", "fifoUsed", base.DEC),
  reply = ProtoField.bool("amgenlock.reply", "Reply of the service"),
}
local gfields = {}
for _, f in pairs(gf) do gfields[#gfields + 1] = f end
amgenlock.fields = gfields

function amgenlock.dissector(tvb, pinfo, tree)
  if tvb:len() < GENLOCK_MSG_LEN then
    return 0
  end
  pinfo.cols.protocol = "AMGENLOCK"
  local reply = pinfo.src_port == GENLOCK_PORT
  local command = tvb(0, 4):le_uint()
  local channel = tvb(4, 4):le_int()
  local t = tree:add(amgenlock, tvb(), reply and "Genlock reply" or "Genlock request")
  t:add(gf.reply, reply):set_generated()
  t:add_le(gf.command, tvb(0, 4))
  t:add_le(gf.channel, tvb(4, 4))
  if command == SET_PARAM then
    t:add_le(gf.rate, tvb(8, 4))
  elseif command == FIFO_REPORT and tvb:len() >= GENLOCK_MSG_LEN + 4 then
    t:add_le(gf.fifoTotal, tvb(8, 4))
    t:add_le(gf.fifoUsed, tvb(12, 4))
  else
    t:add_le(gf.arg1, tvb(8, 4))
  end
  pinfo.cols.info = string.format("%s %s ch %d", reply and "Reply" or "Request",
    genlock_commands[command] or string.format("0x%x", command), channel)
  return tvb:len()
end

local udp = DissectorTable.get("udp.port")
udp:add(STREAM_PORT, amstream)
udp:add(CMD_PORT, amcmd)
udp:add(REPORT_PORT, amcmd)
udp:add(GENLOCK_PORT, amgenlock)
