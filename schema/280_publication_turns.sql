-- Turns of publications' own. They were those of registrations, which an event server's login could take therefore: all
-- of them in one statement, and no telephone registers until it is ended.

SET LOCAL ROLE oryx_owner;

CREATE TABLE publication_turn (turn integer PRIMARY KEY);
INSERT INTO publication_turn SELECT generate_series(0, 1023);
CREATE FUNCTION take_publication_turn(of_address integer) RETURNS void LANGUAGE plpgsql
SECURITY DEFINER SET search_path = pg_catalog, pg_temp AS $$
BEGIN
    PERFORM FROM public.publication_turn WHERE turn = of_address & 1023 FOR UPDATE;
END
$$;

-- Applies a PUBLISH request to an address of record; returns what has become of it. Without an entity tag it adds a
-- publication; with one and no seconds it removes that one, and otherwise has it last, with the body if there is one.
-- The request brings the entity tag that it gives: one that comes again finds it, and has taken effect before. So what
-- is removed stays for a while.
CREATE OR REPLACE FUNCTION apply_publication(of_handle text, of_domain text, of_event text, old_tag text, new_tag text,
                                             seconds bigint, new_type text, new_body text, most bigint) RETURNS text
LANGUAGE plpgsql AS $$
DECLARE
    now_at CONSTANT bigint := current_second();
    found_address record;
BEGIN
    SELECT a.public_address_id AS id, s.active INTO found_address
        FROM public_address a LEFT JOIN contact_set cs ON cs.csid = a.csid LEFT JOIN subscriber s ON s.sid = cs.sid
        WHERE a.handle = of_handle AND a.sip_domain = of_domain;
    IF NOT FOUND THEN
        RETURN 'unknown';
    ELSIF NOT found_address.active THEN
        RETURN 'inactive';
    END IF;

    IF old_tag <> '' THEN
        -- Of two that have the same tag the later one waits here for the first, and finds another tag then.
        UPDATE publication p
            SET entity_tag = new_tag, presentity = of_handle || '@' || of_domain, expires = now_at + seconds,
                content_type = CASE WHEN new_body = '' THEN p.content_type ELSE new_type END,
                body = CASE WHEN seconds = 0 THEN '' WHEN new_body = '' THEN p.body ELSE new_body END,
                modified = CASE WHEN new_body = '' THEN p.modified ELSE clock_timestamp() END
            WHERE p.public_address_id = found_address.id AND p.event = of_event
                AND (p.entity_tag = old_tag AND p.expires > now_at OR p.entity_tag = new_tag);
        RETURN CASE WHEN FOUND THEN 'done' ELSE 'unmatched' END;
    END IF;

    IF most > 0 THEN
        PERFORM take_publication_turn(found_address.id);
        IF (SELECT count(*) FROM publication p
                WHERE p.public_address_id = found_address.id AND p.event = of_event AND p.expires > now_at
                    AND p.first_tag <> new_tag) >= most THEN
            RETURN 'many';
        END IF;
    END IF;
    INSERT INTO publication (public_address_id, event, first_tag, entity_tag, presentity, expires, content_type, body)
        VALUES (found_address.id, of_event, new_tag, new_tag, of_handle || '@' || of_domain, now_at + seconds, new_type,
                new_body)
        ON CONFLICT DO NOTHING;
    RETURN 'done';
END
$$;

GRANT EXECUTE ON FUNCTION take_publication_turn(integer) TO oryx_server, oryx_presence;
REVOKE EXECUTE ON FUNCTION take_registration_turn(integer) FROM oryx_presence;

RESET ROLE;
