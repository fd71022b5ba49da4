#!/usr/bin/env bash
# Installs every Debian package the project needs. Idempotent: quiet when all are present.
set -euo pipefail

PACKAGES=(
  build-essential cmake ninja-build pkg-config git
  clang clang-format libclang-rt-14-dev
  libssl-dev openssl libsqlite3-dev zlib1g-dev
  libprotobuf-dev protobuf-compiler libasio-dev libcli11-dev
  libp11-kit-dev softhsm2 libsecp256k1-dev nlohmann-json3-dev python3-jsonschema
  libxml2-dev libxml2-utils xmlsec1
  libldap2-dev slapd ldap-utils
  python3-matplotlib
  libgtest-dev libgmock-dev libbenchmark-dev
  procps dpkg-dev systemd
)

missing=()
for p in "${PACKAGES[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$p")
  fi
done
[ ${#missing[@]} -eq 0 ] && exit 0

SUDO=""
if [ "$(id -u)" -ne 0 ]; then SUDO="sudo"; fi
echo "Installing: ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
$SUDO apt-get update -qq
$SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
