-- The login role of the upkeep. Run it after schema/apply, as a superuser, as often as you like.
--
--     psql --dbname=oryx --file=deploy/upkeep/role.sql
--
-- Its password: `\password upkeep` in psql, or ORYX_UPKEEP_PASSWORD in the environment; without either it keeps its own.

\set ON_ERROR_STOP on
\set upkeep_password ''
\getenv upkeep_password ORYX_UPKEEP_PASSWORD

SET client_min_messages = warning;
BEGIN;

SELECT 'CREATE ROLE upkeep' WHERE NOT EXISTS (SELECT FROM pg_roles WHERE rolname = 'upkeep') \gexec
ALTER ROLE upkeep LOGIN;
ALTER ROLE upkeep RESET ALL;
SELECT format('ALTER ROLE upkeep IN DATABASE %I RESET ALL', datname)
    FROM pg_db_role_setting JOIN pg_database ON pg_database.oid = setdatabase
    WHERE setrole = 'upkeep'::regrole \gexec
-- This and nothing else.
SELECT format('GRANT CONNECT ON DATABASE %I TO upkeep', current_database()) \gexec
GRANT USAGE ON SCHEMA public TO upkeep;
GRANT EXECUTE ON FUNCTION oryx_upkeep(interval, interval, interval), oryx_alarms() TO upkeep;
SELECT format('ALTER ROLE upkeep PASSWORD %L', :'upkeep_password') WHERE :'upkeep_password' <> '' \gexec

-- Two runs, and one that hangs.
ALTER ROLE upkeep CONNECTION LIMIT 3;
ALTER ROLE upkeep SET statement_timeout = '50s';
ALTER ROLE upkeep SET lock_timeout = '1s';
ALTER ROLE upkeep SET idle_in_transaction_session_timeout = '5s';
ALTER ROLE upkeep SET client_connection_check_interval = '500ms';

-- Where a migration could not: the functions see others' sessions with their owner's rights.
GRANT pg_read_all_stats, pg_signal_backend TO oryx_owner;

COMMIT;
