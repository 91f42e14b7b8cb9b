-- A REGISTER request as one statement. It is a function, so that a client that prepares nothing does not have the
-- statements within it planned each time (bench/run registration).

SET LOCAL ROLE oryx_owner;

-- One row of an answer: the outcome, and a binding, or none.
CREATE TYPE binding_answer AS (
    outcome        text,    -- done; unknown, inactive: the address of record; older: the request; many: the bindings
    ordering       text,    -- of the contact set, as replace_uri
    replace_uri    boolean,
    contact_id     integer,
    address        text,
    expires_in     bigint,  -- in seconds; none: never
    qvalue         text,
    path_vector    text,
    contact_header text,
    capabilities   text,
    c_type         text,
    call_id        text,
    cseq           bigint,
    permanent      boolean
);

-- Whether a binding is live at that second.
CREATE FUNCTION is_live(permanent boolean, expires bigint, at bigint) RETURNS boolean
LANGUAGE sql IMMUTABLE PARALLEL SAFE
RETURN permanent OR expires IS NULL OR expires > at;

-- The second in which the request came, as the fence against older refreshes has it: what expires at a whole second is
-- live up to it.
CREATE FUNCTION current_second() RETURNS bigint LANGUAGE sql STABLE PARALLEL SAFE
RETURN ceil(date_part('epoch', now())) - 1;

-- Turns for requests that change the bindings of a contact set: one after another, to the end of the transaction. A lock
-- of the set's own row would keep provisioning waiting, and a lock by number is one that any login could take.
CREATE TABLE registration_turn (turn integer PRIMARY KEY);
INSERT INTO registration_turn SELECT generate_series(0, 1023);
CREATE FUNCTION take_registration_turn(of_csid integer) RETURNS void LANGUAGE plpgsql
SECURITY DEFINER SET search_path = pg_catalog, pg_temp AS $$
BEGIN
    PERFORM FROM public.registration_turn WHERE turn = of_csid & 1023 FOR UPDATE;
END
$$;

-- Does what is more than the refresh of one live binding, whole or not at all; returns the outcome. A contact is its
-- address, seconds, q-value, Contact header, capabilities and type; each address comes once. Permanent bindings are
-- provisioning's, and stay as they are.
CREATE FUNCTION apply_registration(of_csid integer, new_call_id text, new_cseq bigint, new_path text, most bigint,
                                   removes_all boolean, contacts text[]) RETURNS text
LANGUAGE plpgsql AS $$
DECLARE
    seconds CONSTANT bigint := current_second();
    given text[];           -- one of the contacts
    stored record;          -- its binding
    kinds text[];           -- of all of them: what is stored
    place integer := 0;
    repeated boolean := false;
    more integer := 0;      -- live bindings than before
    bindings integer;
BEGIN
    -- Such requests go one after another for each contact set, and a refresh waits for the rows that are looked at: what
    -- is found holds until it is changed.
    PERFORM take_registration_turn(of_csid);
    IF removes_all THEN
        PERFORM FROM contact c WHERE c.csid = of_csid FOR UPDATE;
        IF EXISTS (SELECT FROM contact c
                   WHERE c.csid = of_csid AND c.call_id = new_call_id AND new_call_id <> '' AND c.cseq >= new_cseq
                       AND NOT c.permanent AND is_live(false, c.expires, seconds)) THEN
            RETURN 'older';
        END IF;
        DELETE FROM contact c WHERE c.csid = of_csid AND NOT c.permanent;
        RETURN 'done';
    END IF;

    -- RFC 3261 section 10.3, item 7: all is judged before anything is changed.
    FOREACH given SLICE 1 IN ARRAY contacts LOOP
        SELECT c.permanent, is_live(false, c.expires, seconds) AS live,
               c.call_id = new_call_id AND new_call_id <> '' AS same_call, c.cseq INTO stored
            FROM contact c WHERE c.csid = of_csid AND c.address = given[1] FOR UPDATE;
        kinds := kinds || CASE WHEN NOT FOUND THEN 'none' WHEN stored.permanent THEN 'permanent' ELSE 'registered' END;
        CONTINUE WHEN stored.permanent;
        IF stored.live AND stored.same_call AND (stored.cseq > new_cseq OR stored.cseq = new_cseq AND given[2] = '0') THEN
            RETURN 'older';
        END IF;
        repeated := repeated OR coalesce(stored.live AND stored.same_call AND stored.cseq = new_cseq, false);
        more := more + (given[2] <> '0')::integer - coalesce(stored.live, false)::integer;
    END LOOP;
    IF repeated THEN
        RETURN 'done';  -- it took effect before, whole; what has become of its bindings since is others' doing
    END IF;
    IF most > 0 AND more > 0 THEN
        SELECT count(*) INTO bindings FROM contact c
            WHERE c.csid = of_csid AND NOT c.permanent AND is_live(false, c.expires, seconds);
        IF bindings + more > most THEN
            RETURN 'many';
        END IF;
    END IF;

    FOREACH given SLICE 1 IN ARRAY contacts LOOP
        place := place + 1;
        IF given[2] = '0' THEN
            DELETE FROM contact c WHERE c.csid = of_csid AND c.address = given[1] AND NOT c.permanent;
        ELSIF kinds[place] = 'registered' THEN
            UPDATE contact c
                SET expires = seconds + given[2]::bigint, qvalue = given[3], contact_header = given[4],
                    capabilities = given[5], c_type = given[6], call_id = new_call_id, cseq = new_cseq,
                    path_vector = new_path
                WHERE c.csid = of_csid AND c.address = given[1];
        ELSIF kinds[place] = 'none' THEN
            INSERT INTO contact AS c (csid, address, expires, qvalue, contact_header, capabilities, c_type, call_id,
                                      cseq, path_vector)
                VALUES (of_csid, given[1], seconds + given[2]::bigint, given[3], given[4], given[5], given[6],
                        new_call_id, new_cseq, new_path)
                -- stored since the look, by a client that does not ask for the lock
                ON CONFLICT (csid, address) DO UPDATE
                    SET expires = excluded.expires, qvalue = excluded.qvalue, contact_header = excluded.contact_header,
                        capabilities = excluded.capabilities, c_type = excluded.c_type, call_id = excluded.call_id,
                        cseq = excluded.cseq, path_vector = excluded.path_vector
                    WHERE NOT c.permanent;
        END IF;
    END LOOP;
    RETURN 'done';
END
$$;

-- Applies a REGISTER request to an address of record, which is told by its key, or where that is NULL, by handle and
-- domain; returns the outcome with each live binding there is then, at least one row. Without contacts it only asks.
-- What a request may meet with is no error: one costs a client that prepares nothing its connection.
CREATE FUNCTION register_bindings(of_key integer, of_handle text, of_domain text, new_call_id text, new_cseq bigint,
                                  new_path text, most bigint, removes_all boolean, contacts text[])
RETURNS SETOF binding_answer LANGUAGE plpgsql ROWS 3 AS $$
DECLARE
    seconds CONSTANT bigint := current_second();
    found_set record;
    refreshed boolean := false;
    answer binding_answer;
BEGIN
    IF of_key IS NULL THEN
        SELECT a.csid, s.active, cs.ordering, cs.replace_uri INTO found_set
            FROM public_address a JOIN contact_set cs ON cs.csid = a.csid LEFT JOIN subscriber s ON s.sid = cs.sid
            WHERE a.handle = of_handle AND a.sip_domain = of_domain;
    ELSE
        SELECT a.csid, s.active, cs.ordering, cs.replace_uri INTO found_set
            FROM public_address a JOIN contact_set cs ON cs.csid = a.csid LEFT JOIN subscriber s ON s.sid = cs.sid
            WHERE a.public_address_id = of_key;
    END IF;
    answer.outcome := CASE WHEN NOT FOUND THEN 'unknown' WHEN NOT found_set.active THEN 'inactive' ELSE 'done' END;
    IF answer.outcome = 'done' AND (removes_all OR cardinality(contacts) > 0) THEN
        -- The usual request refreshes one binding. That is one change of one row, and needs no lock but the row's.
        IF array_length(contacts, 1) = 1 AND contacts[1][2] <> '0' THEN
            UPDATE contact c
                SET expires = seconds + contacts[1][2]::bigint, qvalue = contacts[1][3],
                    contact_header = contacts[1][4], capabilities = contacts[1][5], c_type = contacts[1][6],
                    call_id = new_call_id, cseq = new_cseq, path_vector = new_path
                WHERE c.csid = found_set.csid AND c.address = contacts[1][1] AND NOT c.permanent
                    AND is_live(false, c.expires, seconds)
                    AND (c.call_id IS DISTINCT FROM new_call_id OR c.cseq < new_cseq);
            refreshed := FOUND;
        END IF;
        IF NOT refreshed THEN
            answer.outcome :=
                apply_registration(found_set.csid, new_call_id, new_cseq, new_path, most, removes_all, contacts);
        END IF;
    END IF;
    IF answer.outcome = 'done' THEN
        answer.ordering := found_set.ordering;
        answer.replace_uri := found_set.replace_uri;
        RETURN QUERY
            SELECT 'done', found_set.ordering, found_set.replace_uri, c.contact_id, c.address, c.expires - seconds, c.qvalue,
                   c.path_vector, c.contact_header, c.capabilities, c.c_type, c.call_id, c.cseq, c.permanent
                FROM contact c WHERE c.csid = found_set.csid AND is_live(c.permanent, c.expires, seconds);
    END IF;
    IF answer.outcome <> 'done' OR NOT FOUND THEN
        RETURN NEXT answer;
    END IF;
END
$$;

-- The fence against older refreshes, as before, but most of its condition is looked at by the function: a trigger's
-- condition is read anew for every statement that may meet it, and the long one was a seventh of a refresh's work.
CREATE OR REPLACE FUNCTION contact_keep_newer() RETURNS trigger LANGUAGE plpgsql AS $$
BEGIN
    IF NEW.call_id = OLD.call_id AND NEW.cseq >= 0 AND NEW.call_id <> ''
            AND (OLD.permanent OR OLD.expires IS NULL OR OLD.expires >= extract(epoch FROM now())) THEN
        UPDATE public.contact
            SET (csid, address, qvalue, expires, permanent, capabilities, contact_header, call_id, cseq, c_type,
                 path_vector, id)
                = (OLD.csid, OLD.address, OLD.qvalue, OLD.expires, OLD.permanent, OLD.capabilities, OLD.contact_header,
                   OLD.call_id, OLD.cseq, OLD.c_type, OLD.path_vector, OLD.id)
            WHERE contact_id = NEW.contact_id;
    END IF;
    RETURN NULL;
END
$$;
CREATE OR REPLACE TRIGGER keep_newer AFTER UPDATE ON contact
    FOR EACH ROW WHEN (NEW.cseq < OLD.cseq) EXECUTE FUNCTION contact_keep_newer();

-- Rights -----------------------------------------------------------------------------------------------------------

GRANT EXECUTE ON FUNCTION is_live(boolean, bigint, bigint), current_second(),
    register_bindings(integer, text, text, text, bigint, text, bigint, boolean, text[])
    TO oryx_server, oryx_registrar, oryx_proxy;
GRANT EXECUTE ON FUNCTION apply_registration(integer, text, bigint, text, bigint, boolean, text[]),
    take_registration_turn(integer) TO oryx_server, oryx_registrar;

RESET ROLE;
