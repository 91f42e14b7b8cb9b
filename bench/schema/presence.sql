-- :size dialogs, half of each direction, as many watchers and as many sources, under telephone numbers of nine to
-- thirteen digits in one domain: one country, eight areas, and seven digits of one's own, or five.
CREATE FUNCTION handle(n bigint) RETURNS text LANGUAGE sql IMMUTABLE RETURN
    '49' || (ARRAY['30', '40', '89', '221', '211', '69', '711', '351'])[1 + n % 8]
    || CASE WHEN n % 10 = 3 THEN 10000 + n * 7919 % 90000 ELSE 1000000 + n * 7919 % 9000000 END;
-- Keys after rows: in a tenth of the time.
ALTER TABLE subscription_states DROP CONSTRAINT subscription_states_pkey;
ALTER TABLE event_watchers DROP CONSTRAINT event_watchers_pkey;
ALTER TABLE event_sources DROP CONSTRAINT event_sources_pkey;
INSERT INTO subscription_states
    SELECT (ARRAY['incoming#', 'outgoing#'])[1 + n % 2] || n, format('<sip:%s@oryx.example>;tag=%s', handle(n), left(md5(n::text), 10)),
           format('<sip:%s@oryx.example>', handle(n + 1)), md5(n::text) || '@192.0.2.1', 1, 'presence',
           format('<sip:%s@192.0.2.%s:5060;transport=udp>', handle(n), n % 250), '<sip:proxy.oryx.example;lr>', 1,
           format('sip:%s@oryx.example', handle(n + 1)), 'presence#' || n
    FROM generate_series(1, :size) AS n ORDER BY md5(n::text);
INSERT INTO event_watchers
    SELECT handle(n + 1) || '@oryx.example#presence', 'incoming#' || n, 1, 1, 1, 1, 2000000000,
           format('sip:%s@oryx.example', handle(n)), 'presence', format('sip:%s@oryx.example', handle(n + 1))
    FROM generate_series(1, :size) AS n ORDER BY md5(n::text);
INSERT INTO event_sources
    SELECT handle(n) || '@oryx.example#presence', 'source#' || n, format('<sip:%s@192.0.2.%s:5060>', handle(n), n % 250),
           2000000000, 'presence', format('sip:%s@oryx.example', handle(n))
    FROM generate_series(1, :size) AS n ORDER BY md5(n::text);
ALTER TABLE subscription_states ADD PRIMARY KEY (subscriptionid);
ALTER TABLE event_watchers ADD PRIMARY KEY (presentitykey, watcheropaque);
ALTER TABLE event_sources ADD PRIMARY KEY (sourceopaque, presentitykey);
