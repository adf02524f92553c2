#!/usr/bin/env bash
# Shows a working tunnel on this machine: builds agent and lab, starts the lab (the cloud), the agent (the device) and
# a real web server (the device's service), and fetches a file from the web server through the tunnel.
#
# Usage: scripts/demo.sh [--once]
#   --once  end after the first proof, with status 0 when the file arrived as it was, else 1
#
# Without --once it then runs on, for you to try the tunnel by hand, until Ctrl-C. Installs what is missing first.
# Everything stays on the loopback interface; nothing is left behind but the build in build/release.

set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

usage() { sed -n '2,/^$/s/^# \{0,1\}//p' scripts/demo.sh; }

once=false
for option in "$@"; do
    case $option in
        -h | --help) usage; exit 0 ;;
        --once) once=true ;;
        *) echo "demo.sh: unknown option '$option', see --help" >&2; exit 2 ;;
    esac
done

step() { printf '\n==> %s\n' "$*"; }
say() { printf '    %s\n' "$*"; }
fail() { printf 'demo: FAILED: %s\n' "$*" >&2; exit 1; }

build() {
    scripts/setup.sh build demo
    cmake --preset release -DBUILD_TESTS=OFF
    cmake --build --preset release --target tunnel-client tunnel-lab
}

# --- processes: each is ours, known by its pid, with its output in a file -------------------------------------------

declare -A pids=()

# start NAME COMMAND...: runs it in the background, its output in $work/NAME.log
start() {
    local name=$1
    shift
    : >"$work/$name.log"
    "$@" >>"$work/$name.log" 2>&1 </dev/null &
    pids[$name]=$!
}

is_running() { kill -0 "${pids[$1]}" 2>/dev/null; }

fail_if_one_ended() {
    local name
    for name in "${!pids[@]}"; do
        is_running "$name" || fail "$name ended by itself"
    done
}

# wait_until SECONDS WHAT COMMAND...: until COMMAND succeeds; fails when one of the processes ends or the time is up
wait_until() {
    local deadline=$((SECONDS + $1)) what=$2
    shift 2
    until "$@"; do
        fail_if_one_ended
        ((SECONDS < deadline)) || fail "no $what in time"
        sleep 0.1
    done
}

logged() { grep --quiet --extended-regexp "$2" "$work/$1.log"; }

# Asks nicely, gives them a few seconds, then insists.
stop_all() {
    ((${#pids[@]} > 0)) || return 0
    kill "${pids[@]}" 2>/dev/null || true
    local name deadline=$((SECONDS + 5))
    for name in "${!pids[@]}"; do
        while is_running "$name"; do
            ((SECONDS < deadline)) || kill -KILL "${pids[$name]}" 2>/dev/null || true
            sleep 0.1
        done
    done
}

show_logs() {
    local log
    for log in "$work"/*.log; do
        [[ -e $log ]] || continue
        printf -- '--- last lines of %s\n' "${log##*/}"
        tail -n 40 "$log"
    done >&2
}

clean_up() {
    local status=$?
    trap - EXIT
    trap '' INT TERM HUP
    if ((status != 0 && status < 128)); then show_logs; fi
    stop_all
    rm -rf "$work"
    exit "$status"
}

# --- the demonstration ----------------------------------------------------------------------------------------------

# The device's service: busybox httpd, because it is one small package that installs no system service, runs in the
# foreground as anybody, and sends files with sendfile.
start_web_server() {
    mkdir "$work/www"
    head -c 64M /dev/urandom >"$work/www/random.bin"
    echo '<p>Served by the device, fetched through the tunnel. <a href="random.bin">64 MiB of random data</a>' \
        >"$work/www/index.html"
    start web busybox httpd -f -p 127.0.0.1:0 -h "$work/www"
    wait_until 10 "listening web server" find_web_port
    say "busybox httpd listens on 127.0.0.1:$web_port, with random.bin of 64 MiB"
}

# The kernel chose the port and the server does not tell: its listening socket does.
find_web_port() {
    local inode
    for inode in $(readlink /proc/"${pids[web]}"/fd/* | sed --quiet 's/^socket:\[\([0-9]*\)\]$/\1/p'); do
        # A row of that table: the local address as hex IP:port is column 2, state 0A is listening, column 10 the inode.
        web_port=$(awk -v inode="$inode" '$10 == inode && $4 == "0A" { sub(".*:", "", $2); print $2 }' /proc/net/tcp)
        [[ -z $web_port ]] || { web_port=$((16#$web_port)); return 0; }
    done
    return 1
}

start_lab() {
    start lab build/release/lab/tunnel-lab --write-config "$work/agent.json" --write-env "$work/agent.env" \
        --route "web=$web_port"
    wait_until 10 "lab that is ready" logged lab '^ready$'
    say "tunnel-lab plays the cloud:"
    sed --quiet '/^\(sso\|api\|tunnel\) /s/^/      /p' "$work/lab.log"
}

# Only ever run by start, whose background shell it turns into the agent: the pid stays the same.
run_agent() {
    set -o allexport
    # shellcheck source=/dev/null
    source "$work/agent.env"
    exec build/release/core/tunnel-client "$work/agent.json"
}

start_agent() {
    start agent run_agent
    wait_until 30 "route registered by the agent" logged lab '^route .* web '
    wait_until 30 "device connected to the tunnel" logged lab '^device .* connected$'
    tunnel_address=$(awk '$1 == "route" && $3 == "web" { print $4; exit }' "$work/lab.log")
    say "the agent registered and connected; its web server is now reachable at $tunnel_address"
    say "agent's memory, idle: $(agent_memory)"
}

agent_memory() {
    awk '/^VmRSS:/ { printf "%.1f MiB resident\n", $2 / 1024 }' "/proc/${pids[agent]}/status"
}

digest() { sha256sum <"$1" | cut -d ' ' -f 1; }

# fetch URL FILE: prints size and seconds of each transfer
fetch() {
    curl --fail --silent --show-error --max-time 120 --output "$2" --write-out '%{size_download} %{time_total}\n' "$1" ||
        fail "the file could not be fetched through the tunnel"
}

fetch_and_compare() {
    local sent received
    fetch "http://$tunnel_address/random.bin" "$work/received.bin" >/dev/null
    sent=$(digest "$work/www/random.bin")
    received=$(digest "$work/received.bin")
    rm "$work/received.bin"
    say "SHA-256 at the device:   $sent"
    say "SHA-256 at the client:   $received"
    [[ $sent == "$received" ]] || fail "the file is not what the device has"
}

# Several times, and into nothing: one file is soon through, and writing it to disk takes longer than the tunnel.
measure() {
    fetch "http://$tunnel_address/random.bin?[1-8]" /dev/null |
        awk '{ bytes += $1; seconds += $2 }
             END { if (seconds > 0) printf "    %d MiB in %.2f s: %.0f MiB/s\n", bytes / 1048576, seconds, bytes / seconds / 1048576 }'
    say "agent's memory, after:   $(agent_memory)"
}

step "Building the agent and the lab (release)"
build

work=$(mktemp -d)
trap clean_up EXIT
trap 'exit 130' INT
trap 'exit 143' TERM HUP
# A proxy that the user's environment names is for the internet, not for the loopback interface.
export no_proxy=127.0.0.1 NO_PROXY=127.0.0.1

step "Starting the device's web server"
start_web_server
step "Starting the lab"
start_lab
step "Starting the agent"
start_agent
step "Fetching the file through the tunnel"
fetch_and_compare
step "Fetching it eight times more, for the throughput"
measure
step "The tunnel works: the file arrived as it was"
if $once; then exit 0; fi

say "Try it by hand, from another terminal:"
say "  curl http://$tunnel_address/"
say "  curl --output /dev/null http://$tunnel_address/random.bin"
say "Watch it work:"
say "  tail -f $work/lab.log $work/agent.log"
say "Ctrl-C ends it."
trap 'printf "\n"; exit 0' INT TERM HUP
while true; do
    fail_if_one_ended
    sleep 1
done
