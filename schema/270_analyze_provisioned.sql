-- Statistics after a bulk load, for whom the load is for: ANALYZE of another's table does nothing but warn.

SET LOCAL ROLE oryx_owner;

-- All that provisioning loads, with the owner's rights. Each table is kept from vacuum and from migrations until the
-- transaction ends, so it stands in one of its own; calls go on.
CREATE FUNCTION analyze_provisioned() RETURNS void LANGUAGE plpgsql
SECURITY DEFINER SET search_path = pg_catalog, pg_temp AS $$
BEGIN
    ANALYZE public.subscriber, public.contact_set, public.public_address, public.contact, public.host_info,
        public.address_map, public.proxy_configuration, public.domain_access, public.system_parameters,
        public.access_control_list, public.node, public.buddy_list, public.buddy_list_detail,
        public.presence_list_authorization, public.extension, public.conf_state, public.acp, public.sip_event_aggregator;
END
$$;
GRANT EXECUTE ON FUNCTION analyze_provisioned() TO oryx_provisioning;

RESET ROLE;
