-- Changes that come late. A server that loses the answer to a change sends it again; meanwhile the first sending may
-- have taken effect, and others may have changed the row since. What the rows tell of it holds for every server; one
-- with bound statements also says of some of its changes which ones they are, and the repetition of one is known again.

SET LOCAL ROLE oryx_owner;

-- Requests out of order --------------------------------------------------------------------------------------------

-- RFC 3261 section 10.3, item 7: of requests with the same Call-ID the one with the lower CSeq is the older one, and
-- must not have its way. What an older one has written is taken back before anybody sees it. A trigger before the
-- update could refuse it, but would have every refresh lock its row first, which writes 1.3 times the log; a rule could
-- too, but allows no INSERT ... ON CONFLICT (scripts/with-server bench/schema/measure fences).
CREATE FUNCTION contact_keep_newer() RETURNS trigger LANGUAGE plpgsql AS $$
BEGIN
    UPDATE public.contact
        SET (csid, address, qvalue, expires, permanent, capabilities, contact_header, call_id, cseq, c_type,
             path_vector, id)
            = (OLD.csid, OLD.address, OLD.qvalue, OLD.expires, OLD.permanent, OLD.capabilities, OLD.contact_header,
               OLD.call_id, OLD.cseq, OLD.c_type, OLD.path_vector, OLD.id)
        WHERE contact_id = NEW.contact_id;
    RETURN NULL;
END
$$;
CREATE TRIGGER keep_newer AFTER UPDATE ON contact
    FOR EACH ROW WHEN (NEW.call_id = OLD.call_id AND NEW.cseq < OLD.cseq) EXECUTE FUNCTION contact_keep_newer();

-- The same within a dialog, where each side counts its own requests (RFC 3261 section 12.2). Below 0 is no CSeq.
CREATE FUNCTION subscription_states_keep_newer() RETURNS trigger LANGUAGE plpgsql AS $$
BEGIN
    UPDATE public.subscription_states
        SET (fromhdr, tohdr, callid, subcseq, eventhdr, remotecontacthdr, routeset, notcseq, requesturi, packageid)
            = (OLD.fromhdr, OLD.tohdr, OLD.callid, OLD.subcseq, OLD.eventhdr, OLD.remotecontacthdr, OLD.routeset,
               OLD.notcseq, OLD.requesturi, OLD.packageid)
        WHERE subscriptionid = NEW.subscriptionid;
    RETURN NULL;
END
$$;
CREATE TRIGGER keep_newer AFTER UPDATE ON subscription_states
    FOR EACH ROW WHEN (NEW.subcseq >= 0 AND NEW.subcseq < OLD.subcseq OR NEW.notcseq >= 0 AND NEW.notcseq < OLD.notcseq)
    EXECUTE FUNCTION subscription_states_keep_newer();

CREATE FUNCTION change_nothing() RETURNS trigger LANGUAGE plpgsql AS $$
BEGIN
    RETURN NULL;
END
$$;

-- An extension that was released, and has been reserved since, is not released by the same release once more. A server
-- may leave the time out (0). Beyond 2^31 a change writes it as a negative number.
CREATE TRIGGER keep_newer BEFORE UPDATE ON conf_state
    FOR EACH ROW WHEN (OLD.conf_status = 'IN USE' AND NEW.conf_status <> 'IN USE' AND NEW.start_time <> 0
                       AND (NEW.start_time & 4294967295) < (OLD.start_time & 4294967295))
    EXECUTE FUNCTION change_nothing();

-- Repetitions ------------------------------------------------------------------------------------------------------

-- The latest change of each session that says which one it is. A session is one connection of a service, also across
-- losses; its changes have rising numbers, and the repetition of one has the same again. So a number that is not above
-- the one kept here is a change that has taken effect, or was given up for a later one. It is written in the change's
-- own transaction: the two take effect together, and a repetition waits for a first sending that is still under way.
CREATE TABLE sending (
    session uuid PRIMARY KEY,
    number  bigint NOT NULL,
    answer  text,                        -- what a stored function gave
    sent_at timestamp with time zone NOT NULL DEFAULT now()
) WITH (fillfactor = 50);

-- What the change under way is answered: whether it has taken effect before, and what it gave then; if not, it is kept
-- with the answer that it will give. To be called where the setting "oryx.sending" holds a token, which is the session
-- and the number: it becomes "repeated", or empty, for all statements of a transaction are one change. A session says
-- nothing of others: its name is random, and nobody can read the table.
CREATE FUNCTION answer_sending(INOUT answer text, OUT repeated boolean) LANGUAGE plpgsql
SECURITY DEFINER SET search_path = pg_catalog, pg_temp AS $$
DECLARE
    token CONSTANT text := current_setting('oryx.sending');
    of_session CONSTANT uuid := split_part(token, '.', 1);
    new_number CONSTANT bigint := split_part(token, '.', 2);
    new_answer CONSTANT text := answer;
BEGIN
    UPDATE public.sending SET number = new_number, answer = new_answer, sent_at = now()
        WHERE session = of_session AND number < new_number;
    IF NOT FOUND THEN  -- a repetition, or the session's first
        INSERT INTO public.sending AS kept (session, number, answer) VALUES (of_session, new_number, new_answer)
            ON CONFLICT (session) DO UPDATE
                SET number = excluded.number, answer = excluded.answer, sent_at = excluded.sent_at
                WHERE kept.number < excluded.number;
    END IF;
    repeated := NOT FOUND;
    PERFORM set_config('oryx.sending', CASE WHEN repeated THEN 'repeated' ELSE '' END, true);
    IF repeated THEN
        answer := (SELECT kept.answer FROM public.sending kept WHERE session = of_session AND number = new_number);
    ELSIF new_number = 1 THEN
        -- A session begins, so some may have ended. None sends a change again after a day.
        DELETE FROM public.sending WHERE session IN
            (SELECT session FROM public.sending WHERE sent_at < now() - interval '1 day' FOR UPDATE SKIP LOCKED);
    END IF;
END
$$;

CREATE FUNCTION keep_sending() RETURNS trigger LANGUAGE plpgsql AS $$
BEGIN
    PERFORM public.answer_sending(NULL);
    RETURN NULL;
END
$$;
CREATE TRIGGER keep_sending BEFORE INSERT OR DELETE ON contact
    FOR EACH STATEMENT WHEN (current_setting('oryx.sending', true) LIKE '%.%') EXECUTE FUNCTION keep_sending();
CREATE TRIGGER keep_sending BEFORE INSERT OR UPDATE ON conf_state
    FOR EACH STATEMENT WHEN (current_setting('oryx.sending', true) LIKE '%.%') EXECUTE FUNCTION keep_sending();

-- A repetition changes nothing. Its caller takes an insertion or a removal of nothing as done; a release has to find
-- its extension.
CREATE TRIGGER already_changed BEFORE INSERT OR DELETE ON contact
    FOR EACH ROW WHEN (current_setting('oryx.sending', true) = 'repeated') EXECUTE FUNCTION change_nothing();
CREATE TRIGGER already_added BEFORE INSERT ON conf_state
    FOR EACH ROW WHEN (current_setting('oryx.sending', true) = 'repeated') EXECUTE FUNCTION change_nothing();
CREATE FUNCTION conf_state_as_it_is() RETURNS trigger LANGUAGE plpgsql AS $$
BEGIN
    RETURN OLD;
END
$$;
-- By its name before keep_newer, which has nothing left to refuse then.
CREATE TRIGGER already_changed BEFORE UPDATE ON conf_state
    FOR EACH ROW WHEN (current_setting('oryx.sending', true) = 'repeated') EXECUTE FUNCTION conf_state_as_it_is();

-- A repetition is given what the first sending took. If that is still under way, this one waits for its end here, and
-- takes its own choice if it comes to nothing.
CREATE OR REPLACE FUNCTION reserve_one_available_conf_ext_randomly() RETURNS text LANGUAGE plpgsql AS $$
DECLARE
    reserved text;
    sent record;
BEGIN
    SELECT extension INTO reserved FROM conf_state
        WHERE conf_status = 'IDLE' ORDER BY random() LIMIT 1 FOR UPDATE SKIP LOCKED;
    IF current_setting('oryx.sending', true) LIKE '%.%' THEN
        sent := answer_sending(reserved);
        IF sent.repeated THEN
            RETURN sent.answer;
        END IF;
    END IF;
    UPDATE conf_state SET conf_status = 'IN USE', start_time = floor(extract(epoch FROM clock_timestamp()))
        WHERE extension = reserved;
    RETURN reserved;
END
$$;

-- As before, but for repetitions: the contact's key is then that of the contact as it is now, NULL where it has gone.
CREATE OR REPLACE FUNCTION add_contact(of_handle text, of_domain text, new_address text, new_expires bigint,
                                       new_permanent boolean, new_qvalue text, new_capabilities text,
                                       new_contact_header text, new_call_id text, new_cseq bigint) RETURNS integer
LANGUAGE plpgsql AS $$
DECLARE
    of_csid CONSTANT integer := address_csid(of_handle, of_domain);
    key integer;
BEGIN
    IF current_setting('oryx.sending', true) LIKE '%.%' THEN
        IF (SELECT repeated FROM answer_sending(NULL)) THEN
            RETURN (SELECT contact_id FROM contact WHERE csid = of_csid AND address = new_address);
        END IF;
    END IF;
    -- Refreshes are the rule, and INSERT ... ON CONFLICT would use up a contact number for each of them.
    UPDATE contact
        SET expires = new_expires, permanent = coalesce(new_permanent, false), qvalue = new_qvalue,
            capabilities = new_capabilities, contact_header = new_contact_header, call_id = new_call_id, cseq = new_cseq
        WHERE csid = of_csid AND address = new_address
        RETURNING contact_id INTO key;
    IF NOT FOUND THEN
        INSERT INTO contact AS c (csid, address, expires, permanent, qvalue, capabilities, contact_header, call_id, cseq)
            VALUES (of_csid, new_address, new_expires, coalesce(new_permanent, false), new_qvalue, new_capabilities,
                    new_contact_header, new_call_id, new_cseq)
            -- another server stored the same binding since the look
            ON CONFLICT (csid, address) DO UPDATE
                SET expires = excluded.expires, permanent = excluded.permanent, qvalue = excluded.qvalue,
                    capabilities = excluded.capabilities, contact_header = excluded.contact_header,
                    call_id = excluded.call_id, cseq = excluded.cseq
            RETURNING c.contact_id INTO key;
    END IF;
    RETURN key;
END
$$;

-- Rights -----------------------------------------------------------------------------------------------------------

-- Nobody reads or writes the table but through the function, which tells a session of its own changes alone.
GRANT EXECUTE ON FUNCTION answer_sending(text) TO oryx_server;

RESET ROLE;
