# SPDX-FileCopyrightText: The kavrel developers
# SPDX-License-Identifier: MIT
# shellcheck shell=bash
# .ci/run and .ci/long source this file: it runs a command as one step of them.
set -euo pipefail
unset CDPATH
cd "$(dirname "${BASH_SOURCE[0]}")/.."
export CI=true
exec </dev/null

# timeout puts each step into a process group of its own, and ends the whole group when the time is up.
running=
trap 'kill -TERM "$running"; wait "$running"; exit 130' INT TERM

limit=30m # for each step; a script may set another
# step COMMAND...: runs the command for at most $limit, and prints how long it took.
step() {
    local started=$SECONDS status=0
    echo "== $*"
    timeout --kill-after=30 "$limit" "$@" &
    running=$!
    wait "$running" || status=$?
    echo "== $*: exit status $status after $((SECONDS - started)) s"
    return "$status"
}
