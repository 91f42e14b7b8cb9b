-- A small deployment to try the event server with: access rules, a presence list, conference extensions and a call
-- manager. It refers to people of registration.sql, which may be loaded before or after. It can be
-- loaded again at any time: it puts its own rows back as they were and leaves other rows alone.
BEGIN;

-- Alice's rules: bob may watch her from his own domain, dave may not. Whoever has no rules of their own falls
-- under the default policy, which is that of the nodes.
INSERT INTO node (node_id, node_name) VALUES ('sample-node', 'sip1.oryx.example') ON CONFLICT (node_id) DO NOTHING;
DELETE FROM access_control_list WHERE object IN ('alice@oryx.example', 'bob', 'sample-node');
INSERT INTO access_control_list (object, requester, access_action, state, application) VALUES
    ('alice@oryx.example', 'bob@oryx.example', 'allow', 'ACTIVE', 'presence'),
    ('alice@oryx.example', 'dave@example.com', 'block', 'ACTIVE', 'presence'),
    ('alice@oryx.example', 'carol@oryx.example', 'allow', 'INACTIVE', 'presence'),
    ('bob', 'alice@oryx.example', 'allow', 'ACTIVE', 'presence'),
    ('sample-node', '*', 'confirm', 'ACTIVE', 'presence');

-- A list that everybody in the domain may subscribe to, and dave from anywhere; carol is kept on it without being a
-- member.
DELETE FROM buddy_list WHERE buddy_list_id = 9001 OR buddy_list_name = 'sample-friends';
INSERT INTO buddy_list (buddy_list_id, buddy_list_name) VALUES (9001, 'sample-friends');
INSERT INTO buddy_list_detail (buddy_list_name, buddy_uri, isbuddy) VALUES
    ('sample-friends', 'sip:alice@oryx.example', true),
    ('sample-friends', 'sip:bob@oryx.example', true),
    ('sample-friends', 'sip:carol@oryx.example', false);
INSERT INTO presence_list_authorization (listid, handle, sip_domain, access_action) VALUES
    (9001, '*', 'oryx.example', 'A'),
    (9001, 'dave', '*', 'A'),
    (9001, 'carol', 'example.com', 'D');

-- Four conference extensions: two idle, one in use, one that has no state yet. The fifth is alice's telephone. An
-- extension that was a conference one before still has a state.
DELETE FROM extension WHERE extension IN ('9600', '9601', '9602', '9603', '9100');
INSERT INTO extension (extension, ext_type, paid) VALUES
    ('9600', 'c', NULL),
    ('9601', 'c', NULL),
    ('9602', 'c', NULL),
    ('9603', 'c', NULL),
    ('9100', 'u', (SELECT public_address_id FROM public_address WHERE handle = 'alice' AND sip_domain = 'oryx.example'));
DELETE FROM conf_state WHERE extension IN ('9600', '9601', '9602', '9603', '9699');
INSERT INTO conf_state (extension, conf_status, start_time) VALUES
    ('9600', 'IDLE', 0),
    ('9601', 'IDLE', 0),
    ('9602', 'IN USE', extract(epoch FROM now())::bigint - 600),
    ('9699', 'IDLE', 0);

-- The port in the address is the one used.
INSERT INTO acp (handle, link_type, sip_trunk_ipaddress, sip_port)
    VALUES ('sample-manager', 'tls', '192.0.2.21:5071', '5061')
    ON CONFLICT (handle) DO UPDATE SET link_type = excluded.link_type,
        sip_trunk_ipaddress = excluded.sip_trunk_ipaddress, sip_port = excluded.sip_port;

INSERT INTO sip_event_aggregator (handle, sip_address) VALUES ('sample-aggregator', 'sip:events.oryx.example:5060')
    ON CONFLICT (handle) DO UPDATE SET sip_address = excluded.sip_address;

COMMIT;
