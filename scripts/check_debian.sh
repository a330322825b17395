#!/usr/bin/env bash
# Plays both commands of the README as they are in HEAD on a fresh Debian, in a root of its own that
# goes with the run. Takes the packages from the mirror that this machine's own apt uses. Needs root.
# Usage: scripts/check_debian.sh 12|13
set -euo pipefail
[[ ${1:-} != @(-h|--help) ]] || exec sed -n '2,/^[^#]/s/^# \{0,1\}//p' "$0"
cd "$(dirname "$0")/.."

case "$*" in
    12) release=bookworm ;;
    13) release=trixie ;;
    *)
        echo "check_debian.sh: unexpected arguments '$*': expected '12' or '13'" >&2
        exit 2
        ;;
esac
if [ "$(id -u)" -ne 0 ]; then
    echo "check_debian.sh: SKIPPED: expected to run as root, to make a root for Debian $1"
    exit 0
fi
mirror=$(apt-get indextargets --format '$(REPO_URI)' \
    'Created-By: Packages' 'Origin: Debian' 'Label: Debian' | head -n 1)
echo "check_debian.sh: Debian $1"
# The root that mmdebstrap makes is the first argument of a hook, and is not kept.
mmdebstrap --quiet --variant=apt --skip=cleanup "$release" /dev/null "$mirror" \
    --customize-hook="git clone --quiet . \"\$1/root/velmar\"" \
    --customize-hook='chroot "$1" /root/velmar/scripts/demo.sh >"$1/demo" || { cat "$1/demo"; exit 1; }' \
    --customize-hook='tail -n 1 "$1/demo"' \
    --customize-hook='chroot "$1" /root/velmar/scripts/test.sh'
