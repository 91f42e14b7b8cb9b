-- What the database holds, a line for each key, in the words of the workers' journals (tests/drills/Journal.h).
\pset format unaligned
\pset tuples_only on
\pset fieldsep ' '
-- Both bindings of an address, or what is there of them.
SELECT 'contact/' || handle,
       CASE WHEN count(*) = 2 AND min(cseq) = max(cseq) THEN min(cseq)::text
            ELSE string_agg(cseq::text, ',') || '!' END
    FROM contact JOIN public_address USING (csid) GROUP BY handle;
SELECT 'dialog/' || subscriptionid, subcseq FROM subscription_states;
SELECT 'extension/' || extension, translate(conf_status, ' ', '_') FROM conf_state;
