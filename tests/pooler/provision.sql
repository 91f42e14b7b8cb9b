-- What the workers of tests/pooler/pooler.cpp own: an address of record each, "w0" and on, with the keys 101 and on.
\set ON_ERROR_STOP on
INSERT INTO subscriber (sid, user_id, s_type, auth_type) SELECT 100 + i, 'w' || i - 1, 'home', 'digest' FROM generate_series(1, 6) i;
INSERT INTO contact_set (csid, sid, ordering) SELECT 100 + i, 100 + i, 'parallel' FROM generate_series(1, 6) i;
INSERT INTO public_address (public_address_id, handle, sip_domain, csid, scope)
    SELECT 100 + i, 'w' || i - 1, 'oryx.example', 100 + i, 'public' FROM generate_series(1, 6) i;
INSERT INTO extension (extension, ext_type) SELECT 8000 + i, 'c' FROM generate_series(0, 99) i;
INSERT INTO conf_state (extension, conf_status, start_time) SELECT 8000 + i, 'IDLE', 0 FROM generate_series(0, 99) i;
INSERT INTO acp VALUES ('manager', 'udp', '192.0.2.1', '5070');
INSERT INTO access_control_list (object, requester, access_action, application)
    VALUES ('alice@oryx.example', '*', 'allow', 'presence');
