-- Keys: of rows that are copied to other servers, of new rows, and of addresses of record.

SET LOCAL ROLE oryx_owner;

-- host_info --------------------------------------------------------------------------------------------------------

-- Logical replication must be able to say which row an update or a deletion is of. No column is always there to say it,
-- and none can be added to a table that is read by position. All together are few bytes of one row.
ALTER TABLE host_info REPLICA IDENTITY FULL;

-- Numbers of new rows ----------------------------------------------------------------------------------------------

-- So the database knows which key each sequence is for, as it does of identity columns.
ALTER SEQUENCE subscriber_sid_seq OWNED BY subscriber.sid;
ALTER SEQUENCE contact_set_csid_seq OWNED BY contact_set.csid;
ALTER SEQUENCE contact_contact_id_seq OWNED BY contact.contact_id;

-- The sequences that number rows, with the keys that they are for.
CREATE VIEW key_sequence AS
    SELECT pg_depend.objid::regclass AS sequence, refobjid::regclass AS of_table, attname AS key
        FROM pg_depend
            JOIN pg_sequence ON seqrelid = objid
            JOIN pg_class ON pg_class.oid = refobjid AND relnamespace = 'public'::regnamespace
            JOIN pg_attribute ON attrelid = refobjid AND attnum = refobjsubid
            JOIN pg_constraint ON conrelid = refobjid AND contype = 'p' AND conkey = ARRAY[attnum]
        WHERE pg_depend.classid = 'pg_class'::regclass AND deptype IN ('a', 'i');

-- Brings a sequence to the end of the block of used numbers that it is in, if the block is long. A copy of the rows
-- alone, by logical replication say, leaves a sequence at its beginning, and the first new row would try the numbers one
-- by one, a million in 15 seconds. This looks twice as far ahead each time until a number is free, then back for the
-- last used one in front of it: forty looks for a million.
--
-- One session does it at a time: a comment takes a lock on the sequence that only its owner can take, and that keeps
-- nobody from taking numbers. Others go on to do so meanwhile, but only a few each, which is why a block of less than
-- ten thousand is left to trying: none can have come past its end, to be given out again. The error lets go of the lock
-- at once; a sequence stays where it was set.
CREATE FUNCTION skip_used_keys(of_sequence regclass) RETURNS void LANGUAGE plpgsql
SECURITY DEFINER SET search_path = pg_catalog, pg_temp AS $$
DECLARE
    numbered public.key_sequence;
    used bigint;
    step bigint := 1;
    taken boolean;
    look text;
BEGIN
    SELECT * INTO STRICT numbered FROM public.key_sequence WHERE sequence = of_sequence;
    EXECUTE format('COMMENT ON SEQUENCE %s IS NULL', numbered.sequence);
    EXECUTE format('SELECT last_value FROM %s', numbered.sequence) INTO used;
    look := format('SELECT EXISTS (SELECT FROM %s WHERE %I = $1)', numbered.of_table, numbered.key);
    LOOP
        EXECUTE look INTO taken USING used + step;
        EXIT WHEN NOT taken;
        used := used + step;
        step := step * 2;
    END LOOP;
    WHILE step > 1 LOOP
        step := step / 2;
        EXECUTE look INTO taken USING used + step;
        used := used + CASE WHEN taken THEN step ELSE 0 END;
    END LOOP;
    EXECUTE format('SELECT setval(%L, $1) FROM %s WHERE last_value < $1 - 10000', numbered.sequence, numbered.sequence)
        USING used;
    RAISE EXCEPTION USING ERRCODE = 'OX002';
EXCEPTION WHEN SQLSTATE 'OX002' THEN
    NULL;
END
$$;

CREATE OR REPLACE FUNCTION next_sid() RETURNS integer LANGUAGE plpgsql AS $$
DECLARE
    candidate integer;
BEGIN
    FOR used IN 1 .. 2147483647 LOOP
        candidate := nextval('public.subscriber_sid_seq');
        EXIT WHEN NOT EXISTS (SELECT FROM public.subscriber WHERE sid = candidate);
        IF used % 10000 = 10 THEN
            PERFORM public.skip_used_keys('public.subscriber_sid_seq');
        END IF;
    END LOOP;
    RETURN candidate;
END
$$;

CREATE OR REPLACE FUNCTION next_csid() RETURNS integer LANGUAGE plpgsql AS $$
DECLARE
    candidate integer;
BEGIN
    FOR used IN 1 .. 2147483647 LOOP
        candidate := nextval('public.contact_set_csid_seq');
        EXIT WHEN NOT EXISTS (SELECT FROM public.contact_set WHERE csid = candidate);
        IF used % 10000 = 10 THEN
            PERFORM public.skip_used_keys('public.contact_set_csid_seq');
        END IF;
    END LOOP;
    RETURN candidate;
END
$$;

CREATE OR REPLACE FUNCTION next_contact_id() RETURNS integer LANGUAGE plpgsql AS $$
DECLARE
    candidate integer;
BEGIN
    FOR used IN 1 .. 2147483647 LOOP
        candidate := nextval('public.contact_contact_id_seq');
        EXIT WHEN NOT EXISTS (SELECT FROM public.contact WHERE contact_id = candidate);
        IF used % 10000 = 10 THEN
            PERFORM public.skip_used_keys('public.contact_contact_id_seq');
        END IF;
    END LOOP;
    RETURN candidate;
END
$$;

-- Brings every sequence that is behind its keys to the highest of them, and returns those it moved. Nobody adds a row to
-- their tables meanwhile: the number of one that is being added is among those seen.
CREATE FUNCTION set_key_sequences() RETURNS TABLE (sequence text, was bigint, is_now bigint) LANGUAGE plpgsql
SECURITY DEFINER SET search_path = pg_catalog, pg_temp AS $$
DECLARE
    numbered public.key_sequence;
    -- A key in the last quarter of the numbers was given by somebody, and is passed over when its time comes: behind it
    -- there would soon be none left.
    behind CONSTANT text := 'SELECT last_value, highest
                                 FROM %1$s, (SELECT max(%2$I) AS highest FROM %3$s WHERE %2$I <= 1610612735) AS keys
                                 WHERE last_value < highest OR last_value = highest AND NOT is_called';
BEGIN
    FOR numbered IN SELECT * FROM public.key_sequence k ORDER BY k.sequence::text LOOP
        EXECUTE format(behind, numbered.sequence, numbered.key, numbered.of_table) INTO was, is_now;
        CONTINUE WHEN is_now IS NULL;
        EXECUTE format('LOCK TABLE %s IN SHARE ROW EXCLUSIVE MODE', numbered.of_table);
        EXECUTE format(behind, numbered.sequence, numbered.key, numbered.of_table) INTO was, is_now;
        CONTINUE WHEN is_now IS NULL;
        PERFORM setval(numbered.sequence, is_now);
        sequence := numbered.sequence;
        RETURN NEXT;
    END LOOP;
END
$$;

-- Addresses of record ----------------------------------------------------------------------------------------------

-- The event server folds what it looks up, ASCII letters alone, and finds no address with a capital. Those that are
-- there are not looked at now, which would keep calls waiting.
ALTER TABLE public_address ADD CONSTRAINT public_address_in_lower_case
    CHECK (handle = lower(handle COLLATE "C") AND sip_domain = lower(sip_domain COLLATE "C")) NOT VALID;

-- Those that break the rule, with the key of the address that has the name they should have, if there is one.
CREATE VIEW public_address_not_in_lower_case AS
    SELECT public_address_id, handle, sip_domain,
           (SELECT namesake.public_address_id FROM public_address AS namesake
                WHERE namesake.handle = lower(public_address.handle COLLATE "C")
                    AND namesake.sip_domain = lower(public_address.sip_domain COLLATE "C")) AS namesake
        FROM public_address
        WHERE handle <> lower(handle COLLATE "C") OR sip_domain <> lower(sip_domain COLLATE "C");

-- Rights -----------------------------------------------------------------------------------------------------------

-- What a new row's number needs. Setting sequences is the owner's until granted.
GRANT EXECUTE ON FUNCTION skip_used_keys(regclass) TO oryx_server;
GRANT SELECT ON key_sequence, public_address_not_in_lower_case TO oryx_reader;

RESET ROLE;
