-- Announcements of provisioning changes: the servers listen to channels that carry the names of tables.

SET LOCAL ROLE oryx_owner;

-- One announcement per statement, whatever its rows. PostgreSQL sends it when the transaction commits, and folds those
-- that one transaction makes for one table into one.
CREATE FUNCTION announce_change() RETURNS trigger LANGUAGE plpgsql AS $$
BEGIN
    PERFORM pg_notify(TG_TABLE_NAME, '');
    RETURN NULL;
END
$$;

CREATE TRIGGER announce_change AFTER INSERT OR UPDATE OR DELETE OR TRUNCATE ON public_address
    FOR EACH STATEMENT EXECUTE FUNCTION announce_change();
CREATE TRIGGER announce_change AFTER INSERT OR UPDATE OR DELETE OR TRUNCATE ON subscriber
    FOR EACH STATEMENT EXECUTE FUNCTION announce_change();
CREATE TRIGGER announce_change AFTER INSERT OR UPDATE OR DELETE OR TRUNCATE ON contact_set
    FOR EACH STATEMENT EXECUTE FUNCTION announce_change();

RESET ROLE;
