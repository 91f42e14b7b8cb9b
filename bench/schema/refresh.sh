# shellcheck shell=bash
# The contact table.

readonly kLayouts=(
    "fillfactor 100|100|"
    "fillfactor 90|90|"
    "fillfactor 80|80|"
    "fillfactor 100, index on expires|100|CREATE INDEX ON contact (expires)"
    "fillfactor 80, index on expires|80|CREATE INDEX ON contact (expires)"
    "fillfactor 80, partial index|80|CREATE INDEX ON contact (expires) WHERE NOT permanent"
)

measure_refresh() {
    local layout rest round before
    make_populated_database refresh
    batch refresh.sql >"$folder/refresh.sql"
    local refreshes=$((kSize / 10))
    for layout in "${!kLayouts[@]}"; do
        rest=${kLayouts[layout]#*|}
        run_sql postgres -c "CREATE DATABASE refresh$layout TEMPLATE refresh"
        run_sql "refresh$layout" -c "ALTER TABLE contact SET (fillfactor = ${rest%%|*})" -c 'VACUUM FULL contact' \
            -c "${rest#*|}" -c 'VACUUM ANALYZE contact'
        run_sql "refresh$layout" -c "SELECT pg_total_relation_size('contact')" >"$folder/size.$layout"
    done
    for ((round = 1; round <= kRounds; round++)); do
        for layout in "${!kLayouts[@]}"; do
            run_sql "refresh$layout" -c CHECKPOINT
            before=$(run_sql "refresh$layout" -c 'SELECT pg_current_wal_insert_lsn()')
            latency "refresh$layout" "$folder/refresh.sql" "$((refreshes / kBatch))" >>"$folder/refresh.$layout"
            run_sql "refresh$layout" -c "SELECT (pg_current_wal_insert_lsn() - '$before') / $refreshes" >>"$folder/wal.$layout"
            latency "refresh$layout" "$here/sweep.sql" 10 >>"$folder/sweep.$layout"
        done
    done
    printf '\nmedian of %d rounds of %d refreshes (ratio to the first line)\n\n' "$kRounds" "$refreshes"
    printf '%-34s%20s%20s%10s%14s%20s\n' '' 'refresh, ms' 'WAL, bytes' 'in place' 'growth' 'idle sweep, ms'
    local size hot
    for layout in "${!kLayouts[@]}"; do
        # The counters arrive with a delay of up to a second after their session's end.
        sleep 1
        hot=$(run_sql "refresh$layout" \
            -c "SELECT round(100.0 * n_tup_hot_upd / n_tup_upd) FROM pg_stat_user_tables WHERE relname = 'contact'")
        size=$(run_sql "refresh$layout" -c "SELECT pg_total_relation_size('contact')")
        awk -v name="${kLayouts[layout]%%|*}" -v per="$kBatch" -v hot="$hot" -v growth="$((size * 100 / $(<"$folder/size.$layout")))" \
            -v refresh="$(median "$folder/refresh.$layout")" -v refresh0="$(median "$folder/refresh.0")" \
            -v wal="$(median "$folder/wal.$layout")" -v wal0="$(median "$folder/wal.0")" \
            -v sweep="$(median "$folder/sweep.$layout")" -v sweep0="$(median "$folder/sweep.0")" \
            'BEGIN { printf "%-34s%13.3f (%.2f)%13.0f (%.2f)%9d%%%13d%%%13.3f (%.2f)\n", name, refresh / per, refresh / refresh0,
                     wal, wal / wal0, hot, growth, sweep, sweep / sweep0 }'
    done
}
