-- The event service's "enqueueEvent" script, as the development stand-in
-- loads it: queues a Redfish event that a plug-in has just stored.
--
-- KEYS[1]: the JPath of the event's root hash.
-- State: the hash "redisEventService" (fields "EventSubscriptions": how many
-- subscriptions want events; "QueueLimit": the most events the queue holds,
-- 0 or missing for no limit).
-- Returns 1 queued (KEYS[1] appended to the list "redisEventQueue"),
--         2 nobody subscribed,
--         3 nothing to deliver: no hash at KEYS[1], or one whose "&&Events"
--           list is missing or empty,
--         4 the queue is full.
local key = KEYS[1]
if redis.call('TYPE', key).ok ~= 'hash' then return 3 end
local events = redis.call('HGET', key, '&&Events')
if not events or redis.call('LLEN', events) == 0 then return 3 end
local subscriptions = tonumber(redis.call('HGET', 'redisEventService', 'EventSubscriptions')) or 0
if subscriptions < 1 then return 2 end
local limit = tonumber(redis.call('HGET', 'redisEventService', 'QueueLimit')) or 0
if limit > 0 and redis.call('LLEN', 'redisEventQueue') >= limit then return 4 end
redis.call('RPUSH', 'redisEventQueue', key)
return 1
