# Completion of velmar_sim for bash: commands, options, and the words of an option that takes one of
# {A,B,C}, all of them as --help names them; files everywhere else. The package bash-completion finds
# this file by its name. Without that package: . PREFIX/share/bash-completion/completions/velmar_sim
_velmar_sim() {
    local word=${2#=} option=$3 command='' section='' commands='' options='' words='' name rest
    # To bash "--option=WORD" is three words.
    [ "$option" != = ] || option=${COMP_WORDS[COMP_CWORD - 2]}
    for name in "${COMP_WORDS[@]:1:COMP_CWORD-1}"; do
        [[ $name == -* ]] || { command=$name && break; }
    done
    while read -r name rest; do
        if [[ $name == -* ]]; then
            options+=" ${name//,/ }"
            [[ ,$name, == *",$option,"* && $rest =~ ^[A-Z:]*\{([^}]*)\} ]] && words=${BASH_REMATCH[1]//,/ }
        elif [[ $name == *: ]]; then
            section=$name
        elif [ "$section" = Subcommands: ]; then
            commands+=" $name"
        fi
    done < <("$1" ${command:+"$command"} --help 2>/dev/null)
    if [[ -z $words && $word == -* ]]; then
        words=$options
    elif [[ -z $words && -z $command ]]; then
        words=$commands
    fi
    mapfile -t COMPREPLY < <(compgen -W "$words" -- "$word")
}
complete -o default -F _velmar_sim velmar_sim
