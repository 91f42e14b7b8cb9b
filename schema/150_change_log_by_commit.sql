-- The change log, stamped by the commit instead of by the row. What a commit holds others up with no longer grows with
-- what it has changed, and the lock that keeps stamps in order is one that only the owner can take.

SET LOCAL ROLE oryx_owner;

-- From here on the log is of three tables behind a view of its name. What is logged already stays where it is, so that
-- a live server's commits wait for a catalogue change here and not for a million rows; trimming empties it.
ALTER TABLE event_notify RENAME TO event_notify_earlier;
ALTER TABLE event_notify_earlier RENAME CONSTRAINT event_notify_pkey TO event_notify_earlier_pkey;
ALTER TABLE event_notify_earlier ALTER evt_timestamp DROP DEFAULT;
DROP TRIGGER stamp_change ON event_notify_earlier;
DROP SEQUENCE event_notify_pending;

-- The keys of what a transaction has changed, one of the two in each row. A restored or copied database counts its
-- transactions anew: the number alone would name another one some day, its beginning with it does not.
CREATE TABLE event_change (
    table_name text NOT NULL,
    pk_int     integer,
    pk_char    text,
    xid        xid8 NOT NULL DEFAULT pg_current_xact_id(),
    begun      timestamp with time zone NOT NULL DEFAULT transaction_timestamp(),
    first      boolean NOT NULL          -- of its transaction in this table: it has both stamped at commit
);
CREATE INDEX event_change_xid ON event_change (table_name, xid);
-- For servers whose changes are published: a row can be told from others by all of its columns alone.
ALTER TABLE event_change REPLICA IDENTITY FULL;

-- When it was committed: one stamp for all that it has changed in a table. A server remembers the highest stamp it has
-- seen of a table and asks for later ones, so no row may ever show behind one with a higher stamp.
CREATE TABLE event_stamp (
    table_name    text,
    evt_timestamp bigint,                -- microseconds since the epoch
    xid           xid8 NOT NULL,
    begun         timestamp with time zone NOT NULL,
    PRIMARY KEY (table_name, evt_timestamp)
);
ALTER SEQUENCE event_notify_stamp OWNED BY event_stamp.evt_timestamp;

CREATE VIEW event_notify AS
    SELECT table_name, pk_int, pk_char, evt_timestamp FROM event_notify_earlier
    UNION ALL
    SELECT table_name, pk_int, pk_char, evt_timestamp FROM event_stamp JOIN event_change USING (table_name, xid, begun);

-- Whoever may read the log so far.
DO $$
DECLARE
    reader text;
BEGIN
    FOR reader IN SELECT CASE grantee WHEN 0 THEN 'PUBLIC' ELSE grantee::regrole::text END
                      FROM pg_class, aclexplode(relacl)
                      WHERE oid = 'event_notify_earlier'::regclass AND grantee <> relowner AND privilege_type = 'SELECT' LOOP
        EXECUTE format('GRANT SELECT ON event_notify TO %s', reader);
        EXECUTE format('REVOKE ALL ON event_notify_earlier FROM %s', reader);
    END LOOP;
END
$$;

-- Stamping ---------------------------------------------------------------------------------------------------------

-- Who is about to commit a change has this locked, until others see it. Nobody but the owner can lock it so. Always
-- empty.
CREATE TABLE event_turn (turn integer PRIMARY KEY);

-- Runs at commit, with nothing to come but the commit itself: who holds the lock keeps nobody waiting who is not
-- committing too, and lets go of it when the rows can be seen. So stamps are given in the order in which rows show.
-- Every such commit announces something besides, and PostgreSQL has those come one after another in any case, with a
-- lock of its own through the same flush. As long as that is so, letting go of this one before the flush, and having
-- readers look who is between stamp and commit, gains nothing (scripts/with-server bench/schema/measure log).
CREATE OR REPLACE FUNCTION stamp_change() RETURNS trigger LANGUAGE plpgsql
SECURITY DEFINER SET search_path = pg_catalog, pg_temp AS $$
BEGIN
    IF NEW.xid <> pg_current_xact_id() OR NEW.begun <> transaction_timestamp() THEN
        RETURN NULL;  -- copied in from elsewhere, with its stamp
    END IF;
    LOCK TABLE public.event_turn IN EXCLUSIVE MODE;
    INSERT INTO public.event_stamp (table_name, evt_timestamp, xid, begun)
        -- The sequence keeps the highest stamp given, for clocks that stand still or go back.
        VALUES (NEW.table_name,
                setval('public.event_notify_stamp',
                       greatest(nextval('public.event_notify_stamp'),
                                (extract(epoch FROM clock_timestamp()) * 1000000)::bigint)),
                NEW.xid, NEW.begun);
    RETURN NULL;
END
$$;
-- Deferred here and not at the changed tables, which could neither be truncated nor altered behind a change then.
CREATE CONSTRAINT TRIGGER stamp_change AFTER INSERT ON event_change
    DEFERRABLE INITIALLY DEFERRED FOR EACH ROW WHEN (NEW.first) EXECUTE FUNCTION stamp_change();

-- Logging ----------------------------------------------------------------------------------------------------------

-- For the owner's functions, with their settings. A session that planned this while the log was nearly empty would go on
-- reading the whole log for each change: they forbid it.
CREATE FUNCTION log_keys(of_table text, key_column text, keys text[]) RETURNS void LANGUAGE plpgsql AS $$
DECLARE
    is_first CONSTANT boolean := NOT EXISTS (SELECT FROM public.event_change
                                                 WHERE table_name = of_table AND xid = pg_current_xact_id()
                                                     AND begun = transaction_timestamp());
BEGIN
    -- Mostly there is one key, which costs less alone.
    INSERT INTO public.event_change (table_name, pk_int, pk_char, first)
        VALUES (of_table, CASE key_column WHEN 'pk_int' THEN keys[1]::integer END,
                CASE key_column WHEN 'pk_char' THEN keys[1] END, is_first);
    IF cardinality(keys) > 1 THEN
        INSERT INTO public.event_change (table_name, pk_int, pk_char, first)
            SELECT of_table, CASE key_column WHEN 'pk_int' THEN key::integer END,
                   CASE key_column WHEN 'pk_char' THEN key END, false
                FROM unnest(keys[2:]) key;
    END IF;
END
$$;

-- Arguments, here and for a truncation: the column of the log that takes the key, and the table's column that holds it.
-- A row whose key changes is logged under both.
CREATE OR REPLACE FUNCTION log_change() RETURNS trigger LANGUAGE plpgsql
SECURITY DEFINER SET search_path = pg_catalog, pg_temp SET enable_seqscan = off AS $$
DECLARE
    keys text[];
BEGIN
    CASE TG_OP
        WHEN 'INSERT' THEN keys := ARRAY(SELECT to_jsonb(changed) ->> TG_ARGV[1] FROM new_rows changed);
        WHEN 'DELETE' THEN keys := ARRAY(SELECT to_jsonb(changed) ->> TG_ARGV[1] FROM old_rows changed);
        ELSE keys := ARRAY(SELECT to_jsonb(changed) ->> TG_ARGV[1] FROM old_rows changed
                           UNION SELECT to_jsonb(changed) ->> TG_ARGV[1] FROM new_rows changed);
    END CASE;
    IF keys <> '{}' THEN
        PERFORM public.log_keys(TG_TABLE_NAME, TG_ARGV[0], keys);
    END IF;
    RETURN NULL;
END
$$;

-- The same for all rows that go with a TRUNCATE.
CREATE OR REPLACE FUNCTION log_truncation() RETURNS trigger LANGUAGE plpgsql
SECURITY DEFINER SET search_path = pg_catalog, pg_temp SET enable_seqscan = off AS $$
DECLARE
    keys text[];
BEGIN
    EXECUTE format('SELECT array_agg(%I::text) FROM %I.%I', TG_ARGV[1], TG_TABLE_SCHEMA, TG_TABLE_NAME) INTO keys;
    IF keys <> '{}' THEN
        PERFORM public.log_keys(TG_TABLE_NAME, TG_ARGV[0], keys);
    END IF;
    RETURN NULL;
END
$$;

-- Replacing a trigger keeps no reader of the table waiting, as dropping it would.
DO $$
DECLARE
    logged record;
    event record;
BEGIN
    FOR logged IN VALUES ('acp', 'pk_char', 'handle'),
                         ('extension', 'pk_char', 'extension'),
                         ('conf_state', 'pk_char', 'extension'),
                         ('conf_state_reset', 'pk_int', 'reset_id'),
                         ('public_address', 'pk_int', 'public_address_id'),
                         ('subscriber', 'pk_int', 'sid'),
                         ('contact_set', 'pk_int', 'csid'),
                         ('sip_event_aggregator', 'pk_char', 'handle') LOOP
        FOR event IN VALUES ('log_change', 'UPDATE', 'OLD TABLE AS old_rows NEW TABLE AS new_rows'),
                            ('log_insertion', 'INSERT', 'NEW TABLE AS new_rows'),
                            ('log_removal', 'DELETE', 'OLD TABLE AS old_rows') LOOP
            EXECUTE format('CREATE OR REPLACE TRIGGER %I AFTER %s ON %I REFERENCING %s
                                FOR EACH STATEMENT EXECUTE FUNCTION log_change(%L, %L)',
                           event.column1, event.column2, logged.column1, event.column3, logged.column2, logged.column3);
        END LOOP;
    END LOOP;
END
$$;

-- By hand, as so far: what is added without a stamp is stamped at commit as any change is.
CREATE FUNCTION add_to_log() RETURNS trigger LANGUAGE plpgsql
SECURITY DEFINER SET search_path = pg_catalog, pg_temp SET enable_seqscan = off AS $$
BEGIN
    IF NEW.evt_timestamp IS NULL THEN
        PERFORM public.log_keys(NEW.table_name, CASE WHEN NEW.pk_int IS NULL THEN 'pk_char' ELSE 'pk_int' END,
                                ARRAY[coalesce(NEW.pk_int::text, NEW.pk_char)]);
    ELSE
        INSERT INTO public.event_notify_earlier VALUES (NEW.*);
    END IF;
    RETURN NEW;
END
$$;
CREATE TRIGGER add_to_log INSTEAD OF INSERT ON event_notify FOR EACH ROW EXECUTE FUNCTION add_to_log();

-- Trimming ---------------------------------------------------------------------------------------------------------

-- Removes what is older than the interval, the newest row of a table too, but not more than about so many rows, where a
-- number is given; returns how many. It reads all stamps: an index by time alone would be written with every change.
CREATE FUNCTION trim_some_changes(keep interval, most integer) RETURNS bigint LANGUAGE plpgsql
SECURITY DEFINER SET search_path = pg_catalog, pg_temp AS $$
DECLARE
    oldest CONSTANT bigint := extract(epoch FROM clock_timestamp() - keep) * 1000000;
    removed bigint;
    removed_earlier bigint;
BEGIN
    WITH gone AS (DELETE FROM public.event_stamp
                      WHERE ctid = ANY (ARRAY(SELECT ctid FROM public.event_stamp WHERE evt_timestamp < oldest LIMIT most))
                      RETURNING table_name, xid, begun)
    DELETE FROM public.event_change change USING gone
        WHERE (change.table_name, change.xid, change.begun) = (gone.table_name, gone.xid, gone.begun);
    GET DIAGNOSTICS removed = ROW_COUNT;
    DELETE FROM public.event_notify_earlier
        WHERE ctid = ANY (ARRAY(SELECT ctid FROM public.event_notify_earlier WHERE evt_timestamp < oldest LIMIT most));
    GET DIAGNOSTICS removed_earlier = ROW_COUNT;
    RETURN removed + removed_earlier;
END
$$;

-- All of it.
CREATE OR REPLACE FUNCTION trim_event_notify(keep interval) RETURNS bigint LANGUAGE sql
SECURITY DEFINER SET search_path = pg_catalog, pg_temp AS $$
    SELECT public.trim_some_changes(keep, NULL)
$$;

RESET ROLE;
