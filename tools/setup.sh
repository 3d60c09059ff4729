#!/usr/bin/env bash
# Installs every Debian package that building, testing, benchmarking and running
# quorvifind need. Idempotent and quiet when everything is already present.
set -euo pipefail

packages=(
  # build
  cmake ninja-build g++ pkg-config ccache
  # libraries
  libsystemd-dev libasio-dev nlohmann-json3-dev libsqlite3-dev libicu-dev
  libgtest-dev libgmock-dev
  # metadata queries: MIME types, desktop entries and the recently-used list
  # (GIO, shared-mime-info); document text (Poppler, libzip, libxml2)
  libglib2.0-dev shared-mime-info libpoppler-cpp-dev libzip-dev libxml2-dev
  # application bundles' property lists
  libplist-dev
  # pinyin table generation (Unihan readings; words with their readings)
  unicode-data bzip2 rime-data-pinyin-simp
  # tools the service and its tests run
  dbus-daemon dbus-bin lsof procps sqlite3 python3
  # benchmarks: the tools a user would otherwise run
  fd-find plocate findutils poppler-utils
)

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed'; then
    missing+=("$p")
  fi
done
[ ${#missing[@]} -eq 0 ] && exit 0

echo "setup: installing ${missing[*]}" >&2
SUDO=""
[ "$(id -u)" -ne 0 ] && SUDO="sudo"
export DEBIAN_FRONTEND=noninteractive
$SUDO apt-get update -qq >/dev/null
$SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
