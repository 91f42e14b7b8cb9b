-- Announcements of the suite's parameters, which hold the list of domains that are served: a domain that is new, or taken
-- away, takes effect as other provisioning does. It is one row for all of them, so there is nothing to log.

SET LOCAL ROLE oryx_owner;

CREATE TRIGGER announce_change AFTER INSERT OR UPDATE OR DELETE OR TRUNCATE ON system_parameters
    FOR EACH STATEMENT EXECUTE FUNCTION announce_change();

RESET ROLE;
