// Lua, run by the server. Of every (prefix, database) there is one line of
// changes, counted by "seq" in the hash PREFIX#state and published on one
// channel, so that a client sees from the numbers alone whether it has missed
// one. Stale marks are cycle numbers: what carries an older number than its
// cycle is stale, so opening a cycle costs the same for any number of objects.
//
// Per type, PREFIXTYPE#meta holds for each key "NUMBER UNOWNED[ OWNER=NUMBER]...",
// and under "#" and "#OWNER" the numbers of the cycles themselves.
#include "platform/mom/redis_library.h"

namespace vvl::mom
{

const char redis_library[] = R"lua(#!lua name=vvlan1

local object_count_max = 65536
local chunk = 1000 -- of arguments that unpack() may hand over at once

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

-- kind: s(et), f(ields set), r(emoved), p(ublished).
local function tell(a, kind, key, fields, payload)
    local seq = redis.call('HINCRBY', a.state, 'seq', 1)
    redis.call('PUBLISH', a.prefix .. '#' .. a.db,
        seq .. ' ' .. kind .. ' ' .. a.type .. ' :' .. key .. ' ' .. fields .. '\n' .. payload)
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

-- What stands in the place of a keyless object and is none goes.
local function fields_of(key)
    if redis.call('TYPE', key).ok ~= 'hash' then
        redis.call('DEL', key)
        return {}
    end
    return redis.call('HGETALL', key)
end

-- Marks the object as written and clears what the write clears. False where
-- the database is full. Most writes find the mark that they would make.
local function hold(a, key, owner)
    local found = redis.call('HMGET', a.meta, key, '#' .. owner, '#')
    if owner == '' and found[1] == (found[3] or '0') .. ' 1' then return true end
    if not found[1] then
        if tonumber(redis.call('HGET', a.state, 'count') or '0') >= object_count_max then return false end
        redis.call('HINCRBY', a.state, 'count', 1)
    end
    local m = read_meta(found[1] or '')
    m.number = tonumber(found[3] or '0')
    if owner == '' then
        m.unowned = true
    else
        m.holds[owner] = tonumber(found[2] or '0')
    end
    local text = write_meta(m)
    if text ~= found[1] then redis.call('HSET', a.meta, key, text) end
    return true
end

local function erase(a, key)
    local place = value_key(a, key)
    local touched = {}
    if key == '' then add_fields(touched, fields_of(place), 2) end
    redis.call('DEL', place)
    redis.call('HDEL', a.meta, key)
    redis.call('HINCRBY', a.state, 'count', -1)
    tell(a, 'r', key, field_list(touched), '')
end

-- write PREFIX DB TYPE KEY OWNER VALUE
local function write(_, args)
    local a = open(args)
    local key, owner, value = args[4], args[5], args[6]
    if not hold(a, key, owner) then return redis.error_reply('VVLANFULL') end
    redis.call('SET', value_key(a, key), value)
    return tell(a, 's', key, '-', value)
end

-- write_fields PREFIX DB TYPE OWNER replace|merge NUMBER BYTES ...
local function write_fields(_, args)
    local a = open(args)
    if not hold(a, '', args[4]) then return redis.error_reply('VVLANFULL') end
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
    return tell(a, 'f', '', field_list(touched), pack_fields(redis.call('HGETALL', a.root)))
end

-- remove PREFIX DB TYPE KEY OWNER
local function remove(_, args)
    local a = open(args)
    local key, owner = args[4], args[5]
    local text = redis.call('HGET', a.meta, key)
    if text then
        local m = read_meta(text)
        if owner == '' then
            erase(a, key)
        elseif m.holds[owner] then
            m.holds[owner] = nil
            if m.count == 1 and not m.unowned then
                erase(a, key)
            else
                redis.call('HSET', a.meta, key, write_meta(m))
            end
        end
    end
    return sequence(a)
end

-- publish PREFIX DB TYPE KEY PAYLOAD
local function publish(_, args)
    local a = open(args)
    return tell(a, 'p', args[4], '-', args[5])
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

-- scan PREFIX DB TYPE: {sequence, key, value, ...}; value is nil where a value
-- of a foreign kind stands in its place
local function scan(_, args)
    local a = open(args)
    local keys = {}
    for _, key in ipairs(redis.call('HKEYS', a.meta)) do
        if string.sub(key, 1, 1) ~= '#' then keys[#keys + 1] = key end
    end
    table.sort(keys)
    local reply = {sequence(a)}
    for first = 1, #keys, chunk do
        local places = {}
        for i = first, math.min(first + chunk - 1, #keys) do places[#places + 1] = value_key(a, keys[i]) end
        local values = redis.call('MGET', unpack(places))
        for i, value in ipairs(values) do
            local key = keys[first + i - 1]
            reply[#reply + 1] = key
            if key == '' and redis.call('TYPE', a.root).ok == 'hash' then value = pack_fields(fields_of(a.root)) end
            reply[#reply + 1] = value
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
    for _, s in ipairs(stale) do
        s.meta.holds[owner] = nil
        if owner == '' or (s.meta.count == 1 and not s.meta.unowned) then
            erase(a, s.key)
        else
            redis.call('HSET', a.meta, s.key, write_meta(s.meta))
        end
    end
    return sequence(a)
end

-- state PREFIX DB [ID]: {sequence, id of the data set}. With an ID, a data set
-- that has none gets this one.
local function state(_, args)
    local key = args[1] .. '#state'
    if args[3] then redis.call('HSETNX', key, 'id', args[3]) end
    local found = redis.call('HMGET', key, 'seq', 'id')
    return {tonumber(found[1] or '0'), found[2] or ''}
end

redis.register_function('vvlan1_write', write)
redis.register_function('vvlan1_write_fields', write_fields)
redis.register_function('vvlan1_remove', remove)
redis.register_function('vvlan1_publish', publish)
redis.register_function('vvlan1_read', read)
redis.register_function('vvlan1_scan', scan)
redis.register_function('vvlan1_begin', begin)
redis.register_function('vvlan1_unmark', unmark)
redis.register_function('vvlan1_finish', finish)
redis.register_function('vvlan1_state', state)
)lua";

} // namespace vvl::mom
