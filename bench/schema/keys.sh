# shellcheck shell=bash
# A new row's number where the sequence is behind the rows, as in a logical copy that takes over.

# DATABASE, STATEMENT: how long it takes, in ms, when the contacts' sequence begins anew. It changes no row.
# shellcheck disable=SC2154 # folder is measure's
after_a_copy() {
    run_sql "$1" <<SQL | awk '/^Time: / { print $2 }'
SELECT setval('contact_contact_id_seq', 1, false);
BEGIN;
\\o /dev/null
\\timing on
$2;
\\timing off
ROLLBACK;
SQL
}

measure_keys() {
    local added="INSERT INTO contact (csid, address) VALUES (1, 'sip:new@192.0.2.1')" variant round database statement
    local variants=(
        "a new contact, as released|keys_old|$added"
        "a new contact|keys_new|$added"
        "set_key_sequences()|keys_new|SELECT set_key_sequences()"
    )
    make_database_before 150 keys_old
    PGOPTIONS='-c session_replication_role=replica' run_sql keys_old --set=size="$kSize" -f "$here/data.sql"
    run_sql postgres -c 'CREATE DATABASE keys_new TEMPLATE keys_old STRATEGY file_copy'
    "$root/schema/apply" keys_new >"$folder/apply"
    for ((round = 1; round <= kRounds; round++)); do
        for variant in "${!variants[@]}"; do
            IFS='|' read -r _ database statement <<<"${variants[variant]}"
            after_a_copy "$database" "$statement" >>"$folder/keys.$variant"
        done
    done
    printf '\n%d contacts and a sequence that begins anew, median of %d rounds, ms\n\n' "$((kSize * 3 / 2))" "$kRounds"
    for variant in "${!variants[@]}"; do
        printf '%-36s%12.1f\n' "${variants[variant]%%|*}" "$(median "$folder/keys.$variant")"
    done
}
