#!/usr/bin/env bash
# Installs the Debian packages that building, testing, benchmarking and the demo need.
# Idempotent: safe to run again; apt-get skips what is installed already.
set -euo pipefail

packages=(
  build-essential cmake pkg-config git
  libboost-thread-dev libboost-system-dev libboost-exception-dev
  libsystemd-dev rapidjson-dev libexpat1-dev
  libgtest-dev libgmock-dev libbenchmark-dev
  dbus-daemon dbus-bin systemd libglib2.0-bin python3-gi gir1.2-glib-2.0
  playerctl
  libsdbus-c++-dev
  clang-14 libclang-rt-14-dev
)

sudo=""
if [ "$(id -u)" -ne 0 ]; then
  sudo="sudo"
fi

missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if [ ${#missing[@]} -eq 0 ]; then
  echo "install-deps: all packages present"
  exit 0
fi
echo "install-deps: installing ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
$sudo apt-get update -qq
$sudo apt-get install -y -qq --no-install-recommends "${missing[@]}"
