-- What protects the refresh path comes first in a run of the upkeep; the change log is trimmed last, in pieces of so many
-- rows, for so long. Alarms for what was silent at its worst.

SET LOCAL ROLE oryx_owner;

-- Trimming ----------------------------------------------------------------------------------------------------------

-- Removes what is older than the interval, the newest row of a table too, but not more than so many rows, where a number
-- is given; returns how many. One stamp may have more rows than that: it goes with the last of them, as without it nobody
-- would find them. It reads all stamps: an index by time alone would be written with every change.
CREATE OR REPLACE FUNCTION trim_some_changes(keep interval, most integer) RETURNS bigint LANGUAGE plpgsql
SECURITY DEFINER SET search_path = pg_catalog, pg_temp AS $$
DECLARE
    oldest CONSTANT bigint := extract(epoch FROM clock_timestamp() - keep) * 1000000;
    -- Whoever trims at the same time may have removed them: their places are looked at for their age each time.
    stamps CONSTANT tid[] := ARRAY(SELECT ctid FROM public.event_stamp WHERE evt_timestamp < oldest LIMIT most);
    removed bigint;
    removed_earlier bigint;
BEGIN
    DELETE FROM public.event_change
        WHERE ctid = ANY (ARRAY(SELECT change.ctid
                                    FROM public.event_stamp stamp JOIN public.event_change change USING (table_name, xid, begun)
                                    WHERE stamp.ctid = ANY (stamps) AND evt_timestamp < oldest LIMIT most));
    GET DIAGNOSTICS removed = ROW_COUNT;
    DELETE FROM public.event_stamp stamp
        WHERE ctid = ANY (stamps) AND evt_timestamp < oldest
            AND NOT EXISTS (SELECT FROM public.event_change change
                                WHERE (change.table_name, change.xid, change.begun) = (stamp.table_name, stamp.xid, stamp.begun));
    DELETE FROM public.event_notify_earlier
        WHERE ctid = ANY (ARRAY(SELECT ctid FROM public.event_notify_earlier WHERE evt_timestamp < oldest LIMIT most - removed));
    GET DIAGNOSTICS removed_earlier = ROW_COUNT;
    RETURN removed + removed_earlier;
END
$$;

-- The same in pieces, until so many rows are gone, or so much time has passed; whether there may be more.
CREATE FUNCTION upkeep_trim(keep interval, most bigint, longest interval, OUT removed bigint, OUT goes_on boolean)
LANGUAGE plpgsql AS $$
DECLARE
    piece CONSTANT integer := 20000;
    removed_now bigint;
BEGIN
    removed := 0;
    LOOP
        removed_now := public.trim_some_changes(keep, piece);
        removed := removed + removed_now;
        goes_on := removed_now >= piece;
        EXIT WHEN NOT goes_on OR removed >= most OR clock_timestamp() > statement_timestamp() + longest;
    END LOOP;
END
$$;

-- Alarms ------------------------------------------------------------------------------------------------------------

UPDATE alarm_limit
    SET allowed = CASE allowed WHEN 120 THEN 600 ELSE allowed END,   -- an operator's own stays
        remedy = 'the upkeep cancels it, unless it is of who may change the schema, or a superuser''s: pg_terminate_backend, by one'
    WHERE alarm = 'oldest_transaction';
UPDATE alarm_limit
    SET remedy = 'read the server''s log for what archive_command says, and see whether it hangs; the log fills the disk until it succeeds'
    WHERE alarm = 'archiving_failed';

INSERT INTO alarm_limit (alarm, allowed, unit, remedy) VALUES
    ('idle_transaction', 120, 's',
     'the upkeep ends it, unless it is a superuser''s: pg_terminate_backend, by one'),
    ('slots_lost', 0, 'slots',
     'its reader has missed some of the log: pg_drop_replication_slot, and set the reader up anew'),
    ('notifications_unread', 10, '% of the queue',
     'at 100 announced tables take no change: end the oldest open transaction of a session that listens');

-- For how many seconds a finished file of the log has waited without any being archived, as far as runs of the upkeep
-- have seen it. A command that hangs fails never. Nothing waits on an idle server, however long ago the last file was
-- archived; nor where archiving was turned on with the server's last start, until a file is finished.
CREATE FUNCTION archiving_waits_for() RETURNS numeric LANGUAGE sql STABLE AS $$
    WITH segment AS (
        SELECT setting::numeric AS bytes FROM pg_settings WHERE name = 'wal_segment_size'
    ), run AS (
        SELECT run_at, floor((wal_position - '0/0'::pg_lsn) / bytes) AS writing
            FROM public.upkeep_run, segment WHERE run_at > pg_postmaster_start_time()
    ), archived AS (
        SELECT last_archived_time,
               CASE WHEN last_archived_wal ~ '^[0-9A-F]{24}'
                    THEN floor((format('%s/%s', substr(last_archived_wal, 9, 8), '0')::pg_lsn - '0/0'::pg_lsn) / bytes)
                        + ('x' || substr(last_archived_wal, 17, 8))::bit(32)::integer END AS number
            FROM pg_stat_archiver, segment
    )
    SELECT coalesce(round(extract(epoch FROM clock_timestamp() - greatest(min(run_at), min(last_archived_time)))), 0)
        FROM run, archived
        WHERE writing > greatest(number + 1, (SELECT min(writing) FROM run))
            AND (current_setting('archive_mode') = 'always'
                 OR current_setting('archive_mode') = 'on' AND NOT pg_is_in_recovery())
$$;

-- What there is, the worst of its kind; none where it cannot be seen, and 0 where there is nothing of the kind.
CREATE OR REPLACE VIEW alarm_finding AS
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
    SELECT 'idle_transaction', round(coalesce(max(extract(epoch FROM idle_for)), 0)),
           (SELECT format('session %s of %s (%s)', pid, usename, coalesce(nullif(application_name, ''), 'no name'))
                FROM public.open_transaction WHERE is_idle ORDER BY idle_for DESC LIMIT 1)
        FROM public.open_transaction WHERE is_idle
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
           greatest(CASE WHEN last_failed_time > coalesce(last_archived_time, '-infinity')
                         THEN round(extract(epoch FROM clock_timestamp() - coalesce(last_archived_time, stats_reset))) ELSE 0 END,
                    public.archiving_waits_for()),
           nullif(concat_ws(', ', 'last archived ' || last_archived_wal, 'last failed ' || last_failed_wal), '')
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
    SELECT 'slots_lost', count(*), string_agg(slot_name, ', ' ORDER BY slot_name)
        FROM pg_replication_slots WHERE wal_status = 'lost'   -- holds no log any more
    UNION ALL
    SELECT 'notifications_unread', round(100 * pg_notification_queue_usage()::numeric, 2), NULL
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

-- Upkeep ------------------------------------------------------------------------------------------------------------

-- Does what is due, and tells what it has done, and then every alarm. It may run as often as one likes, also twice at
-- once, and waits for nobody: what fails is told, and done by the next run. What callers would notice comes first; what
-- can take long comes last, and is given up at the caller's statement_timeout without the rest.
CREATE OR REPLACE FUNCTION oryx_upkeep(keep_changes interval DEFAULT '7 days', idle_limit interval DEFAULT '1 minute',
                                       running_limit interval DEFAULT '10 minutes')
RETURNS TABLE (item text, state text, value numeric, allowed numeric, unit text, detail text, remedy text)
LANGUAGE plpgsql SECURITY DEFINER SET search_path = pg_catalog, pg_temp SET lock_timeout = '200ms' AS $$
DECLARE
    most_rows CONSTANT bigint := 200000;   -- some seconds' work: a log that was never trimmed is done run by run
    longest CONSTANT interval := '20 seconds';
    pieces record;
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

    item := 'end_forgotten_transactions';
    unit := 'sessions';
    FOR forgotten IN SELECT * FROM public.end_forgotten_transactions(idle_limit, running_limit) LOOP
        state := CASE WHEN forgotten.ended THEN 'done' ELSE 'failed' END;
        value := 1;
        detail := concat_ws(': ', forgotten.session, forgotten.failure);
        failed_tasks := failed_tasks + (NOT forgotten.ended)::integer;
        RETURN NEXT;
    END LOOP;

    item := 'forget_sendings';
    unit := 'rows';
    state := 'done';
    value := NULL;
    BEGIN
        value := public.forget_sendings();
        detail := 'not written for a day';
    EXCEPTION WHEN OTHERS THEN
        state := 'failed';
        detail := SQLERRM;
        failed_tasks := failed_tasks + 1;
    END;
    RETURN NEXT;

    -- It reads the whole log, so once an hour.
    IF NOT EXISTS (SELECT FROM public.upkeep_run WHERE upkeep_run.trimmed IS NOT NULL AND run_at > now() - interval '1 hour') THEN
        item := 'trim_change_log';
        state := 'done';
        value := NULL;
        BEGIN
            pieces := public.upkeep_trim(keep_changes, most_rows, longest);
            value := pieces.removed;
            detail := format('older than %s', keep_changes) || CASE WHEN pieces.goes_on THEN ', and the next run goes on' ELSE '' END;
            trimmed_rows := CASE WHEN NOT pieces.goes_on THEN pieces.removed END;
        EXCEPTION WHEN OTHERS OR query_canceled THEN   -- a time-out is none of the others
            state := 'failed';
            detail := SQLERRM;
            failed_tasks := failed_tasks + 1;
        END;
        RETURN NEXT;
    END IF;

    PERFORM public.upkeep_note_run(trimmed_rows, failed_tasks);
    PERFORM pg_stat_clear_snapshot();   -- those that were ended are gone
    RETURN QUERY SELECT * FROM public.oryx_alarms();
END
$$;

RESET ROLE;
