-- No large objects. Nothing here has any, whoever makes one may fill it without bound, and so far every login could: the
-- rights to a database or a schema are not asked for. The functions are the server's, so it takes a superuser to bar them.

DO $$
BEGIN
    IF (SELECT rolsuper FROM pg_roles WHERE rolname = current_user) THEN
        REVOKE EXECUTE ON FUNCTION lo_creat(integer), lo_create(oid), lo_from_bytea(oid, bytea) FROM PUBLIC;
    ELSE
        RAISE WARNING 'every login can make large objects here until a superuser has run: %',
            'REVOKE EXECUTE ON FUNCTION lo_creat(integer), lo_create(oid), lo_from_bytea(oid, bytea) FROM PUBLIC;';
    END IF;
END
$$;
