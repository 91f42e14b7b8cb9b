-- Contacts: the bindings of the contact sets.

SET LOCAL ROLE oryx_owner;

-- A busy registrar outlives two thousand million new bindings: the numbers start over and skip those still in use.
CREATE SEQUENCE contact_contact_id_seq AS integer CYCLE;
CREATE FUNCTION next_contact_id() RETURNS integer LANGUAGE plpgsql AS $$
DECLARE
    candidate integer;
BEGIN
    LOOP
        candidate := nextval('public.contact_contact_id_seq');
        EXIT WHEN NOT EXISTS (SELECT FROM public.contact WHERE contact_id = candidate);
    END LOOP;
    RETURN candidate;
END
$$;

-- The refresh of a binding is the hottest write. With a little room in each page and no index on what it changes, every
-- refresh stays in its page and touches no index. An index on expires makes it 1.2 to 1.3 times as long and writes 1.4
-- times the log, to save an expiry sweep 20 ms over 150,000 contacts: it would pay only with fewer than about a thousand
-- refreshes between two sweeps (scripts/with-server bench/schema/measure refresh). So the sweep reads the table.
CREATE TABLE contact (
    contact_id     integer PRIMARY KEY DEFAULT next_contact_id(),
    csid           integer NOT NULL REFERENCES contact_set ON DELETE CASCADE,
    address        text NOT NULL,
    qvalue         text,                 -- text, because an absent q-value is written as ''
    expires        bigint,               -- seconds since the epoch; none: never
    permanent      boolean NOT NULL DEFAULT false,
    capabilities   text,
    contact_header text,
    call_id        text,
    cseq           bigint,               -- up to 2^32 - 1, more than an integer holds
    c_type         text,
    path_vector    text,
    id             integer DEFAULT 1,
    -- One row per binding: a registration that is sent again after a lost connection shows instead of doubling it.
    UNIQUE (csid, address)
) WITH (fillfactor = 90);

CREATE FUNCTION contact_not_permanent() RETURNS trigger LANGUAGE plpgsql AS $$
BEGIN
    NEW.permanent := false;
    RETURN NEW;
END
$$;
-- An empty flag arrives as NULL, which the expiry sweep would never remove.
CREATE TRIGGER not_permanent BEFORE INSERT ON contact
    FOR EACH ROW WHEN (NEW.permanent IS NULL) EXECUTE FUNCTION contact_not_permanent();

-- Functions --------------------------------------------------------------------------------------------------------

-- Stores or refreshes a binding of an address of record; returns the contact's key.
CREATE FUNCTION add_contact(of_handle text, of_domain text, new_address text, new_expires bigint, new_permanent boolean,
                            new_qvalue text, new_capabilities text, new_contact_header text, new_call_id text,
                            new_cseq bigint) RETURNS integer
LANGUAGE plpgsql AS $$
DECLARE
    of_csid CONSTANT integer := address_csid(of_handle, of_domain);
    key integer;
BEGIN
    -- Refreshes are the rule, and INSERT ... ON CONFLICT would use up a contact number for each of them.
    UPDATE contact
        SET expires = new_expires, permanent = coalesce(new_permanent, false), qvalue = new_qvalue,
            capabilities = new_capabilities, contact_header = new_contact_header, call_id = new_call_id, cseq = new_cseq
        WHERE csid = of_csid AND address = new_address
        RETURNING contact_id INTO key;
    IF NOT FOUND THEN
        INSERT INTO contact AS c (csid, address, expires, permanent, qvalue, capabilities, contact_header, call_id, cseq)
            VALUES (of_csid, new_address, new_expires, coalesce(new_permanent, false), new_qvalue, new_capabilities,
                    new_contact_header, new_call_id, new_cseq)
            -- another server stored the same binding since the look
            ON CONFLICT (csid, address) DO UPDATE
                SET expires = excluded.expires, permanent = excluded.permanent, qvalue = excluded.qvalue,
                    capabilities = excluded.capabilities, contact_header = excluded.contact_header,
                    call_id = excluded.call_id, cseq = excluded.cseq
            RETURNING c.contact_id INTO key;
    END IF;
    RETURN key;
END
$$;

-- Removes a binding; returns whether it was there. One that is gone already is no error, neither is a removed address
-- of record: a removal may be sent again after a lost connection.
CREATE FUNCTION remove_contact(of_handle text, of_domain text, old_address text) RETURNS boolean
LANGUAGE plpgsql AS $$
BEGIN
    DELETE FROM contact
        USING public_address
        WHERE public_address.handle = of_handle AND public_address.sip_domain = of_domain
            AND contact.csid = public_address.csid AND contact.address = old_address;
    RETURN FOUND;
END
$$;

-- create_public_address with a contact that was configured, not registered: permanent, and without an expiry instant,
-- because the event server's sweep removes whatever has one in the past. Returns the address's key.
CREATE FUNCTION import_public_address(for_sid integer, new_handle text, new_domain text, contact_address text)
RETURNS integer LANGUAGE plpgsql AS $$
DECLARE
    new_id CONSTANT integer := create_public_address(for_sid, new_handle, new_domain);
BEGIN
    INSERT INTO contact (csid, address, permanent)
        VALUES (address_csid(new_handle, new_domain), contact_address, true);
    RETURN new_id;
END
$$;

-- Rights -----------------------------------------------------------------------------------------------------------

GRANT SELECT, INSERT, UPDATE, DELETE ON contact TO oryx_server;
GRANT USAGE ON SEQUENCE contact_contact_id_seq TO oryx_server;
GRANT EXECUTE ON FUNCTION next_contact_id(), remove_contact(text, text, text),
    add_contact(text, text, text, bigint, boolean, text, text, text, text, bigint),
    import_public_address(integer, text, text, text) TO oryx_server;
GRANT SELECT ON contact TO oryx_reader;

RESET ROLE;
