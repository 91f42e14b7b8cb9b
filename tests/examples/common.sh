# shellcheck shell=bash
# What the tests of the examples share: a database with the sample data, on the server that the environment names, gone
# afterwards. Sourced, with the program as $1.
set -euo pipefail
program=$1
root=$(cd "$(dirname "$0")/../.." && pwd)
: "${ORYX_TEST_SERVER:?run under scripts/with-server}"

database=example_$$
work=$(mktemp -d)
finish() {
    rm -rf "$work"
    dropdb --if-exists "$database"
}
trap finish EXIT
createdb "$database"
"$root/schema/apply" "$database" >/dev/null
psql --no-psqlrc --quiet --dbname="$database" --set=ON_ERROR_STOP=1 \
    --file="$root/schema/sample/registration.sql" --file="$root/schema/sample/presence.sql"

# Runs the example; the database's name differs every time.
account() {
    "$program" "postgresql://$PGHOST/$database" "$@" | sed -E "s/$database +/DATABASE /"
}
