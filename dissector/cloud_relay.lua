-- The packets of the cloud relay, for Wireshark and tshark.
--
-- docs/wire-format.md describes the wire: packets of a 12-byte header and DataLen bytes of body,
-- over TLS, or over plain TCP behind a terminator of TLS. They are found by what they look like, in
-- TLS by the preference cloud_relay.port, or by Decode As on the TLS or TCP port. JSON and HTTP
-- inside them go on to Wireshark's own dissectors.

local relay = Proto("cloud_relay", "Cloud Relay")

local MAGIC = 0xB00B
local HEADER_SIZE = 12
-- Reassembly keeps a body in memory, and a DataLen may say anything up to 4 GiB.
local LARGEST_BODY = 64 * 1024 * 1024

local HELLO, HEARTBEAT, RELAY_REQUEST, RELAY_RESPONSE, WEB_TOKEN, QUIET_REQUEST = 1, 2, 3, 4, 5, 6

local TYPE_NAMES = {
    [HELLO] = "Hello",
    [HEARTBEAT] = "Heartbeat",
    [RELAY_REQUEST] = "Relay request",
    [RELAY_RESPONSE] = "Relay response",
    [WEB_TOKEN] = "Web token",
    [QUIET_REQUEST] = "Quiet relay request",
}

-- Types that answer each other: an answer has its request's ID and a type of the same kind.
local KIND = {
    [HELLO] = "hello",
    [HEARTBEAT] = "heartbeat",
    [RELAY_REQUEST] = "relay",
    [RELAY_RESPONSE] = "relay",
    [WEB_TOKEN] = "token",
    [QUIET_REQUEST] = "relay",
}

-- Who goes on with a body.
local BODY_DISSECTOR = {
    [HELLO] = "json",
    [RELAY_REQUEST] = "http",
    [RELAY_RESPONSE] = "http",
    [WEB_TOKEN] = "json",
    [QUIET_REQUEST] = "http",
}

local fields = {
    magic = ProtoField.uint16("cloud_relay.magic", "MagicNumber", base.HEX),
    type = ProtoField.uint16("cloud_relay.type", "DataType", base.DEC, TYPE_NAMES),
    id = ProtoField.uint16("cloud_relay.id", "ID", base.DEC_HEX),
    reserve = ProtoField.uint16("cloud_relay.reserve", "Reserve", base.HEX),
    length = ProtoField.uint32("cloud_relay.length", "DataLen", base.DEC),
    body = ProtoField.bytes("cloud_relay.body", "Body"),
    lost = ProtoField.bytes("cloud_relay.lost", "Bytes that are no packet"),
    answer_in = ProtoField.framenum("cloud_relay.answer_in", "Answer in", base.NONE,
        frametype.RESPONSE),
    request_in = ProtoField.framenum("cloud_relay.request_in", "Request in", base.NONE,
        frametype.REQUEST),
    time = ProtoField.relative_time("cloud_relay.time", "Time since request"),
}
relay.fields = fields

local experts = {}

local function add_expert(name, text, group, severity)
    experts[name] = ProtoExpert.new("cloud_relay." .. name, text, group, severity)
end

add_expert("bad_magic", "Bad magic number: the receiver ends the session",
    expert.group.MALFORMED, expert.severity.ERROR)
add_expert("unknown_type", "Unknown DataType: the receiver ends the session",
    expert.group.PROTOCOL, expert.severity.ERROR)
add_expert("nonzero_reserve", "Reserve is not 0",
    expert.group.PROTOCOL, expert.severity.WARN)
add_expert("heartbeat_body", "A heartbeat with a body: the device does not read it",
    expert.group.PROTOCOL, expert.severity.ERROR)
add_expert("too_long", "DataLen is too large to put the body together",
    expert.group.PROTOCOL, expert.severity.WARN)
add_expert("no_request", "An answer whose request is not in this capture",
    expert.group.SEQUENCE, expert.severity.NOTE)
add_expert("id_reused", "The ID of a request that has no answer yet",
    expert.group.SEQUENCE, expert.severity.NOTE)
relay.experts = experts

relay.prefs.port = Pref.uint("Relay's port", 0,
    "Port whose TLS carries packets; 0 leaves finding them to their looks")

-- --- pairing of requests and answers ------------------------------------------------------------

local tcp_stream = Field.new("tcp.stream")

-- What one pass over the capture has learned: `waiting`, by stream, kind and ID, the last packet
-- that may still be answered; `packets`, by frame and place in it, what is known of a packet;
-- `found`, by stream of TLS, the frame in which packets were found.
local waiting, packets, found

function relay.init()
    waiting, packets, found = {}, {}, {}
end

-- Which packet of its frame this is, from 1. The table lives as long as the frame's dissection.
local function place_in_frame(pinfo)
    local place = (tonumber(pinfo.private.cloud_relay_packets) or 0) + 1
    pinfo.private.cloud_relay_packets = tostring(place)
    return place
end

local function may_be_request(type)
    return type ~= RELAY_RESPONSE
end

-- An answer comes from the other side; relay responses answer only relay requests.
local function answers(packet, earlier)
    return earlier ~= nil and earlier.sender ~= packet.sender
        and (packet.type == RELAY_RESPONSE) == (KIND[packet.type] == "relay")
end

local function learn(packet)
    local key = table.concat({packet.stream, KIND[packet.type], packet.id}, "/")
    local earlier = waiting[key]
    if answers(packet, earlier) then
        packet.request, earlier.answer = earlier, packet
        waiting[key] = nil
    elseif may_be_request(packet.type) then
        packet.reuses_id = earlier ~= nil
        waiting[key] = packet
    end
end

-- The record of the packet that is being dissected, made in the first pass.
local function packet_record(pinfo, place, type, id)
    local key = pinfo.number .. "/" .. place
    local packet = packets[key]
    if packet == nil then
        packet = {frame = pinfo.number, seconds = pinfo.rel_ts, type = type, id = id,
            stream = tostring(tcp_stream()),
            sender = tostring(pinfo.src) .. " " .. pinfo.src_port}
        packets[key] = packet
        if KIND[type] then
            learn(packet)
        end
    end
    return packet
end

local function time_between(earlier, later)
    local seconds = later.seconds - earlier.seconds
    local whole = math.floor(seconds)
    return NSTime.new(whole, math.floor((seconds - whole) * 1e9 + 0.5))
end

local function add_pairing(tree, packet)
    if packet.answer then
        tree:add(fields.answer_in, packet.answer.frame):set_generated()
    elseif packet.request then
        tree:add(fields.request_in, packet.request.frame):set_generated()
        tree:add(fields.time, time_between(packet.request, packet)):set_generated()
    elseif packet.type == RELAY_RESPONSE then
        tree:add_proto_expert_info(experts.no_request)
    end
    if packet.reuses_id then
        tree:add_proto_expert_info(experts.id_reused)
    end
end

-- --- one packet ---------------------------------------------------------------------------------

local function describe(packet)
    local name = TYPE_NAMES[packet.type] or string.format("Unknown type %d", packet.type)
    if packet.type == HELLO then
        return packet.request and name .. " answer" or name
    end
    if packet.request and packet.type ~= RELAY_RESPONSE then
        name = name .. " answer"
    end
    return string.format("%s, ID 0x%04x", name, packet.id)
end

-- Starts this packet's part of the Info column; what other dissectors add stays behind it.
local function set_columns(pinfo, place, text)
    pinfo.cols.protocol = "Cloud Relay"
    if place == 1 then
        pinfo.cols.info:clear()
    else
        pinfo.cols.info:append(" | ")
    end
    pinfo.cols.info:append(text)
    pinfo.cols.info:fence()
end

-- Who can go on with the body of a packet, if anybody can.
local function body_dissector(body, type)
    local name = BODY_DISSECTOR[type]
    local start = body:raw(0, math.min(body:len(), 12))
    if name == "json" and not start:find("^[{%[]") then
        return nil -- a web token's request holds any bytes
    end
    if name == "http" and start:find("^HTTP/%d%.%d 101") then
        return nil -- the HTTP dissector would take the connection for one of another protocol
    end
    return name
end

-- A body is whole in its packet. Dissectors that are called from here cannot ask for more of it, as
-- that of HTTP would do for an answer that is ended by closing.
local function dissect_body(buffer, pinfo, tree, packet)
    local body = buffer(HEADER_SIZE):tvb()
    local name = body_dissector(body, packet.type)
    if name == nil then
        return
    end
    if name == "http" then
        pinfo.cols.info:append(": ")
        pinfo.cols.info:fence()
    end
    Dissector.get(name):call(body, pinfo, tree)
    pinfo.cols.protocol = "Cloud Relay"
end

local function add_header(tree, buffer)
    local reserve, size = buffer(6, 2), buffer(8, 4)
    tree:add(fields.magic, buffer(0, 2))
    local type_item = tree:add(fields.type, buffer(2, 2))
    tree:add(fields.id, buffer(4, 2))
    local reserve_item = tree:add(fields.reserve, reserve)
    local size_item = tree:add(fields.length, size)

    local type = buffer(2, 2):uint()
    if TYPE_NAMES[type] == nil then
        type_item:add_proto_expert_info(experts.unknown_type)
    end
    if reserve:uint() ~= 0 then
        reserve_item:add_proto_expert_info(experts.nonzero_reserve)
    end
    if type == HEARTBEAT and size:uint() > 0 then
        size_item:add_proto_expert_info(experts.heartbeat_body)
    end
    if size:uint() > LARGEST_BODY then
        size_item:add_proto_expert_info(experts.too_long)
    end
end

-- Where no packet starts, none can be found any more: the header gives no place to go on from.
local function dissect_lost(buffer, pinfo, root)
    set_columns(pinfo, place_in_frame(pinfo), "Bad magic number")
    local tree = root:add(relay, buffer(), "Cloud Relay, no packet")
    tree:add(fields.magic, buffer(0, 2)):add_proto_expert_info(experts.bad_magic)
    tree:add(fields.lost, buffer())
    return buffer:len()
end

local function dissect_packet(buffer, pinfo, root)
    if buffer(0, 2):uint() ~= MAGIC then
        return dissect_lost(buffer, pinfo, root)
    end
    local place = place_in_frame(pinfo)
    local packet = packet_record(pinfo, place, buffer(2, 2):uint(), buffer(4, 2):uint())
    local text = describe(packet)
    set_columns(pinfo, place, text)
    local tree = root:add(relay, buffer(), "Cloud Relay, " .. text)
    add_header(tree, buffer)
    add_pairing(tree, packet)
    if buffer:len() > HEADER_SIZE then
        tree:add(fields.body, buffer(HEADER_SIZE))
        dissect_body(buffer, pinfo, root, packet)
    end
    return buffer:len()
end

-- --- finding packets ----------------------------------------------------------------------------

-- Bytes of the packet at `offset`: all there are when it cannot be told or is not to be believed.
local function packet_length(buffer, _, offset)
    local size = buffer(offset + 8, 4):uint()
    if buffer(offset, 2):uint() ~= MAGIC or size > LARGEST_BODY then
        return buffer:len() - offset
    end
    return HEADER_SIZE + size
end

local function dissect(buffer, _, root)
    dissect_tcp_pdus(buffer, root, HEADER_SIZE, packet_length, dissect_packet)
    return buffer:len()
end

relay.dissector = dissect

local function looks_like_packet(buffer)
    return buffer:len() >= HEADER_SIZE and buffer(0, 2):uint() == MAGIC
        and TYPE_NAMES[buffer(2, 2):uint()] ~= nil
end

-- TLS asks again for every record, and the HTTP dissector, once it has seen our bodies, is fond of
-- records that start with less than a header: what was found once in a stream stays ours.
local function try_on_tls(buffer, pinfo, root)
    local stream = tostring(tcp_stream())
    if looks_like_packet(buffer) then
        found[stream] = math.min(found[stream] or pinfo.number, pinfo.number)
    end
    if (found[stream] or math.huge) > pinfo.number then
        return false
    end
    dissect(buffer, pinfo, root)
    return true
end

-- From here on the whole TCP connection is ours, packets that start in mid-segment included.
local function try_on_tcp(buffer, pinfo, root)
    if not looks_like_packet(buffer) then
        return false
    end
    pinfo.conversation = relay
    dissect(buffer, pinfo, root)
    return true
end

relay:register_heuristic("tls", try_on_tls)
relay:register_heuristic("tcp", try_on_tcp)

local tls_ports = DissectorTable.get("tls.port")
tls_ports:add_for_decode_as(relay)
DissectorTable.get("tcp.port"):add_for_decode_as(relay)

-- Without a port, Wireshark 4.0 shows what TLS carries in its first pass over a recording only:
-- enough for tshark, not for the window.
local port = 0

function relay.prefs_changed()
    if port ~= 0 then
        tls_ports:remove(port, relay)
    end
    port = relay.prefs.port
    if port ~= 0 then
        tls_ports:add(port, relay)
    end
end
