#!/usr/bin/env bash
# Installs the Debian 12 packages that the project needs and the machine lacks.
# Usage: scripts/setup.sh [build|all]
#   build  what building, the demo and the tests need (the default)
#   all    also what the checks of continuous integration need. Adds the architecture arm64 to this
#          machine's packages: the tests run on the phone's processor too, in an emulator.
# Touches apt only when a package is missing; then it needs root or sudo.
set -euo pipefail

packages=(
    cmake g++ ninja-build
    protobuf-compiler libprotobuf-dev
    android-liblog-dev android-libbase-dev
    libcli11-dev libssl-dev
    libgmock-dev libgtest-dev
    strace
)
foreign=
case "${1:-build}" in
    build) ;;
    all)
        foreign=arm64
        packages+=(
            clang clang-format clang-tidy git libclang-rt-14-dev libc++-dev libc++abi-dev
            g++-aarch64-linux-gnu qemu-user-static
            {libprotobuf,android-liblog,android-libbase,libssl,libgmock,libgtest}-dev:$foreign
        )
        ;;
    *)
        echo "setup.sh: unknown argument '$1': expected 'build' or 'all'" >&2
        exit 2
        ;;
esac

missing=()
for package in "${packages[@]}"; do
    state=$(dpkg-query -W -f '${db:Status-Status}' "$package" 2>/dev/null || true)
    [ "$state" = installed ] || missing+=("$package")
done
[ ${#missing[@]} -eq 0 ] && exit 0

as_root=()
if [ "$(id -u)" -ne 0 ]; then
    if ! command -v sudo >/dev/null; then
        echo "setup.sh: missing packages: ${missing[*]}" >&2
        echo "setup.sh: expected to run as root, or to find sudo, to install them" >&2
        exit 1
    fi
    as_root=(sudo)
fi
echo "setup.sh: installing ${missing[*]}"
log=$(mktemp)
trap 'rm -f "$log"' EXIT
if ! { "${as_root[@]}" apt-get update -q &&
    "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive \
        apt-get install -q -y --no-install-recommends "${missing[@]}"; } >"$log" 2>&1; then
    tail -n 20 "$log" >&2
    echo "setup.sh: could not install the missing packages: ${missing[*]}" >&2
    exit 1
fi
