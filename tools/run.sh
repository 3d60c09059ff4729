#!/usr/bin/env bash
# The service's main job for a person at a terminal: start quorvifind on the
# session bus (or on a private bus when there is none), index a folder (the
# home folder unless one is named), then search it interactively. Without a
# terminal the service stays in the foreground after indexing.
set -euo pipefail
build=${1:-build}
folder=${2:-$HOME}
service="$build/src/service/quorvifind"
client="$build/tools/quorvi/quorvi"

private_bus_pid=""
service_pid=""
cleanup() {
  [ -n "$service_pid" ] && kill "$service_pid" 2>/dev/null || true
  [ -n "$private_bus_pid" ] && kill "$private_bus_pid" 2>/dev/null || true
}
trap cleanup EXIT
trap 'exit 130' INT TERM

if [ -z "${DBUS_SESSION_BUS_ADDRESS:-}" ] || ! busctl --user status >/dev/null 2>&1; then
  out=$(dbus-daemon --session --print-address=1 --print-pid=1 --fork --nopidfile)
  DBUS_SESSION_BUS_ADDRESS=$(echo "$out" | sed -n 1p)
  export DBUS_SESSION_BUS_ADDRESS
  private_bus_pid=$(echo "$out" | sed -n 2p)
  echo "No session bus here: started a private one."
  echo "  export DBUS_SESSION_BUS_ADDRESS='$DBUS_SESSION_BUS_ADDRESS'"
fi

if "$client" --timeout 1 ping >/dev/null 2>&1; then
  echo "quorvifind already runs on this bus; using it."
else
  "$service" &
  service_pid=$!
  for _ in $(seq 100); do "$client" --timeout 1 ping >/dev/null 2>&1 && break; sleep 0.05; done
fi

echo
echo "Call it from another terminal (with the bus address above if one was printed):"
echo "  $client --help"
echo "  $client SearchFilesWithQueryMaxcountCompletion report 20"
echo "  busctl --user call com.quorvi.quorvifind /com/quorvi/quorvifind \\"
echo "    com.quorvi.QuorviXPCServiceProtocol SearchFilesWithQueryMaxcountCompletion sx report 20"
echo
"$client" --timeout 60 index "$folder"
if [ -t 0 ] && [ -t 1 ]; then
  "$client" search
elif [ -n "$service_pid" ]; then
  echo "quorvifind is serving; Ctrl-C stops it."
  wait "$service_pid"
fi
