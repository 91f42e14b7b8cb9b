-- :size addresses of record with their contacts (../schema/data.sql), a dialog for every ten of them but no fewer than
-- 1,000, ten watchers for each presentity, as many access rules, and 200 conference extensions.
SELECT greatest(:size / 10, 1000) AS dialogs \gset
SET session_replication_role = replica;  -- no triggers: nobody hears of it, and all that is referred to is there
\ir ../schema/data.sql
INSERT INTO subscription_states
    SELECT 'incoming#' || n, format('<sip:watcher%s@oryx.example>;tag=%s', n, n), format('<sip:user%s@oryx.example>', n / 10),
           md5(n::text) || '@192.0.2.1', 1, 'presence', format('<sip:watcher%s@192.0.2.1:5060>', n), NULL, 1,
           format('sip:user%s@oryx.example', n / 10), 'presence#'
    FROM generate_series(1, :dialogs) AS n;
INSERT INTO event_watchers (presentitykey, watcheropaque, doctype, docversion, watchertype, watcherstate, expirytime,
                            watcheridentity, event, presentity)
    SELECT format('sip:user%s@oryx.example#presence', (n - 1) % (:dialogs / 10) + 1), 'incoming#' || n, 1, 1, 1, 2, 2000000000,
           format('sip:watcher%s@oryx.example', n), 'presence', format('sip:user%s@oryx.example', (n - 1) % (:dialogs / 10) + 1)
    FROM generate_series(1, :dialogs) AS n;
INSERT INTO access_control_list (object, requester, access_action, application)
    SELECT format('ruled%s@oryx.example', n), '*', 'allow', 'presence' FROM generate_series(1, :dialogs) AS n;
INSERT INTO node VALUES ('node', 'node');
INSERT INTO access_control_list (object, requester, access_action, application)
    VALUES ('node', 'sip:*@oryx.example', 'allow', 'presence'), ('node', '*', 'deny', 'presence');
INSERT INTO conf_state SELECT 'conference' || n, 'IDLE', 0 FROM generate_series(1, 200) AS n;
CREATE EXTENSION pg_prewarm;
SELECT count(pg_prewarm(oid)) FROM pg_class WHERE relkind IN ('r', 'i') AND relnamespace = 'public'::regnamespace \g /dev/null
VACUUM ANALYZE;
CHECKPOINT;
