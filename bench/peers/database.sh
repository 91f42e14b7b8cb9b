# shellcheck shell=bash
# A database of the schema for the benchmarks of this folder, on the server that the environment names. Sourced, from
# the project's root.

# By the Unix socket: nothing is encrypted, and less of the time is the network's.
export PGHOST=${ORYX_SERVER_SOCKET:?run under scripts/with-server}
readonly kBenchUser=oryx_bench
# How statements are sent is each contender's own.
unset ORYX_STATEMENTS ORYX_DEADLINE

run_sql() {
    psql --no-psqlrc --quiet --no-align --tuples-only --set=ON_ERROR_STOP=1 "$@"
}

# make_database NAME SIZE makes one with so many addresses of record.
make_database() {
    run_sql --dbname=postgres --command="CREATE DATABASE $1"
    schema/apply "$1" >/dev/null
    run_sql --dbname=postgres --command="DO \$\$ BEGIN
        IF NOT EXISTS (SELECT FROM pg_roles WHERE rolname = '$kBenchUser') THEN
            CREATE ROLE $kBenchUser LOGIN IN ROLE oryx_server;
        END IF;
    END \$\$"
    run_sql --dbname="$1" --set=size="$2" --file=bench/peers/data.sql
}
