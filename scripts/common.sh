# shellcheck shell=bash
# What every script in this folder begins with. It is sourced with the script's own arguments: it stops the
# script at the first command that fails, goes to the root of the checkout, and answers --help with the
# comment at the script's head.

set -euo pipefail

# Folders that the user names are relative to the folder from which the script was called.
# shellcheck disable=SC2034  # the scripts use it
called_from=$PWD
script_name=${0##*/}

unset CDPATH
cd "$(dirname "${BASH_SOURCE[0]}")/.."

usage() { sed -n '2,/^$/s/^# \{0,1\}//p' "scripts/$script_name"; }

# refuse REASON: for arguments that make no sense
refuse() {
    echo "$script_name: $1, see --help" >&2
    exit 2
}

# A number of at most 15 digits, which every program here can read.
random_seed() { od --address-radix=n --read-bytes=6 --format=u8 /dev/urandom | tr --delete ' '; }

for argument in "$@"; do
    case $argument in
        -h | --help) usage; exit 0 ;;
    esac
done
