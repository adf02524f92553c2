#!/usr/bin/env bash
# Installs the Debian packages that this project needs and this machine lacks. This can take some minutes.
#
# Usage: scripts/setup.sh [GROUP]...
#   GROUP  a group of scripts/packages.txt, such as build or test; without any, all of them
#
# A machine that has everything needs neither root nor a network. Otherwise run the script as root, or with
# sudo installed. The output of apt goes to build/setup.log; its last lines are shown when apt fails.

# shellcheck source=scripts/common.sh
source "$(dirname "${BASH_SOURCE[0]}")/common.sh"

listing() { grep --invert-match '^#' scripts/packages.txt; }

for group in "$@"; do
    listing | cut --delimiter ' ' --fields 1 | grep --quiet --line-regexp --fixed-strings -e "$group" ||
        refuse "no group '$group' in scripts/packages.txt"
done

wanted() { listing | awk -v groups=" $* " 'groups == "  " || index(groups, " " $1 " ") { print $2 }'; }

is_installed() { [[ $(dpkg-query --show --showformat='${db:Status-Status}' "$1" 2>/dev/null) == installed ]]; }

missing=()
for package in $(wanted "$@"); do
    is_installed "$package" || missing+=("$package")
done
if ((${#missing[@]} == 0)); then
    echo "setup: every package that is needed is installed"
    exit 0
fi

if ! command -v apt-get >/dev/null; then
    echo "setup: there is no apt-get here. The project is built on Debian 12 and needs these packages of it:" >&2
    echo "setup: ${missing[*]}" >&2
    exit 1
fi
as_root=()
if ((EUID != 0)); then
    if ! command -v sudo >/dev/null; then
        echo "setup: these packages are missing: ${missing[*]}" >&2
        echo "setup: run this script as root to install them, or install sudo first" >&2
        exit 1
    fi
    as_root=(sudo)
fi

log=build/setup.log

# A freshly started machine may be busy with its own updates. apt waits up to five minutes for their lock.
apt() {
    "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive apt-get --quiet --quiet -o DPkg::Lock::Timeout=300 \
        -o Dpkg::Use-Pty=0 "$@" >>"$log" 2>&1 </dev/null && return
    echo "setup: FAILED: apt-get $1; the last lines of $PWD/$log are:" >&2
    tail -n 20 "$log" >&2
    exit 1
}

echo "setup: installing ${#missing[@]} Debian packages: ${missing[*]}"
echo "setup: this can take some minutes; the output of apt goes to $log"
mkdir -p build
: >"$log"
apt update
apt install --yes --no-install-recommends "${missing[@]}"
echo "setup: installed within $SECONDS seconds"
