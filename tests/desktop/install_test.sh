#!/usr/bin/env bash
# Installs the build into a scratch prefix and checks what the desktop needs
# to find the service: the activation file naming the systemd unit, the unit
# itself (systemd-analyze verify), the search hosts' registrations pointing
# at the objects the service serves, the entry GNOME Shell's registration
# names, and the published interface.
set -euo pipefail
build=$1
prefix=$(mktemp -d)
trap 'rm -rf "$prefix"' EXIT
fail() { echo "FAIL: $*" >&2; exit 1; }

cmake --install "$build" --prefix "$prefix" >/dev/null
share=$prefix/share
unit=$prefix/lib/systemd/user/quorvifind.service
activation=$share/dbus-1/services/com.quorvi.quorvifind.service
for f in "$prefix/bin/quorvifind" "$prefix/bin/quorvi" "$unit" "$activation" \
         "$share/krunner/dbusplugins/quorvifind-krunner.desktop" \
         "$share/gnome-shell/search-providers/com.quorvi.quorvifind.search-provider.ini" \
         "$share/applications/com.quorvi.quorvifind.desktop" \
         "$share/dbus-1/interfaces/com.quorvi.QuorviXPCServiceProtocol.xml"; do
  [ -s "$f" ] || fail "$f is not installed"
done

value() { sed -n "s/^$2=//p" "$1" | head -1; }
[ "$(value "$activation" SystemdService)" = quorvifind.service ] || fail "activation file names no unit"
[ "$(value "$activation" Name)" = "$(value "$unit" BusName)" ] || fail "unit's BusName differs from the bus name"
[ "$(value "$unit" Type)" = dbus ] || fail "unit is not Type=dbus"
[ "$(value "$unit" Restart)" = on-failure ] || fail "unit is not restarted on failure"
[ -n "$(value "$unit" StartLimitBurst)" ] || fail "restarts are not limited"
runner=$share/krunner/dbusplugins/quorvifind-krunner.desktop
[ "$(value "$runner" X-Plasma-DBusRunner-Service)" = com.quorvi.quorvifind ] || fail "runner names another service"
[ "$(value "$runner" X-Plasma-DBusRunner-Path)" = /com/quorvi/quorvifind/krunner ] || fail "runner names another path"
ini=$share/gnome-shell/search-providers/com.quorvi.quorvifind.search-provider.ini
[ "$(value "$ini" ObjectPath)" = /com/quorvi/quorvifind/SearchProvider ] || fail "provider names another path"
[ "$(value "$ini" Version)" = 2 ] || fail "provider is not version 2"
[ -s "$share/applications/$(value "$ini" DesktopId)" ] || fail "provider's desktop entry is not installed"

# The unit as systemd reads it, with its program where this prefix put it.
if command -v systemd-analyze >/dev/null; then
  sed "s#^ExecStart=.*#ExecStart=$prefix/bin/quorvifind#" "$unit" > "$prefix/quorvifind.service"
  out=$(systemd-analyze verify --man=no "$prefix/quorvifind.service" 2>&1) || fail "systemd-analyze verify: $out"
  # verify reports some problems only as messages
  if grep -i "quorvifind.service" <<<"$out" | grep -qiv "graphical-session"; then fail "systemd-analyze verify: $out"; fi
fi
echo "install: all in place"
