-- A small deployment to try the servers with: the domain oryx.example, three households and a sales group.
-- It can be loaded again at any time: it puts its own rows back as they were and leaves other rows
-- alone, a host_info row included.
BEGIN;

-- The sample's own subscribers take their addresses, contacts and maps along.
SELECT count(remove_subscriber(sid)) FROM subscriber WHERE sid BETWEEN 9001 AND 9004 \g /dev/null

INSERT INTO subscriber (sid, user_id, s_type, auth_type, s_password, active) VALUES
    (9001, 'alice', 'home', 'digest', 'wonderland', true),
    (9002, 'bob', 'home', 'digest', 'builder', true),
    (9003, 'carol', 'home', 'digest', 'christmas', false),
    (9004, 'sales', 'group', NULL, NULL, true);

SELECT create_public_address(9001, 'alice', 'oryx.example'),
       create_public_address_alias('alice', 'oryx.example', '1001'),
       create_public_address(9002, 'bob', 'oryx.example'),
       create_public_address(9003, 'carol', 'oryx.example'),
       import_public_address(9004, 'sales', 'oryx.example', 'sip:$user@gateway.oryx.example') \g /dev/null

-- Alice at two telephones, for a year from now; bob is not registered.
SELECT add_contact('alice', 'oryx.example', 'sip:alice@192.0.2.11:5060', a_year_on, 'f', '1.0', 'INVITE, ACK, BYE, CANCEL',
                   '<sip:alice@192.0.2.11:5060>;q=1.0', 'a84b4c76e66710@192.0.2.11', 1),
       add_contact('alice', 'oryx.example', 'sip:alice@192.0.2.12:5060', a_year_on, 'f', '0.5', 'INVITE, ACK, BYE, CANCEL',
                   '<sip:alice@192.0.2.12:5060>;q=0.5', '843817637684230@192.0.2.12', 1)
    FROM (SELECT extract(epoch FROM now())::bigint + 365 * 86400 AS a_year_on) AS instant \g /dev/null

-- Seven-digit numbers that begin with 555 go to sales, at the gateway.
INSERT INTO address_map (handle, csid, pattern, priority)
    SELECT 'sales', csid, '^sip:555[0-9]{4}@oryx\.example', 10
        FROM public_address WHERE handle = 'sales' AND sip_domain = 'oryx.example';

-- Whatever nothing else matches goes to the parent node: its contact is given as the key of a contact set.
INSERT INTO contact_set (csid, sid, ordering, replace_uri) VALUES (9005, 9004, 'sequential', false);
INSERT INTO contact (csid, address, permanent) VALUES (9005, 'sip:parent.oryx.example:5060', true);
INSERT INTO host_info VALUES
    ('home', 'parent.oryx.example', '9005', 'http://top.oryx.example/', 'sip1.oryx.example',
     true, true, 'sip:outbound.oryx.example:5060', 'partner.example, gateway.oryx.example')
    ON CONFLICT DO NOTHING;

INSERT INTO system_parameters (application, scope, name, value) VALUES
    ('oryxproxy', 'ServerInfo', 'ServerNames', 'oryx.example, sip1.oryx.example')
    ON CONFLICT (application, scope, name) DO UPDATE SET value = excluded.value;

DELETE FROM proxy_configuration WHERE proxy_name = 'sample';
INSERT INTO proxy_configuration (proxy_name, scope, property_name, property_value) VALUES
    ('sample', 'Transport', 'udp.port', '5060'),
    ('sample', 'Transport', 'tcp.port', '5060'),
    ('sample', 'Routing', 'record-route', 'true');

DELETE FROM domain_access WHERE sip_domain LIKE '%.sample.example';
INSERT INTO domain_access (direction, sip_domain, domain_action, qvalue) VALUES
    ('*', 'blocked.sample.example', 'd', 0.1),
    ('o', 'partner.sample.example', 'a', 0.5),
    ('i', 'spam.sample.example', 'd', 0.9);

COMMIT;
