#!/bin/sh
# Starts a new message in the user's mail program with the support zip attached.
# Usage: EmailLogScript.sh SUBJECT ZIPPATH
# Both arrive as arguments and are only ever passed on as arguments: nothing is evaluated.
# Exits with the status of xdg-email, or 0 when it is still running after a few seconds (some mail
# programs keep it waiting until they are closed: by then the message is open); 2 when xdg-email is
# missing, 64 on bad usage, 66 when the zip does not exist.

if [ "$#" -ne 2 ]; then
    echo "usage: EmailLogScript.sh SUBJECT ZIPPATH" >&2
    exit 64
fi

if [ ! -f "$2" ]; then
    printf 'EmailLogScript.sh: no such file: %s\n' "$2" >&2
    exit 66
fi

mailer=$(command -v xdg-email) || mailer=
if [ -z "$mailer" ]; then
    echo "EmailLogScript.sh: xdg-email not found (install xdg-utils)" >&2
    exit 2
fi

"$mailer" --subject "$1" --attach "$2" </dev/null &
pid=$!
# Wait up to ten seconds for an answer; a mail program that started and holds on is a success.
tries=0
while kill -0 "$pid" 2>/dev/null; do
    if [ "$tries" -ge 20 ]; then
        exit 0
    fi
    /bin/sleep 0.5
    tries=$((tries + 1))
done
wait "$pid"
