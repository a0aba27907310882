#!/usr/bin/env bash
# Makes sure the build's tools are present. As root on Debian it installs what is
# missing; otherwise it names the missing packages and fails.
set -euo pipefail

need=()
have_cmd() { command -v "$1" >/dev/null 2>&1; }
have_pkg() { dpkg-query -W -f='${Status}' "$1" 2>/dev/null | grep -q "install ok installed"; }

have_cmd cmake || need+=(cmake)
have_cmd g++ || need+=(g++)
have_cmd make || need+=(make)
have_cmd python3 || need+=(python3)
have_cmd x86_64-w64-mingw32-g++ || need+=(g++-mingw-w64-x86-64)
have_pkg mingw-w64-x86-64-dev || need+=(mingw-w64-x86-64-dev)
have_pkg libgtest-dev || need+=(libgtest-dev)
have_pkg libgmock-dev || need+=(libgmock-dev)
have_pkg libbenchmark-dev || need+=(libbenchmark-dev)
have_cmd objdump || need+=(binutils)
have_cmd clang++ || need+=(clang)
# libFuzzer and the sanitizer runtimes for clang
have_pkg libclang-rt-14-dev || need+=(libclang-rt-14-dev)

if [ ${#need[@]} -eq 0 ]; then
  exit 0
fi
if [ "$(id -u)" -ne 0 ] || ! have_cmd apt-get; then
  echo "missing packages: ${need[*]}" >&2
  echo "install them (Debian: apt-get install ${need[*]}) and run make again" >&2
  exit 1
fi
echo "installing: ${need[*]}"
export DEBIAN_FRONTEND=noninteractive
apt-get update -qq
apt-get install -y -qq --no-install-recommends "${need[@]}" >/dev/null
