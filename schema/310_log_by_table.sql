-- The change log, written by a function of each logged table's own. One for all of them had to make JSON of every changed
-- row to find its key, and of updated ones both versions: half of what a logged change cost, and more of a load.

SET LOCAL ROLE oryx_owner;

-- The former key of a row that gets another one, which is logged under both. It is called only for updates that name the
-- key's column.
CREATE FUNCTION log_former_key() RETURNS trigger LANGUAGE plpgsql
SECURITY DEFINER SET search_path = pg_catalog, pg_temp SET enable_seqscan = off AS $$
DECLARE
    former CONSTANT text := to_jsonb(OLD) ->> TG_ARGV[1];
BEGIN
    IF former IS DISTINCT FROM to_jsonb(NEW) ->> TG_ARGV[1] THEN
        PERFORM public.log_keys(TG_TABLE_NAME, TG_ARGV[0], ARRAY[former]);
    END IF;
    RETURN NULL;
END
$$;

-- The changed rows are the new ones, of a removal the old ones. Replacing a trigger keeps no reader of the table
-- waiting, as dropping it would.
DO $$
DECLARE
    logged record;
    event record;
BEGIN
    FOR logged IN VALUES ('acp', 'pk_char', 'handle'),
                         ('extension', 'pk_char', 'extension'),
                         ('conf_state', 'pk_char', 'extension'),
                         ('conf_state_reset', 'pk_int', 'reset_id'),
                         ('public_address', 'pk_int', 'public_address_id'),
                         ('subscriber', 'pk_int', 'sid'),
                         ('contact_set', 'pk_int', 'csid'),
                         ('sip_event_aggregator', 'pk_char', 'handle') LOOP
        EXECUTE format($create$
CREATE FUNCTION %I() RETURNS trigger LANGUAGE plpgsql
SECURITY DEFINER SET search_path = pg_catalog, pg_temp SET enable_seqscan = off AS $body$
BEGIN
    INSERT INTO public.event_change (table_name, %I, first)
        SELECT %L, %I,
               row_number() OVER () = 1
                   AND NOT EXISTS (SELECT FROM public.event_change
                                       WHERE table_name = %3$L AND xid = pg_current_xact_id()
                                           AND begun = transaction_timestamp())
            FROM changed;
    RETURN NULL;
END
$body$ $create$, 'log_' || logged.column1, logged.column2, logged.column1, logged.column3);
        FOR event IN VALUES ('log_change', 'UPDATE', 'NEW'),
                            ('log_insertion', 'INSERT', 'NEW'),
                            ('log_removal', 'DELETE', 'OLD') LOOP
            EXECUTE format('CREATE OR REPLACE TRIGGER %I AFTER %s ON %I REFERENCING %s TABLE AS changed
                                FOR EACH STATEMENT EXECUTE FUNCTION %I()',
                           event.column1, event.column2, logged.column1, event.column3, 'log_' || logged.column1);
        END LOOP;
        EXECUTE format('CREATE TRIGGER log_former_key AFTER UPDATE OF %I ON %I
                            FOR EACH ROW EXECUTE FUNCTION log_former_key(%L, %L)',
                       logged.column3, logged.column1, logged.column2, logged.column3);
    END LOOP;
END
$$;
DROP FUNCTION log_change();

RESET ROLE;
