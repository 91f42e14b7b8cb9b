# shellcheck shell=bash
# What scripts share that run servers of their own. Sourced.

# A port that nobody answers on, below the range the kernel takes outgoing ports from. Another server may win it before
# it is used.
free_port() {
    local port
    while port=$((20000 + RANDOM % 12000)); (exec 3<>"/dev/tcp/127.0.0.1/$port") 2>/dev/null; do :; done
    echo "$port"
}

# Where the data of throw-away servers goes, unless ORYX_SERVER_DATA says so: into memory, if there is room for several
# of them, which need a quarter of a gigabyte each; nothing for the usual place. On a disk half of the time of most tests
# is the copying of their database.
server_data() {
    local free
    free=$(df --output=avail --block-size=1M /dev/shm 2>/dev/null | tail -n 1) || free=0
    if [[ -n ${ORYX_SERVER_DATA+set} ]]; then
        echo "$ORYX_SERVER_DATA"
    elif [[ -w /dev/shm ]] && ((free >= 2048)); then
        echo /dev/shm
    fi
}
