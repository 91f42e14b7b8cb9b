-- What presentities' sources publish (RFC 3903), and a PUBLISH request as one statement.

SET LOCAL ROLE oryx_owner;

-- One row for each source's publication. It does not refer to its address of record, so that provisioning waits for no
-- server: of an address that is gone nothing is found, nor of one made anew in its name, and time removes it.
CREATE TABLE publication (
    public_address_id integer,
    event             text CHECK (event <> ''),
    first_tag         text,              -- the entity tag that it was added with: its name from then on
    entity_tag        text NOT NULL,     -- the latest, by which its source knows it
    presentity        text NOT NULL,     -- user@domain, as it is announced
    expires           bigint NOT NULL,   -- seconds since the epoch
    content_type      text NOT NULL,
    body              text NOT NULL CHECK (octet_length(body) <= 65536),  -- empty: removed
    modified          timestamp with time zone NOT NULL DEFAULT clock_timestamp(),
    PRIMARY KEY (public_address_id, event, first_tag)
) WITH (fillfactor = 90);
-- Whatever a publication's source asks for is found by the key: a presentity has a few.
CREATE INDEX publication_expires ON publication (expires);

-- Announced and logged as provisioning is, but only where there is something else to tell watchers: most requests
-- refresh, and are nobody's business.
CREATE FUNCTION publication_announce() RETURNS trigger LANGUAGE plpgsql
SECURITY DEFINER SET search_path = pg_catalog, pg_temp SET enable_seqscan = off AS $$
BEGIN
    PERFORM pg_notify('publication', '');
    PERFORM public.log_keys('publication', 'pk_char', ARRAY[coalesce(NEW.presentity, OLD.presentity)]);
    RETURN NULL;
END
$$;
CREATE TRIGGER announce_publication AFTER INSERT ON publication
    FOR EACH ROW EXECUTE FUNCTION publication_announce();
CREATE TRIGGER announce_modification AFTER UPDATE ON publication
    FOR EACH ROW WHEN ((OLD.body, OLD.content_type) IS DISTINCT FROM (NEW.body, NEW.content_type))
    EXECUTE FUNCTION publication_announce();
CREATE TRIGGER announce_end AFTER DELETE ON publication
    FOR EACH ROW WHEN (OLD.body <> '') EXECUTE FUNCTION publication_announce();
CREATE TRIGGER announce_change AFTER TRUNCATE ON publication
    FOR EACH STATEMENT EXECUTE FUNCTION announce_change();
CREATE TRIGGER log_truncation BEFORE TRUNCATE ON publication
    FOR EACH STATEMENT EXECUTE FUNCTION log_truncation('pk_char', 'presentity');

-- Applies a PUBLISH request to an address of record; returns what has become of it. Without an entity tag it adds a
-- publication; with one and no seconds it removes that one, and otherwise has it last, with the body if there is one.
-- The request brings the entity tag that it gives: one that comes again finds it, and has taken effect before. So what
-- is removed stays for a while.
CREATE FUNCTION apply_publication(of_handle text, of_domain text, of_event text, old_tag text, new_tag text,
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
        PERFORM take_registration_turn(found_address.id);
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

-- Removes some of what has expired, and of what was removed a minute ago; returns whose watchers have something to be
-- told.
CREATE FUNCTION remove_expired_publications() RETURNS TABLE (presentity text, event text)
LANGUAGE plpgsql ROWS 10 AS $$
DECLARE
    now_at CONSTANT bigint := current_second();
BEGIN
    RETURN QUERY
        WITH gone AS (DELETE FROM publication p
                          WHERE p.ctid = ANY (ARRAY(
                              SELECT e.ctid FROM publication e
                                  WHERE e.expires <= now_at AND (e.body <> '' OR e.expires <= now_at - 60)
                                  ORDER BY e.expires LIMIT 1000 FOR UPDATE SKIP LOCKED))
                          RETURNING p.presentity, p.event, p.body)
        SELECT DISTINCT gone.presentity, gone.event FROM gone WHERE gone.body <> '' ORDER BY 1, 2;
END
$$;

-- Rights -----------------------------------------------------------------------------------------------------------

GRANT SELECT, INSERT, UPDATE, DELETE ON publication TO oryx_server, oryx_presence;
GRANT SELECT ON publication TO oryx_reader;
GRANT EXECUTE ON FUNCTION
    apply_publication(text, text, text, text, text, bigint, text, text, bigint), remove_expired_publications()
    TO oryx_server, oryx_presence;
GRANT EXECUTE ON FUNCTION current_second(), take_registration_turn(integer)
    TO oryx_presence;

RESET ROLE;
