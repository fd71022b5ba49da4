# Sourced by the bench scripts: a qlhsmd of their own on a free loopback port, made in a temporary
# folder and stopped with the script. Needs $root, $qlutil and $qlhsmd; sets $password, $port and
# $work, and points the library at a pin file of its own ($QLAPI_KNOWN_HSMS), so nothing is
# written into the user's home.
password=24681357
for bin in "$qlutil" "$qlhsmd"; do
  [[ -x $bin ]] || { echo "$(basename "$0"): no binary at $bin (build the release preset)" >&2; exit 1; }
done

work=$(mktemp -d)
hsm_pid=
cleanup() {
  [[ -n $hsm_pid ]] && kill "$hsm_pid" 2>/dev/null && wait "$hsm_pid" 2>/dev/null || true
  rm -rf "$work"
}
trap cleanup EXIT

# The daemon's unlock secret travels in its environment; its certificate is pinned for the port
# it gets, so that libqlapi knows it.
export QLHSMD_UNLOCK="bench-$$-$RANDOM"
export QLAPI_KNOWN_HSMS="$work/known_hsms"
"$qlhsmd" init --data-dir "$work/data" --password "$password" >"$work/init.log" 2>&1
"$qlhsmd" serve --data-dir "$work/data" --listen 127.0.0.1:0 >"$work/hsm.log" 2>&1 &
hsm_pid=$!
port=
for _ in $(seq 1 100); do
  port=$(sed -n 's/^listening on [^ ]*:\([0-9][0-9]*\)$/\1/p' "$work/hsm.log" | head -n 1)
  [[ -n $port ]] && break
  sleep 0.1
done
[[ -n $port ]] || { echo "qlhsmd did not start:" >&2; cat "$work/hsm.log" >&2; exit 1; }
"$root/scripts/pin-hsm.sh" "127.0.0.1:$port" "$("$qlhsmd" fingerprint --data-dir "$work/data")"
