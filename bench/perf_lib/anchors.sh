# Sourced by the bench scripts after local_hsm.sh: each function prints one figure (operations or
# bytes per second of wall-clock time) on one line, 0 when the command failed. Needs $qlutil,
# $port, $password, $work and $secs.

# qlutil's figure: -print time prints the bare rate (operations or bytes per second).
ql() {
  local out
  out=$("$qlutil" -a 127.0.0.1 --port "$port" -u master -w "$password" "$@" -print time) || {
    echo "qlutil $* failed: $(echo "$out" | head -n 2)" >&2
    echo 0
    return
  }
  echo "$out" | tr -d '\r\n'
}

# openssl speed's figure: sign/s of an RSA or ECDSA line, or bytes/s of a cipher line ("k" is
# thousands of bytes). With -multi the last line sums every process.
speed_sign() {  # algorithm threads
  local multi=()
  [[ $2 -gt 1 ]] && multi=(-multi "$2")
  openssl speed -seconds "$secs" "${multi[@]}" "$1" 2>/dev/null | tail -n 1 | awk '{ print $(NF-1) }'
}
speed_aes() {  # threads
  local multi=()
  [[ $1 -gt 1 ]] && multi=(-multi "$1")
  openssl speed -seconds "$secs" "${multi[@]}" -evp aes-256-cbc -bytes 8192 2>/dev/null |
    tail -n 1 | awk '{ v = $NF; sub(/k$/, "", v); printf "%.0f\n", v * 1000 }'
}

# New TLS 1.3 connections per second of real time against the qlhsmd port (its certificate), one
# s_time per thread at once, summed. s_time's "connections/user sec" divides by its own CPU time,
# so the "connections in N real seconds" line is read instead.
s_time_new() {  # threads
  local i
  for i in $(seq 1 "$1"); do
    openssl s_time -connect "127.0.0.1:$port" -new -tls1_3 -time "$secs" 2>/dev/null |
      awk '/connections in .* real seconds/ { printf "%.1f\n", $1 / $4 }' >"$work/s_time.$i" &
  done
  wait
  cat "$work"/s_time.* | awk '{ s += $1 } END { printf "%.0f\n", s }'
  rm -f "$work"/s_time.*
}

best() { awk -v a="$1" -v b="$2" 'BEGIN { print (a + 0 > b + 0) ? a : b }'; }
