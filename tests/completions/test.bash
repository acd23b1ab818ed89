#!/bin/bash
# What bash offers is each name as it is, quoted for the line, and nothing of it is executed.
set -euo pipefail
folder=$(dirname "$(readlink -f "$0")")
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
cd "$scratch"
# shellcheck source=/dev/null
source "$folder/../../packaging/completions/korvanectl"

# offered WORD... : what is offered after these words and a blank, a line each.
offered() {
    COMP_WORDS=(korvanectl "$@" "")
    COMP_CWORD=$(($# + 1))
    COMPREPLY=()
    _korvanectl korvanectl "" "${*: -1}"
    local quoted
    for quoted in ${COMPREPLY[@]+"${COMPREPLY[@]}"}; do
        # Only what is quoted well comes through xargs as one word.
        printf '%s\n' "$quoted" | xargs -n 1 printf '%s\n'
    done
}

while IFS= read -r words; do
    echo "$words"
    read -ra line <<<"$words"
    offered "${line[@]}"
    echo
    while IFS= read -r name && [[ -n $name ]]; do :; done
done <"$folder/expected" >actual
diff <(sort "$folder/expected") <(sort actual)

# A name that is begun, as it is typed with its quotes and without them.
COMP_WORDS=(korvanectl trash show 'a\ bl')
COMP_CWORD=3
_korvanectl korvanectl 'a\ bl' show
[[ ${COMPREPLY[*]} == 'a\ blank:\ and\ a\ colon_14' ]]
_korvanectl korvanectl 'a bl' show
[[ ${COMPREPLY[*]} == 'a\ blank:\ and\ a\ colon_14' ]]
_korvanectl korvanectl 'b' show
((${#COMPREPLY[@]} == 0))

COMP_WORDS=(korvanectl tr)
COMP_CWORD=1
_korvanectl korvanectl tr korvanectl
[[ ${COMPREPLY[*]} == trash ]]

[[ ! -e hit ]] || { echo "a name was executed" >&2; exit 1; }
