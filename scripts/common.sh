# shellcheck shell=bash
# What scripts/try and scripts/test share. Sourced, from the project's root.

# What the build needs beside Debian's base system, and what the tests need beyond that.
readonly kBuildPackages=(
    g++ cmake ninja-build pkg-config libpq-dev libspdlog-dev libsodium-dev libsofia-sip-ua-dev libutfcpp-dev
    libxml2-dev postgresql
)
readonly kTestPackages=(
    baresip-core clang clang-format clang-tidy doxygen libbenchmark-dev libclang-rt-14-dev libfaketime libgtest-dev lld llvm
    pgbouncer shellcheck sip-tester valgrind
)
# What a cluster of deploy/cluster is made of, beside the server.
readonly kClusterPackages=(curl etcd-server haproxy iproute2 patroni pgbouncer)

logs=$PWD/build/logs

# The log of the step with this title.
log_name() {
    echo "$(tr -cs 'a-z0-9\n' '-' <<<"${1,,}").log"
}

# Runs a command with its output in a log: one line when all is well, the log's end when it is not. What stops a script
# at its first failure does not work in here: a function given must return its own.
step() {
    local title=$1 log started=$SECONDS
    shift
    log=$logs/$(log_name "$title")
    mkdir -p "$logs"
    printf '%-58s' "$title ..."
    if "$@" >"$log" 2>&1; then
        printf ' %4d s\n' $((SECONDS - started))
    else
        printf ' FAILED\n'
        tail -n 100 "$log" >&2
        printf 'the whole of it: %s\n' "$log" >&2
        return 1
    fi
}

as_root() {
    if [[ $(id -u) -eq 0 ]]; then "$@"; else sudo "$@"; fi
}

missing_packages() {
    local package
    for package in "$@"; do
        dpkg-query -W -f '${db:Status-Status}' "$package" 2>/dev/null | grep -qx installed || echo "$package"
    done
}

# What is in the way of the packages' own services goes with the subshell, also when interrupted. As a step's command it
# must end by itself at what fails: packages would start services.
install_packages() (
    # Debian makes and starts a database cluster with the server's package, and each pooler and member of a cluster as a
    # service of this machine. Nobody asked for them. While there is a policy-rc.d that says 101, no package starts a
    # service, whoever installs it. A machine's own policy-rc.d stays as it is. Two runs at once take turns: the first to
    # end would otherwise take away what the other one counts on.
    no_cluster=/etc/postgresql-common/createcluster.d/oryx-dal.conf no_services=/usr/sbin/policy-rc.d made=()
    policy=$'#!/bin/sh\n# For as long as oryx-dal installs packages.\nexit 101'
    exec {turn}</etc/apt || exit
    flock "$turn" || exit
    remove_made() {
        as_root rm -f "${made[@]}"
        [[ $(cat "$no_services" 2>/dev/null) != "$policy" ]] || as_root rm -f "$no_services"
    }
    trap remove_made EXIT
    if [[ ! -e /usr/bin/pg_createcluster ]]; then
        made+=("$no_cluster")
        as_root mkdir -p "${no_cluster%/*}" || exit
        as_root tee "$no_cluster" <<<'create_main_cluster = false' || exit
    fi
    if [[ ! -e $no_services ]]; then
        as_root tee "$no_services" <<<"$policy" || exit
        as_root chmod 755 "$no_services" || exit
    fi
    status=0
    as_root apt-get update {turn}<&- &&
        as_root env DEBIAN_FRONTEND=noninteractive apt-get install -y --no-install-recommends "$@" {turn}<&- || status=$?
    for service in etcd haproxy patroni pgbouncer; do
        if [[ " $* " == *" $service"[-\ ]* && -d /run/systemd/system ]]; then
            as_root systemctl disable --quiet "$service" || true
        fi
    done
    exit "$status"
)

# Installs those of the packages that are not there.
need_packages() {
    local missing
    mapfile -t missing < <(missing_packages "$@")
    if ((${#missing[@]} > 0)); then
        step "install ${#missing[@]} Debian packages" install_packages "${missing[@]}"
    fi
}
