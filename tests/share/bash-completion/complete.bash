# Reads command lines and prints what the completion offers for the end of each, separated by "|".
# Words are split as bash does before it calls a completion: also at "=".
# shellcheck shell=bash disable=SC2034,SC1090,SC1091

. /usr/share/bash-completion/bash_completion
. "$1"
compopt() { :; }
while IFS= read -r COMP_LINE; do
    COMP_POINT=${#COMP_LINE} COMPREPLY=()
    escaped=${COMP_LINE//\\ /$'\1'}
    IFS=' ' read -ra COMP_WORDS <<<"${escaped//=/ = }"
    COMP_WORDS=("${COMP_WORDS[@]//$'\1'/\\ }")
    [[ $COMP_LINE == *[!\\]' ' ]] && COMP_WORDS+=('')
    COMP_CWORD=$((${#COMP_WORDS[@]} - 1))
    _vxa vxa "${COMP_WORDS[COMP_CWORD]}" "${COMP_WORDS[COMP_CWORD - 1]}"
    (IFS='|'; printf '%s\n' "${COMPREPLY[*]}")
done
