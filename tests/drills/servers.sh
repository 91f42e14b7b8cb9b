# shellcheck shell=bash
# Servers of the drills' own: made below a folder of their own, on ports of their own, gone with the script, also when
# it is interrupted. Sourced, after scripts/servers.sh and load.sh.
#
# A server is its folder's name below $base: "$base/one" holds data, log and port. Only this script's own processes are
# ever signalled: each server's postmaster, by the number in its postmaster.pid.

binaries=$(pg_config --bindir 2>/dev/null || true)
[[ -x $binaries/postgres ]] ||
    binaries=$(find /usr/lib/postgresql/*/bin -name postgres -printf '%h\n' | sort -V | tail -n 1)

data=$(server_data)
base=$(mktemp -d "${data:-${TMPDIR:-/tmp}}/oryx-drills.XXXXXX")
sockets=$(mktemp -d /tmp/oryx-drills.XXXXXX) # a socket's path has at most 107 bytes: not below $base, which may be long

# PostgreSQL does not run as root.
as_server() {
    if [[ $(id -u) -eq 0 ]]; then runuser -u postgres -- "$@"; else "$@"; fi
}

port_of() { cat "$base/$1/port"; }
postmaster_of() { head -n 1 "$base/$1/data/postmaster.pid"; }
is_running() { as_server "$binaries/pg_ctl" -s -D "$base/$1/data" status >/dev/null 2>&1; }

# Superuser's psql, through the server's Unix socket.
sql() {
    local server=$1
    shift
    env -u PGSERVICE PGUSER=postgres PGOPTIONS='-c client_min_messages=error' \
        psql --no-psqlrc --quiet --no-align --tuples-only --set=ON_ERROR_STOP=1 \
        --host="$sockets" --port="$(port_of "$server")" --dbname="${database:-oryx}" "$@"
}

# Like sql for statements, until the server takes them.
sql_when_it_can() {
    wait_until sql "$@"
}

new_folder() {
    mkdir "$base/$1"
    if [[ $(id -u) -eq 0 ]]; then chown -R postgres "$base/$1"; fi
}

start() {
    as_server "$binaries/pg_ctl" -s -w -t 30 -D "$base/$1/data" -l "$base/$1/log" -o "-p $(port_of "$1")" start \
        >/dev/null
}

# For the first time. Ports are taken by chance: another server may win one between the look and the start.
start_at_free_port() {
    local attempt
    for attempt in 1 2 3 4 5; do
        free_port >"$base/$1/port"
        if start "$1" 2>"$base/$1/failure"; then
            return
        fi
    done
    cat "$base/$1/failure" "$base/$1/log" >&2
    return 1
}

# "fast": sessions are told and ended; "immediate": the server is gone as after a crash.
stop() {
    as_server "$binaries/pg_ctl" -s -w -t 30 -D "$base/$1/data" -m "$2" stop >/dev/null
}

promote() {
    as_server "$binaries/pg_ctl" -s -w -t 30 -D "$base/$1/data" promote >/dev/null
}

# Sends a signal to a server's postmaster and its children; SIGSTOP and SIGCONT, so that none of them runs.
signal_all() {
    local postmaster children
    postmaster=$(postmaster_of "$1")
    read -r -a children <"/proc/$postmaster/task/$postmaster/children" || true
    kill -s "$2" "$postmaster" "${children[@]}" 2>/dev/null || true
}

# The server that all others are copies of: schema, roles, and what the workers own.
make_original() {
    chmod 711 "$base"
    # The socket trusts whoever gets to it.
    if [[ $(id -u) -eq 0 ]]; then chown postgres "$sockets"; fi
    new_folder original
    as_server "$binaries/initdb" --pgdata="$base/original/data" --username=postgres --encoding=UTF8 --locale=C.UTF-8 \
        --auth-local=trust --auth-host=scram-sha-256 --wal-segsize=1 >/dev/null
    cat >>"$base/original/data/postgresql.conf" <<SETTINGS
listen_addresses = '127.0.0.1'
unix_socket_directories = '$sockets'
log_min_messages = error
log_min_error_statement = panic
log_checkpoints = off
log_line_prefix = '%e '
max_connections = 60
max_wal_size = 64MB
min_wal_size = 8MB
SETTINGS
    start_at_free_port original
    database=postgres sql original --command 'CREATE DATABASE oryx'
    env -u PGSERVICE PGHOST="$sockets" PGPORT="$(port_of original)" PGUSER=postgres \
        "$root/schema/apply" oryx >/dev/null 2>&1
    ORYX_REGISTRAR_PASSWORD=$ORYX_DRILL_PASSWORD ORYX_EVENTS_PASSWORD=$ORYX_DRILL_PASSWORD \
        sql original --file="$root/deploy/roles.sql"
    sql original --file="$root/tests/drills/provision.sql" --command 'VACUUM ANALYZE'
    stop original fast
}

# A copy of the original, started; further arguments are settings.
new_server() {
    local setting
    new_folder "$1"
    as_server cp -a "$base/original/data" "$base/$1/data"
    for setting in "${@:2}"; do
        echo "$setting" >>"$base/$1/data/postgresql.conf"
    done
    start_at_free_port "$1"
}

# A streaming standby of another server.
new_standby() {
    new_folder "$1"
    as_server env -u PGSERVICE \
        "$binaries/pg_basebackup" --pgdata="$base/$1/data" --write-recovery-conf --checkpoint=fast \
        --dbname="host=$sockets port=$(port_of "$2") user=postgres application_name=$1"
    start_at_free_port "$1"
    sql_when_it_can "$2" --command \
        "DO \$\$ BEGIN ASSERT EXISTS (SELECT FROM pg_stat_replication WHERE state = 'streaming'); END \$\$"
}

# Ends the servers of a drill and removes them.
remove_servers() {
    local folder server
    for folder in "$base"/*/data; do
        server=$(basename "${folder%/data}")
        [[ $server != original || ${1:-} == original ]] || continue
        if [[ -s $base/$server/data/postmaster.pid ]]; then
            signal_all "$server" CONT
            stop "$server" immediate || true
        fi
        ! mountpoint -q "$base/$server/small" || umount "$base/$server/small"
        rm -rf "${base:?}/$server"
    done
}

# The drill that is still at work when a script is interrupted is told, and whatever it waits for, pg_ctl too, which ends
# the server that it is starting.
finish() {
    trap '' INT TERM HUP
    [[ -z ${drill:-} ]] || kill -INT -- "-$drill" 2>/dev/null || true
    wait
    remove_servers original
    rm -rf "$base" "$sockets"
}
