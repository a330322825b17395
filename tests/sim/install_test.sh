#!/usr/bin/env bash
# Installs BUILD, moves it, and holds that it names no folder of its past, that it plays scenarios in
# an empty environment, and that completion and manual page say of each command what --help does.
# Usage: install_test.sh CMAKE SOURCE BUILD
set -euo pipefail
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

fail() {
    echo "install_test: $*" >&2
    exit 1
}

"$1" --install "$3" --prefix "$work/installed" >/dev/null
mv "$work/installed" "$work/moved"
cd "$work/moved"
tool=$PWD/bin/velmar_sim
page=share/man/man1/velmar_sim.1

! grep -rlF -e "$2" -e "$3" -e "$work" . >&2 ||
    fail "the files above name a folder of the build, or where they were installed first"
env -i "$tool" run --quiet share/velmar/scenarios/tour.textproto - <<'END'
phone { modem_state: 4 missing_entry_point: "RILC_Reconnect" }
step { log { tag: "libsitril-client" matching: ".*RILC_Reconnect.*" } }
END
(cd share/velmar && find . -name '*.proto' -exec protoc -o /dev/null {} +)

. share/bash-completion/completions/velmar_sim
# Prints what is offered for the last word of the command line "velmar_sim WORD...", sorted.
offered() {
    COMP_WORDS=(velmar_sim "$@") COMP_CWORD=$#
    _velmar_sim "$tool" "${COMP_WORDS[-1]}" "${COMP_WORDS[-2]}"
    printf '%s\n' "${COMPREPLY[@]}" | sort
}
expect() {
    [ "$2" = "$3" ] || fail "$1: expected"$'\n'"$2"$'\n'"but got"$'\n'"$3"
}

[[ $(complete -p velmar_sim) == *'-o default'* ]] || fail "expected files where nothing is offered"
expect 'the offer for a file' '' "$(offered run --velmar '')"
expect 'the offer for r' run "$(offered r | grep -x run)"
for command in '' $(offered ''); do
    help=$("$tool" $command --help)
    [[ $help == *"Usage: velmar_sim $command"* ]] || fail "the offer $command is no command"
    options=$(grep -oE '^  -[^ ]+' <<<"$help" | tr -s ', ' '\n' | sed '/^$/d' | sort)
    expect "the options of '$command'" "$options" "$(offered $command -)"
    while read -r option words; do
        words=$(tr ',' '\n' <<<"$words" | sort)
        expect "the words of $option" "$words" "$(offered $command "$option" '')"
        expect "the words of $option=" "$words" "$(offered $command "$option" =)"
    done < <(sed -nE 's/^  ([^ ]*,)?(--[^ ]+) [^ ]*\{([^ ]*)\}.*/\2 \3/p' <<<"$help")
    [ -e "$page" ] || continue
    section=${command:+the command $command}
    section=$(sed -nE "/^.SH \"?${section:-options}/I,/^.SH/p" "$page" | tr -d '\\')
    for option in $options; do
        [[ $section == *"$option"* ]] || fail "the manual page lacks $option of '$command'"
    done
done
