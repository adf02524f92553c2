#!/usr/bin/env bash
# Shows a working tunnel on this machine. Builds agent and lab, starts the lab (the cloud), the agent (the
# device) and a real web server (the device's service), and fetches a file from the web server through the
# tunnel. Installs missing packages first.
#
# Usage: scripts/demo.sh [--once]
#   --once  end after the file has been fetched; the exit status is 0 when it arrived unchanged, otherwise 1
#
# Without --once the tunnel stays open until Ctrl-C, so that you can try it by hand. Everything stays on the
# loopback interface. At the end all processes are stopped and all temporary files deleted; only build/ stays.

# shellcheck source=scripts/common.sh
source "$(dirname "${BASH_SOURCE[0]}")/common.sh"

once=false
for option in "$@"; do
    case $option in
        --once) once=true ;;
        *) refuse "unknown option '$option'" ;;
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

# --- processes: the script started each of them, knows its pid, and collects its output in a file ---

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

# wait_until SECONDS EVENT COMMAND...: waits until COMMAND succeeds; fails when a process ends or the time is
# up
wait_until() {
    local deadline=$((SECONDS + $1)) event=$2
    shift 2
    until "$@"; do
        fail_if_one_ended
        ((SECONDS < deadline)) || fail "no $event in time"
        sleep 0.1
    done
}

logged() { grep --quiet --extended-regexp "$2" "$work/$1.log"; }

# Sends SIGTERM, and SIGKILL to the processes that still run after five seconds.
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
    pids=()
}

show_logs() {
    local log
    for log in "$work"/*.log; do
        [[ -e $log ]] || continue
        printf -- '--- last lines of %s\n' "${log##*/}"
        tail -n 40 "$log"
    done >&2
}

# Runs at every end of the script, that by a signal included. A second Ctrl-C does not disturb it.
clean_up() {
    local status=$?
    trap - EXIT
    trap '' INT TERM HUP
    if ((status != 0 && status < 128)); then show_logs; fi
    stop_all
    [[ -z $work ]] || rm -rf "$work"
    printf '\ndemo: over. Its processes have ended and its temporary files are deleted; only build/ stays.\n'
    exit "$status"
}

# --- the demonstration ---

# The device's service is busybox httpd, because that is one small package that installs no system service,
# needs no privileges, and stays in the foreground.
start_web_server() {
    mkdir "$work/www"
    head -c 64M /dev/urandom >"$work/www/random.bin"
    echo '<p>Served by the device, fetched through the tunnel. <a href="random.bin">64 MiB of random data</a>' \
        >"$work/www/index.html"
    start web busybox httpd -f -p 127.0.0.1:0 -h "$work/www"
    wait_until 10 "listening web server" find_web_port
    say "busybox httpd listens on 127.0.0.1:$web_port, with random.bin of 64 MiB"
}

# The kernel chose the port and the server does not print it, so look up the server's listening socket.
find_web_port() {
    local inode
    for inode in $(readlink /proc/"${pids[web]}"/fd/* | sed --quiet 's/^socket:\[\([0-9]*\)\]$/\1/p'); do
        # In that table, column 2 is the local address as hex IP:port, column 4 the state (0A is listening),
        # and column 10 the inode.
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

# Only start runs this. exec turns its background shell into the agent, which thereby has the pid that start
# noted.
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

# fetch URL FILE: prints the size and the seconds of each transfer
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

# One file would be too short to measure, and writing it to disk would take longer than the tunnel does.
measure() {
    fetch "http://$tunnel_address/random.bin?[1-8]" /dev/null |
        awk '{ bytes += $1; seconds += $2 }
             END { if (seconds > 0) printf "    %d MiB in %.2f s: %.0f MiB/s\n", bytes / 1048576, seconds, bytes / seconds / 1048576 }'
    say "agent's memory, after:   $(agent_memory)"
}

work=
trap clean_up EXIT
trap 'exit 130' INT
trap 'exit 143' TERM HUP

step "Building the agent and the lab (release); the first build takes some minutes"
build

work=$(mktemp -d)
# The proxy of the user's environment serves the internet, not the loopback interface.
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
step "The tunnel works: the file arrived unchanged"
if $once; then exit 0; fi

say "Try it by hand, from another terminal:"
say "  curl http://$tunnel_address/"
say "  curl --output /dev/null http://$tunnel_address/random.bin"
say "Watch it work:"
say "  tail -f $work/lab.log $work/agent.log"
say "Ctrl-C ends the demo."
trap 'exit 0' INT TERM HUP
while true; do
    fail_if_one_ended
    sleep 1
done
