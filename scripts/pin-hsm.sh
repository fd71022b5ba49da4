#!/usr/bin/env bash
# Pins an HSM's certificate for libqlapi: writes "ADDRESS:PORT FINGERPRINT" into the calling
# user's ~/.qlapi_known_hsms (the home directory from the password database, as the library
# finds it), or into $QLAPI_KNOWN_HSMS when set (the library reads that file then), replacing any line for that address and port. The file stays private (0600) and is
# replaced in one rename.
#
#   scripts/pin-hsm.sh 127.0.0.1:4433 "$(qlhsmd fingerprint --data-dir DIR)"
set -euo pipefail

if [[ $# -ne 2 || ! "$2" =~ ^[0-9a-fA-F]{64}$ || "$1" =~ [[:space:]#] ]]; then
  echo "usage: $0 ADDRESS:PORT SHA256-HEX" >&2
  exit 2
fi
endpoint="$1"
fingerprint="${2,,}"
if [[ -n "${QLAPI_KNOWN_HSMS:-}" ]]; then
  file="$QLAPI_KNOWN_HSMS"
else
  home="$(getent passwd "$(id -u)" | cut -d: -f6)"
  [[ -n "$home" && -d "$home" ]] || { echo "pin-hsm: no home directory for $(id -un)" >&2; exit 1; }
  file="$home/.qlapi_known_hsms"
fi
if [[ -e "$file" && ( ! -O "$file" || -n "$(find "$file" -maxdepth 0 -perm /077)" ) ]]; then
  echo "pin-hsm: $file is not private to $(id -un); fix it (chmod 600) first" >&2
  exit 1
fi
tmp="$(umask 077 && mktemp "$file.XXXXXX")"
trap 'rm -f "$tmp"' EXIT
{
  echo "# qlapi known HSMs: address:port SP SHA-256 of the certificate (hex)"
  if [[ -f "$file" ]]; then
    awk -v ep="$endpoint" '$1 != ep && !/^# qlapi known HSMs:/' "$file"
  fi
  echo "$endpoint $fingerprint"
} >"$tmp"
mv -f "$tmp" "$file"
trap - EXIT
