# shellcheck shell=bash
# What tests/drills/run and tests/drills/cluster share: how a drill is run, and its load. Sourced.

readonly kPatience=120        # seconds for what comes to be within some, also on a busy machine

# Until a command succeeds.
wait_until() {
    local until=$((SECONDS + kPatience))
    until "$@" 2>/dev/null; do
        if ((SECONDS >= until)); then
            echo "tests/drills: not within $kPatience s: $*" >&2
            return 1
        fi
        sleep 0.05
    done
}

# Begins a drill: a function, in the background, where a command that fails ends it. Its load ends with it, however it
# ends. It has a process group of its own, so that whatever it waits for can be interrupted.
begin_drill() {
    set -m
    (
        set -e
        trap 'end_jobs' EXIT
        trap 'exit 130' INT
        "$@"
    ) </dev/null &
    drill=$!
    set +m
}

end_jobs() {
    local job
    for job in $(jobs -p); do
        kill "$job" 2>/dev/null || true
    done
    wait
}

# Notes a moment: "fault [COUNT]" or "back", of the server as far as its clients can tell.
mark() {
    echo "$1 $(date +%s%6N) ${2:-1}" >>"$folder/marks"
}

# Whether each worker has been answered, be it with an error.
all_work() { [[ $(grep -l '^got' "$folder"/journal/* 2>/dev/null | wc -l) -eq 8 ]]; }

has_ended() { ! kill -0 "$1" 2>/dev/null; }

# The load ends when it sees the file, each worker after its request.
stop_load() {
    touch "$folder/stop"
    wait_until has_ended "$load"
    wait "$load"
}
