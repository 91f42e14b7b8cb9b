# shellcheck shell=bash
# Late changes.

# Processor time of the server process for each of COUNT changes, in microseconds: what others do on the machine matters
# less to it than to the time that passes. `prepare` runs first and is not counted.
work() {
    local database=$1 script=$2 count=$3 prepare=${4:-}
    {
        echo "$prepare"
        echo "SELECT split_part(pg_read_file('/proc/self/schedstat'), ' ', 1) AS before \\gset"
        echo '\o /dev/null'
        cat "$script"
        echo '\o'
        echo "SELECT (split_part(pg_read_file('/proc/self/schedstat'), ' ', 1)::numeric - :before) / 1000 / $count;"
    } | run_sql "$database"
}

# times TEXT: the text that often, each with the number of the time for every #, and with six digits of it for every @@.
times() {
    awk -v text="$1" -v count="$kChangesPerRound" \
        'BEGIN { for (n = 1; n <= count; n++) { line = text; gsub(/#/, n, line); gsub(/@@/, sprintf("%06d", n), line); print line } }' /dev/null
}

readonly kChangesPerRound=1000
readonly kOlder='NEW.call_id = OLD.call_id AND NEW.cseq < OLD.cseq'
readonly kFences=(
    "no fence|DROP TRIGGER keep_newer ON contact"
    "the schema's: after, if older|"
    "before, if older|DROP TRIGGER keep_newer ON contact; CREATE TRIGGER before BEFORE UPDATE ON contact
        FOR EACH ROW WHEN ($kOlder) EXECUTE FUNCTION change_nothing()"
    "before, judged by a function|DROP TRIGGER keep_newer ON contact; CREATE FUNCTION judge() RETURNS trigger LANGUAGE plpgsql
        AS 'BEGIN IF $kOlder THEN RETURN NULL; END IF; RETURN NEW; END'; CREATE TRIGGER before BEFORE UPDATE ON contact
        FOR EACH ROW EXECUTE FUNCTION judge()"
    "rule|DROP TRIGGER keep_newer ON contact; CREATE RULE older AS ON UPDATE TO contact WHERE $kOlder DO INSTEAD NOTHING"
)
# As a registrar writes it, and prepared; of the same call as before.
readonly kRefresh="UPDATE contact SET contact_header = '<sip:user#@192.0.2.1:5060;transport=udp>;q=0.5;expires=3600', expires = 2000000000, call_id = 'call', cseq = '1', qvalue = '0.5', capabilities = 'INVITE, ACK, BYE, CANCEL, OPTIONS' WHERE csid = (SELECT csid FROM public_address where id = #) AND address = 'sip:user#@192.0.2.1:5060;transport=udp'"

measure_fences() {
    local fence round before hot way
    times "BEGIN TRANSACTION \\; $kRefresh \\; COMMIT TRANSACTION;" >"$folder/refresh.plain.sql"
    times "EXECUTE refresh('<sip:user#@192.0.2.1:5060;transport=udp>;q=0.5;expires=3600', #, 'sip:user#@192.0.2.1:5060;transport=udp');" >"$folder/refresh.bound.sql"
    make_database fence
    run_sql fence --set=size="$kChangesPerRound" -f "$here/data.sql"
    run_sql fence -c "UPDATE contact SET call_id = 'call', cseq = 1" -c 'VACUUM FULL contact' -c 'VACUUM ANALYZE contact'
    for fence in "${!kFences[@]}"; do
        run_sql postgres -c "CREATE DATABASE fence$fence TEMPLATE fence"
        run_sql "fence$fence" -c "${kFences[fence]#*|}" -c 'SELECT pg_stat_reset()' >"$folder/out"
    done
    for ((round = 1; round <= kRounds; round++)); do
        for fence in "${!kFences[@]}"; do
            before=$(run_sql "fence$fence" -c 'SELECT pg_current_wal_insert_lsn()')
            work "fence$fence" "$folder/refresh.plain.sql" "$kChangesPerRound" >>"$folder/fence.plain.$fence"
            run_sql "fence$fence" -c "SELECT (pg_current_wal_insert_lsn() - '$before') / $kChangesPerRound" >>"$folder/fence.wal.$fence"
            work "fence$fence" "$folder/refresh.bound.sql" "$kChangesPerRound" "PREPARE refresh(text, int, text) AS $(
                sed -E "s/'<[^']*'/\$1/; s/= #/= \$2/; s/'sip:[^']*'/\$3/" <<<"$kRefresh"
            );" >>"$folder/fence.bound.$fence"
        done
    done
    printf '\nmedian of %d rounds of %d refreshes (ratio to the first line); us of the server process\n\n' "$kRounds" "$kChangesPerRound"
    printf '%-34s%18s%18s%18s%10s\n' '' 'plain' 'prepared' 'WAL, bytes' 'in place'
    sleep 1
    for fence in "${!kFences[@]}"; do
        printf '%-34s' "${kFences[fence]%%|*}"
        for way in plain bound wal; do
            awk -v value="$(median "$folder/fence.$way.$fence")" -v base="$(median "$folder/fence.$way.0")" \
                'BEGIN { printf "%11.1f (%.2f)", value, value / base }'
        done
        run_sql "fence$fence" \
            -c "SELECT lpad(round(100.0 * n_tup_hot_upd / n_tup_upd) || '%', 10) FROM pg_stat_user_tables WHERE relname = 'contact'"
    done
}

# In an order in which each finds what it changes.
readonly kChanges=(
    "registration|INSERT INTO contact(address,csid,qvalue,expires,permanent,capabilities,contact_header,call_id,cseq,id)  VALUES('sip:n' || \$1,(SELECT csid FROM public_address where public_address_id = \$1), '0.5',2000000000,'f','audio','header','call','1', 1)"
    "removal|DELETE FROM contact WHERE address = 'sip:n' || \$1 AND csid = (SELECT csid FROM public_address where id = \$1)"
    "add_contact, new|SELECT add_contact('user' || \$1,'oryx.example','sip:n' || \$1,2000000000,'f','0.5','audio','header','call',1)"
    "add_contact, known|SELECT add_contact('user' || \$1,'oryx.example','sip:n' || \$1,2000000000,'f','0.5','audio','header','call',1)"
    "remove_contact|SELECT remove_contact('user' || \$1,'oryx.example','sip:n' || \$1)"
    "extension's state added|INSERT INTO conf_state (extension,conf_status,start_time) VALUES(\$1::text,'IDLE',5)"
    "reservation|select * FROM reserve_one_available_conf_ext_randomly() where reserve_one_available_conf_ext_randomly IS NOT NULL"
    "release|UPDATE conf_state SET conf_status ='IDLE', start_time ='2000000000' WHERE extension = \$1::text"
)
readonly kSendings=("schema before" "not said" "said")
# As the library says which change follows, or, where that keeps its answer, tells the function.
readonly kSaying="INSERT INTO sending AS kept (session, number) VALUES (\$1, \$2) ON CONFLICT (session) DO UPDATE SET number = CASE WHEN kept.number < excluded.number THEN excluded.number ELSE sending_has_taken_effect(kept.answer) END, answer = NULL, sent_at = now()"
readonly kTelling="SELECT set_config('oryx.sending', \$1::text || '.' || \$2, true)"

# Prepared changes, in a schema that does not know repetitions, and in one that does, without and with saying which ones
# they are; and what sweeps of expired contacts cost in the two.
measure_sendings() {
    local change round way arguments saying text
    make_database_before 140 sending0
    run_sql sending0 --set=size="$kChangesPerRound" -f "$here/data.sql"
    make_database sending1
    run_sql sending1 --set=size="$kChangesPerRound" -f "$here/data.sql"
    run_sql postgres -c 'CREATE DATABASE sending2 TEMPLATE sending1'
    for ((round = 1; round <= kRounds; round++)); do
        for change in "${!kChanges[@]}"; do
            # Only a reservation has none.
            arguments='(#)'
            [[ ${kChanges[change]} == *\$1* ]] || arguments=
            times "EXECUTE change$arguments;" | tee "$folder/sending.0.sql" >"$folder/sending.1.sql"
            times "EXECUTE saying('0123456789abcdef0123456789abcdef', $((round * 100 + change))@@) \\; EXECUTE change$arguments;" \
                >"$folder/sending.2.sql"
            for way in 0 1 2; do
                saying=
                if ((way == 2)); then
                    saying="PREPARE saying(uuid, bigint) AS $kSaying;"
                    [[ ${kChanges[change]} != reservation* ]] || saying="PREPARE saying(uuid, bigint) AS $kTelling;"
                fi
                work "sending$way" "$folder/sending.$way.sql" "$kChangesPerRound" \
                    "$saying PREPARE change${arguments:+(int)} AS ${kChanges[change]#*|};" \
                    >>"$folder/sending.$change.$way"
            done
        done
        for way in 0 1 2; do
            echo "DELETE FROM contact WHERE expires < 6 AND permanent = 'f';" >"$folder/sweep.sql"
            work "sending$way" "$folder/sweep.sql" "$kChangesPerRound" \
                "INSERT INTO contact (csid, address, expires) SELECT n, 'old', 5 FROM generate_series(1, $kChangesPerRound) n;" \
                >>"$folder/sending.${#kChanges[@]}.$way"
            run_sql "sending$way" -c 'TRUNCATE conf_state' -c "SELECT trim_event_notify('0')" -c 'VACUUM' >"$folder/out"
        done
    done
    printf '\nmedian of %d rounds of %d changes, us of the server process (ratio to the first column)\n\n%-30s' \
        "$kRounds" "$kChangesPerRound" ''
    printf '%20s' "${kSendings[@]}"
    printf '\n'
    for ((change = 0; change <= ${#kChanges[@]}; change++)); do
        text=${kChanges[change]:-a sweep, each contact}
        printf '%-30s' "${text%%|*}"
        for way in 0 1 2; do
            awk -v value="$(median "$folder/sending.$change.$way")" -v base="$(median "$folder/sending.$change.0")" \
                'BEGIN { printf "%13.1f (%.2f)", value, value / base }'
        done
        printf '\n'
    done
}
