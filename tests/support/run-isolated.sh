#!/bin/sh
# Runs one test program with its own temporary HOME and XDG folders, offscreen Qt and,
# with --dbus, a private session bus. Nothing a test does reaches the real user's files.
set -eu
use_dbus=0
if [ "${1:-}" = "--dbus" ]; then
    use_dbus=1
    shift
fi

root=$(mktemp -d "${TMPDIR:-/tmp}/nimbrel-test.XXXXXX")
trap 'rm -rf "$root"' EXIT INT TERM
mkdir -p "$root/home" "$root/config" "$root/data" "$root/state" "$root/cache" "$root/runtime" "$root/tmp"
chmod 700 "$root/runtime"

export HOME="$root/home"
export XDG_CONFIG_HOME="$root/config"
export XDG_DATA_HOME="$root/data"
export XDG_STATE_HOME="$root/state"
export XDG_CACHE_HOME="$root/cache"
export XDG_RUNTIME_DIR="$root/runtime"
export TMPDIR="$root/tmp"
export QT_QPA_PLATFORM=offscreen
export LANG=C.UTF-8
export LC_ALL=C.UTF-8
unset EMAIL DBUS_SESSION_BUS_ADDRESS
here=$(cd "$(dirname "$0")" && pwd)
export LSAN_OPTIONS="suppressions=$here/lsan.supp:print_suppressions=0"
export ASAN_OPTIONS="${ASAN_OPTIONS:-detect_leaks=1:abort_on_error=0}"
export UBSAN_OPTIONS="${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}"

if [ "$use_dbus" = 1 ]; then
    dbus-run-session -- "$@"
else
    "$@"
fi
