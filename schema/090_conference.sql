-- Extensions, and the state of those that are reserved for conferences.

SET LOCAL ROLE oryx_owner;

CREATE TABLE extension (
    extension text PRIMARY KEY,
    ext_type  text,                      -- c: a conference extension
    paid      text                       -- the key of its address of record; text, because servers judge whether it is one
);
CREATE INDEX extension_conference ON extension (extension) WHERE ext_type = 'c';

-- Read with SELECT *, by position: the order of the columns is part of the interface, and none can be added. No
-- foreign key: a state outlives its extension until the conference has ended. No index on conf_status: of its few values
-- none is rare enough for one to be used, and a change of state would have to write it.
CREATE TABLE conf_state (
    extension   text PRIMARY KEY,
    conf_status text NOT NULL DEFAULT '',   -- IN USE, IDLE or INVALID; servers may write any text
    start_time  bigint                   -- of this status, seconds since the epoch
) WITH (fillfactor = 90);

CREATE FUNCTION conf_state_without_status() RETURNS trigger LANGUAGE plpgsql AS $$
BEGIN
    NEW.conf_status := '';
    RETURN NEW;
END
$$;
-- An empty status arrives as NULL, which neither matches a pattern nor fails to: no search would find the row and
-- no clean-up remove it.
CREATE TRIGGER without_status BEFORE INSERT ON conf_state
    FOR EACH ROW WHEN (NEW.conf_status IS NULL) EXECUTE FUNCTION conf_state_without_status();

-- Every conference extension. One that was provisioned and has no state yet cannot be used, and shows as INVALID: so a
-- server learns of it and adds its state.
CREATE VIEW select_all_valid_conf_ext AS
    SELECT extension, coalesce(conf_status, 'INVALID') AS conf_status, coalesce(start_time, 0) AS start_time
        FROM extension LEFT JOIN conf_state USING (extension)
        WHERE ext_type = 'c';

-- The states that can go: of what is no conference extension any more, once its conference has ended.
CREATE VIEW select_all_obsolete_conf_ext_not_in_use AS
    SELECT extension, conf_status, start_time
        FROM conf_state
        WHERE conf_status <> 'IN USE'
            AND NOT EXISTS (SELECT FROM extension WHERE extension.extension = conf_state.extension AND ext_type = 'c');

-- Marks an idle extension, any of them, as in use and returns it; NULL when none is idle. One that another transaction
-- is about to take is passed over: nobody waits and none is given twice.
CREATE FUNCTION reserve_one_available_conf_ext_randomly() RETURNS text LANGUAGE plpgsql AS $$
DECLARE
    reserved text;
BEGIN
    SELECT extension INTO reserved FROM conf_state
        WHERE conf_status = 'IDLE' ORDER BY random() LIMIT 1 FOR UPDATE SKIP LOCKED;
    UPDATE conf_state SET conf_status = 'IN USE', start_time = floor(extract(epoch FROM clock_timestamp()))
        WHERE extension = reserved;
    RETURN reserved;
END
$$;

-- Rights -----------------------------------------------------------------------------------------------------------

GRANT SELECT ON extension TO oryx_server, oryx_reader;
GRANT SELECT, INSERT, UPDATE, DELETE ON conf_state TO oryx_server;
GRANT SELECT ON conf_state TO oryx_reader;
GRANT SELECT ON select_all_valid_conf_ext, select_all_obsolete_conf_ext_not_in_use TO oryx_server, oryx_reader;
GRANT EXECUTE ON FUNCTION reserve_one_available_conf_ext_randomly() TO oryx_server;

RESET ROLE;
