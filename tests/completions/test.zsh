#!/bin/zsh -f
# What zsh offers is each name as it is, and nothing of it is executed.
set -eu
folder=${0:A:h}
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
cd "$scratch"

# zsh's own functions need a line that somebody edits; these say what they were given.
_wanted() { print -rl -- "${(@P)@[-1]}"; }
_describe() { print -rl -- "${(@P)2}"; }
_values() { shift; print -rl -- "$@"; }
_files() { :; }

# offered WORD... : what is offered after these words and a blank, a line each.
offered() {
    local -a words=(korvanectl "$@" "")
    local CURRENT=$#words
    source "$folder/../../packaging/completions/_korvanectl"
}

while IFS= read -r wanted; do
    print -r -- "$wanted"
    offered ${=wanted}
    print
    while IFS= read -r name && [[ -n $name ]]; do :; done
done <"$folder/expected" >actual
diff <(sort "$folder/expected") <(sort actual)
[[ ! -e hit ]] || { print -u2 "a name was executed"; exit 1; }
