#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# shellcheck disable=SC2016 # what is quoted is for the shell in there, or for apt
# Installs the Debian packages into a fresh Debian and uses them there: the program updates a build,
# and hosts are built against libpellox-dev alone, and update one, too. When all is removed again, the
# tarball with the binaries is tried there.
# Usage: scripts/try-packages.sh [FOLDER WITH THE PACKAGES]   (default: build/package)
# Needs root, debootstrap, 2 GB in TMPDIR and Debian's mirror that this machine's apt uses; or name
# one: MIRROR=http://... scripts/try-packages.sh
set -euo pipefail
cd "$(dirname "$0")/.."
shopt -s nullglob

packages=$(realpath "${1:-build/package}")
fail() {
    echo "try-packages.sh: $*" >&2
    exit 1
}

debs=("$packages"/*.deb)
[ ${#debs[@]} -eq 3 ] || fail "no three packages in $packages; scripts/package.sh makes them"
tarballs=("$packages"/pellox-*-Linux-*.tar.gz)
[ ${#tarballs[@]} -eq 1 ] || fail "no tarball with the binaries in $packages; scripts/package.sh makes it"
[ "$(id -u)" -eq 0 ] || fail "only root can make a folder with a Debian of its own; run it as root"
command -v debootstrap >/dev/null || fail "debootstrap is missing: scripts/setup.sh package"
# Mounts of ours end with the process, whatever ends it.
if [ -z "${PELLOX_OWN_MOUNTS:-}" ]; then
    PELLOX_OWN_MOUNTS=1 exec unshare --mount --propagation private "$0" "$packages"
fi

# shellcheck source=/dev/null
release=$(. /etc/os-release && echo "${VERSION_CODENAME:-bookworm}")
mirror=${MIRROR:-$(apt-get indextargets --format '$(REPO_URI)' \
    "Identifier: Packages" "Codename: $release" "Component: main" | head -n 1)}
[ -n "$mirror" ] || fail "this machine's apt has no mirror of $release; name one: MIRROR=http://... $0"

root=$(mktemp -d "${TMPDIR:-/tmp}/pellox-try.XXXXXX")
chmod 755 "$root" # apt fetches as a user of its own
clean() {
    umount "$root/proc" 2>/dev/null || true
    rm -rf --one-file-system "$root"
}
trap clean EXIT
trap 'exit 1' INT TERM HUP

inside() { # COMMAND...
    chroot "$root" env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin HOME=/srv LC_ALL=C.UTF-8 \
        DEBIAN_FRONTEND=noninteractive ${http_proxy:+http_proxy="$http_proxy"} \
        ${https_proxy:+https_proxy="$https_proxy"} ${no_proxy:+no_proxy="$no_proxy"} "$@"
}
step() { printf '\n== %s\n' "$*"; }

step "A fresh $release from $mirror"
debootstrap --variant=minbase "$release" "$root" "$mirror" >"$packages/debootstrap.log" 2>&1 || {
    tail -n 20 "$packages/debootstrap.log" >&2
    fail "debootstrap failed"
}
mountpoint -q "$root/proc" || mount -t proc proc "$root/proc"
# The way to the mirror is this machine's, through a proxy where it has one.
apt-config dump | grep -i '^Acquire::https\?::' >"$root/etc/apt/apt.conf.d/90way" || true
echo 'Dpkg::Use-Pty "0";' >"$root/etc/apt/apt.conf.d/91quiet"
mkdir "$root/packages"
cp "${debs[@]}" "$root/packages"
inside apt-get update -qq

step "The program, with what it depends on"
inside sh -c 'apt-get install -y -qq --no-install-recommends /packages/libpellox[0-9]*.deb /packages/pellox_*.deb' \
    >"$packages/install.log"
mkdir "$root/srv/source" "$root/srv/source/tests"
cp -r tests/package "$root/srv/source/tests"
inside /srv/source/tests/package/update_by_program.sh pellox /srv/game

step "A host, with libpellox-dev alone"
inside sh -c 'apt-get install -y -qq --no-install-recommends g++ make cmake pkg-config /packages/libpellox-dev*.deb' \
    >>"$packages/install.log"
inside sh -eu -c '
    cd /srv/source/tests/package
    for project in host headers; do
        cmake -S $project -B /srv/build-$project
        cmake --build /srv/build-$project
    done
    /srv/build-host/host
    ./build_with_pkgconfig.sh c++ "$(pkg-config --variable=libdir Pellox)" host/host.cpp /srv/host-by-pkgconfig
'

step "What headers and guides point to"
tests/package/check_documents.py "$root/usr/include/Pellox" "$root"/usr/share/doc/libpellox-dev*
# As the package brings them.
cp -r "$root"/usr/share/doc/libpellox-dev*/examples "$root/srv"
for example in examples/*/CMakeLists.txt; do
    example=$(dirname "$example")
    step "$example"
    build=/srv/build-$(basename "$example")
    inside sh -eu -c "cmake -S /srv/$example -B $build && cmake --build $build"
done

step "The hosts update a build"
inside sh -c 'apt-get install -y -qq --no-install-recommends python3' >>"$packages/install.log"
inside sh -eu -c '
    cd /srv/game
    update_by() { # PATCH COMMAND...
        patch=$1
        shift
        rm -rf installed
        cp -r releases/1 installed
        "$@" installed "$patch"
        diff -r releases/2 installed
    }
    update_by patch ../build-console-host/console-host update
    update_by patch.7z.001 ../build-console-host/console-host update
    update_by patch ../build-c-host/updater update
    update_by patch python3 ../examples/python-host/updater.py update
    python3 ../examples/python-host/updater.py check installed signatures-2
'

step "Removed without a trace"
inside apt-get purge -y -qq '^libpellox' '^pellox$' >>"$packages/install.log"
left=$(inside find / -xdev -not -path '/srv*' -not -path '/packages*' -not -path '/var/*' \
    -not -path '/tmp/*' -iname '*pellox*')
[ -z "$left" ] || fail "left behind: $left"

step "The tarball"
mkdir "$root/srv/source/scripts"
cp scripts/try-tarball.sh "$root/srv/source/scripts"
cp LICENSE "$root/srv/source"
cp "${tarballs[@]}" "$root/srv/pellox.tar.gz"
inside /srv/source/scripts/try-tarball.sh /srv/pellox.tar.gz

printf '\nThe packages work in a fresh %s.\n' "$release"
