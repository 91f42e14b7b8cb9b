-- Rows that say the same twice, and names that the event server does not find. Readers go on meanwhile; who changes
-- rules or properties waits.

SET LOCAL ROLE oryx_owner;

-- Addresses of record ----------------------------------------------------------------------------------------------

-- Where each address is in lower case already, the rule holds from here on for certain. Else it holds for new ones and
-- changed ones alone, and those of old are left to whoever knows them.
DO $$
DECLARE
    found bigint;
    capital record;
BEGIN
    SELECT count(*) INTO found FROM public_address_not_in_lower_case;
    IF found = 0 THEN
        ALTER TABLE public_address VALIDATE CONSTRAINT public_address_in_lower_case;
        RETURN;
    END IF;
    FOR capital IN SELECT * FROM public_address_not_in_lower_case ORDER BY public_address_id LIMIT 20 LOOP
        RAISE WARNING 'address of record % (% at %) is not in lower case, and the event server does not find it%',
            capital.public_address_id, quote_literal(capital.handle), quote_literal(capital.sip_domain),
            coalesce('; address ' || capital.namesake || ' has its name', '');
    END LOOP;
    RAISE WARNING 'public_address_not_in_lower_case shows all % of them', found;
END
$$;

-- Rules and properties ---------------------------------------------------------------------------------------------

-- An addition that is sent again after a lost connection stood there twice. What differs in anything at all is no
-- repetition: a property may have several values, and a watcher several rules. Of those that are there the first of
-- each stays, so nothing that was said is lost.
LOCK TABLE access_control_list, proxy_configuration IN SHARE ROW EXCLUSIVE MODE;
DO $$
DECLARE
    removed record;
BEGIN
    FOR removed IN
        DELETE FROM access_control_list USING
            (SELECT acl_id AS id, first_value(acl_id) OVER same AS first, row_number() OVER same AS occurrence
                 FROM access_control_list
                 WINDOW same AS (PARTITION BY object, application, requester, access_action, state ORDER BY acl_id)) AS each
            WHERE acl_id = each.id AND occurrence > 1 RETURNING access_control_list.*, first
    LOOP
        RAISE WARNING 'access rule % (object %, requester %, application %, action %, state %) repeats % and is removed',
            removed.acl_id, quote_nullable(removed.object), quote_nullable(removed.requester),
            quote_nullable(removed.application), quote_nullable(removed.access_action), quote_nullable(removed.state),
            removed.first;
    END LOOP;
    FOR removed IN
        DELETE FROM proxy_configuration USING
            (SELECT property_id AS id, first_value(property_id) OVER same AS first, row_number() OVER same AS occurrence
                 FROM proxy_configuration
                 WINDOW same AS (PARTITION BY proxy_name, scope, property_name, property_value ORDER BY property_id)) AS each
            WHERE property_id = each.id AND occurrence > 1 RETURNING proxy_configuration.*, first
    LOOP
        RAISE WARNING 'proxy property % (proxy %, scope %, name %) repeats % and is removed',
            removed.property_id, quote_nullable(removed.proxy_name), quote_nullable(removed.scope),
            quote_nullable(removed.property_name), removed.first;
    END LOOP;
END
$$;
-- As hashes, because a text may be longer than a key can be; in an order in which no search takes them.
CREATE UNIQUE INDEX access_control_list_once ON access_control_list
    (md5(requester), md5(access_action), md5(state), application, object) NULLS NOT DISTINCT;
CREATE UNIQUE INDEX proxy_configuration_once ON proxy_configuration
    (md5(property_value), md5(property_name), md5(scope), proxy_name) NULLS NOT DISTINCT;

RESET ROLE;
