-- Upkeep: what must be done again and again, and what an operator must hear of before callers do. One function does the
-- one and looks for the other; a timer calls it every minute (deploy/upkeep).

-- To see how long others' transactions have been open, and to end those that nobody ends. The owner has these rights,
-- and not the role that calls the upkeep: who sees all sessions sees the texts of their statements, passwords too.
DO $$
BEGIN
    IF NOT pg_has_role('oryx_owner', 'pg_read_all_stats', 'MEMBER') OR NOT pg_has_role('oryx_owner', 'pg_signal_backend', 'MEMBER') THEN
        GRANT pg_read_all_stats, pg_signal_backend TO oryx_owner;
    END IF;
EXCEPTION
    WHEN unique_violation THEN
        NULL;  -- granted by another database's migration since the look
    WHEN insufficient_privilege THEN
        RAISE WARNING 'the upkeep will not see others'' sessions until a superuser says GRANT pg_read_all_stats, pg_signal_backend TO oryx_owner';
END
$$;

-- A transaction that is left open keeps every version of every row that is changed meanwhile. A contact's page has room
-- for about three refreshes; after that they go to other pages, and each is written to every index
-- (scripts/with-server bench/schema/measure upkeep). Roles with a limit of their own keep theirs.
DO $$
BEGIN
    EXECUTE format('ALTER DATABASE %I SET idle_in_transaction_session_timeout TO ''1min''', current_database());
END
$$;

SET LOCAL ROLE oryx_owner;

-- What is allowed ---------------------------------------------------------------------------------------------------
-- An operator may change the limits: UPDATE alarm_limit SET allowed = ... More than is allowed is an alarm.

CREATE TABLE alarm_limit (
    alarm   text PRIMARY KEY,
    allowed numeric NOT NULL,
    unit    text NOT NULL,
    remedy  text NOT NULL
);

INSERT INTO alarm_limit (alarm, allowed, unit, remedy) VALUES
    ('connections_used', 80, '% of max_connections',
     'see whose they are (pg_stat_activity); fewer workers, or a greater max_connections and a restart'),
    ('oldest_transaction', 120, 's',
     'the upkeep ends it, unless it is a superuser''s: pg_terminate_backend, by one'),
    ('horizon_held_back', 1000000, 'transactions',
     'end what holds it back: a session, a prepared transaction, a slot nobody reads, a standby''s long query'),
    ('prepared_transaction', 300, 's',
     'nothing here prepares any: ROLLBACK PREPARED, then max_prepared_transactions = 0'),
    ('transaction_ids_used', 60, '% of what there is',
     'vacuum does not keep up: look at horizon_held_back, then VACUUM (FREEZE) the database named'),
    ('dead_rows', 40, '% of the rows',
     'look at horizon_held_back; when that is mended, VACUUM the table named; a greater autovacuum_vacuum_cost_limit'),
    ('refreshes_moved', 20, '% of the refreshes',
     'look at horizon_held_back; when that is mended, VACUUM contact'),
    ('log_written', 150, 'GB a day',
     'room for the archive and the network to standbys; a greater max_wal_size where most are page images'),
    ('archiving_failed', 300, 's',
     'read the server''s log for what archive_command says; the log fills the disk until it succeeds'),
    ('replication_lag', 64, 'MB',
     'look at the standby named: its disk, its network, long queries on it'),
    ('log_held_by_slots', 4096, 'MB',
     'bring its reader back, or pg_drop_replication_slot; bound it with max_slot_wal_keep_size'),
    ('sequences_used', 75, '% of the numbers',
     'at 100 no new row gets a number: setval the sequence named to below a free block'),
    ('change_log_rows', 5000000, 'rows',
     'look whether the upkeep trims the log; keep changes for less time'),
    ('invalid_indexes', 0, 'indexes',
     'an index that was built concurrently and failed: DROP INDEX, and build it anew'),
    ('extensions_in_use', 0, 'extensions',
     'in use for over a day, by a reservation whose answer was lost: set IDLE those that have nobody in them'),
    ('upkeep_missing', 600, 's',
     'systemctl status oryx-upkeep.timer, journalctl -u oryx-upkeep; or cron.job_run_details'),
    ('upkeep_failed', 0, 'tasks',
     'SELECT * FROM oryx_upkeep() says which and why');

-- Runs --------------------------------------------------------------------------------------------------------------

-- One row of each run, kept for a week: rates are what has come since an earlier one.
CREATE TABLE upkeep_run (
    run_at             timestamp with time zone PRIMARY KEY,
    wal_position       pg_lsn NOT NULL,
    refreshes          bigint NOT NULL,  -- updates of contacts since the server's statistics began
    refreshes_in_place bigint NOT NULL,
    trimmed            bigint,           -- rows of the change log; none: not this time
    failed             integer NOT NULL DEFAULT 0
);

-- Its row is the turn of one run at a time: only the owner can lock it.
CREATE TABLE upkeep_turn (only_one boolean PRIMARY KEY DEFAULT true CHECK (only_one));
INSERT INTO upkeep_turn DEFAULT VALUES;

-- Where the write-ahead log has come to, on a standby too.
CREATE FUNCTION wal_position() RETURNS pg_lsn LANGUAGE sql
RETURN CASE WHEN pg_is_in_recovery() THEN pg_last_wal_replay_lsn() ELSE pg_current_wal_lsn() END;

-- The run that rates count from: the newest that is old enough for them to mean something, or the first one.
CREATE VIEW upkeep_earlier_run AS
    SELECT *, extract(epoch FROM clock_timestamp() - run_at) AS seconds_ago
        FROM public.upkeep_run
        WHERE run_at = coalesce((SELECT max(run_at) FROM public.upkeep_run WHERE run_at <= now() - interval '5 minutes'),
                                (SELECT min(run_at) FROM public.upkeep_run));

-- Transactions ------------------------------------------------------------------------------------------------------

-- Everything that keeps versions of rows from being removed, with the age of its snapshot in transactions. What it is
-- that sessions do is not shown.
CREATE VIEW horizon_holder AS
    SELECT format('session %s of %s (%s), %s', pid, usename, coalesce(nullif(application_name, ''), 'no name'), state) AS holder,
           greatest(age(backend_xmin), age(backend_xid)) AS transactions
        FROM pg_stat_activity
        WHERE backend_type = 'client backend' AND datname = current_database() AND pid <> pg_backend_pid()
            AND coalesce(backend_xmin, backend_xid) IS NOT NULL
    UNION ALL
    SELECT format('prepared transaction %s of %s', quote_literal(gid), owner), age(transaction)
        FROM pg_prepared_xacts WHERE database = current_database()
    UNION ALL
    SELECT format('replication slot %s', slot_name), greatest(age(xmin), age(catalog_xmin))
        FROM pg_replication_slots WHERE coalesce(xmin, catalog_xmin) IS NOT NULL
    UNION ALL
    SELECT format('standby %s', application_name), age(backend_xmin)
        FROM pg_stat_replication WHERE backend_xmin IS NOT NULL;

-- Transactions of this database that are open for longer than they may be: nothing is done in them, or a statement goes
-- on and on. What maintains the database takes its time.
CREATE VIEW open_transaction AS
    SELECT pid, usename, application_name, state, clock_timestamp() - xact_start AS open_for,
           clock_timestamp() - state_change AS idle_for, state LIKE 'idle in transaction%' AS is_idle,
           pg_has_role(usesysid, 'oryx_owner', 'MEMBER') AS may_migrate
        FROM pg_stat_activity
        WHERE backend_type = 'client backend' AND datname = current_database() AND pid <> pg_backend_pid()
            AND xact_start IS NOT NULL
            -- who applies a migration holds this lock, which only the owner can take, and waits for it to be done elsewhere
            AND pid NOT IN (SELECT pid FROM pg_locks WHERE relation = 'public.schema_migration'::regclass AND granted
                                AND mode = 'ShareUpdateExclusiveLock'
                            UNION SELECT pid FROM pg_stat_progress_vacuum UNION SELECT pid FROM pg_stat_progress_analyze
                            UNION SELECT pid FROM pg_stat_progress_create_index
                            UNION SELECT pid FROM pg_stat_progress_cluster);

-- Ends the sessions that leave a transaction open without doing anything in it, and cancels statements whose transaction
-- has been open for too long; not of who may change the schema, as a migration or a superuser's dump takes its time. One
-- row for each; a superuser's session cannot be ended so, and says why.
CREATE FUNCTION end_forgotten_transactions(idle_limit interval, running_limit interval)
RETURNS TABLE (session text, ended boolean, failure text) LANGUAGE plpgsql
SECURITY DEFINER SET search_path = pg_catalog, pg_temp AS $$
DECLARE
    forgotten record;
BEGIN
    FOR forgotten IN SELECT * FROM public.open_transaction
                         WHERE is_idle AND idle_for > idle_limit OR NOT is_idle AND open_for > running_limit AND NOT may_migrate LOOP
        session := format('session %s of %s (%s), %s, open for %s s', forgotten.pid, forgotten.usename,
                          coalesce(nullif(forgotten.application_name, ''), 'no name'), forgotten.state,
                          floor(extract(epoch FROM forgotten.open_for)));
        failure := NULL;
        BEGIN
            ended := CASE WHEN forgotten.is_idle THEN pg_terminate_backend(forgotten.pid, 1000)
                          ELSE pg_cancel_backend(forgotten.pid) END;
        EXCEPTION WHEN insufficient_privilege THEN
            ended := false;
            failure := SQLERRM;
        END;
        RETURN NEXT;
    END LOOP;
END
$$;

-- Sendings ----------------------------------------------------------------------------------------------------------

-- None sends a change again after a day.
CREATE FUNCTION forget_sendings() RETURNS bigint LANGUAGE plpgsql
SECURITY DEFINER SET search_path = pg_catalog, pg_temp AS $$
DECLARE
    removed bigint;
BEGIN
    DELETE FROM public.sending WHERE session IN
        (SELECT session FROM public.sending WHERE sent_at < now() - interval '1 day' FOR UPDATE SKIP LOCKED);
    GET DIAGNOSTICS removed = ROW_COUNT;
    RETURN removed;
END
$$;

-- Alarms ------------------------------------------------------------------------------------------------------------

-- What there is, the worst of its kind; none where it cannot be seen, and 0 where there is nothing of the kind.
CREATE VIEW alarm_finding AS
    SELECT 'connections_used' AS alarm,
           round(100.0 * count(*) / current_setting('max_connections')::integer, 1) AS value,
           format('%s of %s', count(*), current_setting('max_connections')) AS detail
        FROM pg_stat_activity WHERE backend_type = 'client backend'
    UNION ALL
    SELECT 'oldest_transaction', round(coalesce(max(extract(epoch FROM open_for)), 0)),
           (SELECT format('session %s of %s (%s), %s', pid, usename, coalesce(nullif(application_name, ''), 'no name'), state)
                FROM public.open_transaction ORDER BY open_for DESC LIMIT 1)
        FROM public.open_transaction
        HAVING pg_has_role(current_user, 'pg_read_all_stats', 'USAGE')
    UNION ALL
    SELECT 'horizon_held_back', coalesce(max(transactions), 0),
           (SELECT holder FROM public.horizon_holder ORDER BY transactions DESC LIMIT 1)
        FROM public.horizon_holder
        HAVING pg_has_role(current_user, 'pg_read_all_stats', 'USAGE')
    UNION ALL
    SELECT 'prepared_transaction', round(coalesce(max(extract(epoch FROM clock_timestamp() - prepared)), 0)),
           (SELECT format('%s of %s in %s', quote_literal(gid), owner, database) FROM pg_prepared_xacts ORDER BY prepared LIMIT 1)
        FROM pg_prepared_xacts
    UNION ALL
    (SELECT 'transaction_ids_used', round(100.0 * greatest(age(datfrozenxid), mxid_age(datminmxid)) / 2147483648, 1),
            format('database %s', datname)
        FROM pg_database ORDER BY greatest(age(datfrozenxid), mxid_age(datminmxid)) DESC LIMIT 1)
    UNION ALL
    SELECT 'dead_rows', coalesce(max(share), 0), max(relname) FILTER (WHERE share IS NOT NULL)
        FROM (SELECT relname, round(100.0 * n_dead_tup / (n_live_tup + n_dead_tup), 1) AS share
                  FROM pg_stat_user_tables
                  WHERE schemaname = 'public' AND n_live_tup + n_dead_tup >= 10000   -- a small one is soon vacuumed
                  ORDER BY share DESC LIMIT 1) worst
    UNION ALL
    SELECT 'refreshes_moved',
           CASE WHEN n_tup_upd - refreshes < 1000 THEN 0   -- too few to tell
                ELSE round(100 - 100.0 * (n_tup_hot_upd - refreshes_in_place) / (n_tup_upd - refreshes), 1) END,
           format('of %s since %s', greatest(n_tup_upd - refreshes, 0), run_at)
        FROM pg_stat_user_tables, public.upkeep_earlier_run WHERE schemaname = 'public' AND relname = 'contact'
    UNION ALL
    SELECT 'log_written',
           CASE WHEN seconds_ago < 30 THEN 0   -- too short to tell
                ELSE round(greatest(public.wal_position() - wal_position, 0) / 1e9 * 86400 / seconds_ago, 1) END,
           format('since %s', run_at)
        FROM public.upkeep_earlier_run
    UNION ALL
    SELECT 'archiving_failed',
           CASE WHEN last_failed_time > coalesce(last_archived_time, '-infinity')
                THEN round(extract(epoch FROM clock_timestamp() - coalesce(last_archived_time, stats_reset))) ELSE 0 END,
           last_failed_wal
        FROM pg_stat_archiver
    UNION ALL
    SELECT 'replication_lag', round(coalesce(max(behind), 0) / 1e6, 1), max(standby)
        FROM (SELECT application_name AS standby, public.wal_position() - replay_lsn AS behind FROM pg_stat_replication
              UNION ALL
              SELECT 'this one' AS standby,
                     greatest(pg_last_wal_receive_lsn(), pg_last_wal_replay_lsn()) - pg_last_wal_replay_lsn()
                  WHERE pg_is_in_recovery()
              ORDER BY behind DESC NULLS LAST LIMIT 1) worst
        HAVING pg_has_role(current_user, 'pg_read_all_stats', 'USAGE')
    UNION ALL
    SELECT 'log_held_by_slots', round(coalesce(max(held), 0) / 1e6, 1), max(slot_name)
        FROM (SELECT slot_name, public.wal_position() - restart_lsn AS held FROM pg_replication_slots
                  WHERE restart_lsn IS NOT NULL ORDER BY held DESC LIMIT 1) worst
    UNION ALL
    SELECT 'sequences_used', coalesce(max(used), 0), max(sequencename)
        FROM (SELECT sequencename, round(100.0 * last_value / max_value, 1) AS used FROM pg_sequences
                  WHERE schemaname = 'public' AND NOT cycle AND increment_by > 0 ORDER BY used DESC NULLS LAST LIMIT 1) worst
    UNION ALL
    SELECT 'change_log_rows', coalesce(sum(n_live_tup), 0), NULL
        FROM pg_stat_user_tables WHERE schemaname = 'public' AND relname IN ('event_notify', 'event_notify_earlier', 'event_change')
    UNION ALL
    SELECT 'invalid_indexes', count(*), string_agg(indexrelid::regclass::text, ', ' ORDER BY indexrelid::regclass::text)
        FROM pg_index JOIN pg_class ON pg_class.oid = indexrelid
        WHERE NOT indisvalid AND relnamespace = 'public'::regnamespace
            AND indexrelid NOT IN (SELECT index_relid FROM pg_stat_progress_create_index)   -- being built
    UNION ALL
    SELECT 'extensions_in_use', count(*), string_agg(extension, ', ' ORDER BY extension)
        FROM public.conf_state
        WHERE conf_status = 'IN USE' AND (start_time & 4294967295) < extract(epoch FROM now() - interval '1 day')
    UNION ALL
    SELECT 'upkeep_missing', round(extract(epoch FROM clock_timestamp() - max(run_at))), format('the last one was at %s', max(run_at))
        FROM public.upkeep_run HAVING count(*) > 0
    UNION ALL
    (SELECT 'upkeep_failed', failed, format('at %s', run_at) FROM public.upkeep_run ORDER BY run_at DESC LIMIT 1);

CREATE FUNCTION oryx_alarms()
RETURNS TABLE (alarm text, state text, value numeric, allowed numeric, unit text, detail text, remedy text)
LANGUAGE sql SECURITY DEFINER SET search_path = pg_catalog, pg_temp AS $$
    SELECT alarm, CASE WHEN value IS NULL THEN 'unknown' WHEN value > allowed THEN 'alarm' ELSE 'ok' END,
           value, allowed, unit,
           CASE WHEN value IS NULL THEN 'unknown until a run of the upkeep, and GRANT pg_read_all_stats, pg_signal_backend TO oryx_owner'
                ELSE detail END,
           remedy
        FROM public.alarm_limit LEFT JOIN public.alarm_finding USING (alarm)
        ORDER BY value > allowed DESC NULLS FIRST, alarm
$$;

-- Upkeep ------------------------------------------------------------------------------------------------------------

-- Whether it is this transaction's turn, until its end.
CREATE FUNCTION upkeep_take_turn() RETURNS boolean LANGUAGE plpgsql AS $$
BEGIN
    PERFORM FROM public.upkeep_turn FOR UPDATE SKIP LOCKED;
    RETURN FOUND;
END
$$;

-- Notes this run, for the rates of later ones, and forgets those of last week.
CREATE FUNCTION upkeep_note_run(trimmed_rows bigint, failed_tasks integer) RETURNS void LANGUAGE sql AS $$
    DELETE FROM public.upkeep_run WHERE run_at < now() - interval '7 days';
    INSERT INTO public.upkeep_run (run_at, wal_position, refreshes, refreshes_in_place, trimmed, failed)
        SELECT clock_timestamp(), public.wal_position(), n_tup_upd, n_tup_hot_upd, trimmed_rows, failed_tasks
            FROM pg_stat_user_tables WHERE schemaname = 'public' AND relname = 'contact';
$$;

-- Does what is due, and tells what it has done, and then every alarm. It may run as often as one likes, also twice at
-- once, and waits for nobody: what fails is told, and done by the next run.
CREATE FUNCTION oryx_upkeep(keep_changes interval DEFAULT '7 days', idle_limit interval DEFAULT '1 minute',
                            running_limit interval DEFAULT '10 minutes')
RETURNS TABLE (item text, state text, value numeric, allowed numeric, unit text, detail text, remedy text)
LANGUAGE plpgsql SECURITY DEFINER SET search_path = pg_catalog, pg_temp SET lock_timeout = '200ms' AS $$
DECLARE
    most_rows CONSTANT integer := 200000;   -- some seconds' work: a log that was never trimmed is done run by run
    trimmed_rows bigint;
    failed_tasks integer := 0;
    forgotten record;
BEGIN
    state := 'done';
    item := 'upkeep';
    IF pg_is_in_recovery() THEN
        detail := 'a standby: nothing to do here';
        RETURN NEXT;
        RETURN QUERY SELECT * FROM public.oryx_alarms();
        RETURN;
    END IF;
    IF NOT public.upkeep_take_turn() THEN
        detail := 'another run is at it';
        RETURN NEXT;
        RETURN;
    END IF;

    item := 'trim_change_log';
    unit := 'rows';
    -- It reads the whole log, so once an hour.
    IF NOT EXISTS (SELECT FROM public.upkeep_run WHERE trimmed IS NOT NULL AND run_at > now() - interval '1 hour') THEN
        BEGIN
            trimmed_rows := public.trim_some_changes(keep_changes, most_rows);
            value := trimmed_rows;
            detail := format('older than %s', keep_changes);
            IF trimmed_rows >= most_rows THEN
                detail := detail || ', and the next run goes on';
                trimmed_rows := NULL;
            END IF;
        EXCEPTION WHEN OTHERS THEN
            state := 'failed';
            detail := SQLERRM;
            failed_tasks := failed_tasks + 1;
        END;
        RETURN NEXT;
    END IF;

    item := 'forget_sendings';
    state := 'done';
    BEGIN
        value := public.forget_sendings();
        detail := 'not written for a day';
    EXCEPTION WHEN OTHERS THEN
        state := 'failed';
        detail := SQLERRM;
        failed_tasks := failed_tasks + 1;
    END;
    RETURN NEXT;

    item := 'end_forgotten_transactions';
    unit := 'sessions';
    FOR forgotten IN SELECT * FROM public.end_forgotten_transactions(idle_limit, running_limit) LOOP
        state := CASE WHEN forgotten.ended THEN 'done' ELSE 'failed' END;
        value := 1;
        detail := concat_ws(': ', forgotten.session, forgotten.failure);
        failed_tasks := failed_tasks + (NOT forgotten.ended)::integer;
        RETURN NEXT;
    END LOOP;

    PERFORM public.upkeep_note_run(trimmed_rows, failed_tasks);
    PERFORM pg_stat_clear_snapshot();   -- those that were ended are gone
    RETURN QUERY SELECT * FROM public.oryx_alarms();
END
$$;

-- Rights ------------------------------------------------------------------------------------------------------------
-- Nobody's but the owner's until granted: what is granted to a role that runs the upkeep is oryx_upkeep and oryx_alarms,
-- and what an operator may set is alarm_limit.

RESET ROLE;
