-- The upkeep ends what only cancelling does not: a statement may catch that and go on. What may take its time is
-- maintenance by those whose business it is, and not an ANALYZE of whoever may call a function that does one.

SET LOCAL ROLE oryx_owner;

-- Statistics --------------------------------------------------------------------------------------------------------

-- A caller's settings would have it sleep between pages, or look at a hundred times as many, while his transaction holds
-- what others wait for.
ALTER FUNCTION analyze_provisioned() SET vacuum_cost_delay = 0 SET default_statistics_target = 100;

-- Transactions ------------------------------------------------------------------------------------------------------

-- Transactions of this database that are open for longer than they may be: nothing is done in them, or a statement goes
-- on and on. What maintains the database takes its time, where who does it may change the schema or owns the database.
-- None at a standby: long reports are what that is for, and horizon_holder has at the primary what they hold back there.
CREATE OR REPLACE VIEW open_transaction AS
    SELECT pid, usename, application_name, state, clock_timestamp() - xact_start AS open_for,
           clock_timestamp() - state_change AS idle_for, state LIKE 'idle in transaction%' AS is_idle,
           pg_has_role(usesysid, 'oryx_owner', 'MEMBER') AS may_migrate
        FROM pg_stat_activity
        WHERE backend_type = 'client backend' AND datname = current_database() AND pid <> pg_backend_pid()
            AND xact_start IS NOT NULL AND NOT pg_is_in_recovery()
            AND NOT ((pg_has_role(usesysid, 'oryx_owner', 'MEMBER')
                      OR pg_has_role(usesysid, (SELECT datdba FROM pg_database WHERE datname = current_database()), 'MEMBER'))
                     -- who applies a migration holds this lock, and waits for it to be done elsewhere
                     AND pid IN (SELECT pid FROM pg_locks WHERE relation = 'public.schema_migration'::regclass AND granted
                                     AND mode = 'ShareUpdateExclusiveLock'
                                 UNION SELECT pid FROM pg_stat_progress_vacuum UNION SELECT pid FROM pg_stat_progress_analyze
                                 UNION SELECT pid FROM pg_stat_progress_create_index
                                 UNION SELECT pid FROM pg_stat_progress_cluster));

-- Ends the sessions that leave a transaction open without doing anything in it, and cancels statements whose transaction
-- has been open for too long; not of who may change the schema, as a migration or a superuser's dump takes its time. With
-- three minutes more than that the session is ended: run by run, only what catches a cancel becomes so old. Where no run
-- has come for as long, nothing was cancelled before. One row for each; a superuser's session cannot be ended so, and
-- says why.
CREATE OR REPLACE FUNCTION end_forgotten_transactions(idle_limit interval, running_limit interval)
RETURNS TABLE (session text, ended boolean, failure text) LANGUAGE plpgsql
SECURITY DEFINER SET search_path = pg_catalog, pg_temp AS $$
DECLARE
    forgotten record;
BEGIN
    FOR forgotten IN SELECT *, is_idle OR open_for > running_limit + interval '3 minutes' AS for_good
                         FROM public.open_transaction
                         WHERE is_idle AND idle_for > idle_limit OR NOT is_idle AND open_for > running_limit AND NOT may_migrate LOOP
        session := format('session %s of %s (%s), %s, open for %s s', forgotten.pid, forgotten.usename,
                          coalesce(nullif(forgotten.application_name, ''), 'no name'), forgotten.state,
                          floor(extract(epoch FROM forgotten.open_for)));
        failure := NULL;
        BEGIN
            ended := CASE WHEN forgotten.for_good THEN pg_terminate_backend(forgotten.pid, 1000)
                          ELSE pg_cancel_backend(forgotten.pid) END;
            IF NOT ended THEN   -- or it has ended by itself since the look
                PERFORM pg_stat_clear_snapshot();
                ended := NOT EXISTS (SELECT FROM pg_stat_activity WHERE pid = forgotten.pid);
            END IF;
        EXCEPTION WHEN insufficient_privilege THEN
            ended := false;
            failure := SQLERRM;
        END;
        RETURN NEXT;
    END LOOP;
END
$$;

UPDATE alarm_limit
    SET remedy = 'the upkeep cancels it, or ends its session if it is three minutes older, unless it is of who may change the schema, or a superuser''s: pg_terminate_backend, by one'
    WHERE alarm = 'oldest_transaction';

-- Upkeep ------------------------------------------------------------------------------------------------------------

-- Does what is due, and tells what it has done, and then every alarm. It may run as often as one likes, also twice at
-- once, and waits for nobody: what fails is told, and done by the next run. What callers would notice comes first; what
-- can take long comes last, and is given up at the caller's statement_timeout without the rest. An hour's changes stay,
-- whatever the caller says: servers that have not read them yet would not hear of them.
CREATE OR REPLACE FUNCTION oryx_upkeep(keep_changes interval DEFAULT '7 days', idle_limit interval DEFAULT '1 minute',
                                       running_limit interval DEFAULT '10 minutes')
RETURNS TABLE (item text, state text, value numeric, allowed numeric, unit text, detail text, remedy text)
LANGUAGE plpgsql SECURITY DEFINER SET search_path = pg_catalog, pg_temp SET lock_timeout = '200ms' AS $$
DECLARE
    most_rows CONSTANT bigint := 200000;   -- some seconds' work: a log that was never trimmed is done run by run
    longest CONSTANT interval := '20 seconds';
    asked_at CONSTANT timestamptz := clock_timestamp();
    keep interval;
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
            keep := asked_at - (asked_at - keep_changes);   -- a length: with months it would be another at another time
            IF keep < interval '1 hour' THEN
                keep := '1 hour';
            END IF;
            pieces := public.upkeep_trim(keep, most_rows, longest);
            value := pieces.removed;
            detail := format('older than %s', keep) || CASE WHEN pieces.goes_on THEN ', and the next run goes on' ELSE '' END;
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
