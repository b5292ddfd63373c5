#!lua name=vvlan2
-- Of every (prefix, database) there is one line of changes, counted by "seq" in
-- the hash PREFIX#state and published on one channel, so that a client sees from
-- the numbers alone whether it has missed one. What one call changes goes out as
-- one message. Stale marks are cycle numbers: an object with an older number than
-- its cycle is stale, so opening a cycle costs the same for any number of objects.
--
-- Per type, PREFIXTYPE#meta holds for each key "NUMBER UNOWNED[ OWNER=NUMBER]...",
-- and under "#" and "#OWNER" the numbers of the cycles themselves.

local object_count_max = 65536
local chunk = 1000 -- of keys that unpack() may hand over at once, with their values

-- Sizes as text: otherwise Lua prints a number each time that it is joined.
local texts = {}
for i = 0, 1024 do texts[i] = '' .. i end

local function text_of(number)
    return texts[number] or tostring(number)
end

local function value_key(a, key)
    if key == '' then return a.root end
    return a.root .. ':' .. key
end

-- The arguments that all functions begin with: prefix, database, type.
local function open(args)
    local a = {prefix = args[1], db = args[2], type = args[3]}
    a.state = a.prefix .. '#state'
    a.root = a.prefix .. a.type
    a.meta = a.root .. '#meta'
    return a
end

local function sequence(a)
    return tonumber(redis.call('HGET', a.state, 'seq') or '0')
end

-- One change, as it stands in a message.
local function change_text(key, payload)
    return text_of(#key) .. ' ' .. text_of(#payload) .. '\n' .. key .. payload
end

-- Numbers count changes and publishes them; returns the last number.
-- kind: s(et), f(ields set), r(emoved), p(ublished).
local function tell(a, kind, fields, count, changes)
    local seq = redis.call('HINCRBY', a.state, 'seq', count)
    redis.call('PUBLISH', a.prefix .. '#' .. a.db,
        (seq - count + 1) .. ' ' .. count .. ' ' .. kind .. ' ' .. a.type .. ' ' .. fields .. '\n' .. changes)
    return seq
end

local function read_meta(text)
    local m = {holds = {}, count = 0}
    local number, unowned = string.match(text, '^(%d+) ([01])')
    m.number = tonumber(number or '0')
    m.unowned = unowned == '1'
    for owner, at in string.gmatch(text, ' (%d+)=(%d+)') do
        m.holds[owner] = tonumber(at)
        m.count = m.count + 1
    end
    return m
end

local function write_meta(m)
    local owners = {}
    for owner in pairs(m.holds) do owners[#owners + 1] = owner end
    table.sort(owners)
    local text = m.number .. ' ' .. (m.unowned and '1' or '0')
    for _, owner in ipairs(owners) do text = text .. ' ' .. owner .. '=' .. m.holds[owner] end
    return text
end

local function cycle(a, owner)
    return tonumber(redis.call('HGET', a.meta, '#' .. owner) or '0')
end

-- A keyless object's fields as one text, without the marker that keeps an
-- object without fields alive.
local function pack_fields(list)
    local parts = {}
    for i = 1, #list, 2 do
        if list[i] ~= '0' then
            parts[#parts + 1] = list[i] .. ' ' .. #list[i + 1] .. '\n' .. list[i + 1]
        end
    end
    return table.concat(parts)
end

local function add_fields(touched, list, step)
    for i = 1, #list, step do
        if list[i] ~= '0' then touched[list[i]] = true end
    end
end

local function field_list(touched)
    local numbers = {}
    for number in pairs(touched) do numbers[#numbers + 1] = tonumber(number) end
    table.sort(numbers)
    return #numbers == 0 and '-' or table.concat(numbers, ',')
end

-- Removes a value of the wrong type that stands in the place of a keyless object.
local function fields_of(key)
    if redis.call('TYPE', key).ok ~= 'hash' then
        redis.call('DEL', key)
        return {}
    end
    return redis.call('HGETALL', key)
end

-- Marks the objects as written and clears their stale marks. Returns the places of
-- those that the database has no room for (nil: none). Most writes find the mark
-- that they would make, and then change nothing here.
local function hold(a, owner, keys)
    local n = #keys
    keys[n + 1], keys[n + 2] = '#' .. owner, '#'
    local found = redis.call('HMGET', a.meta, unpack(keys))
    keys[n + 1], keys[n + 2] = nil, nil
    local now, owner_now = found[n + 2] or '0', found[n + 1] or '0'
    local usual = now .. ' 1'
    local marks, changed, made, room, refused = nil, nil, 0, nil, nil
    for i = 1, n do
        local key = keys[i]
        local text = marks and marks[key] or found[i]
        if not text then
            room = room or object_count_max - tonumber(redis.call('HGET', a.state, 'count') or '0')
            if made < room then
                made = made + 1
            else
                refused = refused or {}
                refused[i] = true
            end
        end
        if (owner ~= '' or text ~= usual) and not (refused and refused[i]) then
            local m = read_meta(text or '')
            m.number = tonumber(now)
            if owner == '' then
                m.unowned = true
            else
                m.holds[owner] = tonumber(owner_now)
            end
            marks, changed = marks or {}, changed or {}
            marks[key] = write_meta(m)
            if marks[key] ~= text then changed[#changed + 1], changed[#changed + 2] = key, marks[key] end
        end
    end
    if made > 0 then redis.call('HINCRBY', a.state, 'count', made) end
    if changed and #changed > 0 then redis.call('HSET', a.meta, unpack(changed)) end
    return refused
end

-- Removes an object; the caller notifies. Returns the numbers of a keyless object's
-- fields.
local function erase(a, key)
    local place = value_key(a, key)
    local touched = {}
    if key == '' then add_fields(touched, fields_of(place), 2) end
    redis.call('DEL', place)
    redis.call('HDEL', a.meta, key)
    redis.call('HINCRBY', a.state, 'count', -1)
    return field_list(touched)
end

-- write PREFIX DB TYPE OWNER KEY VALUE [KEY VALUE]...: the last number, or where
-- some are refused {last number, their places}. It calls the server as rarely as
-- possible, since these calls are what a write costs.
local function write(_, args)
    local a = open(args)
    local keys, k = {}, 0
    for i = 5, #args, 2 do
        k = k + 1
        keys[k] = args[i]
    end
    if k == 0 or k > chunk or #args % 2 ~= 0 then return redis.error_reply('ERR wrong number of objects') end
    local refused = hold(a, args[4], keys)
    if k == 1 and not refused then
        redis.call('SET', value_key(a, keys[1]), args[6])
        return tell(a, 's', '-', 1, change_text(keys[1], args[6]))
    end
    local root, values, n, changes, reply = a.root .. ':', {}, 0, {}, {0}
    for i = 1, k do
        if refused and refused[i] then
            reply[#reply + 1] = i
        else
            local key, value = keys[i], args[2 * i + 4]
            n = n + 1
            values[2 * n - 1], values[2 * n], changes[n] = root .. key, value, change_text(key, value)
        end
    end
    if n == 0 then return redis.error_reply('VVLANFULL') end
    redis.call('MSET', unpack(values))
    reply[1] = tell(a, 's', '-', n, table.concat(changes))
    return refused and reply or reply[1]
end

-- write_fields PREFIX DB TYPE OWNER replace|merge NUMBER BYTES ...
local function write_fields(_, args)
    local a = open(args)
    if hold(a, args[4], {''}) then return redis.error_reply('VVLANFULL') end
    local touched = {}
    local before = fields_of(a.root)
    if args[5] == 'replace' then
        add_fields(touched, before, 2)
        redis.call('DEL', a.root)
    end
    local list = {'0', ''}
    for i = 6, #args do list[#list + 1] = args[i] end
    add_fields(touched, list, 2)
    redis.call('HSET', a.root, unpack(list))
    local payload = pack_fields(redis.call('HGETALL', a.root))
    return tell(a, 'f', field_list(touched), 1, change_text('', payload))
end

-- remove PREFIX DB TYPE KEY OWNER
local function remove(_, args)
    local a = open(args)
    local key, owner = args[4], args[5]
    local text = redis.call('HGET', a.meta, key)
    if text then
        local m = read_meta(text)
        local held = m.holds[owner]
        m.holds[owner] = nil
        if owner == '' or (held and m.count == 1 and not m.unowned) then
            return tell(a, 'r', erase(a, key), 1, change_text(key, ''))
        elseif held then
            redis.call('HSET', a.meta, key, write_meta(m))
        end
    end
    return sequence(a)
end

-- publish PREFIX DB TYPE KEY PAYLOAD
local function publish(_, args)
    local a = open(args)
    return tell(a, 'p', '-', 1, change_text(args[4], args[5]))
end

-- read PREFIX DB TYPE KEY: {sequence, key, value} or {sequence}
local function read(_, args)
    local a = open(args)
    local key = args[4]
    if redis.call('HEXISTS', a.meta, key) == 0 then return {sequence(a)} end
    if key == '' then
        return {sequence(a), key, redis.call('TYPE', a.root).ok == 'hash' and pack_fields(fields_of(a.root)) or false}
    end
    return {sequence(a), key, redis.call('MGET', value_key(a, key))[1]}
end

-- scan PREFIX DB TYPE [NUMBER]: {sequence, key, value, ...} in no order; value is nil
-- where the stored value has the wrong type, or the key is a cycle's. The sequence
-- alone where it equals NUMBER: nothing has changed since.
local function scan(_, args)
    local a = open(args)
    if args[4] and sequence(a) == tonumber(args[4]) then return sequence(a) end
    local keys = redis.call('HKEYS', a.meta)
    local root, reply, r = a.root .. ':', {sequence(a)}, 1
    for first = 1, #keys, chunk do
        local places, last = {}, math.min(first + chunk - 1, #keys)
        for i = first, last do places[i - first + 1] = root .. keys[i] end
        local values = redis.call('MGET', unpack(places))
        for i = first, last do
            reply[r + 1], reply[r + 2] = keys[i], values[i - first + 1]
            r = r + 2
            if keys[i] == '' and redis.call('TYPE', a.root).ok == 'hash' then
                reply[r] = pack_fields(fields_of(a.root))
            end
        end
    end
    return reply
end

-- begin PREFIX DB TYPE OWNER
local function begin(_, args)
    local a = open(args)
    redis.call('HINCRBY', a.meta, '#' .. args[4], 1)
    return sequence(a)
end

-- unmark PREFIX DB TYPE KEY
local function unmark(_, args)
    local a = open(args)
    local key = args[4]
    local text = redis.call('HGET', a.meta, key)
    if text then
        local m = read_meta(text)
        m.number = cycle(a, '')
        for owner in pairs(m.holds) do m.holds[owner] = cycle(a, owner) end
        redis.call('HSET', a.meta, key, write_meta(m))
    end
    return sequence(a)
end

-- finish PREFIX DB TYPE OWNER
local function finish(_, args)
    local a = open(args)
    local owner = args[4]
    local now = cycle(a, owner)
    local stale = {}
    local list = redis.call('HGETALL', a.meta)
    for i = 1, #list, 2 do
        if string.sub(list[i], 1, 1) ~= '#' then
            local m = read_meta(list[i + 1])
            local at = m.number
            if owner ~= '' then at = m.holds[owner] end
            if at and at < now then stale[#stale + 1] = {key = list[i], meta = m} end
        end
    end
    table.sort(stale, function(x, y) return x.key < y.key end)
    local changes, fields = {}, '-'
    for _, s in ipairs(stale) do
        s.meta.holds[owner] = nil
        if owner == '' or (s.meta.count == 1 and not s.meta.unowned) then
            fields = erase(a, s.key)
            changes[#changes + 1] = change_text(s.key, '')
        else
            redis.call('HSET', a.meta, s.key, write_meta(s.meta))
        end
    end
    return #changes == 0 and sequence(a) or tell(a, 'r', fields, #changes, table.concat(changes))
end

-- state PREFIX DB [ID]: {sequence, id of the data set}. With an ID, a data set
-- without an id gets this one, and "= ID" is published: every change behind that
-- message has a higher number.
local function state(_, args)
    local key = args[1] .. '#state'
    if args[3] then
        redis.call('HSETNX', key, 'id', args[3])
        redis.call('PUBLISH', args[1] .. '#' .. args[2], '= ' .. args[3])
    end
    local found = redis.call('HMGET', key, 'seq', 'id')
    return {tonumber(found[1] or '0'), found[2] or ''}
end

redis.register_function('vvlan2_write', write)
redis.register_function('vvlan2_write_fields', write_fields)
redis.register_function('vvlan2_remove', remove)
redis.register_function('vvlan2_publish', publish)
redis.register_function('vvlan2_read', read)
redis.register_function('vvlan2_scan', scan)
redis.register_function('vvlan2_begin', begin)
redis.register_function('vvlan2_unmark', unmark)
redis.register_function('vvlan2_finish', finish)
redis.register_function('vvlan2_state', state)
