-- Whether a transaction has changed a table before is looked up by both columns of the log's index again. A trigger's
-- TG_TABLE_NAME brings the collation of names along, which is not the index's: compared in it, the whole index was read
-- for each change, the longer the more was logged.

SET LOCAL ROLE oryx_owner;

CREATE OR REPLACE FUNCTION log_keys(of_table text, key_column text, keys text[]) RETURNS void LANGUAGE plpgsql AS $$
DECLARE
    is_first CONSTANT boolean := NOT EXISTS (SELECT FROM public.event_change
                                                 WHERE table_name = of_table COLLATE "default"
                                                     AND xid = pg_current_xact_id() AND begun = transaction_timestamp());
BEGIN
    -- Mostly there is one key, which costs less alone.
    INSERT INTO public.event_change (table_name, pk_int, pk_char, first)
        VALUES (of_table, CASE key_column WHEN 'pk_int' THEN keys[1]::integer END,
                CASE key_column WHEN 'pk_char' THEN keys[1] END, is_first);
    IF cardinality(keys) > 1 THEN
        INSERT INTO public.event_change (table_name, pk_int, pk_char, first)
            SELECT of_table, CASE key_column WHEN 'pk_int' THEN key::integer END,
                   CASE key_column WHEN 'pk_char' THEN key END, false
                FROM unnest(keys[2:]) key;
    END IF;
END
$$;
