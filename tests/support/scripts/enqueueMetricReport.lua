-- The event service's "enqueueMetricReport" script, as the development
-- stand-in loads it: queues a metric report that a plug-in has stored.
--
-- KEYS[1]: the JPath of the report's hash.
-- State: the hash "redisEventService" (fields "MetricReportSubscriptions";
-- "QueueLimit", shared with events).
-- Returns 1 queued (KEYS[1] appended to the list "redisMetricReportQueue"),
--         2 nobody subscribed,
--         3 nothing to deliver: no hash at KEYS[1],
--         4 the queue is full.
local key = KEYS[1]
if redis.call('TYPE', key).ok ~= 'hash' then return 3 end
local subscriptions =
    tonumber(redis.call('HGET', 'redisEventService', 'MetricReportSubscriptions')) or 0
if subscriptions < 1 then return 2 end
local limit = tonumber(redis.call('HGET', 'redisEventService', 'QueueLimit')) or 0
if limit > 0 and redis.call('LLEN', 'redisMetricReportQueue') >= limit then return 4 end
redis.call('RPUSH', 'redisMetricReportQueue', key)
return 1
