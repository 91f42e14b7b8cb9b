-- Alarms that told what was not so: of an archive that waits for nothing, of a standby that is gone, of rows that the
-- upkeep itself has just removed. And one for an archive that is slower than the log, which no alarm heard of.

SET LOCAL ROLE oryx_owner;

INSERT INTO alarm_limit (alarm, allowed, unit, remedy) VALUES
    ('archiving_behind', 4096, 'MB',
     'the log comes faster than archive_command takes it: its network, its compression, several files at once; the log fills the disk'),
    ('replication_stopped', 600, 's',
     'no run of the primary''s upkeep reaches this standby: see whether it has any, then primary_conninfo, the network, and the log of either');
UPDATE alarm_limit
    SET remedy = 'look at the standby named: its disk, its network, long queries on it; of one that is gone for good: pg_drop_replication_slot'
    WHERE alarm = 'replication_lag';

-- The archive -------------------------------------------------------------------------------------------------------

-- What this server has archived, if it is to archive.
CREATE VIEW archiver AS
    SELECT last_archived_wal, last_archived_time, last_failed_wal, last_failed_time, stats_reset FROM pg_stat_archiver
        WHERE current_setting('archive_mode') = 'always'
            OR current_setting('archive_mode') = 'on' AND NOT pg_is_in_recovery();

-- The number of the file of the log that has a position in it, from the log's beginning.
CREATE FUNCTION log_file(at pg_lsn) RETURNS numeric LANGUAGE sql STABLE
RETURN floor((at - '0/0'::pg_lsn) / pg_size_bytes(current_setting('wal_segment_size')));

-- The same by its name; none where that is no such file's: backups and timelines have theirs archived, too.
CREATE FUNCTION log_file(name text) RETURNS numeric LANGUAGE sql STABLE
RETURN CASE WHEN name ~ '^[0-9A-F]{24}(\.partial)?$'
            THEN public.log_file(format('%s/0', substr(name, 9, 8))::pg_lsn) + ('x' || substr(name, 17, 8))::bit(32)::integer END;

-- For how many seconds a finished file of the log has waited without any being archived, as far as runs of the upkeep
-- have seen it. A command that hangs fails never. Nothing waits on an idle server, however long ago the last file was
-- archived; nor where archiving was turned on with the server's last start, until a file is finished. Where the last file
-- is none of the log, or statistics were lost, the same goes for the time since. A file that could not be archived waits,
-- whenever it was finished.
CREATE OR REPLACE FUNCTION archiving_waits_for() RETURNS numeric LANGUAGE sql STABLE AS $$
    WITH archived AS (
        SELECT last_archived_time, stats_reset, public.log_file(last_archived_wal) AS number,
               CASE WHEN last_failed_time > greatest(last_archived_time, pg_postmaster_start_time())
                    THEN public.log_file(last_failed_wal) END AS failed
            FROM public.archiver
    ), run AS (
        SELECT run_at, public.log_file(wal_position) AS writing FROM public.upkeep_run, archived
            WHERE run_at > pg_postmaster_start_time()
                AND (number IS NOT NULL OR run_at > greatest(last_archived_time, stats_reset))
    )
    SELECT coalesce(round(extract(epoch FROM clock_timestamp() - greatest(min(run_at), min(last_archived_time)))), 0)
        FROM run, archived WHERE writing > coalesce(failed, greatest(number + 1, (SELECT min(writing) FROM run)))
$$;

-- How many MB of finished files are not archived yet; 0 until one is, since the server's last start.
CREATE FUNCTION archiving_behind() RETURNS numeric LANGUAGE sql STABLE AS $$
    SELECT round(coalesce(max(greatest(public.log_file(public.wal_position()) - public.log_file(last_archived_wal) - 1, 0)), 0)
                     * pg_size_bytes(current_setting('wal_segment_size')) / 1e6, 1)
        FROM public.archiver WHERE last_archived_time > pg_postmaster_start_time()
$$;

-- Findings ----------------------------------------------------------------------------------------------------------

CREATE VIEW upkeep_newest_run AS
    SELECT *, round(extract(epoch FROM clock_timestamp() - run_at)) AS seconds_ago
        FROM public.upkeep_run ORDER BY run_at DESC LIMIT 1;

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
                      -- trimmed by the hundred thousand rows at once, and vacuumed then
                      AND relname NOT IN ('event_change', 'event_stamp', 'event_notify_earlier')
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
    -- One failed attempt is none: the last success may be long ago, as nothing was to be archived. Without runs of the
    -- upkeep that is all there is to go by.
    SELECT 'archiving_failed',
           CASE WHEN EXISTS (SELECT FROM public.upkeep_run WHERE run_at > pg_postmaster_start_time())
                THEN public.archiving_waits_for()
                WHEN last_failed_time > coalesce(last_archived_time, '-infinity')
                THEN round(extract(epoch FROM clock_timestamp() - coalesce(last_archived_time, stats_reset))) ELSE 0 END,
           nullif(concat_ws(', ', 'last archived ' || last_archived_wal, 'last failed ' || last_failed_wal), '')
        FROM pg_stat_archiver
    UNION ALL
    SELECT 'archiving_behind', public.archiving_behind(), 'last archived ' || last_archived_wal FROM pg_stat_archiver
    UNION ALL
    SELECT 'replication_lag', round(coalesce(max(behind), 0) / 1e6, 1), max(standby)
        FROM (SELECT application_name AS standby, public.wal_position() - replay_lsn AS behind FROM pg_stat_replication
              UNION ALL
              SELECT format('slot %s, which nobody reads', slot_name), public.wal_position() - restart_lsn
                  FROM pg_replication_slots WHERE slot_type = 'physical' AND NOT active AND NOT pg_is_in_recovery()
              UNION ALL
              SELECT 'this one' AS standby, greatest(pg_last_wal_receive_lsn(), pg_last_wal_replay_lsn()) - pg_last_wal_replay_lsn()
                  WHERE pg_is_in_recovery()
              ORDER BY behind DESC NULLS LAST LIMIT 1) worst
        HAVING pg_has_role(current_user, 'pg_read_all_stats', 'USAGE')
    UNION ALL
    -- A standby that is cut off knows by the runs that have reached it. One that receives, and replays late or not at all,
    -- is not cut off: replication_lag tells how far it is behind.
    SELECT 'replication_stopped',
           CASE WHEN NOT pg_is_in_recovery()
                    OR pg_last_wal_receive_lsn() > pg_last_wal_replay_lsn()
                        AND EXISTS (SELECT FROM pg_stat_wal_receiver
                                        WHERE last_msg_receipt_time > clock_timestamp() - interval '1 minute')
                THEN 0 ELSE seconds_ago END,
           CASE WHEN pg_is_in_recovery() THEN format('the newest run here was at %s', run_at) END
        FROM public.upkeep_newest_run
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
    -- At a standby none is due.
    SELECT 'upkeep_missing', CASE WHEN pg_is_in_recovery() THEN 0 ELSE seconds_ago END, format('the last one was at %s', run_at)
        FROM public.upkeep_newest_run
    UNION ALL
    SELECT 'upkeep_failed', failed, format('at %s', run_at) FROM public.upkeep_newest_run;

RESET ROLE;
