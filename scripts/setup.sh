#!/usr/bin/env bash
# Installs the Debian packages that this project needs and this machine lacks.
#
# Usage: scripts/setup.sh [GROUP]...
#   The groups of scripts/packages.txt to look at, such as build or test; without any, all of them.
#
# A machine that has everything needs neither root nor a network. Otherwise run it as root, or with sudo installed.

set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

usage() { sed -n '2,/^$/s/^# \{0,1\}//p' scripts/setup.sh; }

listing() { grep --invert-match '^#' scripts/packages.txt; }

for group in "$@"; do
    case $group in
        -h | --help) usage; exit 0 ;;
    esac
    if ! grep --quiet "^$group " scripts/packages.txt; then
        echo "setup.sh: no group '$group' in scripts/packages.txt, see --help" >&2
        exit 2
    fi
done

wanted() { listing | awk -v groups=" $* " 'groups == "  " || index(groups, " " $1 " ") { print $2 }'; }

is_installed() { [[ $(dpkg-query --show --showformat='${db:Status-Status}' "$1" 2>/dev/null) == installed ]]; }

missing=()
for package in $(wanted "$@"); do
    is_installed "$package" || missing+=("$package")
done
if ((${#missing[@]} == 0)); then
    echo "setup: every package needed is installed"
    exit 0
fi

if ! command -v apt-get >/dev/null; then
    echo "setup: no apt-get here. This project is built on Debian 12; it needs what is there called: ${missing[*]}" >&2
    exit 1
fi
as_root=()
if ((EUID != 0)); then
    if ! command -v sudo >/dev/null; then
        echo "setup: missing packages: ${missing[*]}" >&2
        echo "setup: to install them, run this as root, or install sudo" >&2
        exit 1
    fi
    as_root=(sudo)
fi

echo "setup: installing ${missing[*]}"
# A freshly started machine may be busy with its own updates: wait for their lock rather than fail.
apt=("${as_root[@]}" env DEBIAN_FRONTEND=noninteractive apt-get --quiet --quiet -o DPkg::Lock::Timeout=300 \
    -o Dpkg::Use-Pty=0)
"${apt[@]}" update
"${apt[@]}" install --yes --no-install-recommends "${missing[@]}"
