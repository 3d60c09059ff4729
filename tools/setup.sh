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
  # text recognition: Tesseract with the English and simplified Chinese models
  libtesseract-dev libleptonica-dev tesseract-ocr tesseract-ocr-eng tesseract-ocr-chi-sim
  # text recognition tests draw their images: ImageMagick and fonts with Latin and Han glyphs
  imagemagick fonts-dejavu-core fonts-wqy-zenhei
  # tools the service and its tests run
  dbus-daemon dbus-bin lsof procps sqlite3 python3
  # benchmarks: the tools a user would otherwise run
  fd-find plocate findutils poppler-utils
  # fuzzing and the sanitizer build (make sanitize, make fuzz): clang's libFuzzer and sanitizer runtimes
  clang libclang-rt-14-dev
  # desktop integration: GNOME Shell's search-provider interface (for the tests), rofi driven
  # under Xvfb by xdotool (end-to-end test), systemd-analyze for the unit file
  gnome-shell-common rofi xvfb xdotool systemd
)

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed'; then
    missing+=("$p")
  fi
done
# KRunner's interface file, which the desktop tests check the runner against. Its package
# (libkf5runner5) pulls in about 110 others (Qt, KDE Frameworks), so only its .deb is fetched
# and the one file taken out of it.
krunner_xml=/var/cache/quorvifind/kf5_org.kde.krunner1.xml
fetch_krunner_xml() {
  [ -s "$krunner_xml" ] && return 0
  local tmp
  tmp=$(mktemp -d)
  (cd "$tmp" && apt-get download -qq libkf5runner5 >/dev/null 2>&1 || { $SUDO apt-get update -qq >/dev/null; apt-get download -qq libkf5runner5 >/dev/null 2>&1; }) &&
    dpkg-deb -x "$tmp"/libkf5runner5_*.deb "$tmp/x" &&
    $SUDO mkdir -p "$(dirname "$krunner_xml")" &&
    $SUDO cp "$tmp/x/usr/share/dbus-1/interfaces/kf5_org.kde.krunner1.xml" "$krunner_xml" ||
    echo "setup: could not fetch KRunner's interface file (desktop tests will fail)" >&2
  rm -rf "$tmp"
}
SUDO=""
[ "$(id -u)" -ne 0 ] && SUDO="sudo"
if [ ${#missing[@]} -eq 0 ]; then fetch_krunner_xml; exit 0; fi

echo "setup: installing ${missing[*]}" >&2
export DEBIAN_FRONTEND=noninteractive
$SUDO apt-get update -qq >/dev/null
$SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
fetch_krunner_xml
