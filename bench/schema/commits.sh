# shellcheck shell=bash
# What a commit waits for: on a disk that is really written, with a standby on the same machine.

readonly kCommitModes=(off local remote_write on remote_apply) kCommitClients=(1 8)

# PostgreSQL does not run as root.
as_server() {
    if [[ $(id -u) -eq 0 ]]; then runuser -u postgres -- "$@"; else "$@"; fi
}

start_standby() {
    local data=$1 port=$2
    mkdir -m 700 "$data"
    if [[ $(id -u) -eq 0 ]]; then chown postgres "$data"; fi
    as_server pg_basebackup --pgdata="$data" --checkpoint=fast --write-recovery-conf \
        --dbname="host=$PGHOST port=$PGPORT user=$PGUSER application_name=bench" 2>"$folder/out" || { cat "$folder/out" >&2; return 1; }
    as_server tee "$data/postgresql.conf" >/dev/null <<SETTINGS
port = $port
listen_addresses = ''
unix_socket_directories = '$PGHOST'
max_connections = 200
SETTINGS
    as_server tee "$data/pg_hba.conf" <<<'local all all trust' >/dev/null
    as_server tee "$data/pg_ident.conf" </dev/null >/dev/null
    as_server pg_ctl -s -w -D "$data" -l "$data/log" start >/dev/null
}

measure_commits() {
    local data round mode clients
    make_database commits
    PGOPTIONS='-c session_replication_role=replica' run_sql commits --set=size="$kSize" -f "$here/data.sql"
    # The private server writes without waiting for the disk, as it has nothing to keep.
    run_sql commits -c 'ALTER SYSTEM SET fsync = on' -c "ALTER SYSTEM SET synchronous_standby_names = 'bench'"
    data=$(dirname "$(run_sql commits -c 'SHOW data_directory')")/standby
    start_standby "$data" "$((PGPORT + 1))"
    run_sql commits -c 'SELECT pg_reload_conf()' -c 'CHECKPOINT' >/dev/null
    for ((round = 1; round <= kRounds; round++)); do
        for mode in "${kCommitModes[@]}"; do
            for clients in "${kCommitClients[@]}"; do
                PGOPTIONS="-c synchronous_commit=$mode" pgbench --no-vacuum --client="$clients" --time=3 --define=size="$kSize" \
                    --file="$here/refresh.sql" commits 2>/dev/null | awk '/^tps/ { print $3 }' >>"$folder/commits.$mode.$clients"
            done
        done
    done
    as_server pg_ctl -s -m immediate -D "$data" stop
    # What comes next would wait for the standby for good.
    run_sql postgres -c 'ALTER SYSTEM RESET ALL' -c 'SELECT pg_reload_conf()' >/dev/null
    printf '\nmedian of %d rounds, refreshes a second (ratio to the first line)\n\n%-20s' "$kRounds" ''
    printf '%15d client(s)' "${kCommitClients[@]}"
    printf '\n'
    for mode in "${kCommitModes[@]}"; do
        printf '%-20s' "$mode"
        for clients in "${kCommitClients[@]}"; do
            awk -v value="$(median "$folder/commits.$mode.$clients")" -v base="$(median "$folder/commits.off.$clients")" \
                'BEGIN { printf "%18.0f (%.2f)", value, value / base }'
        done
        printf '\n'
    done
}
