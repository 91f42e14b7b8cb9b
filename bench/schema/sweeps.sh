# shellcheck shell=bash
# The sweeps of expired contacts, and what would spare them reading every contact.

# Database, and what is done to it and undone afterwards. The first is what the others are compared with.
readonly kSweepAids=(
    "the schema's|sweeps||"
    "as released|sweeps_old||"
    "index on expires|sweeps|CREATE INDEX contact_expires ON contact (expires)|DROP INDEX contact_expires"
    "index on the hour of expires|sweeps|CREATE INDEX contact_hour ON contact ((expires / 3600))|DROP INDEX contact_hour"
    "BRIN index on expires|sweeps|CREATE INDEX contact_expires ON contact USING brin (expires)|DROP INDEX contact_expires"
    "column of the day, with an index|sweeps|ALTER TABLE contact ADD day bigint GENERATED ALWAYS AS (expires / 86400) STORED; CREATE INDEX contact_day ON contact (day)|ALTER TABLE contact DROP day"
    "queue by minute, kept by a trigger|sweeps|CREATE TABLE expiry (minute bigint, contact_id integer, PRIMARY KEY (minute, contact_id)); CREATE FUNCTION queue_expiry() RETURNS trigger LANGUAGE plpgsql AS 'BEGIN DELETE FROM expiry WHERE minute = OLD.expires / 60 AND contact_id = OLD.contact_id; INSERT INTO expiry VALUES (NEW.expires / 60, NEW.contact_id) ON CONFLICT DO NOTHING; RETURN NULL; END'; CREATE TRIGGER queue AFTER UPDATE ON contact FOR EACH ROW WHEN (NEW.expires / 60 <> OLD.expires / 60) EXECUTE FUNCTION queue_expiry()|DROP TRIGGER queue ON contact; DROP FUNCTION queue_expiry(); DROP TABLE expiry"
)
readonly kRegistrarSweep="DELETE FROM contact WHERE expires < 100000 AND permanent = 'f'"
readonly kFlush="SELECT public_address_id,contact_header,expires,call_id,cseq,handle,sip_domain FROM contact, contact_set, public_address  WHERE expires < 100000 AND contact_set.csid = contact.csid  AND public_address.csid = contact.csid FOR UPDATE"

# DATABASE, STATEMENT, FIGURES: milliseconds that it takes, and of the server's processor; it changes nothing.
# shellcheck disable=SC2154 # folder is measure's
sweep() {
    {
        echo "SELECT split_part(pg_read_file('/proc/self/schedstat'), ' ', 1) AS before \\gset"
        printf 'BEGIN;\n\\o /dev/null\n\\timing on\n%s;\n\\timing off\n\\o\nROLLBACK;\n' "$2"
        echo "SELECT 'Work: ' || (split_part(pg_read_file('/proc/self/schedstat'), ' ', 1)::numeric - :before) / 1000000;"
    } | run_sql "$1" | awk -v figures="$3" '/^Time: / { print $2 >>(figures ".time") } /^Work: / { print $2 >>(figures ".work") }'
}

# Refreshes of contacts that expire half an hour later than they would have, and sweeps, with one of the aids.
measure_aid() {
    local name database enable disable aid=$1 round hot
    IFS='|' read -r name database enable disable <<<"${kSweepAids[aid]}"
    run_sql "$database" -c "$enable" -c 'VACUUM ANALYZE contact'
    run_sql "$database" -c "SELECT pg_stat_reset_single_table_counters('contact'::regclass)" >"$folder/out"
    for ((round = 0; round < 3; round++)); do
        run_sql "$database" --set=first="$(((aid * 3 + round) * kChangesPerRound))" --set=count="$kChangesPerRound" --set=size="$kSize" <<'SQL' >"$folder/refresh.sql"
SELECT format('EXECUTE refresh(%s, %s, %L);', expires + 1800, csid, address) FROM contact
    JOIN (SELECT (:first + k) * 997 % :size + 1 AS csid FROM generate_series(1, :count) AS k) AS chosen USING (csid)
    WHERE address LIKE '%192.0.2.1:%';
SQL
        work "$database" "$folder/refresh.sql" "$kChangesPerRound" "PREPARE refresh(bigint, int, text) AS
            UPDATE contact SET contact_header = 'header', expires = \$1, call_id = call_id, cseq = cseq + 1 WHERE csid = \$2 AND address = \$3;" \
            >>"$folder/aid.refresh.$aid"
        sweep "$database" "$kRegistrarSweep" "$folder/aid.registrar.$aid"
        sweep "$database" "$kFlush" "$folder/aid.flush.$aid"
    done
    sleep 1
    hot=$(run_sql "$database" -c "SELECT round(100.0 * n_tup_hot_upd / n_tup_upd) FROM pg_stat_user_tables WHERE relname = 'contact'")
    awk -v name="$name" -v hot="$hot" -v refresh="$(median "$folder/aid.refresh.$aid")" -v base="$(median "$folder/aid.refresh.0")" \
        -v registrar="$(median "$folder/aid.registrar.$aid.work") $(median "$folder/aid.registrar.$aid.time")" \
        -v flush="$(median "$folder/aid.flush.$aid.work") $(median "$folder/aid.flush.$aid.time")" \
        'BEGIN { split(registrar, r, " "); split(flush, f, " ")
                 printf "%-36s%8.1f (%.2f)%9d%%%10.0f%8.0f%12.0f%8.0f\n", name, refresh, refresh / base, hot, r[1], r[2], f[1], f[2] }'
    run_sql "$database" -c "$disable"
}

measure_sweeps() {
    local aid
    make_database_before 150 sweeps_old
    run_sql sweeps_old --set=size="$kSize" <<'SQL'
-- Rows that no server follows, and keys and indexes after them: in a tenth of the time.
SET session_replication_role = replica;
INSERT INTO subscriber (sid) SELECT generate_series(1, :size);
INSERT INTO contact_set (csid, sid) SELECT n, n FROM generate_series(1, :size) AS n;
INSERT INTO public_address (handle, sip_domain, csid) SELECT 'user' || n, 'oryx.example', n FROM generate_series(1, :size) AS n;
ALTER TABLE contact DROP CONSTRAINT contact_pkey, DROP CONSTRAINT contact_csid_address_key;
-- One in a hundred has expired.
INSERT INTO contact (contact_id, csid, address, qvalue, expires, permanent, capabilities, contact_header, call_id, cseq)
    SELECT n * 2 - k + 1, n, format('sip:user%s@192.0.2.%s:5060;transport=udp', n, k), '0.5',
           CASE WHEN n % 100 = 7 THEN 1000 ELSE extract(epoch FROM now())::bigint + 3600 + n % 3600 END, false,
           'INVITE, ACK, BYE, CANCEL, OPTIONS',
           format('<sip:user%s@192.0.2.%s:5060;transport=udp>;q=0.5;expires=3600', n, k), md5(n::text) || '@192.0.2.1', 1
    FROM generate_series(1, :size) AS n, generate_series(1, 2) AS k WHERE k = 1 OR n % 2 = 0
    ORDER BY md5(n::text || k);
ALTER TABLE contact ADD CONSTRAINT contact_pkey PRIMARY KEY (contact_id),
    ADD CONSTRAINT contact_csid_address_key UNIQUE (csid, address);
VACUUM ANALYZE;
SQL
    run_sql postgres -c 'CREATE DATABASE sweeps TEMPLATE sweeps_old STRATEGY file_copy'
    "$root/schema/apply" sweeps >"$folder/apply"
    run_sql sweeps -c 'VACUUM ANALYZE'
    printf '\n%d contacts, one in a hundred expired; shared_buffers %s\n' "$((kSize * 3 / 2))" "$(run_sql sweeps -c 'SHOW shared_buffers')"
    printf '%-36s%15s%10s%18s%20s\n%-36s%15s%10s%18s%20s\n' '' 'refresh, us' 'in place' "registrar's, ms" \
        'flush, ms' '' 'of processor' '' 'processor, all' 'processor, all'
    for aid in "${!kSweepAids[@]}"; do
        measure_aid "$aid"
    done
}
