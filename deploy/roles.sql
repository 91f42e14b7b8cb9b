-- The roles that log in, and how long the server works and waits for each. Run it after schema/apply, as a superuser, as
-- often as you like: what is there is set anew. A role has the settings of this file and no others then, also where it
-- has changed its own (ALTER ROLE CURRENT_USER SET ..., which PostgreSQL lets every role do).
--
--     psql --dbname=oryx --file=deploy/roles.sql
--
-- Passwords: `\password registrar` in psql, which sends none in clear. Where nobody types, they are taken from the
-- environment, ORYX_REGISTRAR_PASSWORD, ORYX_PROXY_PASSWORD and so on for each of the roles; a role without one, or with
-- an empty one, keeps its own, and a new one cannot log in with a password until it has one.
--
-- A login can end its own sessions and spoil its own settings: give each process, or at least each machine, one of its own.

\set ON_ERROR_STOP on
\set registrar_password ''
\set proxy_password ''
\set events_password ''
\set provisioning_password ''
\set operator_password ''
\set support_password ''
\set logins 'unnest(ARRAY[''registrar'', ''proxy'', ''events'', ''provisioning'', ''operator'', ''support'']) login'
\set servers 'unnest(ARRAY[''registrar'', ''proxy'', ''events'']) login'
\set people 'unnest(ARRAY[''provisioning'', ''operator'', ''support'']) login'
\getenv registrar_password ORYX_REGISTRAR_PASSWORD
\getenv proxy_password ORYX_PROXY_PASSWORD
\getenv events_password ORYX_EVENTS_PASSWORD
\getenv provisioning_password ORYX_PROVISIONING_PASSWORD
\getenv operator_password ORYX_OPERATOR_PASSWORD
\getenv support_password ORYX_SUPPORT_PASSWORD

SET client_min_messages = warning;
BEGIN;

SELECT format('CREATE ROLE %I', login) FROM :logins WHERE NOT EXISTS (SELECT FROM pg_roles WHERE rolname = login) \gexec
SELECT format('ALTER ROLE %I LOGIN', login) FROM :logins \gexec
SELECT format('ALTER ROLE %I RESET ALL', login) FROM :logins \gexec
SELECT format('ALTER ROLE %s IN DATABASE %I RESET ALL', setrole::regrole, datname)
    FROM pg_db_role_setting JOIN pg_database ON pg_database.oid = setdatabase
    WHERE setrole IN (SELECT login::regrole FROM :logins) \gexec

-- What they may is the group's; docs/schema.md has it. A registrar that also routes is both.
SELECT format('REVOKE oryx_server FROM %I', member::regrole) FROM pg_auth_members
    WHERE roleid = 'oryx_server'::regrole AND member IN (SELECT login::regrole FROM :logins) \gexec
GRANT oryx_registrar, oryx_proxy TO registrar;
GRANT oryx_proxy TO proxy;
GRANT oryx_presence TO events;
GRANT oryx_provisioning TO provisioning;
GRANT oryx_operator TO operator;
GRANT oryx_reader TO support;

SELECT format('ALTER ROLE %I PASSWORD %L', login, password)
    FROM (VALUES ('registrar', :'registrar_password'), ('proxy', :'proxy_password'), ('events', :'events_password'),
                 ('provisioning', :'provisioning_password'), ('operator', :'operator_password'),
                 ('support', :'support_password')) AS given (login, password)
    WHERE password <> '' \gexec

-- The registrar's and the proxy's statements take milliseconds. One that takes seconds is answered with an error while
-- its caller still waits (RFC 3261 has him wait for 32 seconds), and with plain statements it is sent twice before that.
ALTER ROLE registrar SET statement_timeout = '2s';
ALTER ROLE proxy SET statement_timeout = '2s';
-- The event server reads whole tables when it starts, and provisioning loads them.
ALTER ROLE events SET statement_timeout = '10s';
ALTER ROLE provisioning SET statement_timeout = '30min';
ALTER ROLE operator SET statement_timeout = '5min';
ALTER ROLE support SET statement_timeout = '5min';

-- Nobody waits longer for a row that another holds. Above deadlock_timeout (1 s), so that a deadlock is told as one.
SELECT format('ALTER ROLE %I SET lock_timeout = ''1500ms''', login) FROM :logins \gexec

-- The services leave no transaction open; a session that does, because its process hangs, keeps others from its rows.
-- Who reads by hand keeps what is deleted from being cleared away, and the schema from being changed.
SELECT format('ALTER ROLE %I SET idle_in_transaction_session_timeout = ''5s''', login) FROM :servers \gexec
SELECT format('ALTER ROLE %I SET idle_in_transaction_session_timeout = ''5min''', login) FROM :people \gexec

-- A statement whose client is gone is ended, before it gets the lock that it waits for and takes effect late.
SELECT format('ALTER ROLE %I SET client_connection_check_interval = ''500ms''', login) FROM :logins \gexec

-- What a statement may write into temporary files. A role cannot lift this for itself, nor the number of its sessions.
SELECT format('ALTER ROLE %I SET temp_file_limit = ''1GB''', login) FROM :logins \gexec
SELECT format('ALTER ROLE %I CONNECTION LIMIT 5', login) FROM :people \gexec

-- Each statement sees what is committed. Under a stricter level requests are refused (SQLSTATE 40001) that would go
-- through, and the services do not ask for one.
SELECT format('ALTER ROLE %I SET default_transaction_isolation = ''read committed''', login) FROM :servers \gexec

-- As in deploy/pg_service.conf, for a service that connects without it.
SELECT format('ALTER ROLE %I SET standard_conforming_strings = on', login) FROM :servers \gexec
SELECT format('ALTER ROLE %I SET client_encoding = ''UTF8''', login) FROM :servers \gexec

COMMIT;
