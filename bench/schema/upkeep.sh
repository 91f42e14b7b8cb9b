# shellcheck shell=bash
# What refreshes write and use up in a day, and what a transaction that somebody leaves open does to them, without limits
# and with them.

readonly kForgettingSeconds=${FORGETTING_SECONDS:-150}
# Database, what the reader sets for itself (none: no reader), how often the upkeep runs.
readonly kForgetting=(
    "no reader|forgetting_before||"
    "a forgotten reader, released schema|forgetting_before|application_name=reader|"
    "the same, limit of the database|forgetting_after|application_name=reader|"
    "one without that limit, upkeep|forgetting_after|idle_in_transaction_session_timeout=0|60"
)

make_forgetting_databases() {
    local database
    make_database_before 150 forgetting_before
    make_database forgetting_after
    run_sql postgres -c 'CREATE ROLE forgetful LOGIN IN ROLE oryx_reader'
    for database in forgetting_before forgetting_after; do
        # No server follows these: without the log of their changes.
        PGOPTIONS='-c session_replication_role=replica' run_sql "$database" --set=size="$kSize" -f "$here/data.sql"
    done
}

# A reader that looks once and leaves its transaction open. No superuser: nobody else can end what is one's.
forget_transaction() {
    { echo "BEGIN ISOLATION LEVEL REPEATABLE READ; SELECT FROM contact LIMIT 1;" && sleep "$kForgettingSeconds"; } |
        PGUSER=forgetful PGOPTIONS="-c $2" run_sql "$1" >/dev/null 2>&1
}

run_upkeep_every() {
    while sleep "$2"; do
        run_sql "$1" -c 'SELECT FROM oryx_upkeep()' >/dev/null
    done
}

# Updates, those in place, bytes of log, page images in it, and the size of the table with its indexes.
refresh_counters() {
    sleep 1 # the counters arrive with a delay of up to a second after their session's end
    run_sql "$1" --field-separator=' ' -c "SELECT n_tup_upd, n_tup_hot_upd, wal_bytes, wal_fpi, pg_total_relation_size('contact')
        FROM pg_stat_user_tables, pg_stat_wal WHERE relname = 'contact'"
}

# DATABASE: updates, bytes of log and page images of some refreshes, after a checkpoint with these settings of the server.
refresh_with() {
    local database=$1 before setting
    for setting in "${@:2}"; do
        run_sql postgres -c "ALTER SYSTEM SET $setting"
    done
    run_sql postgres -c 'SELECT pg_reload_conf()' >"$folder/out"
    sleep 1
    run_sql postgres -c CHECKPOINT
    before=$(refresh_counters "$database")
    latency "$database" "$here/refresh.sql" 20000 >"$folder/out"
    echo "$before $(refresh_counters "$database")" | awk '{ print $6 - $1, $8 - $3, $9 - $4 }'
}

# Refreshes of all contacts alike, so many a second. A checkpoint has each page that is changed before the next one written
# whole, and autovacuum freezes the table for its transaction ids, when they are as old as that.
measure_log_of_a_day() {
    local rate=$1 database pages none whole packed
    printf '\nlog of %d refreshes a second, a checkpoint every 15 min; hours until vacuum must freeze, at ids of that age\n\n' "$rate"
    printf '%-26s%12s%12s%8s%12s%12s%14s%14s\n%-26s%12s%12s%8s%12s%12s%14s%14s\n' '' 'a refresh,' 'an image,' 'pages' 'a day, GB' 'with lz4' \
        '200,000,000' '1,000,000,000' '' 'bytes' 'with lz4' '' '' '' '(stock)' '(server.conf)'
    for database in forgetting_before forgetting_after; do
        run_sql "$database" -c 'VACUUM FULL contact' -c 'VACUUM ANALYZE contact'
        pages=$(run_sql "$database" -c "SELECT relpages FROM pg_class WHERE oid = 'contact'::regclass")
        none=$(refresh_with "$database" 'full_page_writes = off')
        whole=$(refresh_with "$database" 'full_page_writes = on' 'wal_compression = off')
        packed=$(refresh_with "$database" 'wal_compression = lz4')
        awk -v name="$([[ $database == *before ]] && echo 'as released' || echo "the schema's")" -v rate="$rate" -v pages="$pages" \
            -v none="$none" -v whole="$whole" -v packed="$packed" '
            function image(measured, m) { split(measured, m, " "); return (m[2] - m[1] * refresh) / m[3] }
            function day(size) { return (refresh * rate * 86400 + size * pages * (1 - exp(-rate * 900 / pages)) * 96) / 1e9 }
            BEGIN {
                split(none, n, " ")
                refresh = n[2] / n[1]
                printf "%-26s%12.0f%6.0f%6.0f%8d%12.1f%12.1f%14.1f%14.1f\n", name, refresh, image(whole), image(packed), pages,
                    day(image(whole)), day(image(packed)), 2e8 / rate / 3600, 1e9 / rate / 3600
            }'
    done
    run_sql postgres -c 'ALTER SYSTEM RESET full_page_writes' -c 'ALTER SYSTEM RESET wal_compression' -c 'SELECT pg_reload_conf()' >"$folder/out"
}

measure_upkeep() {
    local variant name database reader every before after helpers rate=$((kSize * 3 / 1000))
    make_forgetting_databases
    measure_log_of_a_day "$rate"
    printf '\n%d refreshes a second for %d s, %d addresses of record\n\n' "$rate" "$kForgettingSeconds" "$kSize"
    printf '%-38s%10s%10s%20s%14s%12s\n' '' 'refreshes' 'in place' 'WAL, bytes each' 'page images' 'table'
    for variant in "${kForgetting[@]}"; do
        IFS='|' read -r name database reader every <<<"$variant"
        run_sql "$database" -c 'VACUUM FULL contact' -c 'VACUUM ANALYZE contact' -c CHECKPOINT
        before=$(refresh_counters "$database")
        helpers=()
        [[ -z $reader ]] || { forget_transaction "$database" "$reader" & helpers+=($!); }
        [[ -z $every ]] || { run_upkeep_every "$database" "$every" & helpers+=($!); }
        pgbench --no-vacuum --client=4 --rate="$rate" --time="$kForgettingSeconds" --define=size="$kSize" \
            --file="$here/refresh.sql" "$database" >"$folder/out" 2>&1 || { cat "$folder/out" >&2; return 1; }
        [[ ${#helpers[@]} -eq 0 ]] || kill "${helpers[@]}" 2>/dev/null || true
        wait
        after=$(refresh_counters "$database")
        awk -v name="$name" -v before="$before" -v after="$after" 'BEGIN {
            split(before, b, " "); split(after, a, " ")
            updates = a[1] - b[1]
            printf "%-38s%10d%9.0f%%%20.0f%14d%11.2fx\n", name, updates, 100 * (a[2] - b[2]) / updates,
                (a[3] - b[3]) / updates, a[4] - b[4], a[5] / b[5]
        }'
    done
}
