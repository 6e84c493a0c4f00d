-- Dissects captures of the calls on the diag driver's node (docs/capture.md), link type USER0.
--
--   wireshark -X lua_script:wireshark/tavrik-diag.lua capture.pcapng
--
-- Answers are matched to requests as the client does it: DIAG answers in order.

local proto = Proto("tavrikdiag", "Diag driver call")

local kinds = { [1] = "open", [2] = "close", [3] = "read", [4] = "write", [5] = "ioctl" }
local types = { [1] = "message masks", [2] = "log masks", [3] = "packet response", [4] = "event masks",
                [8] = "command packet", [16] = "de-initialisation", [32] = "user-space data",
                [128] = "request" }
local ioctls = { [0] = "register tables", [1] = "withdraw tables", [7] = "logging mode",
                 [8] = "delayed response id", [9] = "de-initialise", [32] = "remote processors",
                 [33] = "real-time vote", [34] = "real-time status" }
local commands = { [0x10] = "log packet", [0x13] = "error", [0x4B] = "subsystem", [0x60] = "event report",
                   [0x73] = "log configuration", [0x7D] = "message configuration" }
local operations = { [0] = "disable", [1] = "ranges", [3] = "set mask" }

local f = {
    version = ProtoField.uint8("tavrikdiag.version", "Version"),
    kind = ProtoField.uint8("tavrikdiag.kind", "Call", base.DEC, kinds),
    thread = ProtoField.uint32("tavrikdiag.thread", "Thread"),
    result = ProtoField.int32("tavrikdiag.result", "Result"),
    errno = ProtoField.int32("tavrikdiag.errno", "errno"),
    request = ProtoField.uint32("tavrikdiag.request", "ioctl", base.DEC, ioctls),
    flags = ProtoField.uint32("tavrikdiag.flags", "Open flags", base.HEX),
    length = ProtoField.uint32("tavrikdiag.length", "Data length"),
    duration = ProtoField.uint64("tavrikdiag.duration", "Duration (ns)"),
    data = ProtoField.bytes("tavrikdiag.data", "Data"),
    type = ProtoField.uint32("tavrikdiag.type", "Data type", base.DEC, types),
    command = ProtoField.uint8("tavrikdiag.command", "Command", base.HEX, commands),
    subsystem = ProtoField.uint8("tavrikdiag.subsystem", "Subsystem", base.HEX),
    subcommand = ProtoField.uint16("tavrikdiag.subcommand", "Subsystem command", base.HEX),
    operation = ProtoField.uint32("tavrikdiag.operation", "Operation", base.DEC, operations),
    status = ProtoField.uint32("tavrikdiag.status", "Status"),
    log_code = ProtoField.uint16("tavrikdiag.log_code", "Log code", base.HEX),
    clock = ProtoField.uint32("tavrikdiag.clock", "Core clock (kHz)"),
    answer_in = ProtoField.framenum("tavrikdiag.response_in", "Answer in", base.NONE, frametype.RESPONSE),
    answer_to = ProtoField.framenum("tavrikdiag.response_to", "Answer to", base.NONE, frametype.REQUEST),
    response_time = ProtoField.relative_time("tavrikdiag.response_time", "Response time"),
}
proto.fields = {}
for _, field in pairs(f) do table.insert(proto.fields, field) end

local e = {
    failed = ProtoExpert.new("tavrikdiag.failed", "The call failed", expert.group.RESPONSE_CODE, expert.severity.WARN),
    refused = ProtoExpert.new("tavrikdiag.refused", "Refused", expert.group.RESPONSE_CODE, expert.severity.ERROR),
    unanswered = ProtoExpert.new("tavrikdiag.unanswered", "No answer", expert.group.SEQUENCE, expert.severity.ERROR),
    stray = ProtoExpert.new("tavrikdiag.stray", "No request waited for it", expert.group.SEQUENCE, expert.severity.NOTE),
    broken = ProtoExpert.new("tavrikdiag.broken", "The buffer is not in order", expert.group.MALFORMED, expert.severity.WARN),
}
proto.experts = { e.failed, e.refused, e.unanswered, e.stray, e.broken }

-- Of the first pass over a capture, by frame number.
local pending, asked_at, answer_in, answers_to = {}, {}, {}, {}

function proto.init()
    pending, asked_at, answer_in, answers_to = {}, {}, {}, {}
end

-- A packet begins here: its command and what says yes or no. Returns a name, and whether it refuses.
local function packet(buffer, tree, inbound)
    if buffer:len() == 0 then return "empty frame", false end
    local command = buffer(0, 1):uint()
    tree:add(f.command, buffer(0, 1))
    local name, refused = commands[command] or string.format("command 0x%02X", command), false
    local function field(which, at, size)
        if buffer:len() < at + size then return nil end
        tree:add_le(which, buffer(at, size))
        return buffer(at, size):le_uint()
    end
    if command == 0x4B then
        local subsystem, subcommand = field(f.subsystem, 1, 1), field(f.subcommand, 2, 2)
        if subsystem == 0x12 then name = "loopback" end
        if subsystem == 0x0C and subcommand == 0x0404 then
            local status = field(f.status, 4, 4)
            name = "collection"
            refused = inbound and status ~= 1
            if not inbound then name = status == 1 and "start" or "stop" end
        end
    elseif command == 0x73 then
        local operation = field(f.operation, 4, 4)
        name = "log " .. (operations[operation] or "configuration")
        if inbound then refused = field(f.status, 8, 4) ~= 0 end
    elseif command == 0x60 then
        if inbound then refused = field(f.status, 1, 2) ~= 0 end
    elseif command == 0x7D then
        if inbound then refused = field(f.status, 2, 1) ~= 1 end
    elseif command == 0x13 then
        refused = true
    elseif command == 0x10 then
        field(f.log_code, 6, 2)
        field(f.clock, 44, 4)
    end
    return name, refused
end

-- The frames of a chunk, unescaped. Calls visit with each.
local function frames(chunk, visit)
    local bytes, plain, escaped = chunk:bytes(), ByteArray.new(), false
    for i = 0, bytes:len() - 1 do
        local byte = bytes:get_index(i)
        if byte == 0x7E then
            visit(plain)
            plain, escaped = ByteArray.new(), false
        elseif byte == 0x7D and not escaped then
            escaped = true
        else
            plain:append(ByteArray.new(string.format("%02X", escaped and bit.bxor(byte, 0x20) or byte)))
            escaped = false
        end
    end
    return plain:len() == 0
end

local function answer(pinfo, tree, index)
    local key = pinfo.number .. "/" .. index
    if not pinfo.visited then
        local request = table.remove(pending, 1)
        answers_to[key] = request
        if request then answer_in[request] = pinfo.number end
    end
    local request = answers_to[key]
    if not request then
        tree:add_proto_expert_info(e.stray)
        return
    end
    tree:add(f.answer_to, request):set_generated()
    local span = pinfo.abs_ts - asked_at[request]
    local seconds = math.floor(span)
    tree:add(f.response_time, NSTime.new(seconds, math.floor((span - seconds) * 1e9))):set_generated()
end

local function chunks(data, pinfo, tree)
    local names, index, at, good = {}, 0, 8, data:len() >= 8
    local count = good and data(4, 4):le_uint() or 0
    while good and count > 0 and at + 4 <= data:len() do
        local length = data(at, 4):le_int()
        local remote = length < 0
        if remote then
            at = at + 4
            if at + 4 > data:len() then good = false break end
            length = data(at, 4):le_int()
        end
        at, count = at + 4, count - 1
        if length < 0 or length > data:len() - at then good = false break end
        local whole = length == 0 or frames(data(at, length), function(plain)
            -- Its check sequence stands behind the packet.
            local size = math.max(plain:len() - 2, 0)
            local branch = tree:add(proto, "DIAG packet")
            index = index + 1
            local name, refused = "empty frame", false
            if size > 0 then
                local tvb = plain:subset(0, size):tvb("DIAG packet")
                name, refused = packet(tvb(), branch, true)
            end
            branch:append_text(": " .. name)
            table.insert(names, name .. (refused and " refused" or ""))
            if refused then branch:add_proto_expert_info(e.refused) end
            if not remote and name ~= "log packet" then answer(pinfo, branch, index) end
        end)
        good = good and whole
        at = at + length
    end
    if not good or count > 0 then tree:add_proto_expert_info(e.broken) end
    return table.concat(names, ", ")
end

local function request(data, result, pinfo, tree)
    local branch = tree:add(proto, data(4), "DIAG packet")
    local name = packet(data(4), branch, false)
    branch:append_text(": " .. name)
    if result == 0 and not pinfo.visited then
        asked_at[pinfo.number] = pinfo.abs_ts
        table.insert(pending, pinfo.number)
    end
    if result == 0 and pinfo.visited and answer_in[pinfo.number] then
        branch:add(f.answer_in, answer_in[pinfo.number]):set_generated()
    elseif result == 0 and pinfo.visited then
        branch:add_proto_expert_info(e.unanswered)
    end
    return name
end

local function payload(kind, result, data, pinfo, tree)
    tree:add(f.data, data)
    if kind == 5 or data:len() < 4 then return nil end
    tree:add_le(f.type, data(0, 4))
    local data_type = data(0, 4):le_uint()
    if kind == 3 and data_type == 32 then return chunks(data, pinfo, tree) end
    if kind == 4 and data_type == 128 and data:len() > 4 then return request(data, result, pinfo, tree) end
    return types[data_type]
end

function proto.dissector(buffer, pinfo, root)
    if buffer:len() < 32 or buffer(0, 1):uint() ~= 1 then return 0 end
    pinfo.cols.protocol = "DIAG"
    local kind, result = buffer(1, 1):uint(), buffer(8, 4):le_int()
    local length = math.min(buffer(20, 4):le_uint(), buffer:len() - 32)
    local tree = root:add(proto, buffer())
    tree:add(f.version, buffer(0, 1))
    tree:add(f.kind, buffer(1, 1))
    tree:add_le(f.thread, buffer(4, 4))
    tree:add_le(f.result, buffer(8, 4))
    tree:add_le(f.errno, buffer(12, 4))
    if kind == 1 then tree:add_le(f.flags, buffer(16, 4)) end
    if kind == 5 then tree:add_le(f.request, buffer(16, 4)) end
    tree:add_le(f.length, buffer(20, 4))
    tree:add_le(f.duration, buffer(24, 8))
    local info = kinds[kind] or "unknown call"
    if kind == 5 then info = info .. " " .. (ioctls[buffer(16, 4):le_uint()] or "") end
    local what = length > 0 and payload(kind, result, buffer(32, length), pinfo, tree)
    if what and what ~= "" then info = info .. ": " .. what end
    if result < 0 then
        info = info .. string.format(" => %d, errno %d", result, buffer(12, 4):le_int())
        tree:add_proto_expert_info(e.failed)
    end
    pinfo.cols.info = info
    return buffer:len()
end

DissectorTable.get("wtap_encap"):add(wtap.USER0, proto)
