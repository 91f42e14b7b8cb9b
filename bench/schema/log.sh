# shellcheck shell=bash
# The change log: what it costs those who commit, those who wait for them, and those who read it.

# A disk that answers from a cache hides what waits for it: a second table is of one whose flush takes 2 ms more.
readonly kFlushDelays='0 2000'
readonly kClients=8 kSeconds=${SECONDS_PER_ROUND:-5} kLoaded=${LOADED:-200000}
readonly kLogged="SELECT tgrelid::regclass AS name, tgname FROM pg_trigger WHERE tgname"
# Without a log, or with stamps under a lock that is not held through the commit's flush. Those keep no promise yet: what
# readers would have to do for it is left out.
readonly kNoLog="DO \$\$ DECLARE t record; BEGIN FOR t IN $kLogged LIKE 'log\\_%' LOOP
        EXECUTE format('DROP TRIGGER %I ON %s', t.tgname, t.name); END LOOP; END \$\$"
readonly kNoAnnouncements="DO \$\$ DECLARE t record; BEGIN FOR t IN $kLogged = 'announce_change' LOOP
        EXECUTE format('DROP TRIGGER %I ON %s', t.tgname, t.name); END LOOP; END \$\$"
stamping() {
    echo "CREATE OR REPLACE FUNCTION stamp_change() RETURNS trigger LANGUAGE plpgsql SECURITY DEFINER AS \$\$
        DECLARE given bigint;
        BEGIN
            $1
            INSERT INTO event_stamp VALUES (NEW.table_name, given, NEW.xid, NEW.begun);
            RETURN NULL;
        END \$\$"
}
readonly kGive="given := setval('event_notify_stamp', greatest(nextval('event_notify_stamp'),
        (extract(epoch FROM clock_timestamp()) * 1000000)::bigint));"
kLogs=(
    "no log|new|$kNoLog"
    "the schema before|old|"
    "the schema's: lock until it shows|new|"
    "lock until the flush|new|$(stamping "BEGIN LOCK TABLE event_turn IN EXCLUSIVE MODE; $kGive
        RAISE SQLSTATE 'OX000'; EXCEPTION WHEN SQLSTATE 'OX000' THEN NULL; END;")"
    "no lock, a horizon for readers|new|$(stamping "given := nextval('event_notify_stamp');")"
    "the schema's, commits not flushed|new|DO \$\$ BEGIN
        EXECUTE format('ALTER DATABASE %I SET synchronous_commit = off', current_database()); END \$\$"
)
readonly kLogs

log_databases() {
    local age
    make_database_before 150 log_old
    make_database log_new
    for age in old new; do
        run_sql "log_$age" -c "INSERT INTO conf_state SELECT n, 'IDLE', 0 FROM generate_series(1, 1000 * $kClients) n" \
            -c 'VACUUM ANALYZE'
    done
}

# What a flush of the server's log takes, in microseconds, beside the delay that is set.
flush_time() {
    local file
    file=$(run_sql postgres -c 'SHOW data_directory')/flushed
    pg_test_fsync --secs-per-test=1 --filename="$file" | awk '$1 == "fdatasync" { print $4; exit }'
}

# Changes of a logged table, each committed, by several clients at once, each with rows of its own; each flush takes so
# many microseconds more than the disk's.
measure_log_rates() {
    local delay=$1 log rest announced round
    run_sql postgres -c "ALTER SYSTEM SET commit_delay = $delay" -c 'ALTER SYSTEM SET commit_siblings = 0' \
        -c 'SELECT pg_reload_conf()' >"$folder/out"
    rm -f "$folder"/log.*.*
    # shellcheck disable=SC2016 # pgbench's variables
    printf '%s\n' '\set n random(1, 1000)' \
        'UPDATE conf_state SET start_time = start_time + 1 WHERE extension = (:client_id * 1000 + :n)::text;' >"$folder/log.sql"
    for log in "${!kLogs[@]}"; do
        rest=${kLogs[log]#*|}
        for announced in yes no; do
            run_sql postgres -c "CREATE DATABASE log$log$announced TEMPLATE log_${rest%%|*}"
            run_sql "log$log$announced" -c "${rest#*|}"
        done
        run_sql "log${log}no" -c "$kNoAnnouncements"
    done
    for ((round = 1; round <= kRounds; round++)); do
        for log in "${!kLogs[@]}"; do
            for announced in yes no; do
                pgbench --no-vacuum --client="$kClients" --time="$kSeconds" --file="$folder/log.sql" "log$log$announced" \
                    2>"$folder/pgbench" | awk '/^tps/ { print $3 }' >>"$folder/log.$log.$announced"
            done
        done
    done
    printf '\nchanges a second of %d clients, median of %d rounds of %d s (ratio to the first line)\n' \
        "$kClients" "$kRounds" "$kSeconds"
    printf 'where a flush takes %.0f and %d us\n\n' "$(flush_time)" "$delay"
    printf '%-36s%20s%20s\n' '' 'announced' 'not announced'
    for log in "${!kLogs[@]}"; do
        printf '%-36s' "${kLogs[log]%%|*}"
        for announced in yes no; do
            awk -v value="$(median "$folder/log.$log.$announced")" -v base="$(median "$folder/log.0.$announced")" \
                'BEGIN { printf "%13.0f (%.2f)", value, value / base }'
            run_sql postgres -c "DROP DATABASE log$log$announced"
        done
        printf '\n'
    done
}

# The longest that a server's reservation and release take, 20 times a second, while a load is under way: in milliseconds.
# What they wait without a log is the processors'.
longest_wait() {
    local database=$1 load=$2 loading
    # shellcheck disable=SC2016 # pgbench's variables
    printf '%s\n' 'SELECT reserve_one_available_conf_ext_randomly() AS extension \gset' \
        "UPDATE conf_state SET conf_status = 'IDLE', start_time = 2000000000 WHERE extension = ':extension';" >"$folder/reserve.sql"
    case $load in
        none) sleep 10 & ;;
        one)
            run_sql "$database" \
                -c "INSERT INTO subscriber (sid, user_id) SELECT n, 'user' || n FROM generate_series(1, $kLoaded) n" &
            ;;
        many)
            echo "INSERT INTO subscriber (user_id) SELECT 'user' || n FROM generate_series(1, 100) n;" >"$folder/load.sql"
            pgbench --no-vacuum --client=4 --transactions="$((kLoaded / 400))" --file="$folder/load.sql" "$database" \
                >"$folder/loaded" 2>&1 &
            ;;
    esac
    loading=$!
    rm -f "$folder"/waits.*
    # In pieces, as it is not known beforehand how long the load takes; each ends with its last reservation.
    while kill -0 "$loading" 2>/dev/null; do
        pgbench --no-vacuum --rate=20 --time=2 --log --log-prefix="$folder/waits" --file="$folder/reserve.sql" "$database" \
            >"$folder/out" 2>&1
    done
    wait "$loading"
    run_sql "$database" -c 'SET client_min_messages = error' -c 'TRUNCATE subscriber CASCADE' \
        -c "SELECT trim_event_notify('0')" -c 'VACUUM' >"$folder/out"
    # A line's third column counts from the moment at which it should have begun.
    cat "$folder"/waits.* | awk '$3 > longest { longest = $3 } END { print longest / 1000 }'
}

measure_log_waits() {
    local waiting load
    run_sql postgres -c 'CREATE DATABASE log_none TEMPLATE log_new'
    run_sql log_none -c "$kNoLog"
    printf '\nlongest wait of a reservation while %d subscribers are loaded, ms\n\n' "$kLoaded"
    printf '%-36s%20s%20s%20s\n' '' 'nothing loaded' 'one transaction' '100 each'
    for waiting in 'log_none|no log' 'log_old|the schema before' "log_new|the schema's"; do
        printf '%-36s' "${waiting#*|}"
        for load in none one many; do
            printf '%20.0f' "$(longest_wait "${waiting%|*}" "$load")"
        done
        printf '\n'
    done
}

# Changes of single rows, by two tables in turn, of which a server of the one asks for the latest, or for all.
measure_log_reads() {
    local age
    run_sql log_old -c "SET session_replication_role = replica" -c "INSERT INTO event_notify (table_name, pk_char, evt_timestamp)
        SELECT CASE n % 2 WHEN 0 THEN 'acp' ELSE 'extension' END, n, n FROM generate_series(1, $kSize) n" -c 'VACUUM ANALYZE'
    run_sql log_new -c "INSERT INTO event_stamp SELECT CASE n % 2 WHEN 0 THEN 'acp' ELSE 'extension' END, n, n::text::xid8,
            to_timestamp(n) FROM generate_series(1, $kSize) n" \
        -c "INSERT INTO event_change SELECT CASE n % 2 WHEN 0 THEN 'acp' ELSE 'extension' END, NULL, n, n::text::xid8,
            to_timestamp(n), true FROM generate_series(1, $kSize) n" -c 'VACUUM ANALYZE'
    local query="SELECT pk_int, pk_char, evt_timestamp FROM event_notify WHERE table_name = 'acp' AND evt_timestamp >"
    echo "$query '$((kSize - 20))';" >"$folder/latest.sql"
    echo "$query 0;" >"$folder/all.sql"
    printf '\na log of %d rows read, ms (plain, prepared)\n\n' "$kSize"
    printf '%-36s%20s%20s\n' '' 'latest 10' 'all of a table'
    for age in old new; do
        printf '%-36s' "$([[ $age == old ]] && echo 'the schema before' || echo "the schema's")"
        printf '%12.3f%8.3f' "$(latency "log_$age" "$folder/latest.sql" 1000)" "$(latency "log_$age" "$folder/latest.sql" 1000 '' prepared)"
        printf '%12.0f%8.0f\n' "$(latency "log_$age" "$folder/all.sql" 5)" "$(latency "log_$age" "$folder/all.sql" 5 '' prepared)"
    done
}

# The tests' servers do not flush; commits that wait for each other's flush are the point here.
measure_log() {
    local delay
    run_sql postgres -c 'ALTER SYSTEM SET fsync = on' -c 'SELECT pg_reload_conf()' >"$folder/out"
    sleep 1
    log_databases
    for delay in $kFlushDelays; do
        measure_log_rates "$delay"
    done
    run_sql postgres -c 'ALTER SYSTEM RESET commit_delay' -c 'ALTER SYSTEM RESET commit_siblings' \
        -c 'SELECT pg_reload_conf()' >"$folder/out"
    measure_log_waits
    measure_log_reads
    run_sql postgres -c 'ALTER SYSTEM RESET fsync' -c 'SELECT pg_reload_conf()' >"$folder/out"
}
