-- One run of the upkeep: a line for each thing that was done, and for each that is not as it should be. With one of the
-- latter the exit status is 3.
--
--     psql --no-psqlrc --quiet --file=deploy/upkeep/upkeep.sql

\set ON_ERROR_STOP on
\pset format unaligned
\pset tuples_only on

SELECT concat_ws(' ', state, item || ':', value, unit, '(allowed: ' || allowed || ')', detail, '=> ' || remedy)
    FROM oryx_upkeep() WHERE state NOT IN ('done', 'ok') OR state = 'done' AND value > 0;

DO $$
DECLARE
    alarms CONSTANT text := (SELECT string_agg(alarm, ', ') FROM oryx_alarms() WHERE state <> 'ok');
BEGIN
    IF alarms <> '' THEN
        RAISE EXCEPTION 'not as it should be: %', alarms;
    END IF;
END
$$;
