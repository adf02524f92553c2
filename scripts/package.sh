#!/usr/bin/env bash
# Makes the Debian packages tunnel-client and tunnel-lab of what is checked out, in build/packages. Installs what is
# missing first.
#
# Usage: scripts/package.sh [--check]
#   --check  builds everything again, a little later, in another folder with a space in its name, with another
#            umask and time zone, for root as the user nobody, and compares the packages byte for byte; runs
#            lintian; reads from the programs how they are hardened
#
# The version is that of CMakeLists.txt, followed by the time of the commit unless the commit has the tag of that
# version. All times in the packages are the commit's (SOURCE_DATE_EPOCH, if that is set).
#
# The exit status is 0 when the packages are there and every check passed.

# shellcheck source=scripts/common.sh
source "$(dirname "${BASH_SOURCE[0]}")/common.sh"

fail() { echo "package.sh: $1" >&2; exit 1; }

check=false
for argument in "$@"; do
    case $argument in
        --check) check=true ;;
        *) refuse "unknown option '$argument'" ;;
    esac
done

# make_packages SOURCE OUTPUT BUILD
make_packages() {
    local source=$1 output=$2 build=$3 files=$3/debian-files
    rm -rf "$build/cpack"
    umask 022  # the packages have the modes of the folders that are made here
    mkdir -p "$files/lab"
    gzip -9n <"$source/packaging/tunnel-client.8" >"$files/tunnel-client.8.gz"
    gzip -9n <"$source/packaging/tunnel-lab.1" >"$files/tunnel-lab.1.gz"
    debian_changelog tunnel-client <"$source/CHANGELOG.md" | gzip -9n >"$files/changelog.Debian.gz"
    debian_changelog tunnel-lab <"$source/CHANGELOG.md" | gzip -9n >"$files/lab/changelog.Debian.gz"
    cmake -S "$source" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release -DBUILD_TESTS=OFF -DBUILD_LAB=ON \
        -DDEBIAN_FILES="$files" -DDEBIAN_VERSION="$version" -DSYSTEMD_UNIT_DIR=/lib/systemd/system \
        -DCMAKE_INSTALL_SYSCONFDIR=/etc -DCMAKE_INSTALL_PREFIX=/usr >"$build/package.log" 2>&1 || show_and_fail "$build/package.log"
    cmake --build "$build" >>"$build/package.log" 2>&1 || show_and_fail "$build/package.log"
    (cd "$build" && cpack -G DEB -B "$build/cpack" >>"$build/package.log" 2>&1) || show_and_fail "$build/package.log"
    mkdir -p "$output"
    mv "$build"/cpack/*.deb "$output"
}

show_and_fail() {
    tail -n 30 "$1" >&2
    fail "could not make the packages; the whole output is in $1"
}

# The topmost section of the changelog, as Debian writes it.
debian_changelog() {
    printf '%s (%s) unstable; urgency=medium\n\n' "$1" "$version"
    awk '/^## / { if (seen++) exit } /^### / { kind = $2 } /^- / && seen { print ""; $1 = kind ":"; printf "%s", $0 }
        /^  / && seen { $1 = $1; printf " %s", $0 } END { print "" }' |
        sed '/^$/d' | while read -r entry; do fold -s -w 74 <<<"$entry" | sed 's/ *$//; 1s/^/  * /; 2,$s/^/    /'; done
    printf '\n -- %s  %s\n' "tunnel-client developers <developers@tunnel-client.invalid>" \
        "$(LC_ALL=C date --utc --rfc-email --date="@$SOURCE_DATE_EPOCH")"
}

# package_version: of the commit
package_version() {
    local released
    released=$(sed --quiet 's/^project(tunnel-client VERSION \([0-9.]*\) .*/\1/p' CMakeLists.txt)
    if [[ -z $(git tag --points-at HEAD "v$released" 2>/dev/null) ]]; then
        released+=+$(date --utc --date="@$SOURCE_DATE_EPOCH" +%Y%m%d.%H%M)
    fi
    echo "$released-1"
}

scripts/setup.sh build package
if [[ -z ${SOURCE_DATE_EPOCH:-} ]]; then
    SOURCE_DATE_EPOCH=$(git log -1 --format=%ct) || fail "not a git checkout: set SOURCE_DATE_EPOCH"
fi
export SOURCE_DATE_EPOCH
version=$(package_version)
echo "package: version $version"
output=$PWD/build/packages
rm -rf "$output"
make_packages "$PWD" "$output" "$PWD/build/package"
ls -l "$output"
$check || exit 0

# --- the check ------------------------------------------------------------------------------------------------------

work=$(mktemp --directory)
trap 'rm -rf "$work"' EXIT
chmod 755 "$work"

# The same sources again, in another folder with a space in its name, and as far as possible by another user.
mkdir "$work/another place"
git ls-files -z | tar --null --files-from=- --create | tar --extract --directory "$work/another place"
again=(env TZ=Pacific/Kiritimati HOME="$work" bash -c "umask 077; $(declare -f make_packages show_and_fail fail debian_changelog)
    cd '$work'; version=$version; make_packages \"\$@\"" package "$work/another place" "$work/packages" "$work/build elsewhere")
if ((EUID == 0)); then
    chown --recursive nobody "$work"
    again=(setpriv --reuid=nobody --regid=nogroup --clear-groups "${again[@]}")
fi
echo "check: building again"
"${again[@]}"
status=0
for package in "$output"/*.deb; do
    if cmp "$package" "$work/packages/${package##*/}"; then
        echo "check: ${package##*/} is the same byte for byte"
    else
        status=1
    fi
done

# initial-upload-closes-no-bugs: these packages are not uploaded to Debian.
# non-standard-file-perm: the environment file holds passwords.
echo "check: lintian"
tags=initial-upload-closes-no-bugs,non-standard-file-perm
lintian_options=(--suppress-tags "$tags" --fail-on "error,warning")
((EUID != 0)) || lintian_options+=(--allow-root)
lintian "${lintian_options[@]}" "$output"/*.deb || status=1

# A program is position-independent, its relocations are read-only before it starts, its stack is guarded, and calls of
# the C library are checked.
is_hardened() {
    local program=$1 symbols
    symbols=$(readelf --wide --dyn-syms "$program")
    readelf --file-header "$program" | grep -q 'Type: .*DYN' &&
        readelf --program-headers "$program" | grep -q GNU_RELRO &&
        readelf --dynamic "$program" | grep -q 'BIND_NOW\|FLAGS.*NOW' &&
        readelf --wide --program-headers "$program" | grep 'GNU_STACK' | grep -qv 'RWE' &&
        grep -q '__stack_chk_fail' <<<"$symbols" && grep -q '_chk@' <<<"$symbols"
}
for program in core/tunnel-client lab/tunnel-lab; do
    if is_hardened "build/package/$program"; then
        echo "check: ${program##*/} is hardened"
    else
        echo "check: ${program##*/} is not hardened" >&2
        status=1
    fi
done
exit "$status"
