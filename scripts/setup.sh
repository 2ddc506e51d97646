#!/usr/bin/env bash
# Installs the Debian packages rulenlu needs to build and test. Safe to run again.
set -euo pipefail
packages=(cmake g++ make rapidjson-dev libcli11-dev libgtest-dev libgmock-dev libbenchmark-dev
          libcurl4-openssl-dev libcpp-httplib-dev libpcre2-dev pkg-config python3 clang-format
          clang libclang-rt-14-dev)
missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
  sudo=""
  [ "$(id -u)" -eq 0 ] || sudo="sudo"
  $sudo apt-get update -qq
  DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi
