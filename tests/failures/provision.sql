-- What the operations of tests/failures work at.
\set ON_ERROR_STOP on
INSERT INTO subscriber (sid, user_id, s_type, auth_type, s_password) VALUES (7, 'alice', 'home', 'digest', 'wonderland');
INSERT INTO contact_set (csid, sid, ordering) VALUES (12, 7, 'sequential');
INSERT INTO public_address (public_address_id, handle, sip_domain, csid, scope) VALUES (42, 'alice', 'oryx.example', 12, 'public');
INSERT INTO contact (csid, address, expires, call_id, cseq)
    SELECT 12, 'sip:alice@192.0.2.' || i, 2000000000, 'call', 1 FROM generate_series(1, 2) i;
INSERT INTO host_info (server_name, outbound_allow_internal) VALUES ('edge', true);
INSERT INTO extension (extension, ext_type) SELECT 8000 + i, 'c' FROM generate_series(0, 999) i;
INSERT INTO conf_state (extension, conf_status, start_time) SELECT 8000 + i, 'IDLE', 0 FROM generate_series(1, 999) i;
INSERT INTO conf_state (extension, conf_status, start_time) VALUES (8000, 'IN USE', 1700000000);
INSERT INTO event_watchers (presentitykey, watcheropaque)
    VALUES ('alice@oryx.example#presence', 'incoming#1'), ('alice@oryx.example#presence', 'incoming#2');
INSERT INTO system_parameters (application, scope, name, value) VALUES ('oryxproxy', 'ServerInfo', 'ServerNames', 'oryx.example');
INSERT INTO acp VALUES ('manager', 'udp', '192.0.2.1', '5070');
