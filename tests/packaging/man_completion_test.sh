#!/usr/bin/env bash
# The installed man pages render without any of troff's warnings and name every command and
# option the programs' own help lists, and the installed completion offers the commands,
# subcommands and options of the installed pelmora.
#   man_completion_test.sh BUILD_DIR SCRATCH_DIR
set -uo pipefail
build=$(cd "$1" && pwd)
scratch=$2
rm -rf "$scratch" && mkdir -p "$scratch" || exit 2
failures=0
fail() { echo "FAIL $*"; failures=$((failures + 1)); }
root=$scratch/usr
cmake --install "$build" --prefix "$root" >/dev/null || { echo "FAIL cmake --install"; exit 1; }
pelmora=$root/bin/pelmora
pelmorad=$root/sbin/pelmorad

for page in man1/pelmora.1 man8/pelmorad.8; do
  manual=$root/share/man/$page
  [[ -s $manual ]] || { fail "$page is not installed"; continue; }
  warnings=$(LC_ALL=C.UTF-8 MANWIDTH=80 man --warnings=w -l "$manual" 2>&1 >"$scratch/rendered")
  [[ -z $warnings ]] || fail "$page renders with warnings: $warnings"
  grep -q '^NAME' "$scratch/rendered" || fail "$page rendered no NAME section"
done
# The pages name what --help lists (the rendered text, hyphens as the terminal shows them).
LC_ALL=C.UTF-8 MANWIDTH=200 man -l "$root/share/man/man8/pelmorad.8" 2>/dev/null | sed 's/‐/-/g' >"$scratch/pelmorad.txt"
for option in $("$pelmorad" --help | grep -oE -- '--[a-z-]+' | sort -u); do
  grep -qF -- "$option" "$scratch/pelmorad.txt" || fail "pelmorad.8 does not name $option"
done
LC_ALL=C.UTF-8 MANWIDTH=200 man -l "$root/share/man/man1/pelmora.1" 2>/dev/null >"$scratch/pelmora.txt"
commands=$("$pelmora" --help | awk '/^[^ ].*:$/ { s = $0; next } s == "Subcommands:" && /^  / { print $1 }')
for command in $commands; do
  grep -qw -- "$command" "$scratch/pelmora.txt" || fail "pelmora.1 does not name the command $command"
done

# The completion, sourced as bash-completion does, with the installed pelmora first in PATH.
completion=$root/share/bash-completion/completions/pelmora
[[ -s $completion ]] || fail "the completion is not installed"
complete_words() {  # complete_words WORD... (the last is the one being completed)
  PATH="$root/bin:$PATH" bash -c 'source "$1"; shift
    COMP_WORDS=("$@"); COMP_CWORD=$(($# - 1)); COMPREPLY=(); _pelmora; printf "%s\n" "${COMPREPLY[@]}"' \
    _ "$completion" "$@"
}
expect() {  # expect "WORDS" "WANTED..." [absent]
  local words=$1 wanted=$2 got
  read -ra argv <<<"$words"
  [[ $words == *" " ]] && argv+=("")
  got=$(complete_words "${argv[@]}" | sort | tr '\n' ' ')
  for word in $wanted; do
    [[ " $got" == *" $word "* ]] || fail "'$words' does not offer $word (offered: $got)"
  done
}
expect "pelmora " "$(tr '\n' ' ' <<<"$commands")"
expect "pelmora ad" "admin"
expect "pelmora admin " "exec put get ls time"
expect "pelmora admin --host server --account operator " "exec put get ls"
expect "pelmora admin --host ls " "exec put"                    # ls is --host's value here
expect "pelmora admin --hosts" "--hosts --hosts-file"
expect "pelmora admin ls -" "--help"
expect "pelmora admin --t" "--tls --trust-new --timeout"
expect "pelmora admin --tls --fingerprint SHA256:x " "keygen exec"  # the fingerprint is a value
expect "pelmora help admin " "exec put get"
expect "pelmora log " "tail"
[[ -z $(complete_words pelmora help admin --) ]] || fail "help offers options"
# The options offered are those of the subcommand reached, not of the program.
[[ -z $(complete_words pelmora --ho) ]] || fail "pelmora --ho offers admin's --host"

echo "$failures failure(s)"
[[ $failures -eq 0 ]]
