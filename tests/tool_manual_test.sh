#!/usr/bin/env bash
# The examples of the helps run, the manual pages show, and the shells complete:  tool_manual_test.sh TARN TERRAIN SHARE
# Shells and pages that are not installed here are left out.
share=$(realpath "$3")
source "$(dirname "$0")/tool_support.sh"
PATH=$(dirname "$tarn"):$PATH

# The files that the examples take, then every example.
asc 5 5 1 '(x % 4) * (y % 4) * 10' >hill.asc
"$tarn" -q median hill.asc hill.tif --iterations 0
for copy in land.tif sand.tif shaped.tif eroded.tif eroded.exr; do "$tarn" -q median "$terrain" $copy --iterations 0; done
"$tarn" -q preview land.tif picture.png --flat
echo '20 20' >places.txt
printf '%s\n' '[[step]]' 'command = "median"' 'in = "land.tif"' 'out = "@rounder"' >steps.toml
printf '%s\n' '0,0,1' '100,0,2' '0,100,3' '100,100,9' >points.csv
printf '%s\n' 'v 0 0 0' 'v 1 0 1' 'v 0 1 2' 'v 1 1 0' 'f 1 2 3' 'f 2 4 3' >model.obj
"$tarn" options --json | grep '"line":' | sed -E 's/.*"line":"(.*)",?$/\1/' >examples
(($(wc -l <examples) == 2 * $(grep -c '"summary":' <("$tarn" options --json)))) || fail "a command has not two examples"
while read -r line; do
    [[ $line == "tarn bench"* ]] && line="tarn bench --size 64" # the others take a while
    said=$(bash -c "$line" 2>&1) || fail "$line: $said"
done <examples
expect 0 "no value   no cell" info land.tif
expect 0 "made by    tarn median land.tif rounder.tif" info rounder.tif

# The pages, without a warning of the formatter.
if man --version &>/dev/null; then
    for page in "$share"/man/man1/*; do
        said=$(man --warnings -l -P cat "$page" 2>&1 >shown)
        [[ -z "$said" && "$(<shown)" == *NAME*SYNOPSIS*DESCRIPTION* ]] || fail "$page: $said"
    done
fi

# completes SHELL LINE WORD: the shell offers the word at the end of the line.
completes() {
    local offered
    offered=$($1_offers "$2")
    grep -qxF -e "$3" <<<"$offered" || fail "$1 does not complete '$2' to '$3': $offered"
}
bash_offers() {
    bash -c 'source "$0"; compopt() { :; }; COMP_WORDS=($1); [[ $1 == *" " ]] && COMP_WORDS+=("")
        COMP_CWORD=$((${#COMP_WORDS[@]} - 1)); _tarn; printf "%s\n" "${COMPREPLY[@]}"' "$share/bash-completion/completions/tarn" "$1"
}
fish_offers() { fish -c "source $share/fish/vendor_completions.d/tarn.fish; complete -C '$1'" | cut -f1; }
# zsh completes in a terminal only: in one of its own, with the list of what it would offer.
zsh_offers() {
    zsh -f -c 'zmodload zsh/zpty; zpty shell "TERM=dumb zsh -f -i"
        zpty -w shell "PS1= fpath=($0 \$fpath); autoload -U compinit; compinit -u -D; LISTMAX=1000; zstyle \":completion:*\" list-grouped false"
        zpty -w shell "stty columns 400 rows 400"; sleep 1
        zpty -n -w shell "$1"$'\''\t'\''; sleep 1; zpty -r shell text; print -r -- "$text"
        while zpty -r -t shell text; do print -r -- "$text"; done' "$share/zsh/vendor-completions" "$1" 2>&1 | tr -s ' \r\t' '\n'
}
for shell in bash fish zsh; do
    command -v $shell >/dev/null || continue
    completes $shell "tarn sha" shape
    completes $shell "tarn -q erode --plain-" --plain-angle
    completes $shell "tarn shape --fit " resample
    completes $shell "tarn help we" weather
done
finish
