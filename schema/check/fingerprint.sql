SELECT kind, name, definition FROM (
WITH extension_object AS (
    SELECT classid, objid FROM pg_depend WHERE deptype = 'e'
), relation AS (
    SELECT c.*, c.oid::regclass::text AS name,
           CASE c.relkind WHEN 'S' THEN 'SEQUENCE ' ELSE 'TABLE ' END || c.oid::regclass AS object
        FROM pg_class c
        WHERE c.relnamespace = 'public'::regnamespace AND c.relkind IN ('r', 'p', 'v', 'm', 'S')
            AND c.oid NOT IN (SELECT objid FROM extension_object WHERE classid = 'pg_class'::regclass)
), routine AS (
    SELECT p.*, p.oid::regprocedure::text AS name, 'FUNCTION ' || p.oid::regprocedure AS object
        FROM pg_proc p
        WHERE p.pronamespace = 'public'::regnamespace
            AND p.oid NOT IN (SELECT objid FROM extension_object WHERE classid = 'pg_proc'::regclass)
), owned AS (
    SELECT object, CASE relkind WHEN 'S' THEN 's' ELSE 'r' END::"char" AS type, relacl AS acl, relowner AS owner FROM relation
    UNION ALL SELECT object, 'f', proacl, proowner FROM routine
    UNION ALL SELECT 'SCHEMA public', 'n', nspacl, nspowner FROM pg_namespace WHERE nspname = 'public'
    -- The database's name is not the schema's.
    UNION ALL SELECT 'DATABASE {}', 'd', datacl, datdba FROM pg_database WHERE datname = current_database()
), granted AS (
    SELECT object, owner, privilege_type AS privilege, grantee, is_grantable
        FROM owned, aclexplode(coalesce(acl, acldefault(type, owner)))
    UNION ALL
    SELECT relation.object, relowner, format('%s (%I)', privilege_type, attname), grantee, is_grantable
        FROM relation JOIN pg_attribute ON attrelid = relation.oid AND attacl IS NOT NULL,
             aclexplode(attacl)
), role AS (
    -- The schema's own ones, which have something here; the database's owner may be anybody.
    SELECT * FROM pg_roles
        WHERE rolname ~ '^oryx_' AND oid IN (SELECT owner FROM owned UNION SELECT grantee FROM granted)
)
SELECT 'server' AS kind, 'major version' AS name, current_setting('server_version_num')::integer / 10000 || '' AS definition
UNION ALL
SELECT 'role', quote_ident(rolname),
       concat_ws(' ', CASE WHEN rolcanlogin THEN 'LOGIN' ELSE 'NOLOGIN' END,
                            CASE WHEN rolsuper THEN 'SUPERUSER' ELSE 'NOSUPERUSER' END,
                            CASE WHEN rolcreatedb THEN 'CREATEDB' ELSE 'NOCREATEDB' END,
                            CASE WHEN rolcreaterole THEN 'CREATEROLE' ELSE 'NOCREATEROLE' END,
                            CASE WHEN rolreplication THEN 'REPLICATION' ELSE 'NOREPLICATION' END,
                            CASE WHEN rolbypassrls THEN 'BYPASSRLS' ELSE 'NOBYPASSRLS' END)
    FROM role
UNION ALL
SELECT 'membership', format('%s TO %I', roleid::regrole, role.rolname), ''
    FROM pg_auth_members JOIN role ON role.oid = member
UNION ALL
SELECT 'setting', concat(split_part(setting, '=', 1), ' OF ' || setrole::regrole),
       substr(setting, strpos(setting, '=') + 1)
    FROM (SELECT nullif(setrole, 0) AS setrole, unnest(setconfig) AS setting
              FROM pg_db_role_setting
              WHERE setdatabase = (SELECT oid FROM pg_database WHERE datname = current_database())
                  AND (setrole = 0 OR setrole IN (SELECT oid FROM role))) AS settings
UNION ALL
SELECT 'extension', quote_ident(extname), 'SCHEMA ' || extnamespace::regnamespace
    FROM pg_extension WHERE extname <> 'plpgsql'
UNION ALL
SELECT 'grant', format('%s ON %s TO %s', privilege, object,
                                  CASE grantee WHEN 0 THEN 'PUBLIC' ELSE grantee::regrole::text END),
       CASE WHEN is_grantable THEN 'WITH GRANT OPTION' ELSE '' END
    FROM granted WHERE grantee <> owner
UNION ALL
SELECT 'default rights', format('FOR ROLE %s ON %s', defaclrole::regrole, defaclobjtype),
       array_to_string(ARRAY(SELECT acl::text FROM unnest(defaclacl) AS acl ORDER BY 1), ' ')
    FROM pg_default_acl WHERE defaclnamespace = 0
UNION ALL
-- Of the server's own functions, those that are kept from PUBLIC here; by name, as later servers have other arguments.
SELECT 'kept from PUBLIC', quote_ident(proname), ''
    FROM pg_proc p
        LEFT JOIN pg_init_privs i
            ON i.objoid = p.oid AND i.classoid = 'pg_proc'::regclass
    WHERE p.pronamespace = 'pg_catalog'::regnamespace
    GROUP BY proname
    HAVING bool_or(p.proacl IS DISTINCT FROM i.initprivs)
        AND bool_and(p.proacl IS NOT NULL AND NOT EXISTS (SELECT FROM aclexplode(p.proacl) WHERE grantee = 0))
UNION ALL
-- A sequence's goes with its table's.
SELECT 'owner', object, owner::regrole::text FROM owned WHERE type IN ('r', 'f')
UNION ALL
SELECT CASE relkind WHEN 'v' THEN 'view' ELSE 'table' END, name,
       concat_ws(' ', CASE relpersistence WHEN 'u' THEN 'UNLOGGED' END,
                            'REPLICA IDENTITY ' || relreplident::text, array_to_string(reloptions, ', '),
                            CASE WHEN relrowsecurity THEN 'ROW LEVEL SECURITY' END)
    FROM relation WHERE relkind <> 'S'
UNION ALL
-- By position, as some are read.
SELECT 'column', format('%s.%I', relation.name, attname),
       concat_ws(' ', row_number() OVER (PARTITION BY attrelid ORDER BY attnum),
                            format_type(atttypid, atttypmod), CASE WHEN attnotnull THEN 'NOT NULL' END,
                            nullif(attidentity, ''), nullif(attgenerated, ''),
                            'DEFAULT ' || pg_get_expr(adbin, adrelid))
    FROM relation JOIN pg_attribute ON attrelid = relation.oid AND attnum > 0 AND NOT attisdropped
        LEFT JOIN pg_attrdef ON adrelid = attrelid AND adnum = attnum
    WHERE relkind <> 'S'
UNION ALL
-- Of these types alone: later servers list NOT NULL here, too.
SELECT 'constraint', format('%I ON %s', conname, relation.name), pg_get_constraintdef(c.oid)
    FROM relation JOIN pg_constraint c ON conrelid = relation.oid AND contype IN ('p', 'u', 'c', 'f', 'x')
UNION ALL
SELECT 'index', indexrelid::regclass::text,
       pg_get_indexdef(indexrelid) || CASE WHEN indisvalid THEN '' ELSE ' INVALID' END
    FROM relation JOIN pg_index ON indrelid = relation.oid
    WHERE NOT EXISTS (SELECT FROM pg_constraint WHERE conindid = indexrelid AND contype IN ('p', 'u', 'x'))
UNION ALL
SELECT 'trigger', format('%I ON %s', tgname, relation.name),
       pg_get_triggerdef(t.oid) || CASE tgenabled WHEN 'O' THEN '' ELSE ' ENABLED ' || tgenabled::text END
    FROM relation JOIN pg_trigger t ON tgrelid = relation.oid AND NOT tgisinternal
UNION ALL
SELECT 'rule', format('%I ON %s', rulename, relation.name), md5(pg_get_ruledef(r.oid))
    FROM relation JOIN pg_rewrite r ON ev_class = relation.oid WHERE rulename <> '_RETURN'
UNION ALL
SELECT 'function', name,
       concat_ws(' ', lanname, provolatile, proparallel, CASE WHEN prosecdef THEN 'SECURITY DEFINER' END,
                            CASE WHEN proisstrict THEN 'STRICT' END, array_to_string(proconfig, ', '),
                            md5(pg_get_function_arguments(routine.oid) || ' ' ||
                                           pg_get_function_result(routine.oid) || ' ' || prosrc))
    FROM routine JOIN pg_language l ON l.oid = prolang
UNION ALL
-- In the words of this major version: others say the same differently.
SELECT 'query of view', name, md5(translate(pg_get_viewdef(oid), E'() \n', '')) FROM relation WHERE relkind IN ('v', 'm')
UNION ALL
SELECT 'sequence', name,
       concat_ws(' ', format_type(seqtypid, NULL), 'INCREMENT', seqincrement, 'MINVALUE', seqmin,
                            'MAXVALUE', seqmax, CASE WHEN seqcycle THEN 'CYCLE' END)
    FROM relation JOIN pg_sequence ON seqrelid = relation.oid
) AS fingerprint
