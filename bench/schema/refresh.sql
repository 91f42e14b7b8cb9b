\set n random(1, :size)
\set cseq random(1, 1000000)
\set expires random(2000000000, 2000003600)
BEGIN TRANSACTION \; UPDATE contact SET contact_header = '<sip:user:n@192.0.2.1:5060;transport=udp>;q=0.5;expires=3600', expires = :expires, call_id = ':cseq', cseq = ':cseq', qvalue = '0.5', capabilities = 'INVITE, ACK, BYE, CANCEL, OPTIONS' WHERE csid = (SELECT csid FROM public_address where id = :n) AND address = 'sip:user:n@192.0.2.1:5060;transport=udp' \; COMMIT TRANSACTION;
