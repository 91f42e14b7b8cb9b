# shellcheck shell=bash
# Migrations of a database that calls come to.

# For how long a transaction that has looked up a contact stays open, as a report or a hung client leaves it, and for
# how long calls come, in seconds.
readonly kReading=10 kCalls=${CALLS:-30}

# The migrations behind the first release by the given options, or none without any, while calls are looked up and
# refreshed and with that reader. Prints the longest lookup, the longest refresh and how long the migrations took, in ms.
migrate_under_load() {
    local database=$1 load calls=() reader begin end
    shift
    for load in by_key refresh; do
        pgbench --no-vacuum --client=2 --time="$kCalls" --log --log-prefix="$folder/$database.$load" --define=size="$kSize" \
            --file="$here/$load.sql" "$database" >/dev/null 2>&1 &
        calls+=($!)
    done
    sleep 2
    run_sql "$database" >/dev/null <<SQL &
BEGIN;
SELECT FROM public_address, contact_set, contact, subscriber LIMIT 1;
\\! sleep $kReading
COMMIT;
SQL
    reader=$!
    sleep 1
    begin=$(date +%s%N)
    [[ $# -eq 0 ]] || "$root/schema/apply" "$@" "$database" >"$folder/apply"
    end=$(date +%s%N)
    wait "$reader" "${calls[@]}"
    for load in by_key refresh; do
        awk '$3 > longest { longest = $3 } END { printf "%.1f ", longest / 1000 }' "$folder/$database.$load".*
    done
    echo "$(((end - begin) / 1000000))"
}

readonly kWays=(
    "no migration|"
    "as released: waits for each lock|--lock-timeout=0"
    "lets go after 100 ms, comes back|--lock-timeout=100"
)

measure_migrations() {
    local way
    make_database_before 150 migrated
    # Without triggers and the checks of references, which are most of a load's time.
    PGOPTIONS='-c session_replication_role=replica' run_sql migrated --set=size="$kSize" -f "$here/data.sql"
    printf '\n%d subscribers, two clients that look up and two that refresh, a reader of %d s; longest, in ms\n\n' "$kSize" "$kReading"
    printf '%-40s%14s%14s%20s\n' '' 'lookup' 'refresh' 'migrations took'
    for way in "${!kWays[@]}"; do
        run_sql postgres -c "CREATE DATABASE migrated$way TEMPLATE migrated STRATEGY file_copy"
        run_sql "migrated$way" -c CHECKPOINT
        # shellcheck disable=SC2086 # without an option, without a word
        migrate_under_load "migrated$way" ${kWays[way]#*|} >"$folder/longest"
        awk -v name="${kWays[way]%%|*}" '{ printf "%-40s%14s%14s%20s\n", name, $1, $2, $3 }' "$folder/longest"
        run_sql postgres -c "DROP DATABASE migrated$way"
    done
}
