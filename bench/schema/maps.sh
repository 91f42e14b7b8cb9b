# shellcheck shell=bash
# Address maps among many contact sets.

readonly kMapVariants=(
    "stock costs|-c random_page_cost=4 -c cpu_tuple_cost=0.01|simple"
    "the schema's||simple"
    "the schema's, prepared||prepared"
)

measure_maps() {
    local sets=$((kSize * 10)) maps round variant rest
    make_database maps
    # No server follows these: without the log of their changes.
    run_sql maps -c 'SET session_replication_role = replica' \
        -c "INSERT INTO contact_set (csid, ordering) SELECT n, 'parallel' FROM generate_series(1, $sets) n" \
        -c 'VACUUM ANALYZE contact_set'
    printf '\nmedian of %d rounds, ms (ratio to the first); %d contact sets\n\n' "$kRounds" "$sets"
    printf '%-12s' 'maps'
    for variant in "${kMapVariants[@]}"; do
        printf '%24s' "${variant%%|*}"
    done
    printf '\n'
    for maps in 10 1000 10000; do
        rm -f "$folder"/maps.*
        run_sql maps -c 'TRUNCATE address_map' -c "INSERT INTO address_map (handle, csid, pattern, priority)
            SELECT 'map' || n, n * 97 % $sets + 1, '^sip:' || 1000000 + n || '@', n FROM generate_series(1, $maps) n" \
            -c 'VACUUM ANALYZE address_map'
        for ((round = 1; round <= kRounds; round++)); do
            for variant in "${!kMapVariants[@]}"; do
                rest=${kMapVariants[variant]#*|}
                latency maps "$here/address_maps.sql" 10 "${rest%%|*}" "${rest#*|}" >>"$folder/maps.$variant"
            done
        done
        printf '%-12d' "$maps"
        for variant in "${!kMapVariants[@]}"; do
            awk -v value="$(median "$folder/maps.$variant")" -v base="$(median "$folder/maps.0")" \
                'BEGIN { printf "%17.3f (%.2f)", value, value / base }'
        done
        printf '\n'
    done
}
