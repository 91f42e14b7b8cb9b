# shellcheck shell=bash
# Planner settings.

readonly kScripts=(by_address by_key by_contact_set listing sorted_listing)
# Each variant has the ones before it as well.
# shellcheck disable=SC2034 # lists are used by their names
readonly kVariants=(
    "stock|"
    "merge joins off|-c enable_mergejoin=off"
    "memoize off|-c enable_memoize=off"
    "materialise off|-c enable_material=off"
    "parallel plans off|-c max_parallel_workers_per_gather=0"
    "compilation off|-c jit=off"
)

# shellcheck disable=SC2034
readonly kCostScripts=("${kScripts[@]}" address_maps)
# shellcheck disable=SC2034
readonly kCostVariants=(
    "stock costs|-c enable_mergejoin=off -c enable_memoize=off"
    "random pages 1.1|-c random_page_cost=1.1"
    "rows 0.03|-c cpu_tuple_cost=0.03"
)

# measure_statements DATABASE VARIANTS SCRIPTS, the latter two the names of lists.
measure_statements() {
    local database=$1
    local -n variants=$2 scripts=$3
    local round variant script transactions options base value per
    make_populated_database "$database"
    for script in by_address by_key by_contact_set; do
        batch "$script.sql" >"$folder/$script.sql"
    done
    cp "$here"/{address_maps,listing,sorted_listing}.sql "$folder"
    # What the migrations set on the database would hide the stock values.
    run_sql "$database" -c "ALTER DATABASE $database RESET ALL"
    for ((round = 1; round <= kRounds; round++)); do
        options=
        for variant in "${!variants[@]}"; do
            options+=" ${variants[variant]#*|}"
            for script in "${scripts[@]}"; do
                transactions=$kTransactions
                case $script in
                    address_maps) transactions=10 ;;
                    *listing) transactions=2 ;;
                esac
                latency "$database" "$folder/$script.sql" "$transactions" "$options" >>"$folder/$database.$script.$variant"
            done
        done
    done
    printf '\nmedian of %d rounds, ms per statement (ratio to the first); %d addresses of record, simple protocol;\neach line has the lines above it\n\n' "$kRounds" "$kSize"
    printf '%-30s' ''
    printf '%18s' "${scripts[@]}"
    printf '\n'
    for variant in "${!variants[@]}"; do
        printf '%-30s' "${variants[variant]%%|*}"
        for script in "${scripts[@]}"; do
            base=$(median "$folder/$database.$script.0")
            value=$(median "$folder/$database.$script.$variant")
            [[ $script == by_* ]] && per=$kBatch || per=1
            awk -v value="$value" -v base="$base" -v per="$per" \
                'BEGIN { printf "%11.3f (%.2f)", value / per, value / base }'
        done
        printf '\n'
    done
}

measure_lookups() {
    measure_statements lookups kVariants kScripts
}

measure_costs() {
    measure_statements costs kCostVariants kCostScripts
}
