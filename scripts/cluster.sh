#!/usr/bin/env bash
# ./demo --cluster: three nodes of NATS, two gateways and the monitor on this machine, each a process
# of its own, with certificates and passwords made for this run. Ends with the monitor, by Ctrl-C,
# and leaves nothing behind.
#   scripts/cluster.sh PROGRAMS OPTION...   PROGRAMS: a folder with monitor and kiroweb-gateway
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
programs=$(realpath "$1")
shift

PATH=$PATH:/usr/sbin # where Debian puts nats-server
folder=$(mktemp -d "${TMPDIR:-/tmp}/kiroweb-cluster-XXXXXX")
declare -A names # by process
is_over=""

# begin NAME COMMAND...: in a session of its own, so that Ctrl-C comes here first. It ends with this
# script, however that ends. What it says goes to NAME.log.
begin() {
    setsid setpriv --pdeathsig TERM "${@:2}" >"$folder/$1.log" 2>&1 &
    names[$!]=$1
}

# shellcheck disable=SC2317  # a trap calls it
end_all() {
    trap - EXIT
    trap '' INT TERM
    ((${#names[@]} == 0)) || kill "${!names[@]}" 2>/dev/null || true
    wait
    rm -rf "$folder"
}
trap end_all EXIT
trap 'is_over=1; kill "${monitor:-}" 2>/dev/null || true' INT TERM HUP

fail() {
    echo "cluster: $*" >&2
    exit 1
}

# free_ports COUNT: sets ports. Nobody listens on them now.
free_ports() {
    local port=$((20000 + RANDOM % 10000))
    ports=()
    for (( ; ${#ports[@]} < $1; port++)); do
        (exec 3<>"/dev/tcp/127.0.0.1/$port") 2>/dev/null || ports+=("$port")
    done
}

# requires_alive: none has ended while all of them begin.
requires_alive() {
    local pid status=0
    for pid in "${!names[@]}"; do
        ! kill -0 "$pid" 2>/dev/null || continue
        wait "$pid" || status=$?
        fail "${names[$pid]} has ended at once ($status): $(tail -n 3 "$folder/${names[$pid]}.log")"
    done
}

# await PORT NAME: until it listens there.
await() {
    local tries
    for ((tries = 0; tries < 200; tries++)); do
        [[ -z $is_over ]] || exit 130
        requires_alive
        ! (exec 3<>"/dev/tcp/127.0.0.1/$1") 2>/dev/null || return 0
        sleep 0.05
    done
    fail "$2 does not listen: $(tail -n 3 "$folder/$2.log")"
}

begin_nodes() {
    local number nodes=()
    for number in 0 1 2; do
        nodes+=("127.0.0.1:${ports[number]}:${ports[number + 3]}")
    done
    deploy/cluster-files "$folder" nodes "${nodes[@]}"
    deploy/cluster-files "$folder" session monitor
    deploy/cluster-files "$folder" gateway one two
    for number in 1 2 3; do
        begin "node-$number" env --chdir="$folder/node-$number" nats-server -c node.conf
    done
    for number in 0 1 2; do await "${ports[number]}" "node-$((number + 1))"; done
}

begin_gateways() {
    local name number=6 servers others
    servers=$(paste -sd, "$folder/servers")
    for name in one two; do
        others=${ports[13 - number]} # to which pages go when they lose this one
        cat >"$folder/gateway-$name/gateway.conf" <<EOF
name = $name
address = 127.0.0.1
port = ${ports[number]}
tls = off
gateways = http://127.0.0.1:$others
servers = $servers
credentials = $folder/gateway-$name/credentials
ca = $folder/gateway-$name/ca.pem
EOF
        begin "gateway-$name" "$programs/kiroweb-gateway" "$folder/gateway-$name/gateway.conf"
        await "${ports[number++]}" "gateway-$name"
    done
}

begin_monitor() {
    KIROWEB_LINK=$folder/session-monitor/link.conf \
        setsid setpriv --pdeathsig TERM "$programs/monitor" "$@" &
    monitor=$!
}

# Somebody may end a node or a gateway to see what becomes of the picture.
watch() {
    local ended status
    while :; do
        status=0
        wait -n -p ended || status=$?
        [[ -n ${ended:-} ]] || continue # a signal came
        [[ $ended != "$monitor" ]] || return "$status"
        echo "cluster: ${names[$ended]} has ended ($status); the others go on" >&2
        unset "names[$ended]"
    done
}

free_ports 8
begin_nodes
begin_gateways
begin_monitor "$@"
echo "cluster: $(for pid in "${!names[@]}"; do echo "${names[$pid]} $pid"; done | sort | paste -sd, |
    sed 's/,/, /g'); end one of them and see" >&2
status=0
watch || status=$?
exit "$status"
