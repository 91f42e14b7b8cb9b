-- The roles that log in, and how long the server works and waits for each. Run it after schema/apply, as a superuser, as
-- often as you like: what is there is set anew, and nothing is removed.
--
--     psql --dbname=oryx --file=deploy/roles.sql
--
-- Passwords: `\password registrar` in psql, which sends none in clear. Where nobody types, they are taken from the
-- environment, ORYX_REGISTRAR_PASSWORD, ORYX_EVENTS_PASSWORD and ORYX_SUPPORT_PASSWORD; a role without one, or with an
-- empty one, keeps its own, and a new one cannot log in with a password until it has one.

\set ON_ERROR_STOP on
\set registrar_password ''
\set events_password ''
\set support_password ''
\getenv registrar_password ORYX_REGISTRAR_PASSWORD
\getenv events_password ORYX_EVENTS_PASSWORD
\getenv support_password ORYX_SUPPORT_PASSWORD

SET client_min_messages = warning;
BEGIN;

SELECT format('CREATE ROLE %I', name)
    FROM unnest(ARRAY['registrar', 'events', 'support']) name
    WHERE NOT EXISTS (SELECT FROM pg_roles WHERE rolname = name) \gexec

ALTER ROLE registrar LOGIN;
ALTER ROLE events LOGIN;
ALTER ROLE support LOGIN;
-- What they may is the group's; docs/schema.md has it.
GRANT oryx_server TO registrar, events;
GRANT oryx_reader TO support;

SELECT format('ALTER ROLE %I PASSWORD %L', name, password)
    FROM (VALUES ('registrar', :'registrar_password'), ('events', :'events_password'), ('support', :'support_password'))
        AS given (name, password)
    WHERE password <> '' \gexec

-- The registrar's statements take milliseconds. One that takes seconds is answered with an error while its caller still
-- waits (RFC 3261 has him wait for 32 seconds), and with plain statements it is sent twice before that.
ALTER ROLE registrar SET statement_timeout = '2s';
-- The event server reads whole tables when it starts.
ALTER ROLE events SET statement_timeout = '10s';
ALTER ROLE support SET statement_timeout = '5min';

-- Nobody waits longer for a row that another holds. Above deadlock_timeout (1 s), so that a deadlock is told as one.
ALTER ROLE registrar SET lock_timeout = '1500ms';
ALTER ROLE events SET lock_timeout = '1500ms';
ALTER ROLE support SET lock_timeout = '1500ms';

-- The services leave no transaction open; a session that does, because its process hangs, keeps others from its rows.
ALTER ROLE registrar SET idle_in_transaction_session_timeout = '5s';
ALTER ROLE events SET idle_in_transaction_session_timeout = '5s';
ALTER ROLE support SET idle_in_transaction_session_timeout = '5min';

-- A statement whose client is gone is ended, before it gets the lock that it waits for and takes effect late.
ALTER ROLE registrar SET client_connection_check_interval = '500ms';
ALTER ROLE events SET client_connection_check_interval = '500ms';
ALTER ROLE support SET client_connection_check_interval = '500ms';

-- Each statement sees what is committed. Under a stricter level requests are refused (SQLSTATE 40001) that would go
-- through, and the services do not ask for one.
ALTER ROLE registrar SET default_transaction_isolation = 'read committed';
ALTER ROLE events SET default_transaction_isolation = 'read committed';

-- As in deploy/pg_service.conf, for a service that connects without it.
ALTER ROLE registrar SET standard_conforming_strings = on;
ALTER ROLE events SET standard_conforming_strings = on;
ALTER ROLE registrar SET client_encoding = 'UTF8';
ALTER ROLE events SET client_encoding = 'UTF8';

COMMIT;
