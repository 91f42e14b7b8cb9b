# shellcheck shell=bash
# Searches for a part of a text among dialogs, watchers and sources, and what storing these costs.

# As the event server sends them, and what they look for; @this@ and @next@ are handles.
readonly kSearches=(
    "getWatchers|SELECT watcheropaque,doctype,watchertype,watcherstate,expirytime,watcheridentity,presentity,docversion  FROM event_watchers WHERE presentitykey like \$1|'%%@next@@oryx.example#presence%%'"
    "getSources|SELECT sourceopaque, contact, expirytime,presentitykey,event FROM event_sources  WHERE presentity like \$1 and  event like \$2|'%%@this@@oryx.example%%','%%presence%%'"
    "getIncomingSubscriptions|SELECT subscriptionid, fromhdr, tohdr, callid, subcseq, eventhdr, remotecontacthdr, routeset, notcseq, requesturi,packageid  FROM subscription_states  WHERE subscriptionid like '%%incoming#%%' and fromhdr like \$1 AND requesturi like \$2 AND packageid like \$3|'%%@this@@oryx.example%%','%%@next@@oryx.example%%','%%presence#%%'"
    "getOutgoingSubscribes|SELECT subscriptionid, fromhdr, tohdr, callid, subcseq, eventhdr, remotecontacthdr, routeset, notcseq, requesturi,packageid  FROM subscription_states  WHERE subscriptionid like '%%outgoing#%%' and tohdr like \$1 AND packageid like \$2|'%%@next@@oryx.example%%','%%presence#%%'"
)
readonly kStored=(
    "dialog|INSERT INTO subscription_states (subscriptionid,fromhdr,tohdr,callid,subcseq,eventhdr,remotecontacthdr,routeset,notcseq,requesturi,packageid) VALUES(\$1,\$2,\$3,\$4,1,'presence',\$5,'',1,\$6,\$7)|'@way@#new@n@','<sip:@this@@oryx.example>;tag=@n@','<sip:@next@@oryx.example>;tag=@n@','@n@','<sip:@this@@192.0.2.1>','sip:@next@@oryx.example','presence#@n@'"
    "dialog refreshed|UPDATE subscription_states SET subcseq=2,remotecontacthdr = \$1 WHERE subscriptionid=\$2|'<sip:@this@@192.0.2.9>','@way@#new@n@'"
    "watcher|INSERT INTO event_watchers (presentitykey,watcheropaque,doctype,docversion,watchertype,watcherstate,expirytime,watcheridentity,event,presentity) VALUES(\$1,\$2,1,1,1,1,2000000000,\$3,'presence',\$4)|'@next@@oryx.example#presence','incoming#new@n@','sip:@this@@oryx.example','sip:@next@@oryx.example'"
    "source|INSERT INTO event_sources (presentitykey,sourceopaque,contact,expirytime,event,presentity) VALUES(\$1,\$2,\$3,2000000000,'presence',\$4)|'@this@@oryx.example#presence','source#new@n@','<sip:@this@@192.0.2.1>','sip:@this@@oryx.example'"
)
readonly kSearchIndexes=(
    "CREATE INDEX subscription_states_incoming ON subscription_states USING gin (packageid gin_trgm_ops, fromhdr gin_trgm_ops, requesturi gin_trgm_ops) WHERE subscriptionid LIKE '%%incoming#%%'"
    "CREATE INDEX subscription_states_outgoing ON subscription_states USING gin (packageid gin_trgm_ops, tohdr gin_trgm_ops) WHERE subscriptionid LIKE '%%outgoing#%%'"
    "CREATE INDEX event_watchers_presentitykey ON event_watchers USING gin (presentitykey gin_trgm_ops)"
    "CREATE INDEX event_sources_presentity ON event_sources USING gin (presentity gin_trgm_ops, event gin_trgm_ops)"
)
# Of the index that getWatchers uses.
readonly kWatcherIndexes=(
    "GIN, fastupdate off|gin (presentitykey gin_trgm_ops) WITH (fastupdate = off)"
    "GiST, 64 bytes|gist (presentitykey gist_trgm_ops (siglen = 64))"
    "GiST, 128 bytes|gist (presentitykey gist_trgm_ops (siglen = 128))"
    "GiST, 256 bytes|gist (presentitykey gist_trgm_ops (siglen = 256))"
)
readonly kSearchesPerRun=20 kStoredPerRun=2000

# named TEXT FIRST STEP COUNT: the text that often, of every STEPth number from FIRST on, with their handles.
named() {
    run_sql searches --set=text="$1" --set=first="$2" --set=step="$3" --set=count="$4" <<'SQL'
SELECT replace(replace(replace(replace(:'text', '@this@', handle(n)), '@next@', handle(n + 1)), '@n@', n::text), '@way@',
               (ARRAY['incoming', 'outgoing'])[1 + n % 2]) || ';'
    FROM generate_series(:first::bigint, :first + :step * (:count - 1::bigint), :step) AS n
SQL
}

# Runs a script of statements, a line each; the processor time of the server process for one of them, at the median, at
# 99 of 100 and at worst, and how long one takes at the median and at 99 of 100, in ms, are added to figures. Processor
# time, because on a machine with other work a statement of a tenth of a millisecond now and then waits twenty for its
# turn.
# shellcheck disable=SC2154 # folder is measure's
timed() {
    local script=$1 prepare=${2:-} column figure=
    {
        echo "$prepare"
        awk '{ print "\\o /dev/null\n\\timing on\n" $0 "\n\\timing off\n\\o"
               print "SELECT \047Work: \047 || split_part(pg_read_file(\047/proc/self/schedstat\047), \047 \047, 1);" }' "$script"
    } | run_sql searches | awk '/^Time: / { time = $2 } /^Work: / { if (before) print ($2 - before) / 1000000, time; before = $2 }' \
        >"$folder/timed"
    for column in "1 0.5" "1 0.99" "1 1" "2 0.5" "2 0.99"; do
        figure+=$(sort -g -k "${column% *},${column% *}" "$folder/timed" |
            awk -v column="${column% *}" -v part="${column#* }" \
                '{ value[NR] = $column } END { printf "%8.2f", value[int(NR * part + 0.5)] }')
    done
    figures+=("$figure")
}

# NAME|STATEMENT|VALUES: a statement with $1, $2, ... and what it is sent with, in plain text and by a prepared one, into
# scripts with so many of every STEPth number from FIRST on.
both_ways() {
    local text values value plain k=0
    IFS='|' read -r _ text values <<<"$1"
    plain=$text
    for value in ${values//,/ }; do
        k=$((k + 1))
        plain=${plain//"\$$k"/"$value"}
    done
    prepared="PREPARE sent AS $text;"
    named "$plain" "$2" "$3" "$4" >"$folder/plain.sql"
    named "EXECUTE sent($values)" "$2" "$3" "$4" >"$folder/bound.sql"
}

# A bound one after six times, when it has a plan for any pattern.
measure_search() {
    local name=${1%%|*} prepared step first=12 figures=()
    # Of those sent every odd number is one.
    [[ $name != getOutgoing* ]] || first=11
    step=$(((kSize - first) / kSearchesPerRun / 2 * 2))
    both_ways "$1" "$first" "$step" "$kSearchesPerRun"
    timed "$folder/plain.sql"
    timed "$folder/bound.sql" "$prepared
\\o /dev/null
$(head -6 "$folder/bound.sql")
\\o"
    printf '  %-32s%s   %s\n' "$name" "${figures[@]}"
}

measure_stored() {
    local prepared figures=()
    both_ways "$1" "$next" 1 "$kStoredPerRun"
    timed "$folder/plain.sql"
    both_ways "$1" "$((next + kStoredPerRun))" 1 "$kStoredPerRun"
    timed "$folder/bound.sql" "$prepared"
    printf '  %-32s%s   %s\n' "${1%%|*} stored" "${figures[@]}"
}

# Everything about the schema as it stands.
measure_searching() {
    local each
    printf '%s\n' "$1"
    for each in "${kSearches[@]}"; do
        measure_search "$each"
    done
    for each in "${kStored[@]}"; do
        measure_stored "$each"
    done
    next=$((next + 2 * kStoredPerRun))
    run_sql searches -c "SELECT format('  %-38s%s', relname, pg_size_pretty(pg_relation_size(oid))) FROM pg_class
                         WHERE relkind = 'i' AND relam <> (SELECT oid FROM pg_am WHERE amname = 'btree')
                            AND relnamespace = 'public'::regnamespace AND pg_relation_size(oid) > 1000000 ORDER BY 1"
}

measure_searches() {
    local next=$((kSize + 1)) each began
    make_database_before 150 searches
    run_sql searches -c 'DROP INDEX subscription_states_incoming, subscription_states_outgoing, event_watchers_presentitykey, event_sources_presentity'
    run_sql searches --set=size="$kSize" -f "$here/presence.sql"
    for each in "${kSearchIndexes[@]}"; do
        began=$SECONDS
        run_sql searches -c "$each"
        echo "$((SECONDS - began)) s: ${each%% ON *}"
    done
    run_sql searches -c 'VACUUM ANALYZE'
    printf '\n%d dialogs, watchers and sources each; ms of the server process at the median, at 99 %% and at worst, and what passes at the median and at 99 %%\n' "$kSize"
    printf '%-34s%40s   %40s\n' '' 'plain' 'bound'
    measure_searching 'as released'

    began=$SECONDS
    "$root/schema/apply" searches
    printf 'migrated in %d s\n' "$((SECONDS - began))"
    run_sql searches -c 'VACUUM'
    measure_searching "the schema's"
    # What else was tried, of one search and with its whole pattern.
    run_sql searches -c 'ALTER TABLE event_watchers ALTER presentitykey TYPE text'
    for each in "${kWatcherIndexes[@]}"; do
        began=$SECONDS
        run_sql searches -c 'DROP INDEX event_watchers_presentitykey' \
            -c "CREATE INDEX event_watchers_presentitykey ON event_watchers USING ${each#*|}" -c 'VACUUM ANALYZE event_watchers'
        printf 'watchers: %s (built in %d s)\n' "${each%%|*}" "$((SECONDS - began))"
        measure_search "${kSearches[0]}"
        measure_stored "${kStored[2]}"
        next=$((next + 2 * kStoredPerRun))
        run_sql searches -c "SELECT '  ' || pg_size_pretty(pg_relation_size('event_watchers_presentitykey'))"
    done
}
