# shellcheck shell=bash
# What a transaction that somebody leaves open does to refreshes, without limits and with them.

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

measure_upkeep() {
    local variant name database reader every before after helpers rate=$((kSize * 3 / 1000))
    make_forgetting_databases
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
