#!/bin/bash
# Checks the bash completion of orvctl: commands, search types, each
# command's options, and no completion for values of options.
# usage: completion_test.sh tools/orvctl.bash-completion
set -u
# Stand-ins for the bash-completion helpers the script uses.
_init_completion() {
  words=("${COMP_WORDS[@]}")
  cword=$COMP_CWORD
  cur=${words[cword]}
  prev=${words[cword - 1]:-}
}
_filedir() { COMPREPLY=(FILES); }
complete() { :; }
# shellcheck disable=SC1090
source "$1"

failures=0
expect() {  # expect "<command line ending with the word to complete>" "<expected words>"
  read -r -a COMP_WORDS <<<"$1"
  [[ $1 == *" " ]] && COMP_WORDS+=("")
  COMP_CWORD=$((${#COMP_WORDS[@]} - 1))
  COMPREPLY=()
  _orvctl
  local got="${COMPREPLY[*]}"
  if [[ "$got" != "$2" ]]; then
    echo "FAIL: '$1' completed to '$got', expected '$2'"
    failures=$((failures + 1))
  fi
}

expect "orvctl se" "search"
expect "orvctl -H 127.0.0.1:389 d" "doctor decipher db"
expect "orvctl re" "registry rel"
expect "orvctl --certdb /etc/orv in" "info"
expect "orvctl search " "people groups user-groups membership members servers facilities"
expect "orvctl search us" "user-groups"
expect "orvctl search people " ""
expect "orvctl search --json mem" "membership members"
expect "orvctl search people alice --a" "--attrs"
expect "orvctl auth --p" "--password-file --port"
expect "orvctl auth --password-file " "FILES"
expect "orvctl --certdb " "FILES"
expect "orvctl -H " ""
expect "orvctl doctor --ssl" "--ssl-port --ssl"
expect "orvctl passwd --new" "--new-password-file"
expect "orvctl help v" "validate"
expect "orvctl guid --" "--help"
expect "orvctl registry r" "register remove"
expect "orvctl registry facility srv --type web-" "web-client web-service"
expect "orvctl registry facility srv --status " "on off"
expect "orvctl db " "create show"
expect "orvctl rel " "endtype type create search remove notify"
expect "orvctl rel create T a b --context-" "--context-a --context-b"
expect "orvctl db create --" "--json --id --host --port --ssl --certdb --help"
expect "orvctl --v" "--version"
[ $failures -eq 0 ] && echo "completion OK"
exit $failures
