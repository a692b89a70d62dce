-- How to use it:
--   tshark -X lua_script:zdmsg.lua -d tcp.port==PORT,zdmsg -r capture.pcap
-- or put it into the personal folder for Lua plugins (Help, About, Folders), and choose "Decode
-- As..." or set the ports in the preferences of the protocol.
--
-- Every field can be filtered for: zdmsg.extproc_execute.function_name == "add", also in nested
-- records: zdmsg.struct_extproc_param.maxlen > 100. What a body does not hold to is marked as
-- zdmsg.malformed.

local zdmsg = Proto("zdmsg", "Zerdal database message")

local HEADER_SIZE = 16
local READY = "BOOT SUCCESS\0" -- how an agent says that it is ready; not a message
local MOST_NESTING = 64        -- of what is shown; the tree of Wireshark ends somewhere
local MOST_BODY = 2^28         -- a larger body is none: these bytes are not a header

zdmsg.prefs.tcp_ports = Pref.range("TCP ports", "", "Ports whose streams are messages", 65535)

-- ---- Fields

local header = {
    type = ProtoField.int32("zdmsg.type", "Type"),
    body_size = ProtoField.uint32("zdmsg.body_size", "Body size"),
    tsn = ProtoField.uint64("zdmsg.tsn", "Transaction sequence number"),
    ready = ProtoField.string("zdmsg.ready", "Readiness signal"),
    body = ProtoField.bytes("zdmsg.body", "Body"),
    rest = ProtoField.bytes("zdmsg.rest", "Rest of the body"),
}
local protocol_fields = {}
for _, field in pairs(header) do
    table.insert(protocol_fields, field)
end

local malformed = ProtoExpert.new("zdmsg.malformed", "Malformed message", expert.group.MALFORMED,
                                  expert.severity.ERROR)
local left_over = ProtoExpert.new("zdmsg.left_over", "Bytes behind the last field",
                                  expert.group.PROTOCOL, expert.severity.WARN)
zdmsg.experts = { malformed, left_over }

-- ---- The words of the description

local int, text, bytes, column = "int", "text", "bytes", "column"

local function fixed(size)
    return { fixed = size }
end

local function array(record_name)
    return { element = record_name }
end

local records = {}
local messages = {}

local function proto_field(record_name, field_name, kind)
    local abbreviation = "zdmsg." .. record_name .. "." .. field_name
    local made
    if kind == int or type(kind) == "table" and kind.element then
        made = ProtoField.int32(abbreviation, field_name)
    elseif kind == text then
        made = ProtoField.string(abbreviation, field_name)
    else
        made = ProtoField.bytes(abbreviation, field_name)
    end
    table.insert(protocol_fields, made)
    return made
end

local function declare(name, lines)
    local fields = {}
    for i, line in ipairs(lines) do
        fields[i] = { name = line[1], kind = line[2], proto = proto_field(name, line[1], line[2]) }
    end
    return { name = name, fields = fields }
end

local function record(name, lines)
    records[name] = declare(name, lines)
end

local function message(number, name, lines)
    messages[number] = declare(name, lines)
end

local error_stack = { fields = {} } -- by name: the fields that hold one

local function stack_members(prefix, lines)
    local kinds = {
        int = ProtoField.int32,
        uint = ProtoField.uint32,
        char = ProtoField.string,
        text = ProtoField.stringz,
    }
    local members = {}
    for i, line in ipairs(lines) do
        local made = kinds[line[3]](prefix .. line[4], line[4])
        table.insert(protocol_fields, made)
        members[i] = { offset = line[1], size = line[2], kind = line[3], name = line[4], proto = made }
    end
    return members
end

-- ---- Reading a body
--
-- A body is read through a table of its bytes (tvb), their number (size) and the place that has
-- been reached (offset). A field that does not fit ends the reading: refuse() throws a table, which
-- shows what went wrong; everything that was read so far stays in the tree.

local function refuse(what)
    error({ refused = what })
end

local function need(body, count, field)
    if count < 0 or count > body.size - body.offset then
        refuse(string.format("%s does not fit: it needs %d bytes, the body has %d more", field.name,
                             count, body.size - body.offset))
    end
end

-- With at least one zero byte behind the data.
local function padded(count)
    return count - count % 4 + 4
end

local function read_int(body, field)
    need(body, 4, field)
    local value = body.tvb(body.offset, 4):int()
    body.offset = body.offset + 4
    return value
end

local function add_text(tree, proto, range)
    return tree:add_packet_field(proto, range, ENC_UTF_8 + ENC_STRING)
end

local read = {}

function read.int(body, tree, field)
    local at = body.offset
    read_int(body, field)
    tree:add(field.proto, body.tvb(at, 4))
end

-- The bytes of a string, which are moved behind.
local function read_string(body, field)
    local len = read_int(body, field)
    if len < 0 then
        refuse(string.format("%s has the length %d", field.name, len))
    end
    need(body, padded(len), field)
    local range = body.tvb(body.offset, len)
    body.offset = body.offset + padded(len)
    return range
end

function read.text(body, tree, field)
    add_text(tree, field.proto, read_string(body, field))
end

local function add_members(tree, members, tvb)
    local shown = {}
    for _, member in ipairs(members) do
        local range = tvb(member.offset, member.size)
        if member.kind == "int" or member.kind == "uint" then
            tree:add(member.proto, range)
            shown[member.name] = range:int()
        else
            add_text(tree, member.proto, range)
            shown[member.name] = range:stringz(ENC_UTF_8)
        end
    end
    return shown
end

local function add_error_stack(tree, range)
    if range:len() == 0 then
        return
    end
    if range:len() < error_stack.header_size then
        tree:add_proto_expert_info(malformed, "The bytes end in the header of the error stack")
        return
    end
    local tvb = range:tvb()
    local count = add_members(tree, error_stack.header, tvb).count
    local there = math.floor((tvb:len() - error_stack.header_size) / error_stack.record_size)
    for i = 0, math.min(count, there) - 1 do
        local part = tvb(error_stack.header_size + i * error_stack.record_size,
                         error_stack.record_size)
        local item = tree:add(part, "Error " .. i)
        local error_shown = add_members(item, error_stack.record, part:tvb())
        item:append_text(string.format(": %d [%s] %s", error_shown.code, error_shown.sqlstate,
                                       error_shown.complete_desc))
    end
    if count < 0 or count > there then
        tree:add_proto_expert_info(malformed, string.format(
            "The error stack counts %d errors, its bytes hold %d", count, there))
    end
end

function read.bytes(body, tree, field)
    local range = read_string(body, field)
    local item = tree:add(field.proto, range)
    if error_stack.fields[field.name] then
        add_error_stack(item, range)
    end
end

-- Prefixes from 251 on, but for 254, are never written; this is how they are read.
function read.column(body, tree, field)
    local start = body.offset
    local function byte(ahead)
        return start + ahead < body.size and body.tvb(start + ahead, 1):uint() or 0
    end
    local prefix, len = 1, byte(0)
    if len == 254 then
        prefix, len = 3, byte(1) * 256 + byte(2)
    elseif len > 250 then
        prefix, len = 3, byte(1) == 254 and 3 or 1
    end
    need(body, padded(prefix + len), field)
    tree:add(field.proto, body.tvb(start + prefix, len))
    body.offset = start + padded(prefix + len)
end

function read.fixed(body, tree, field)
    need(body, field.kind.fixed, field)
    tree:add(field.proto, body.tvb(body.offset, field.kind.fixed))
    body.offset = body.offset + field.kind.fixed
end

local read_fields

function read.array(body, tree, field)
    local at = body.offset
    local count = read_int(body, field)
    local item = tree:add(field.proto, body.tvb(at, 4))
    item:append_text(count == 1 and " element" or " elements")
    local element = records[field.kind.element]
    body.depth = body.depth + 1
    if count > 0 and body.depth > MOST_NESTING then
        refuse(string.format("%s is nested deeper than is shown", field.name))
    end
    for i = 0, count - 1 do
        local start = body.offset
        if start == body.size then
            refuse(string.format("%s has %d elements, the body ends after %d", field.name, count, i))
        end
        local child = item:add(body.tvb(start), string.format("%s [%d]", element.name, i))
        read_fields(body, child, element.fields)
        child:set_len(body.offset - start)
    end
    body.depth = body.depth - 1
    item:set_len(body.offset - at)
end

local function reader_of(kind)
    if type(kind) == "string" then
        return read[kind]
    end
    return kind.fixed and read.fixed or read.array
end

function read_fields(body, tree, fields)
    for _, field in ipairs(fields) do
        reader_of(field.kind)(body, tree, field)
    end
end

local function show_rest(body, tree)
    if body.offset < body.size then
        tree:add(header.rest, body.tvb(body.offset))
    end
end

local function show_body(tvb, tree, shape)
    local body = { tvb = tvb, size = tvb:len(), offset = 0, depth = 0 }
    local good, problem = pcall(read_fields, body, tree, shape.fields)
    if good then
        if body.offset < body.size then
            tree:add_proto_expert_info(left_over)
        end
    elseif type(problem) == "table" and problem.refused then
        tree:add_proto_expert_info(malformed, "Malformed body: " .. problem.refused)
    else
        error(problem, 0)
    end
    show_rest(body, tree)
    return good
end

-- ---- Messages in a stream

local function show_message(tvb, tree)
    local number = tvb(0, 4):int()
    local shape = messages[number]
    local name = shape and shape.name or "unknown type"
    local item = tree:add(zdmsg, tvb())
    item:append_text(string.format(", %s (%d)", name, number))
    item:add(header.type, tvb(0, 4)):append_text(" (" .. name .. ")")
    item:add(header.body_size, tvb(4, 4))
    item:add(header.tsn, tvb(8, 8))
    local info = name
    if not shape then
        item:add_proto_expert_info(malformed, "There is no message of type " .. number)
        if tvb:len() > HEADER_SIZE then
            item:add(header.body, tvb(HEADER_SIZE))
        end
        info = string.format("unknown type %d", number)
    elseif tvb:len() > HEADER_SIZE then
        if not show_body(tvb(HEADER_SIZE):tvb(), item, shape) then
            info = info .. " [malformed]"
        end
    elseif #shape.fields > 0 then
        item:add_proto_expert_info(malformed, "Malformed body: it is empty")
        info = info .. " [malformed]"
    end
    return info
end

-- The number of bytes of what starts at offset; nil when more bytes are needed to know, and false
-- when it is nothing of ours.
local function length_of_next(tvb, offset)
    local there = tvb:len() - offset
    local start = tvb(offset, math.min(there, #READY)):raw()
    if start == READY:sub(1, #start) then
        return #READY
    end
    if there < HEADER_SIZE then
        return nil
    end
    local body_size = tvb(offset + 4, 4):uint()
    return body_size <= MOST_BODY and HEADER_SIZE + body_size
end

-- Of one packet we are called once for what ends in it and once for what begins in it; what the
-- first call wrote stays before what the second one sets.
local told = ""

local function tell(pinfo, info)
    local follows = told ~= "" and tostring(pinfo.cols.info) == told
    pinfo.cols.info = follows and ", " .. info or info
    told = follows and told .. ", " .. info or info
end

function zdmsg.dissector(tvb, pinfo, tree)
    pinfo.cols.protocol = "ZDMSG"
    local infos = {}
    local offset = 0
    while offset < tvb:len() do
        local length = length_of_next(tvb, offset)
        if length == false then
            if offset == 0 then
                return 0
            end
            tree:add(zdmsg, tvb(offset)):add_proto_expert_info(malformed, "No header of a message")
            break
        end
        if not length or length > tvb:len() - offset then
            pinfo.desegment_offset = offset
            pinfo.desegment_len = length and length - (tvb:len() - offset) or
                                  DESEGMENT_ONE_MORE_SEGMENT
            break
        end
        local part = tvb(offset, length)
        if length == #READY then
            tree:add(zdmsg, part):add(header.ready, tvb(offset, #READY - 1))
            table.insert(infos, "ready")
        else
            table.insert(infos, show_message(part:tvb(), tree))
        end
        offset = offset + length
    end
    if #infos > 0 then
        tell(pinfo, table.concat(infos, ", "))
    end
    return tvb:len()
end

-- ---- The description

@description@

-- ---- Registration

zdmsg.fields = protocol_fields

local tcp = DissectorTable.get("tcp.port")
tcp:add_for_decode_as(zdmsg)

local ports_in_use = ""
function zdmsg.prefs_changed()
    tcp:remove(ports_in_use, zdmsg)
    ports_in_use = zdmsg.prefs.tcp_ports
    tcp:add(ports_in_use, zdmsg)
end
