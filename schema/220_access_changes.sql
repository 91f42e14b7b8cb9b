-- Announcements of access rules and presence lists: what a subscriber may see changes with them while he is subscribed.

SET LOCAL ROLE oryx_owner;

-- All of them on one channel: a rule's requester, a node or a list's member may concern anybody, so that who hears of
-- one looks at all again, and there is nothing to log.
CREATE FUNCTION announce_access() RETURNS trigger LANGUAGE plpgsql AS $$
BEGIN
    PERFORM pg_notify('access_control_list', '');
    RETURN NULL;
END
$$;

DO $$
DECLARE
    name text;
BEGIN
    FOREACH name IN ARRAY ARRAY['access_control_list', 'node', 'buddy_list', 'buddy_list_detail',
                                'presence_list_authorization'] LOOP
        EXECUTE format('CREATE TRIGGER announce_access AFTER INSERT OR UPDATE OR DELETE OR TRUNCATE ON %I
                            FOR EACH STATEMENT EXECUTE FUNCTION announce_access()', name);
    END LOOP;
END
$$;

RESET ROLE;
