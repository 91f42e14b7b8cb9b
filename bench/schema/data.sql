-- :size subscribers with an address of record each; every second one has two contacts, the others one. One in a hundred
-- has an address map.
INSERT INTO subscriber (sid, user_id, s_type, auth_type, s_password)
    SELECT n, 'user' || n, 'home', 'digest', md5(n::text) FROM generate_series(1, :size) AS n;
INSERT INTO contact_set (csid, sid, ordering, replace_uri) SELECT n, n, 'parallel', true FROM generate_series(1, :size) AS n;
INSERT INTO public_address (handle, sip_domain, csid, scope, primary_handle)
    SELECT 'user' || n, 'oryx.example', n, 'public', true FROM generate_series(1, :size) AS n;
INSERT INTO contact (csid, address, qvalue, expires, permanent, capabilities, contact_header, call_id, cseq)
    SELECT n, format('sip:user%s@192.0.2.%s:5060;transport=udp', n, k), '0.5',
           extract(epoch FROM now())::bigint + 3600 + n % 3600, false, 'INVITE, ACK, BYE, CANCEL, OPTIONS',
           format('<sip:user%s@192.0.2.%s:5060;transport=udp>;q=0.5;expires=3600', n, k), md5(n::text) || '@192.0.2.1', 1
    FROM generate_series(1, :size) AS n, generate_series(1, 2) AS k WHERE k = 1 OR n % 2 = 0
    ORDER BY md5(n::text || k);
INSERT INTO address_map (handle, csid, pattern, priority)
    SELECT 'map' || n, n * 97 % :size + 1, '^sip:' || 1000000 + n || '@', n FROM generate_series(1, :size / 100) AS n;
VACUUM ANALYZE;
