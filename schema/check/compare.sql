-- What differs here from schema/check/expected, as comments, each with the statement that mends it where there is one.
-- What is here beside it is the operator's, as long as it gives nobody of the schema's roles or PUBLIC more rights and
-- leaves the schema's tables as they are; further indexes do.
\set expected `cat "$ORYX_APPLY_CHECK/expected"`
\set fingerprint `cat "$ORYX_APPLY_CHECK/fingerprint.sql"`
BEGIN TRANSACTION READ ONLY;
SET LOCAL search_path = '';
SET LOCAL jit = off;  -- compiling this takes longer than running it once
WITH wanted AS (
    SELECT field[1] AS kind, field[2] AS name, field[3] AS definition
        FROM regexp_split_to_table(:'expected', E'\n') AS line,
             string_to_array(line, E'\t') AS field
        WHERE line <> ''
), found AS (
    :fingerprint
), difference AS (
    SELECT kind, name, wanted.definition AS wanted, found.definition AS found,
           -- as statements name it
           replace(name, '{}', quote_ident(current_database())) AS called,
           quote_ident(current_database()) AS database
        FROM wanted FULL JOIN found USING (kind, name)
        -- A restored expression may have other parentheses.
        WHERE translate(wanted.definition, '() ', '') IS DISTINCT FROM translate(found.definition, '() ', '')
            AND kind <> 'server'
            AND (kind <> 'query of view'
                 OR (SELECT definition FROM wanted WHERE kind = 'server') = (SELECT definition FROM found WHERE kind = 'server'))
            AND (wanted.definition IS NOT NULL
                 OR kind IN ('trigger', 'rule', 'constraint')
                     AND substring(name, ' ON (.*)$') IN (SELECT part.name FROM wanted AS part WHERE part.kind IN ('table', 'view'))
                 OR kind = 'column'
                     AND substring(name, '^(.*)\.') IN (SELECT part.name FROM wanted AS part WHERE part.kind IN ('table', 'view'))
                 OR kind IN ('grant', 'membership')
                     AND substring(name, ' TO (.*)$') IN
                         (SELECT 'PUBLIC' UNION ALL SELECT part.name FROM wanted AS part WHERE part.kind = 'role')
                     AND coalesce(substring(name, ' ON (.*) TO '), 'DATABASE {}') IN
                         (VALUES ('DATABASE {}'), ('SCHEMA public')
                              UNION ALL SELECT part.name FROM wanted AS part WHERE part.kind = 'owner'
                              UNION ALL SELECT 'SEQUENCE ' || part.name FROM wanted AS part WHERE part.kind = 'sequence'))
), finding AS (
    SELECT kind, name, called,
           CASE WHEN found IS NULL THEN 'missing' WHEN wanted IS NULL THEN 'not of the schema' ELSE 'changed' END AS state,
           CASE
               WHEN kind = 'role' AND found IS NULL THEN 'CREATE ROLE ' || called || ' ' || wanted
               WHEN kind = 'role' THEN 'ALTER ROLE ' || called || ' ' || wanted
               WHEN kind = 'membership' AND found IS NULL THEN 'GRANT ' || called
               WHEN kind = 'membership' THEN 'REVOKE ' || replace(called, ' TO ', ' FROM ')
               WHEN kind = 'setting' AND called ~ ' OF ' THEN
                   format('ALTER ROLE %s IN DATABASE %s SET %s TO %L', split_part(called, ' OF ', 2),
                          database, split_part(called, ' OF ', 1), wanted)
               WHEN kind = 'setting' THEN format('ALTER DATABASE %s SET %s TO %L', database, called, wanted)
               WHEN kind = 'extension' AND found IS NULL THEN 'CREATE EXTENSION ' || called || ' ' || wanted
               WHEN kind = 'extension' THEN 'ALTER EXTENSION ' || called || ' SET ' || wanted
               WHEN kind = 'grant' AND found IS NULL THEN 'GRANT ' || called || rtrim(' ' || wanted)
               WHEN kind = 'grant' AND found <> '' AND wanted = '' THEN
                   'REVOKE GRANT OPTION FOR ' || regexp_replace(called, ' TO ([^ ]+)$', ' FROM \1')
               -- It takes the same right to single columns along.
               WHEN kind = 'grant' THEN
                   'REVOKE ' || regexp_replace(called, ' TO ([^ ]+)$', ' FROM \1') ||
                   coalesce((SELECT string_agg(E';\nGRANT ' || part.name, '' ORDER BY part.name) FROM wanted AS part
                                 WHERE part.kind = 'grant' AND part.name ~ ' \('
                                     AND regexp_replace(part.name, ' \(.*?\) ON ', ' ON ') = difference.name), '')
               WHEN kind = 'kept from PUBLIC' THEN
                   (SELECT 'REVOKE EXECUTE ON FUNCTION ' || string_agg(oid::regprocedure::text, ', ' ORDER BY oid) || ' FROM PUBLIC'
                        FROM pg_proc WHERE pronamespace = 'pg_catalog'::regnamespace AND quote_ident(proname) = called)
               WHEN kind = 'owner' AND found IS NOT NULL THEN 'ALTER ' || called || ' OWNER TO ' || wanted
               WHEN kind = 'constraint' AND found = wanted || ' NOT VALID' THEN
                   format('ALTER TABLE %s VALIDATE CONSTRAINT %s', split_part(called, ' ON ', 2),
                          split_part(called, ' ON ', 1))
               WHEN kind = 'constraint' AND found IS NULL THEN
                   format('ALTER TABLE %s ADD CONSTRAINT %s %s', split_part(called, ' ON ', 2),
                          split_part(called, ' ON ', 1), wanted)
               WHEN kind = 'index' AND found = wanted || ' INVALID' THEN 'REINDEX INDEX CONCURRENTLY ' || called
               WHEN kind = 'index' AND found IS NULL THEN
                   regexp_replace(wanted, ' INDEX ', ' INDEX CONCURRENTLY ')
               WHEN kind = 'trigger' AND found ~ ' ENABLED .$' AND left(found, -10) = wanted THEN
                   format('ALTER TABLE %s ENABLE TRIGGER %s', split_part(called, ' ON ', 2),
                          split_part(called, ' ON ', 1))
               WHEN kind = 'trigger' AND found IS NULL THEN wanted
           END AS remedy
        FROM difference
)
SELECT format(E'-- %s %s: %s%s', kind, called, state,
              coalesce(E'\n' || remedy || ';',
                       CASE WHEN state <> 'not of the schema' THEN
                           format('; the last of: grep -lw %s schema/[0-9]*.sql', substring(name, '\.(\w+)')) END))
    FROM finding
    -- Roles before what is granted to them.
    ORDER BY kind <> 'role', kind, name;
COMMIT;
