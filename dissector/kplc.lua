-- kplc: Wireshark / tshark dissector for the PLC protocol the kplc driver speaks.
--
-- Load it with  tshark -X lua_script:dissector/kplc.lua  or copy it into the
-- personal Lua plugins folder of Wireshark (see dissector/README.md). It finds
-- the protocol on any TCP or UDP port by a heuristic (end of this file), and on
-- the ports of its preferences (8500 by default) directly.
--
-- Frame layout, both directions (every integer big-endian):
--   0  u32  data_len: bytes that follow the sequence number (frame length - 10)
--   4  u32  complement: each byte the bitwise complement of the byte 4 earlier
--   8  u16  sequence number
--   10 u16  request: command code; response: status (the bit writers take a
--           non-zero byte 11 for a refusal)
--   12 ...  request: command body; response: the request's command code, then
--           the data from offset 14
--
-- The driver sends one request and waits for its answer, so a response is the
-- next frame in the other direction: requests are queued per conversation and
-- each response takes the oldest unanswered one. The request's command tells
-- how to read the response, whose own bytes 0-13 the driver never examines.

local kplc = Proto("kplc", "kplc PLC protocol")

-- Largest data_len taken for a frame boundary. The driver's requests and the
-- responses it accepts stay within 4096 bytes; PLCs answer up to 64 KiB. A
-- larger value means we are not at a frame start, so the rest of the segment
-- is shown as one damaged frame instead of waiting for data that never comes.
local MAX_DATA_LEN = 0x10000 + 16
local HEADER_LEN = 12
local RESPONSE_DATA = 14

local CMD = {
    [0x0C2C] = "First catalogue",
    [0x0C25] = "Program catalogue",
    [0x0C28] = "Symbol resolve",
    [0x1E09] = "Read by location",
    [0x1E01] = "Word write",
    [0x1E03] = "Word-area bit write",
    [0x3200] = "Set bit",
    [0x3300] = "Reset bit",
}

-- Device classes as the tag file's device column yields them; set/reset bit
-- requests carry them instead of an area code.
local DEVICE = {
    [0] = "DR/R", [1] = "CR", [6] = "DM", [7] = "CM", [8] = "TM", [17] = "MR", [18] = "LR",
    [23] = "EM", [25] = "FM", [27] = "B", [28] = "W", [30] = "none", [44] = "ZF",
}

local pf = {
    kind          = ProtoField.string("kplc.kind", "Direction"),
    data_len      = ProtoField.uint32("kplc.data_len", "Data length", base.DEC),
    complement    = ProtoField.uint32("kplc.complement", "Length complement", base.HEX),
    seq           = ProtoField.uint16("kplc.seq", "Sequence number", base.DEC),
    cmd           = ProtoField.uint16("kplc.cmd", "Command", base.HEX, CMD),
    status        = ProtoField.uint16("kplc.status", "Status", base.HEX),
    echo_cmd      = ProtoField.uint16("kplc.echo_cmd", "Command (echoed)", base.HEX, CMD),
    for_cmd       = ProtoField.uint16("kplc.for_cmd", "Answers command", base.HEX, CMD),
    response_in   = ProtoField.framenum("kplc.response_in", "Response in", base.NONE, frametype.RESPONSE),
    request_in    = ProtoField.framenum("kplc.request_in", "Request in", base.NONE, frametype.REQUEST),
    reserved      = ProtoField.bytes("kplc.reserved", "Constant bytes"),

    -- symbol resolve request
    scope         = ProtoField.string("kplc.scope", "Scope"),
    program       = ProtoField.uint8("kplc.program", "Program id", base.DEC),
    symbol_count  = ProtoField.uint16("kplc.symbol_count", "Symbol count", base.DEC),
    symbol        = ProtoField.string("kplc.symbol", "Symbol"),
    symbol_units  = ProtoField.uint16("kplc.symbol.units", "Code units", base.DEC),
    name          = ProtoField.string("kplc.name", "Name"),

    -- location entries, word and bit writes
    entry_count   = ProtoField.uint16("kplc.entry_count", "Location entries", base.DEC),
    area          = ProtoField.uint8("kplc.area", "Area code", base.HEX),
    words         = ProtoField.uint32("kplc.words", "Word count", base.DEC),
    location      = ProtoField.uint32("kplc.location", "Location", base.HEX),
    target        = ProtoField.string("kplc.target", "Resolved from"),
    word          = ProtoField.uint16("kplc.word", "Word", base.HEX),
    bit_value     = ProtoField.uint8("kplc.bit_value", "Bit value", base.DEC),
    mask          = ProtoField.uint16("kplc.mask", "Mask", base.HEX),
    bit           = ProtoField.uint8("kplc.bit", "Bit number", base.DEC),
    device        = ProtoField.uint8("kplc.device", "Device class", base.DEC, DEVICE),
    bit_address   = ProtoField.uint16("kplc.bit_address", "Bit address (low 16 bits of the location)", base.HEX),

    -- responses
    item          = ProtoField.string("kplc.item", "Resolve item"),
    item_bit      = ProtoField.uint16("kplc.item.bit", "Bit number (bytes 29-30)", base.DEC),
    ext_count     = ProtoField.uint8("kplc.item.ext_count", "Extension count", base.DEC),
    ext           = ProtoField.int32("kplc.item.ext", "Extension", base.DEC),
    value         = ProtoField.bytes("kplc.value", "Value"),
    data          = ProtoField.bytes("kplc.data", "Data"),
    program_count = ProtoField.uint8("kplc.program_count", "Programs", base.DEC),
    program_entry = ProtoField.string("kplc.program_entry", "Program"),
    program_name  = ProtoField.string("kplc.program_name", "Program name"),
}
kplc.fields = pf

local ef = {
    bad_complement = ProtoExpert.new("kplc.expert.bad_complement", "Length complement does not match data length",
        expert.group.MALFORMED, expert.severity.ERROR),
    bad_length = ProtoExpert.new("kplc.expert.bad_length", "Data length cannot be a frame of this protocol",
        expert.group.MALFORMED, expert.severity.ERROR),
    truncated = ProtoExpert.new("kplc.expert.truncated", "Frame ends before its fields do",
        expert.group.MALFORMED, expert.severity.ERROR),
    short_frame = ProtoExpert.new("kplc.expert.short_frame", "Datagram shorter than its data length",
        expert.group.MALFORMED, expert.severity.ERROR),
    trailing = ProtoExpert.new("kplc.expert.trailing", "Bytes after the last field of the body",
        expert.group.PROTOCOL, expert.severity.WARN),
    unknown_cmd = ProtoExpert.new("kplc.expert.unknown_cmd", "Unknown command code",
        expert.group.UNDECODED, expert.severity.WARN),
    refused = ProtoExpert.new("kplc.expert.refused", "PLC refused the request (non-zero status)",
        expert.group.RESPONSE_CODE, expert.severity.WARN),
    missing_items = ProtoExpert.new("kplc.expert.missing_items", "Response holds fewer items or values than the request asked for",
        expert.group.RESPONSE_CODE, expert.severity.WARN),
    unpaired = ProtoExpert.new("kplc.expert.unpaired", "Response without a request in this capture",
        expert.group.SEQUENCE, expert.severity.NOTE),
    seq_mismatch = ProtoExpert.new("kplc.expert.seq_mismatch", "Sequence number differs from the request's",
        expert.group.SEQUENCE, expert.severity.NOTE),
}
kplc.experts = { ef.bad_complement, ef.bad_length, ef.truncated, ef.short_frame, ef.trailing, ef.unknown_cmd,
    ef.refused, ef.missing_items, ef.unpaired, ef.seq_mismatch }

kplc.prefs.tcp_ports = Pref.range("TCP ports", "8500", "TCP ports of the PLC (server side)", 65535)
kplc.prefs.udp_ports = Pref.range("UDP ports", "8500", "UDP ports of the PLC (server side)", 65535)

------------------------------------------------------------------------------
-- Conversation state

-- conv key -> { client = "addr:port", queue = {requests}, head, tail, last_resolve = request }
local conversations = {}
-- "frame:offset" -> { request = record }: the request a frame is or answers,
-- as the first pass found it, so that later passes (a click in the GUI, the
-- second pass of tshark -2) show the same pairing.
local pdu_info = {}

local function endpoint(addr, port) return tostring(addr) .. ":" .. tostring(port) end

local function conversation_of(pinfo)
    local a = endpoint(pinfo.src, pinfo.src_port)
    local b = endpoint(pinfo.dst, pinfo.dst_port)
    local key = (a < b) and (a .. "|" .. b) or (b .. "|" .. a)
    key = tostring(pinfo.port_type) .. "|" .. key
    local conv = conversations[key]
    if not conv then
        conv = { queue = {}, head = 1, tail = 0 }
        conversations[key] = conv
    end
    return conv
end

local function in_range(range_pref, port)
    -- Pref.range values read back as strings such as "8500" or "5020-5030,8500".
    for part in tostring(range_pref):gmatch("[^,%s]+") do
        local lo, hi = part:match("^(%d+)%-(%d+)$")
        if not lo then lo = part:match("^(%d+)$"); hi = lo end
        if lo and port >= tonumber(lo) and port <= tonumber(hi) then return true end
    end
    return false
end

-- Whether the frame goes from the panel to the PLC. The PLC's port decides
-- when it is one of the preference's ports; otherwise (Decode As on another
-- port) a frame whose bytes 10-11 hold a known command starts the pairing as a
-- request, and the direction of that first request holds for the conversation.
local function is_request(conv, pinfo, tvb)
    local ports = (pinfo.port_type == 3) and kplc.prefs.udp_ports or kplc.prefs.tcp_ports
    if in_range(ports, pinfo.dst_port) and not in_range(ports, pinfo.src_port) then return true end
    if in_range(ports, pinfo.src_port) and not in_range(ports, pinfo.dst_port) then return false end
    local from = endpoint(pinfo.src, pinfo.src_port)
    if not conv.client then
        if tvb:len() >= HEADER_LEN and CMD[tvb(10, 2):uint()] then
            conv.client = from
        else
            conv.client = endpoint(pinfo.dst, pinfo.dst_port)
        end
    end
    return conv.client == from
end

------------------------------------------------------------------------------
-- Body readers. Each gets one frame's tvb and the frame's tree, and returns the
-- offset after the last byte it read, or nil once the frame ended before a
-- field did (response readers add true when the answer was cut short).

-- A field computed by the dissector rather than read from the frame.
local function generated(tree, field, tvb, value)
    local item = tree:add(field, tvb(0, 0), value)
    item:set_generated()
    return item
end

local function need(tvb, off, n) return off + n <= tvb:len() end

-- Names travel as UTF-16 code units, high byte first.
local function utf16(tvb, off, units)
    return units > 0 and tvb(off, 2 * units):ustring() or ""
end

-- Symbol resolve: 00 01, scope block (00 00 global, 01 01 00 P 00 00 00 00 for
-- program P), symbol count, then per symbol its UTF-16 unit count and units.
local function symbol_resolve_request(tvb, tree, rec)
    local off = HEADER_LEN
    if not need(tvb, off, 4) then return nil end
    tree:add(pf.reserved, tvb(off, 2))
    off = off + 2
    if tvb(off, 1):uint() == 0x01 then
        if not need(tvb, off, 8 + 2) then return nil end
        local p = tvb(off + 3, 1):uint()
        local st = tree:add(pf.scope, tvb(off, 8), "program " .. p)
        st:add(pf.program, tvb(off + 3, 1))
        rec.scope = "program " .. p
        off = off + 8
    else
        tree:add(pf.scope, tvb(off, 2), "global")
        rec.scope = "global"
        off = off + 2
    end
    if not need(tvb, off, 2) then return nil end
    local count = tvb(off, 2):uint()
    tree:add(pf.symbol_count, tvb(off, 2))
    off = off + 2
    rec.names = {}
    for k = 1, count do
        if not need(tvb, off, 2) then return nil end
        local units = tvb(off, 2):uint()
        if not need(tvb, off + 2, 2 * units) then return nil end
        local text = utf16(tvb, off + 2, units)
        local st = tree:add(pf.symbol, tvb(off, 2 + 2 * units), text)
        st:set_text(string.format("Symbol %d: %s", k, text))
        st:add(pf.symbol_units, tvb(off, 2))
        if units > 0 then st:add(pf.name, tvb(off + 2, 2 * units), text) end
        rec.names[k] = text
        off = off + 2 + 2 * units
    end
    return off
end

-- Read by location: 00, entry count, 00 00 00, then 8-byte entries:
-- 00, area code, word count (16 bits), location (32 bits).
local function read_by_location_request(tvb, tree, rec, names)
    local off = HEADER_LEN
    if not need(tvb, off, 6) then return nil end
    local n = tvb(off + 1, 2):uint()
    tree:add(pf.entry_count, tvb(off + 1, 2))
    off = off + 6
    rec.words = {}
    for k = 1, n do
        if not need(tvb, off, 8) then return nil end
        local area, words, loc = tvb(off + 1, 1):uint(), tvb(off + 2, 2):uint(), tvb(off + 4, 4):uint()
        local st = tree:add(tvb(off, 8), string.format("Location entry %d: area 0x%02x, %d word(s) at 0x%08x",
            k, area, words, loc))
        st:add(pf.area, tvb(off + 1, 1))
        st:add(pf.words, tvb(off + 2, 2))
        st:add(pf.location, tvb(off + 4, 4))
        if names and names[k] then
            generated(st, pf.target, tvb, names[k])
            st:append_text(" (" .. names[k] .. ")")
        end
        rec.words[k] = words
        off = off + 8
    end
    return off
end

-- Word write: 00, area code, word count (32 bits), location, then the words.
local function word_write_request(tvb, tree, names)
    local off = HEADER_LEN
    if not need(tvb, off, 10) then return nil end
    tree:add(pf.area, tvb(off + 1, 1))
    local n = tvb(off + 2, 4):uint()
    tree:add(pf.words, tvb(off + 2, 4))
    tree:add(pf.location, tvb(off + 6, 4))
    if names and names[1] then generated(tree, pf.target, tvb, names[1]) end
    off = off + 10
    if not need(tvb, off, 2 * n) then return nil end
    if n > 0 then
        local vt = tree:add(pf.data, tvb(off, 2 * n))
        for k = 0, n - 1 do vt:add(pf.word, tvb(off + 2 * k, 2)) end
    end
    return off + 2 * n
end

-- The bit a mask selects: the one bit set (value 1) or the one bit clear
-- (value 0). Plain arithmetic: bit32 is missing from newer Lua versions.
local function mask_bit(mask, value)
    local m = (value ~= 0) and mask or 0xFFFF - mask
    for b = 0, 15 do
        if m == 2 ^ b then return b end
    end
    return nil
end

-- Word-area bit write: 00 01, area code, location, value byte, 16-bit mask.
local function bit_write_request(tvb, tree, names)
    local off = HEADER_LEN
    if not need(tvb, off, 10) then return nil end
    tree:add(pf.reserved, tvb(off, 2))
    tree:add(pf.area, tvb(off + 2, 1))
    tree:add(pf.location, tvb(off + 3, 4))
    tree:add(pf.bit_value, tvb(off + 7, 1))
    tree:add(pf.mask, tvb(off + 8, 2))
    local b = mask_bit(tvb(off + 8, 2):uint(), tvb(off + 7, 1):uint())
    if b then generated(tree, pf.bit, tvb, b) end
    if names and names[1] then generated(tree, pf.target, tvb, names[1]) end
    return off + 10
end

-- Set / reset bit: 01, device class, the low 16 bits of the location.
local function set_reset_request(tvb, tree, names)
    local off = HEADER_LEN
    if not need(tvb, off, 4) then return nil end
    tree:add(pf.reserved, tvb(off, 1))
    tree:add(pf.device, tvb(off + 1, 1))
    tree:add(pf.bit_address, tvb(off + 2, 2))
    if names and names[1] then generated(tree, pf.target, tvb, names[1]) end
    return off + 4
end

-- Catalogue requests carry four zero bytes.
local function catalogue_request(tvb, tree)
    if not need(tvb, HEADER_LEN, 4) then return nil end
    tree:add(pf.reserved, tvb(HEADER_LEN, 4))
    return HEADER_LEN + 4
end

-- Program catalogue: count at 14, then entries from 15. Entry at s: 2 bytes,
-- L (name bytes + 2) at s+2, 1 byte, program id at s+4, the UTF-16 name
-- (L - 2 bytes) at s+5, 1 byte; the next entry starts at s + L + 4 (s + 6
-- when L is below 2, as no name bytes are taken then).
local function catalogue_response(tvb, tree)
    if not need(tvb, RESPONSE_DATA, 1) then return nil end
    local count = tvb(RESPONSE_DATA, 1):uint()
    tree:add(pf.program_count, tvb(RESPONSE_DATA, 1))
    local s = RESPONSE_DATA + 1
    for k = 1, count do
        if not need(tvb, s, 5) then return nil end
        local l = tvb(s + 2, 1):uint()
        local bytes = math.max(l - 2, 0)
        local size = (l < 2) and 6 or l + 4
        if not need(tvb, s, size) then return nil end
        local id = tvb(s + 4, 1):uint()
        local text = utf16(tvb, s + 5, math.floor(bytes / 2))
        local st = tree:add(pf.program_entry, tvb(s, size), text)
        st:set_text(string.format("Program %d: id %d, %s", k, id, text))
        st:add(pf.program, tvb(s + 4, 1))
        if bytes >= 2 then st:add(pf.program_name, tvb(s + 5, bytes - bytes % 2), text) end
        s = s + size
    end
    return s
end

-- Symbol resolve response: one item per name, read through a cursor c from 0:
-- area code at c+21, location c+22..25, bit number c+29..30, extension count g
-- at c+40, g four-byte extensions after it; the next item is at c + 24 + 4g.
local function symbol_resolve_response(tvb, tree, req)
    local wanted = req and req.names and #req.names
    local c, k = 0, 0
    while (wanted and k < wanted) or (not wanted and need(tvb, c + 41, 0)) do
        if not need(tvb, c + 41, 0) then
            tree:add_proto_expert_info(ef.missing_items,
                string.format("Resolve response holds %d of %d items", k, wanted))
            return tvb:len(), true
        end
        local g = tvb(c + 40, 1):uint()
        local size = 24 + 4 * g
        local avail = math.min(size, tvb:len() - (c + 17))
        local name = req and req.names and req.names[k + 1]
        local area, loc = tvb(c + 21, 1):uint(), tvb(c + 22, 4):uint()
        local label = string.format("Item %d: area 0x%02x, location 0x%08x", k + 1, area, loc)
        if name then label = label .. " (" .. name .. ")" end
        local st = tree:add(pf.item, tvb(c + 17, avail), name or "")
        st:set_text(label)
        st:add(pf.area, tvb(c + 21, 1))
        st:add(pf.location, tvb(c + 22, 4))
        st:add(pf.item_bit, tvb(c + 29, 2))
        st:add(pf.ext_count, tvb(c + 40, 1))
        if not need(tvb, c + 41, 4 * g) then return nil end
        for e = 0, g - 1 do st:add(pf.ext, tvb(c + 41 + 4 * e, 4)) end
        if name then generated(st, pf.target, tvb, name) end
        c = c + size
        k = k + 1
    end
    return c + 17
end

-- Read by location response: the words of every location entry back to back
-- from offset 14, each entry 2 x its word count bytes.
local function read_by_location_response(tvb, tree, req, names)
    if not (req and req.words) then
        if tvb:len() > RESPONSE_DATA then tree:add(pf.data, tvb(RESPONSE_DATA)) end
        return tvb:len()
    end
    local off = RESPONSE_DATA
    for k, words in ipairs(req.words) do
        if not need(tvb, off, 2 * words) then
            tree:add_proto_expert_info(ef.missing_items,
                string.format("Values of %d of %d location entries", k - 1, #req.words))
            return tvb:len(), true
        end
        local label = string.format("Value %d", k)
        if names and names[k] then label = label .. " (" .. names[k] .. ")" end
        if words > 0 then
            local st = tree:add(pf.value, tvb(off, 2 * words))
            st:set_text(label .. ": " .. tostring(tvb(off, 2 * words):bytes()))
            for w = 0, words - 1 do st:add(pf.word, tvb(off + 2 * w, 2)) end
            if names and names[k] then generated(st, pf.target, tvb, names[k]) end
        end
        off = off + 2 * words
    end
    return off
end

------------------------------------------------------------------------------
-- One frame

local function dissect_request(tvb, pinfo, tree, conv, key)
    local cmd = tvb(10, 2):uint()
    tree:add(pf.cmd, tvb(10, 2))
    local info = pdu_info[key]
    local rec
    if info then
        rec = info.request
    else
        rec = { frame = pinfo.number, cmd = cmd, seq = tvb(8, 2):uint() }
        -- Writes and the read that follows a resolve refer to its names.
        if cmd ~= 0x0C28 then rec.names = conv.last_resolve and conv.last_resolve.names end
        conv.tail = conv.tail + 1
        conv.queue[conv.tail] = rec
        pdu_info[key] = { request = rec }
    end
    if rec.response_frame then generated(tree, pf.response_in, tvb, rec.response_frame) end

    local names = (cmd ~= 0x0C28) and rec.names or nil
    local fresh = {}
    local stop
    if cmd == 0x0C2C or cmd == 0x0C25 then
        stop = catalogue_request(tvb, tree)
    elseif cmd == 0x0C28 then
        stop = symbol_resolve_request(tvb, tree, fresh)
        if not info then
            rec.names, rec.scope = fresh.names, fresh.scope
            conv.last_resolve = rec
        end
    elseif cmd == 0x1E09 then
        stop = read_by_location_request(tvb, tree, fresh, names)
        if not info then rec.words = fresh.words end
    elseif cmd == 0x1E01 then
        stop = word_write_request(tvb, tree, names)
    elseif cmd == 0x1E03 then
        stop = bit_write_request(tvb, tree, names)
    elseif cmd == 0x3200 or cmd == 0x3300 then
        stop = set_reset_request(tvb, tree, names)
    else
        tree:add_proto_expert_info(ef.unknown_cmd)
        if tvb:len() > HEADER_LEN then tree:add(pf.data, tvb(HEADER_LEN)) end
        stop = tvb:len()
    end
    return cmd, stop
end

local function dissect_response(tvb, pinfo, tree, conv, key)
    local status = tvb(10, 2):uint()
    tree:add(pf.status, tvb(10, 2))
    if status ~= 0 then tree:add_proto_expert_info(ef.refused) end
    if not need(tvb, 12, 2) then return nil, nil end
    tree:add(pf.echo_cmd, tvb(12, 2))

    local info = pdu_info[key]
    local req
    if info then
        req = info.request
    else
        if conv.head <= conv.tail then
            req = conv.queue[conv.head]
            conv.queue[conv.head] = nil
            conv.head = conv.head + 1
            req.response_frame = pinfo.number
        end
        pdu_info[key] = { request = req }
    end
    if not req then
        tree:add_proto_expert_info(ef.unpaired)
        if tvb:len() > RESPONSE_DATA then tree:add(pf.data, tvb(RESPONSE_DATA)) end
        return nil, tvb:len()
    end
    generated(tree, pf.request_in, tvb, req.frame)
    generated(tree, pf.for_cmd, tvb, req.cmd)
    -- The driver pairs by order and never compares the numbers; a PLC that
    -- answers with another request's number has lost step with the panel.
    if tvb(8, 2):uint() ~= req.seq then tree:add_proto_expert_info(ef.seq_mismatch) end

    local stop, partial
    if req.cmd == 0x0C25 then
        stop = catalogue_response(tvb, tree)
    elseif req.cmd == 0x0C28 then
        stop, partial = symbol_resolve_response(tvb, tree, req)
    elseif req.cmd == 0x1E09 then
        stop, partial = read_by_location_response(tvb, tree, req, req.names)
    else
        -- The first catalogue response and write acknowledgements carry
        -- nothing the driver reads.
        if tvb:len() > RESPONSE_DATA then tree:add(pf.data, tvb(RESPONSE_DATA)) end
        stop = tvb:len()
    end
    -- A refused or cut-short answer is already flagged; its tail is not more.
    if status ~= 0 or partial then stop = tvb:len() end
    return req.cmd, stop
end

-- Dissects the frame in tvb (exactly one frame's bytes, or fewer for a short
-- datagram); returns nothing.
local function dissect_frame(tvb, pinfo, root, conv, key)
    local tree = root:add(kplc, tvb())
    local len = tvb:len()
    local data_len = tvb(0, 4):uint()
    tree:add(pf.data_len, tvb(0, 4))
    local ct = tree:add(pf.complement, tvb(4, 4))
    -- A 32-bit value plus its complement is all ones.
    if data_len + tvb(4, 4):uint() ~= 0xFFFFFFFF then
        ct:add_proto_expert_info(ef.bad_complement)
    end
    if data_len + 10 > len then tree:add_proto_expert_info(ef.short_frame) end
    if data_len < 2 or len < HEADER_LEN then
        tree:add_proto_expert_info(ef.bad_length)
        return "?"
    end
    tree:add(pf.seq, tvb(8, 2))

    local request = is_request(conv, pinfo, tvb)
    generated(tree, pf.kind, tvb, request and "request" or "response")
    local cmd, stop
    if request then
        cmd, stop = dissect_request(tvb, pinfo, tree, conv, key)
    else
        cmd, stop = dissect_response(tvb, pinfo, tree, conv, key)
    end
    if stop == nil then
        tree:add_proto_expert_info(ef.truncated)
    elseif stop < len then
        tree:add_proto_expert_info(ef.trailing)
    end
    local what = (cmd and CMD[cmd]) or (cmd and string.format("0x%04x", cmd)) or "unpaired"
    tree:append_text(string.format(", %s, seq %d, %s", request and "Request" or "Response", tvb(8, 2):uint(), what))
    local summary = string.format("%s %s seq=%d", what, request and "request" or "response", tvb(8, 2):uint())
    -- The names a request concerns, so that the packet list reads as a log.
    local info = pdu_info[key]
    local names = info and info.request and info.request.names
    if request and names and #names > 0 then
        summary = summary .. " " .. names[1] .. (#names > 1 and string.format(" (+%d)", #names - 1) or "")
    end
    return summary
end

function kplc.dissector(tvb, pinfo, root)
    local total = tvb:len()
    if total == 0 then return 0 end
    pinfo.cols.protocol = "KPLC"
    local conv = conversation_of(pinfo)
    local stream = pinfo.port_type ~= 3
    local off = 0
    local summaries = {}
    while off < total do
        local left = total - off
        if left < 8 then
            if stream and pinfo.can_desegment > 0 then
                pinfo.desegment_offset = off
                pinfo.desegment_len = DESEGMENT_ONE_MORE_SEGMENT
                break
            end
            local tree = root:add(kplc, tvb(off))
            tree:add_proto_expert_info(ef.truncated)
            off = total
            break
        end
        local data_len = tvb(off, 4):uint()
        local sane = data_len <= MAX_DATA_LEN
        local size = sane and data_len + 10 or left
        if stream and size > left then
            if pinfo.can_desegment > 0 then
                pinfo.desegment_offset = off
                pinfo.desegment_len = size - left
                break
            end
        end
        if not stream or size > left then size = left end
        if not sane then
            local tree = root:add(kplc, tvb(off))
            tree:add(pf.data_len, tvb(off, 4))
            tree:add_proto_expert_info(ef.bad_length)
            summaries[#summaries + 1] = "damaged frame"
            off = total
            break
        end
        local key = tostring(pinfo.number) .. ":" .. tostring(tvb(off, 1):offset())
        summaries[#summaries + 1] = dissect_frame(tvb(off, size):tvb(), pinfo, root, conv, key)
        off = off + size
    end
    if #summaries > 0 then pinfo.cols.info = table.concat(summaries, "; ") end
    -- Everything is either dissected or handed back for reassembly; 0 would
    -- tell TCP that the bytes are not ours.
    return total
end

function kplc.init()
    conversations = {}
    pdu_info = {}
end

------------------------------------------------------------------------------
-- Registration: the ports of the preferences, and "Decode As" on any port.

local registered = { tcp = "", udp = "" }

local function register_ports()
    local tcp_table = DissectorTable.get("tcp.port")
    local udp_table = DissectorTable.get("udp.port")
    if registered.tcp ~= "" then tcp_table:remove(registered.tcp, kplc) end
    if registered.udp ~= "" then udp_table:remove(registered.udp, kplc) end
    registered.tcp = tostring(kplc.prefs.tcp_ports)
    registered.udp = tostring(kplc.prefs.udp_ports)
    if registered.tcp ~= "" then tcp_table:add(registered.tcp, kplc) end
    if registered.udp ~= "" then udp_table:add(registered.udp, kplc) end
end

function kplc.prefs_changed() register_ports() end

register_ports()
DissectorTable.get("tcp.port"):add_for_decode_as(kplc)
DissectorTable.get("udp.port"):add_for_decode_as(kplc)

------------------------------------------------------------------------------
-- Heuristic: finds the protocol on any port, without a preference. A payload
-- is taken for a frame of ours when it starts with a whole frame header whose
-- length field and complement agree (1 chance in 2^32 for other data), that
-- carries a known command code (bytes 10-11 of a request, or the echo at
-- 12-13 of a response), and whose length fits the segment. The conversation
-- then stays with this dissector, so later segments (a reply split in two)
-- need not pass the test on their own.

local function looks_like_frame(tvb)
    local len = tvb:len()
    if len < HEADER_LEN then return false end
    local data_len = tvb(0, 4):uint()
    if data_len < 2 or data_len + tvb(4, 4):uint() ~= 0xFFFFFFFF then return false end
    if data_len + 10 > len then return false end
    if CMD[tvb(10, 2):uint()] then return true end
    return len >= RESPONSE_DATA and CMD[tvb(12, 2):uint()] ~= nil
end

local function heuristic(tvb, pinfo, root)
    if not looks_like_frame(tvb) then return false end
    pinfo.conversation = kplc
    kplc.dissector(tvb, pinfo, root)
    return true
end

kplc:register_heuristic("tcp", heuristic)
kplc:register_heuristic("udp", heuristic)
