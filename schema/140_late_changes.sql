-- Changes that come late. A server that loses the answer to a change sends it again; meanwhile the first sending may
-- have taken effect, and others may have changed the row since. What the rows tell of it holds for every server; one
-- with bound statements also says of some of its changes which ones they are, and the repetition of one is known again.

SET LOCAL ROLE oryx_owner;

-- Requests out of order --------------------------------------------------------------------------------------------

-- RFC 3261 section 10.3, item 7: of requests with the same Call-ID the one with the lower CSeq is the older one, and
-- must not have its way. What an older one has written is taken back before anybody sees it. A trigger before the
-- update could refuse it, but would have every refresh lock its row first, which writes 1.3 times the log; a rule could
-- too, but allows no INSERT ... ON CONFLICT (scripts/with-server bench/schema/measure fences).
-- A binding that has expired is none, though not yet swept: a phone that has lost its state begins anew. Without a
-- Call-ID nothing says that the two belong together, and below 0 is no CSeq.
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
    FOR EACH ROW WHEN (NEW.call_id = OLD.call_id AND NEW.cseq < OLD.cseq AND NEW.cseq >= 0 AND NEW.call_id <> ''
                       AND (OLD.permanent OR OLD.expires IS NULL OR OLD.expires >= extract(epoch FROM now())))
    EXECUTE FUNCTION contact_keep_newer();

-- The same within a dialog, where each side counts its own requests (RFC 3261 section 12.2). What is taken back may be
-- older by the other side's count, and stays taken back.
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
    FOR EACH ROW WHEN (pg_trigger_depth() = 0 AND (NEW.subcseq >= 0 AND NEW.subcseq < OLD.subcseq
                                                   OR NEW.notcseq >= 0 AND NEW.notcseq < OLD.notcseq))
    EXECUTE FUNCTION subscription_states_keep_newer();

CREATE FUNCTION change_nothing() RETURNS trigger LANGUAGE plpgsql AS $$
BEGIN
    RETURN NULL;
END
$$;

-- An extension that was released, and has been reserved since, is not released by the same release once more. A server
-- may leave the time out (0). Beyond 2^31 a change writes it as a negative number. A conference that was over before
-- the server's clock had come to where the database's was is released in vain; a second's grace for it would let go what
-- was reserved since.
CREATE TRIGGER keep_newer BEFORE UPDATE ON conf_state
    FOR EACH ROW WHEN (OLD.conf_status = 'IN USE' AND upper(NEW.conf_status) <> 'IN USE' AND NEW.start_time <> 0
                       AND (NEW.start_time & 4294967295) < (OLD.start_time & 4294967295))
    EXECUTE FUNCTION change_nothing();

-- Repetitions ------------------------------------------------------------------------------------------------------

-- The latest change of each session that says which one it is. A session is one connection of a service, also across
-- losses; its changes have rising numbers, and the repetition of one has the same again. So a number that is not above
-- the one kept here is a change that has taken effect, or was given up for a later one. It is written in the change's
-- own transaction, before the change: the two take effect together, and a repetition waits for a first sending that is
-- still under way.
CREATE TABLE sending (
    session uuid PRIMARY KEY,
    number  bigint NOT NULL,
    answer  text,                        -- what a stored function gave that is asked once; empty for nothing
    sent_at timestamp with time zone NOT NULL DEFAULT now()
) WITH (fillfactor = 50);

-- What the servers write there in place of a number that is not above the kept one. A repetition changes nothing, as its
-- whole transaction ends here; its server knows what the error means. A trigger that refuses it would have every change
-- look the row up once more.
CREATE FUNCTION sending_has_taken_effect(kept_answer text) RETURNS bigint LANGUAGE plpgsql AS $$
BEGIN
    IF kept_answer IS NULL THEN
        RAISE EXCEPTION 'this change has taken effect before' USING ERRCODE = 'OX001';
    END IF;
    RAISE EXCEPTION 'this change has taken effect before' USING ERRCODE = 'OX001', DETAIL = kept_answer;
END
$$;

-- A session begins, so some may have ended. None sends a change again after a day.
CREATE FUNCTION sending_forget_ended() RETURNS trigger LANGUAGE plpgsql
SECURITY DEFINER SET search_path = pg_catalog, pg_temp AS $$
BEGIN
    DELETE FROM public.sending WHERE session IN
        (SELECT session FROM public.sending WHERE sent_at < now() - interval '1 day' FOR UPDATE SKIP LOCKED);
    RETURN NULL;
END
$$;
CREATE TRIGGER forget_ended AFTER INSERT ON sending FOR EACH ROW EXECUTE FUNCTION sending_forget_ended();

-- Where a reservation is said to be such a change, by session and number in the setting, it keeps them by itself, with
-- what it gives. A repetition that comes while the first sending is under way waits for its end here.
CREATE OR REPLACE FUNCTION reserve_one_available_conf_ext_randomly() RETURNS text LANGUAGE plpgsql AS $$
DECLARE
    token CONSTANT text := current_setting('oryx.sending', true);
    reserved text;
BEGIN
    SELECT extension INTO reserved FROM conf_state
        WHERE conf_status = 'IDLE' ORDER BY random() LIMIT 1 FOR UPDATE SKIP LOCKED;
    IF token <> '' THEN
        INSERT INTO sending AS kept (session, number, answer)
            VALUES (split_part(token, '.', 1)::uuid, split_part(token, '.', 2)::bigint, coalesce(reserved, ''))
            ON CONFLICT (session) DO UPDATE
                SET number = CASE WHEN kept.number < excluded.number THEN excluded.number
                                  ELSE sending_has_taken_effect(kept.answer) END,
                    answer = excluded.answer, sent_at = now();
    END IF;
    UPDATE conf_state SET conf_status = 'IN USE', start_time = floor(extract(epoch FROM clock_timestamp()))
        WHERE extension = reserved;
    RETURN reserved;
END
$$;

-- Rights -----------------------------------------------------------------------------------------------------------

-- What the statement of a server's change needs, and the reservation.
GRANT INSERT (session, number, answer), UPDATE (number, answer, sent_at), SELECT (session, number, answer) ON sending TO oryx_server;
GRANT EXECUTE ON FUNCTION sending_has_taken_effect(text) TO oryx_server;

RESET ROLE;
