-- The upkeep by the server itself, with the extension pg_cron (Debian: postgresql-15-cron), in place of a timer. Once, as
-- a superuser, in the database:
--
--     psql --dbname=oryx --file=deploy/upkeep/pg_cron.sql
--
-- postgresql.conf says before: shared_preload_libraries = 'pg_cron', cron.database_name = 'oryx',
-- cron.use_background_workers = on (jobs need no connection, password or pg_hba.conf line then). cron.job_run_details has
-- runs that failed. Alarms are nowhere: a monitoring asks oryx_alarms() for them. pg_cron starts when recovery is over: at
-- a standby the timer tells them.

\set ON_ERROR_STOP on
SET client_min_messages = warning;
CREATE EXTENSION IF NOT EXISTS pg_cron;

-- By the role that may do nothing else (deploy/upkeep/role.sql).
SELECT cron.schedule_in_database('oryx-upkeep', '* * * * *', 'SELECT count(*) FROM oryx_upkeep()', current_database(), 'upkeep') \g /dev/null

-- pg_cron keeps the row of each run for ever.
SELECT cron.schedule('oryx-upkeep-runs', '17 3 * * *',
                     $$DELETE FROM cron.job_run_details WHERE end_time < now() - interval '7 days'$$) \g /dev/null
