-- Roles, ownership and settings of the database: what every later migration stands on.

-- Roles belong to the whole server, so another database may have made them already or be making them at this moment.
-- They are groups without login; an operator's login roles are made IN ROLE one of them.
DO $$
DECLARE
    name text;
BEGIN
    FOREACH name IN ARRAY ARRAY['oryx_owner', 'oryx_server', 'oryx_reader'] LOOP
        IF NOT EXISTS (SELECT FROM pg_roles WHERE rolname = name) THEN
            BEGIN
                EXECUTE format('CREATE ROLE %I NOLOGIN', name);
            EXCEPTION WHEN duplicate_object OR unique_violation THEN
                NULL;  -- made by another database's migration since the look
            END;
        END IF;
    END LOOP;
END
$$;

-- Nobody has anything here merely by being able to log in. Without TEMPORARY the servers cannot even make a temporary
-- table; whatever else shall connect (a monitoring role, say) is granted CONNECT by the operator.
DO $$
BEGIN
    EXECUTE format('REVOKE ALL ON DATABASE %I FROM PUBLIC', current_database());
    EXECUTE format('GRANT CONNECT ON DATABASE %I TO oryx_owner, oryx_server, oryx_reader', current_database());
END
$$;
REVOKE ALL ON SCHEMA public FROM PUBLIC;
GRANT USAGE, CREATE ON SCHEMA public TO oryx_owner;
GRANT USAGE ON SCHEMA public TO oryx_server, oryx_reader;

ALTER TABLE schema_migration OWNER TO oryx_owner;
GRANT SELECT ON schema_migration TO oryx_reader;

SET LOCAL ROLE oryx_owner;
ALTER DEFAULT PRIVILEGES REVOKE EXECUTE ON FUNCTIONS FROM PUBLIC;
RESET ROLE;

-- Settings of this database, for every client. A ratio is the time of a contact lookup by address of record and by key
-- to that on stock settings, 100,000 addresses of record, scripts/with-server bench/schema/measure lookups.
DO $$
DECLARE
    setting text;
BEGIN
    FOREACH setting IN ARRAY ARRAY[
        -- Servers read an address map's modification time as "Wed Dec 17 07:37:16 1997".
        $f$DateStyle TO 'Postgres, MDY'$f$,
        -- Planning is most of a contact lookup's cost, and a lookup of a few rows never merges: 0.56 and 0.63. The large
        -- listings hash in either case.
        'enable_mergejoin TO off',
        -- No lookup meets the same key twice: 0.52 and 0.49 together with the above.
        'enable_memoize TO off'
        -- Left alone: materialise (gains nothing more), parallel plans (0.50 and 0.45 together, but a sorted listing of
        -- 150,000 contacts then takes 1.16), compilation (no statement is large enough to be compiled).
    ] LOOP
        EXECUTE format('ALTER DATABASE %I SET %s', current_database(), setting);
    END LOOP;
END
$$;
