#!/usr/bin/env bash
# Installs the Debian packages the build needs, only when some are missing.
# Idempotent; runs as root or through sudo.
set -euo pipefail

packages=(
  build-essential cmake pkg-config
  libopencv-dev libopencv-contrib-dev
  libeigen3-dev
  libgtest-dev libgmock-dev
  libbenchmark-dev
  pybind11-dev python3-dev python3-numpy python3-pytest python3-opencv
  dpkg-dev file   # make package and its test: dpkg-shlibdeps, and file to find the shared objects
)

# --fuzz: also clang and its fuzzing runtime, for `make fuzz`.
if [ "${1:-}" = "--fuzz" ]; then
  packages+=(clang libclang-rt-14-dev)
fi

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed'; then
    missing+=("$p")
  fi
done

if [ ${#missing[@]} -eq 0 ]; then
  exit 0
fi

echo "install-deps: installing ${missing[*]}" >&2
if [ "$(id -u)" -eq 0 ]; then
  sudo=()
elif command -v sudo >/dev/null 2>&1; then
  sudo=(sudo)
else
  echo "install-deps: need root or sudo to install ${missing[*]}" >&2
  exit 1
fi

export DEBIAN_FRONTEND=noninteractive
"${sudo[@]}" apt-get update -q
"${sudo[@]}" apt-get install -y -q --no-install-recommends "${missing[@]}"
