-- Roles by job: what a process may do is what its statements need. oryx_server stays, for who wants one role for all.
-- Rights on columns stand where a whole table would be too much; elsewhere whole tables, which are quicker to check.

DO $$
DECLARE
    name text;
BEGIN
    FOREACH name IN ARRAY ARRAY['oryx_registrar', 'oryx_proxy', 'oryx_presence', 'oryx_provisioning', 'oryx_operator'] LOOP
        IF NOT EXISTS (SELECT FROM pg_roles WHERE rolname = name) THEN
            BEGIN
                EXECUTE format('CREATE ROLE %I NOLOGIN', name);
            EXCEPTION
                WHEN duplicate_object OR unique_violation THEN
                    NULL;  -- made by another database's migration since the look
                WHEN insufficient_privilege THEN
                    RAISE insufficient_privilege USING MESSAGE = format('there is no role %s, and %s may make none', name, current_user),
                        HINT = 'Roles are for the whole server: once a superuser has applied the schema to one of its databases, the owners of the others can.';
            END;
        END IF;
    END LOOP;
END
$$;

-- The operator reads what the reader does. Others' statements it does not see: there may be passwords in them.
DO $$
BEGIN
    IF NOT pg_has_role('oryx_operator', 'oryx_reader', 'MEMBER') THEN
        GRANT oryx_reader TO oryx_operator;
    END IF;
EXCEPTION WHEN unique_violation THEN
    NULL;  -- granted by another database's migration since the look
END
$$;

DO $$
BEGIN
    EXECUTE format('GRANT CONNECT ON DATABASE %I TO oryx_registrar, oryx_proxy, oryx_presence, oryx_provisioning',
                   current_database());
END
$$;
GRANT USAGE ON SCHEMA public TO oryx_registrar, oryx_proxy, oryx_presence, oryx_provisioning;

-- What PostgreSQL lets everybody call who can connect, and nobody here needs. Locks by number fill the lock table that
-- all sessions of the server share; large objects fill the disk, and a message to the log fills that, even from a
-- session that may only read. Only a superuser can take it from everybody; a dump keeps that.
DO $$
DECLARE
    open_to_all regprocedure;
BEGIN
    IF NOT (SELECT rolsuper FROM pg_roles WHERE rolname = current_user) THEN
        RAISE WARNING 'locks by number, large objects and messages to the log stay open to everybody who can connect'
            USING HINT = 'schema/apply --check has the statements with which a superuser closes them.';
        RETURN;
    END IF;
    FOR open_to_all IN SELECT oid FROM pg_proc
                           WHERE pronamespace = 'pg_catalog'::regnamespace
                               AND proname ~ '^(pg_(try_)?advisory_.*|lo_.*|loread|lowrite|pg_logical_emit_message)$' LOOP
        EXECUTE format('REVOKE EXECUTE ON FUNCTION %s FROM PUBLIC', open_to_all);
    END LOOP;
END
$$;

SET LOCAL ROLE oryx_owner;

-- The registrar: bindings, and the credentials of subscribers.
GRANT SELECT (sid, auth_user_id, oid, s_type, auth_type, s_password, active) ON subscriber TO oryx_registrar;
GRANT SELECT ON contact_set, public_address, host_info, proxy_configuration, system_parameters, event_notify
    TO oryx_registrar;
GRANT SELECT, INSERT, UPDATE, DELETE ON contact TO oryx_registrar;
GRANT USAGE ON SEQUENCE contact_contact_id_seq TO oryx_registrar;
GRANT EXECUTE ON FUNCTION next_contact_id(), skip_used_keys(regclass), address_csid(text, text),
    remove_contact(text, text, text),
    add_contact(text, text, text, bigint, boolean, text, text, text, text, bigint) TO oryx_registrar;
GRANT INSERT (session, number), UPDATE (number, answer, sent_at), SELECT (session, number, answer) ON sending
    TO oryx_registrar;
GRANT EXECUTE ON FUNCTION sending_has_taken_effect(text) TO oryx_registrar;

-- The proxy: where a request goes. It changes nothing, and sees no password.
GRANT SELECT (sid, active) ON subscriber TO oryx_proxy;
GRANT SELECT ON contact_set, public_address, contact, host_info, address_map, proxy_configuration, domain_access,
    system_parameters, event_notify TO oryx_proxy;

-- The event server: dialogs, watchers, sources, the states of conference extensions, and the sweep of contacts.
GRANT SELECT, INSERT, UPDATE, DELETE ON subscription_states, event_watchers, event_sources, watcherinfo,
    listsubscriptions, conf_state TO oryx_presence;
GRANT SELECT ON access_control_list, node, buddy_list, buddy_list_detail, presence_list_authorization, extension, acp,
    select_all_valid_conf_ext, select_all_obsolete_conf_ext_not_in_use, event_notify, contact_set, public_address,
    contact, address_map, system_parameters TO oryx_presence;
GRANT SELECT (sid, auth_user_id, oid, s_type, auth_type, s_password, active) ON subscriber TO oryx_presence;
GRANT DELETE ON contact TO oryx_presence;
-- The sweep locks the rows that it looks at, for which it takes a right to change some column of each table. These can
-- do no harm: one is read by nobody, one is a key that others refer to, and one is computed.
GRANT UPDATE (id) ON contact TO oryx_presence;
GRANT UPDATE (csid) ON contact_set TO oryx_presence;
GRANT UPDATE (id) ON public_address TO oryx_presence;
GRANT EXECUTE ON FUNCTION reserve_one_available_conf_ext_randomly(), sending_has_taken_effect(text) TO oryx_presence;
GRANT INSERT (session, number, answer), UPDATE (number, answer, sent_at), SELECT (session, number, answer) ON sending
    TO oryx_presence;

-- Provisioning: what the servers find. It writes passwords without reading any.
GRANT SELECT (sid, user_id, auth_user_id, oid, s_type, auth_type, active), INSERT, UPDATE, DELETE ON subscriber
    TO oryx_provisioning;
GRANT SELECT, INSERT, UPDATE, DELETE ON contact_set, public_address, contact, host_info, address_map,
    proxy_configuration, domain_access, system_parameters, access_control_list, node, buddy_list, buddy_list_detail,
    presence_list_authorization, extension, conf_state, acp, sip_event_aggregator TO oryx_provisioning;
GRANT SELECT, UPDATE, DELETE ON address_map_refused TO oryx_provisioning;
GRANT SELECT, INSERT, DELETE ON conf_state_reset TO oryx_provisioning;
GRANT USAGE ON SEQUENCE subscriber_sid_seq, contact_set_csid_seq, contact_contact_id_seq TO oryx_provisioning;
GRANT SELECT ON public_address_not_in_lower_case TO oryx_provisioning;
GRANT EXECUTE ON FUNCTION next_sid(), next_csid(), next_contact_id(), skip_used_keys(regclass), set_key_sequences(),
    address_csid(text, text), create_public_address(integer, text, text),
    create_public_address_alias(text, text, text),
    import_public_address(integer, text, text, text), remove_subscriber(integer), remove_contact(text, text, text),
    add_contact(text, text, text, bigint, boolean, text, text, text, text, bigint) TO oryx_provisioning;

-- The operator: beside what it sees, the care of what grows.
GRANT EXECUTE ON FUNCTION trim_event_notify(interval), oryx_upkeep(interval, interval, interval), oryx_alarms(),
    set_key_sequences() TO oryx_operator;
GRANT UPDATE (allowed) ON alarm_limit TO oryx_operator;
GRANT SELECT ON alarm_limit, upkeep_run TO oryx_reader;

RESET ROLE;
