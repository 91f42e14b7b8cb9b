-- A session's first change forgets those that have ended, and read all that is kept for it: with 100,000 sessions that
-- took five times as long as to read some pages, chosen at random. Of few sessions these are all, of many enough for the
-- ended ones to go more quickly than new ones come.

SET LOCAL ROLE oryx_owner;

CREATE OR REPLACE FUNCTION sending_forget_ended() RETURNS trigger LANGUAGE plpgsql
SECURITY DEFINER SET search_path = pg_catalog, pg_temp AS $$
DECLARE
    pages CONSTANT bigint := pg_relation_size('public.sending') / current_setting('block_size')::bigint;
BEGIN
    DELETE FROM public.sending WHERE session IN
        (SELECT session FROM public.sending TABLESAMPLE SYSTEM (least(100, 100 * 32.0 / greatest(pages, 1)))
            WHERE sent_at < now() - interval '1 day' FOR UPDATE SKIP LOCKED);
    RETURN NULL;
END
$$;

RESET ROLE;
