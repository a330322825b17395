#!/bin/sh
# Prints, for help2man, the help of velmar_sim and that of each of its commands, a section each.
# Usage: VELMAR_SIM=PROGRAM whole_help.sh
set -eu
"$VELMAR_SIM" --help
for command in $("$VELMAR_SIM" --help | sed -n '/^Subcommands:/,/^$/s/^  \([^ ]*\) .*/\1/p'); do
    printf '\n*The command %s*\n\n' "$command"
    # "Options:" alone would begin the page's own section of that name.
    "$VELMAR_SIM" "$command" --help | sed "s/^Usage: .*/\n&\n/; s/^Options:/Options of $command:/"
done
