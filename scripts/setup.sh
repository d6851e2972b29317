#!/usr/bin/env bash
# Installs, on a Debian 12 machine, every package vexlo needs to build, test and run its demo,
# and to build and check its Debian packages (scdoc for the manual pages; dpkg-dev, file, lintian),
# and the clients its front ends are tested with (tshark, python3-serial, systemd-analyze; Linux 6.1's
# CAN stack in user-mode Linux with can-utils, kmod and iproute2 inside).
# Idempotent and quiet: when everything is there it installs nothing and prints nothing.
set -euo pipefail

packages=(
  g++ cmake make pkg-config
  libusb-1.0-0-dev
  libgtest-dev googletest
  libbenchmark-dev
  python3-can python3-pytest
  umockdev libumockdev-dev
  valgrind gdb
  scdoc dpkg-dev file lintian
  python3-can python3-pytest python3-pip python3-setuptools python3-venv
  gcovr
  libpcap-dev tshark python3-serial systemd
  user-mode-linux can-utils kmod iproute2 libmnl-dev
)

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "ok installed"; then
    missing+=("$p")
  fi
done
[ ${#missing[@]} -eq 0 ] && exit 0

sudo=""
if [ "$(id -u)" -ne 0 ]; then
  if command -v sudo >/dev/null 2>&1; then sudo="sudo"; else
    echo "setup: need root to install: ${missing[*]}" >&2
    exit 1
  fi
fi
echo "setup: installing ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
$sudo apt-get update -qq
$sudo apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
