# shellcheck shell=bash
# A REGISTER request as one statement.

# What a registrar sends without it: the key, the bindings to judge by, and the change in its transaction.
readonly kKeyLookup="SELECT handle, sip_domain, csid, scope, public_address_id FROM public_address WHERE  handle='user#' AND sip_domain='oryx.example'"
readonly kBindingLookup="SELECT contact_set.ordering, contact_set.replace_uri,subscriber.active, contact.address, contact.qvalue,  contact.expires, contact.capabilities, contact.contact_header,contact.call_id,contact.cseq,contact.c_type  FROM public_address, contact_set, contact, subscriber WHERE (public_address.id = # AND contact_set.csid = public_address.csid AND  contact.csid = contact_set.csid AND contact_set.sid = subscriber.sid)"
readonly kRefreshOfRound="UPDATE contact SET contact_header = '<ADDRESS>;q=0.5;expires=3600', expires = 2000000000, call_id = 'call#', cseq = 'ROUND', qvalue = '0.5', capabilities = 'INVITE, ACK, BYE, CANCEL, OPTIONS' WHERE csid = (SELECT csid FROM public_address where id = #) AND address = 'ADDRESS'"
readonly kAddition="INSERT INTO contact(address,csid,qvalue,expires,permanent,capabilities,contact_header,call_id,cseq,id)  VALUES('ADDRESS',(SELECT csid FROM public_address where public_address_id = #), '0.5',2000000000,'f','INVITE, ACK, BYE, CANCEL, OPTIONS','<ADDRESS>;q=0.5;expires=3600','call#','ROUND', 1)"
readonly kRegistration="SELECT * FROM register_bindings(NULL, 'user#', 'oryx.example', 'call#', ROUND, '<sip:edge.oryx.example;lr>', 10, 'f', '{{\"ADDRESS\",\"3600\",\"0.5\",\"<ADDRESS>;q=0.5;expires=3600\",\"INVITE, ACK, BYE, CANCEL, OPTIONS\",\"\"}}')"
# The same prepared.
readonly kPrepareRegistrations="
    PREPARE key(text, text) AS SELECT handle, sip_domain, csid, scope, public_address_id FROM public_address WHERE  handle=\$1 AND sip_domain=\$2;
    PREPARE bindings(int) AS ${kBindingLookup/\#/\$1};
    PREPARE refresh(text, text, bigint, int, text) AS UPDATE contact SET contact_header = \$1, expires = 2000000000, call_id = \$2, cseq = \$3, qvalue = '0.5', capabilities = 'INVITE, ACK, BYE, CANCEL, OPTIONS' WHERE csid = (SELECT csid FROM public_address where id = \$4) AND address = \$5;
    PREPARE addition(text, int, text, text, bigint) AS INSERT INTO contact(address,csid,qvalue,expires,permanent,capabilities,contact_header,call_id,cseq,id)  VALUES(\$1,(SELECT csid FROM public_address where public_address_id = \$2), '0.5',2000000000,'f','INVITE, ACK, BYE, CANCEL, OPTIONS',\$3,\$4,\$5, 1);
    PREPARE saying(uuid, bigint) AS $kSaying;
    PREPARE registration(text, text, text, bigint, text, bigint, boolean, text[]) AS SELECT * FROM register_bindings(NULL, \$1, \$2, \$3, \$4, \$5, \$6, \$7, \$8);"
readonly kSession="'00000000-0000-0000-0000-000000000001'"

# registrations REFRESH-OR-NEW WAY ROUND: the statements of a round's requests.
registrations() {
    local kind=$1 way=$2 round=$3 address change text
    address='sip:user#@192.0.2.1:5060;transport=udp'
    [[ $kind == new ]] && address='sip:user#@192.0.2.77:5060;transport=udp'
    case $way in
    'three, plain')
        [[ $kind == new ]] && change=$kAddition || change=$kRefreshOfRound
        text="$kKeyLookup; $kBindingLookup; BEGIN TRANSACTION \\; $change \\; COMMIT TRANSACTION;" ;;
    'three, prepared')
        change="EXECUTE refresh('<ADDRESS>;q=0.5;expires=3600', 'call#', ROUND, #, 'ADDRESS')"
        [[ $kind == new ]] && change="BEGIN \\; EXECUTE saying($kSession, ROUND * 1000000 + #) \\; EXECUTE addition('ADDRESS', #, '<ADDRESS>;q=0.5;expires=3600', 'call#', ROUND) \\; COMMIT"
        text="EXECUTE key('user#', 'oryx.example'); EXECUTE bindings(#); $change;" ;;
    'one, plain') text="$kRegistration;" ;;
    'one, prepared')
        text=${kRegistration/SELECT \* FROM register_bindings(NULL, /EXECUTE registration(}
        text="$text;" ;;
    esac
    text=${text//ADDRESS/$address}
    times "${text//ROUND/$round}"
}

readonly kWays=('three, plain' 'three, prepared' 'one, plain' 'one, prepared')

measure_registrations() {
    local kind way round number=1 hot
    make_database registrations
    run_sql registrations --set=size="$kChangesPerRound" -f "$here/data.sql"
    run_sql registrations -c 'SELECT pg_stat_reset()' >"$folder/out"
    for ((round = 1; round <= kRounds; round++)); do
        for kind in refresh new; do
            for way in "${kWays[@]}"; do
                number=$((number + 1))
                registrations "$kind" "$way" "$number" >"$folder/requests.sql"
                work registrations "$folder/requests.sql" "$kChangesPerRound" "$kPrepareRegistrations" \
                    >>"$folder/registrations.$kind.$way"
                run_sql registrations -c "DELETE FROM contact WHERE address LIKE '%@192.0.2.77:%'"
            done
            run_sql registrations -c 'VACUUM contact' -c 'VACUUM sending'
        done
    done
    printf '\nmedian of %d rounds of %d requests (ratio to three); us of the server process\n\n' "$kRounds" "$kChangesPerRound"
    printf '%-34s%18s%18s%18s%18s\n' '' "${kWays[@]}"
    for kind in refresh new; do
        printf '%-34s' "$kind"
        for way in "${kWays[@]}"; do
            awk -v value="$(median "$folder/registrations.$kind.$way")" \
                -v base="$(median "$folder/registrations.$kind.three, ${way#*, }")" \
                'BEGIN { printf "%11.1f (%.2f)", value, value / base }'
        done
        echo
    done
    sleep 1
    hot=$(run_sql registrations -c "SELECT round(100.0 * n_tup_hot_upd / n_tup_upd) FROM pg_stat_user_tables WHERE relname = 'contact'")
    printf '%-34s%17s%%\n' 'in place' "$hot"
}
