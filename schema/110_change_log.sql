-- Announcements of the event server's provisioning, and the log of what has changed.

SET LOCAL ROLE oryx_owner;

DO $$
DECLARE
    name text;
BEGIN
    FOREACH name IN ARRAY ARRAY['acp', 'extension', 'conf_state', 'conf_state_reset', 'sip_event_aggregator'] LOOP
        EXECUTE format('CREATE TRIGGER announce_change AFTER INSERT OR UPDATE OR DELETE OR TRUNCATE ON %I
                            FOR EACH STATEMENT EXECUTE FUNCTION announce_change()', name);
    END LOOP;
END
$$;

-- event_notify -----------------------------------------------------------------------------------------------------

-- The key of every changed row, one of the two. A server remembers the highest stamp it has seen of a table and asks
-- for later ones, so no row may ever show behind one with a higher stamp. Until it commits a change has a number below
-- 0, which no server asks for.
CREATE SEQUENCE event_notify_pending INCREMENT -1;
CREATE TABLE event_notify (
    table_name    text,
    pk_int        integer,
    pk_char       text,
    evt_timestamp bigint DEFAULT nextval('event_notify_pending'),   -- microseconds since the epoch
    PRIMARY KEY (table_name, evt_timestamp),
    CHECK ((pk_int IS NULL) <> (pk_char IS NULL))
);
ALTER SEQUENCE event_notify_pending OWNED BY event_notify.evt_timestamp;

-- Keeps the highest stamp given, for clocks that stand still or go back.
CREATE SEQUENCE event_notify_stamp OWNED BY event_notify.evt_timestamp;

-- Runs at commit, with nothing to come but the commit itself: who holds the lock keeps nobody waiting who is not
-- committing too, and lets go of it when the row can be seen. So stamps are given in the order in which rows show.
-- A session that planned this while the log was nearly empty would go on reading the whole log for each row.
CREATE FUNCTION stamp_change() RETURNS trigger LANGUAGE plpgsql
SECURITY DEFINER SET search_path = pg_catalog, pg_temp SET enable_seqscan = off AS $$
BEGIN
    -- Any fixed number serves, as long as nothing else in the database locks it.
    PERFORM pg_advisory_xact_lock(4216580302);
    UPDATE public.event_notify
        SET evt_timestamp = setval('public.event_notify_stamp',
                                   greatest(nextval('public.event_notify_stamp'),
                                            (extract(epoch FROM clock_timestamp()) * 1000000)::bigint))
        WHERE table_name = NEW.table_name AND evt_timestamp = NEW.evt_timestamp;
    RETURN NULL;
END
$$;
-- Deferred here and not at the changed tables, which could neither be truncated nor altered behind a change then.
CREATE CONSTRAINT TRIGGER stamp_change AFTER INSERT ON event_notify
    DEFERRABLE INITIALLY DEFERRED FOR EACH ROW WHEN (NEW.evt_timestamp < 0) EXECUTE FUNCTION stamp_change();

-- Arguments: the column of the log that takes the key, and the table's column that holds it. A row whose key changes
-- is logged under both.
CREATE FUNCTION log_change() RETURNS trigger LANGUAGE plpgsql
SECURITY DEFINER SET search_path = pg_catalog, pg_temp AS $$
DECLARE
    old_key CONSTANT text := to_jsonb(OLD) ->> TG_ARGV[1];
    new_key CONSTANT text := to_jsonb(NEW) ->> TG_ARGV[1];
    key text;
BEGIN
    FOREACH key IN ARRAY CASE WHEN old_key = new_key THEN ARRAY[new_key]
                              ELSE array_remove(ARRAY[old_key, new_key], NULL) END LOOP
        INSERT INTO public.event_notify (table_name, pk_int, pk_char)
            VALUES (TG_TABLE_NAME,
                    CASE TG_ARGV[0] WHEN 'pk_int' THEN key::integer END,
                    CASE TG_ARGV[0] WHEN 'pk_char' THEN key END);
    END LOOP;
    RETURN NULL;
END
$$;

-- The same for all rows that go with a TRUNCATE.
CREATE FUNCTION log_truncation() RETURNS trigger LANGUAGE plpgsql
SECURITY DEFINER SET search_path = pg_catalog, pg_temp AS $$
BEGIN
    EXECUTE format('INSERT INTO public.event_notify (table_name, %I) SELECT %L, %I FROM %I.%I',
                   TG_ARGV[0], TG_TABLE_NAME, TG_ARGV[1], TG_TABLE_SCHEMA, TG_TABLE_NAME);
    RETURN NULL;
END
$$;

-- Every table that is announced is logged.
DO $$
DECLARE
    logged record;
BEGIN
    FOR logged IN VALUES ('acp', 'pk_char', 'handle'),
                         ('extension', 'pk_char', 'extension'),
                         ('conf_state', 'pk_char', 'extension'),
                         ('conf_state_reset', 'pk_int', 'reset_id'),
                         ('public_address', 'pk_int', 'public_address_id'),
                         ('subscriber', 'pk_int', 'sid'),
                         ('contact_set', 'pk_int', 'csid'),
                         ('sip_event_aggregator', 'pk_char', 'handle') LOOP
        EXECUTE format('CREATE TRIGGER log_change AFTER INSERT OR UPDATE OR DELETE ON %I
                            FOR EACH ROW EXECUTE FUNCTION log_change(%L, %L)',
                       logged.column1, logged.column2, logged.column3);
        EXECUTE format('CREATE TRIGGER log_truncation BEFORE TRUNCATE ON %I
                            FOR EACH STATEMENT EXECUTE FUNCTION log_truncation(%L, %L)',
                       logged.column1, logged.column2, logged.column3);
    END LOOP;
END
$$;

-- Removes what is older than the interval, the newest row of a table too; returns how many rows. It reads the whole
-- log: an index by time alone would be written with every change.
CREATE FUNCTION trim_event_notify(keep interval) RETURNS bigint LANGUAGE plpgsql
SECURITY DEFINER SET search_path = pg_catalog, pg_temp AS $$
DECLARE
    removed bigint;
BEGIN
    DELETE FROM public.event_notify
        WHERE evt_timestamp > 0   -- not what this transaction has changed
            AND evt_timestamp < (extract(epoch FROM clock_timestamp() - keep) * 1000000)::bigint;
    GET DIAGNOSTICS removed = ROW_COUNT;
    RETURN removed;
END
$$;

-- Only triggers write the log, with its owner's rights; trimming it is the owner's until granted.
GRANT SELECT ON event_notify TO oryx_server, oryx_reader;

RESET ROLE;
