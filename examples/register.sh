#!/bin/sh
# Registers the box and follows the registration: register.sh RUN_DIRECTORY TOKEN
#
# Exit code 0 when the box is registered, else that of cvex start. Needs cvex and jq.
set -eu
[ $# = 2 ] || { echo "usage: register.sh RUN_DIRECTORY TOKEN" >&2; exit 2; }
export CVEX_RUN_DIR="$1"
pipes=$(mktemp -d)
listener=
trap 'kill $listener 2>/dev/null || true; rm -r "$pipes"' EXIT
mkfifo "$pipes/published" "$pipes/ready"

# A success is published: there the listener is read no further.
sed -u '/"cloud_registration_done"/q' <"$pipes/published" |
    jq --unbuffered -r 'select(.name == "cvcloudd_progress") | "progress " + .payload' &
progress=$!
cvex listen --json >"$pipes/published" 2>"$pipes/ready" &
listener=$!
# Wait for the subscription before sending the command: a message that is published earlier is lost.
head -n 1 <"$pipes/ready" >/dev/null

status=0
reply=$(cvex start --json --token "$2") || status=$?
[ "$status" = 0 ] || kill $listener
wait $progress
echo "reply $reply"
exit "$status"
