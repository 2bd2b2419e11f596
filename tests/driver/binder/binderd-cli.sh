#!/bin/bash
# hmisvc-binderd's bad input: each case its exit status and the message that
# names what was wrong; a command's status comes back through it.
set -u
binderd=$1
scratch=$(mktemp -d)
trap 'chmod -R u+rwx "$scratch"; rm -rf "$scratch"' EXIT
mkdir -m 0755 "$scratch/open" "$scratch/private"
chmod 0700 "$scratch/private"
failures=0

# expect STATUS MESSAGE-PART ARGS...
expect() {
    local status=$1 part=$2 out got
    shift 2
    out=$("$binderd" "$@" 2>&1 </dev/null)
    got=$?
    if [[ $got != "$status" || $out != *"$part"* ]]; then
        echo "FAIL: hmisvc-binderd $*: status $got (want $status), output: $out"
        failures=$((failures + 1))
    fi
}

expect 2 "give --socket, a command, or both"
expect 2 "--protocol" --protocol 16 -- true
expect 1 "must be a directory only its owner" --socket "$scratch/open/binder" -- true
expect 1 "socket path too long" --socket "$scratch/private/$(printf 'x%.0s' {1..120})" -- true
expect 127 "cannot run" -- "$scratch/none"
expect 0 "" --socket "$scratch/private/binder" -- true
expect 3 "" -- sh -c 'exit 3'
# The command sees the driver's socket, in a directory only we can enter.
expect 0 "" -- sh -c 'test -S "$HMISVC_BINDER_SOCKET" && test "$(stat -c %a "$(dirname "$HMISVC_BINDER_SOCKET")")" = 700'
exit $((failures > 0))
