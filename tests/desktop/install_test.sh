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
# quorvi doctor finds all of it through the XDG folders and a bus that can
# start the service (one of its own, whose service folder is the prefix's);
# with the folders empty, it says what is missing.
if command -v dbus-daemon >/dev/null; then
  cat > "$prefix/bus.conf" <<CONF
<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <type>session</type>
  <listen>unix:dir=$prefix</listen>
  <servicedir>$share/dbus-1/services</servicedir>
  <policy context="default">
    <allow send_destination="*" eavesdrop="true"/>
    <allow eavesdrop="true"/>
    <allow own="*"/>
  </policy>
</busconfig>
CONF
  # Started without the descriptors this script inherited (a build lock, say).
  read -r address pid < <(python3 -c 'import os, sys; os.closerange(3, 1024); os.execvp(sys.argv[1], sys.argv[1:])' \
    dbus-daemon --config-file="$prefix/bus.conf" --fork --print-address=1 --print-pid=1 | paste -sd' ')
  trap 'kill "$pid" 2>/dev/null; rm -rf "$prefix"' EXIT
  doctor=$(HOME="$prefix/home" XDG_CONFIG_HOME="$prefix/home/.config" XDG_DATA_HOME="$prefix/home/.local/share" \
             XDG_DATA_DIRS="$share" "$prefix/bin/quorvi" --address "$address" doctor) || fail "doctor: $doctor"
  grep -q "everything is in place" <<<"$doctor" || fail "doctor: $doctor"
  grep -q "ok   activatable" <<<"$doctor" || fail "doctor: $doctor"
  if missing=$(HOME="$prefix/home" XDG_DATA_HOME="$prefix/none" XDG_DATA_DIRS="$prefix/none" XDG_CONFIG_HOME="$prefix/none" \
                 "$prefix/bin/quorvi" --address "$address" doctor); then
    fail "doctor found an install where there is none: $missing"
  fi
  grep -q -- "--   KRunner runner" <<<"$missing" || fail "doctor: $missing"
fi
echo "install: all in place"
