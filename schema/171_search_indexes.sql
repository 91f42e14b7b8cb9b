-- outside a transaction
-- The indexes of what is searched for, beside a server at work. Each statement can be repeated.

SET ROLE oryx_owner;

-- What a build that was broken off has left is no index, but is written like one.
SELECT format('DROP INDEX CONCURRENTLY %s', indexrelid::regclass)
    FROM pg_index JOIN pg_class ON pg_class.oid = indexrelid
    WHERE NOT indisvalid AND relnamespace = 'public'::regnamespace
        AND relname IN ('subscription_states_received', 'subscription_states_received_package',
                        'subscription_states_sent', 'event_sources_searched') \gexec

-- With fastupdate, which is the stock setting, a row that is stored waits in a list that every search reads, until one
-- comes that has to enter all of them, and whoever stores that waits.
-- The event package tells hardly any rows apart, so it is only looked at in what else is found. Its own index serves
-- who asks for nothing else.
CREATE INDEX CONCURRENTLY IF NOT EXISTS subscription_states_received ON subscription_states
    USING gin (fromhdr gin_trgm_ops, requesturi gin_trgm_ops) WITH (fastupdate = off)
    WHERE subscriptionid LIKE '%%incoming#%%';
CREATE INDEX CONCURRENTLY IF NOT EXISTS subscription_states_received_package ON subscription_states
    USING gin (packageid gin_trgm_ops) WITH (fastupdate = off) WHERE subscriptionid LIKE '%%incoming#%%';
CREATE INDEX CONCURRENTLY IF NOT EXISTS subscription_states_sent ON subscription_states
    USING gin (tohdr gin_trgm_ops) WITH (fastupdate = off) WHERE subscriptionid LIKE '%%outgoing#%%';
CREATE INDEX CONCURRENTLY IF NOT EXISTS event_sources_searched ON event_sources
    USING gin (presentity gin_trgm_ops) WITH (fastupdate = off);
DROP INDEX CONCURRENTLY IF EXISTS event_sources_presentity;
ALTER INDEX event_watchers_presentitykey SET (fastupdate = off);
SELECT gin_clean_pending_list('event_watchers_presentitykey') \g /dev/null

-- A column's new type has no statistics, and without them the planner takes a key for many rows.
ANALYZE subscription_states, event_watchers, event_sources;

RESET ROLE;
