#!/usr/bin/env bash
# Installs the packages of Debian 12 or 13 that the project needs and the machine lacks.
# Usage: scripts/setup.sh [build|package|all]
#   build  what building, the demo and the tests need (the default)
#   package
#          also what the manual page and a package of Debian need
#   all    also what the checks of continuous integration need. Adds the architecture arm64 to this
#          machine's packages: the tests run on the phone's processor too, in an emulator.
# Touches apt only when a package is missing; then it needs root or sudo.
set -euo pipefail
[[ ${1:-} != @(-h|--help) ]] || exec sed -n '2,/^[^#]/s/^# \{0,1\}//p' "$0"

packages=(
    cmake g++ ninja-build
    protobuf-compiler libprotobuf-dev
    android-liblog-dev android-libbase-dev
    libcli11-dev libedit-dev libpcap-dev libre2-dev
    libgmock-dev libgtest-dev
    strace python3
)
for_package=(dpkg-dev file help2man)
case "${*:-build}" in
    build) ;;
    package) packages+=("${for_package[@]}") ;;
    all)
        packages+=(
            "${for_package[@]}"
            clang clang-format clang-tidy git libclang-rt-dev llvm libc++-dev libc++abi-dev
            blueprint-tools checkpolicy m4 mmdebstrap selinux-utils shellcheck
            g++-aarch64-linux-gnu qemu-user-static tshark
            {android-liblog,android-libbase,libprotobuf}-dev:arm64
            {libedit,libgmock,libgtest,libpcap,libre2}-dev:arm64
        )
        ;;
    *)
        echo "setup.sh: unexpected arguments '$*': expected 'build', 'package' or 'all'" >&2
        exit 2
        ;;
esac

native=$(dpkg --print-architecture)
is_installed() {
    dpkg-query -W -f '${Package}:${Architecture} ${db:Status-Status}\n' "$1" 2>/dev/null |
        grep -qxF -e "$1 installed" -e "$1:$native installed" -e "$1:all installed"
}
missing=()
for package in "${packages[@]}"; do
    is_installed "$package" || missing+=("$package")
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
if [[ "${missing[*]}" == *:arm64* ]] && ! dpkg --print-foreign-architectures | grep -qx arm64; then
    echo "setup.sh: adding the architecture arm64 to this machine's packages"
    "${as_root[@]}" dpkg --add-architecture arm64
fi
log=$(mktemp)
trap 'rm -f "$log"' EXIT
if ! { "${as_root[@]}" apt-get update -q &&
    "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive \
        apt-get install -q -y --no-install-recommends "${missing[@]}"; } >"$log" 2>&1; then
    tail -n 20 "$log" >&2
    echo "setup.sh: could not install the missing packages: ${missing[*]}" >&2
    exit 1
fi
