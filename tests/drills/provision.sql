-- What the workers of the load own (tests/drills/Load.h): 8 with 20 addresses of record each, "c3.7", and 30 conference
-- extensions for all of them: they hold up to 24, and what one of them loses is soon given to another.
\set ON_ERROR_STOP on
INSERT INTO subscriber (sid, user_id, s_type, auth_type) SELECT i, 'c' || i, 'home', 'digest' FROM generate_series(1, 160) i;
INSERT INTO contact_set (csid, sid, ordering) SELECT i, i, 'parallel' FROM generate_series(1, 160) i;
INSERT INTO public_address (public_address_id, handle, sip_domain, csid, scope)
    SELECT i, format('c%s.%s', (i - 1) / 20, (i - 1) % 20), 'oryx.example', i, 'public' FROM generate_series(1, 160) i;
INSERT INTO extension (extension, ext_type) SELECT 8000 + i, 'c' FROM generate_series(0, 29) i;
INSERT INTO conf_state (extension, conf_status, start_time) SELECT 8000 + i, 'IDLE', 0 FROM generate_series(0, 29) i;
