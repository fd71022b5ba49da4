#!/usr/bin/env bash
# A local qlhsmd for trying qlutil by hand.
#
#   scripts/hsm-local.sh start    make the HSM on first use, serve it in the background, print
#                                 its address, port and data folder
#   scripts/hsm-local.sh status   say whether it runs, and where
#   scripts/hsm-local.sh stop     stop it (the data folder stays for the next start)
#
# The HSM lives in build/hsm-local/: data/ (its store), unlock (the secret that seals its master
# key, made on first use, mode 0600), qlhsmd.log, qlhsmd.pid, qlhsmd.port. Each start pins the
# HSM's certificate for 127.0.0.1:PORT in ~/.qlapi_known_hsms (scripts/pin-hsm.sh), so that
# libqlapi knows it.
# It is made with the user master and the password 24681357 (HSM_LOCAL_PASSWORD changes that
# on first use) and listens on 127.0.0.1:4433, or on a free port when 4433 is taken
# (HSM_LOCAL_PORT asks for another). The daemon is build/release/bin/qlhsmd, else the debug
# build's, else $QLHSMD.
set -euo pipefail
cd "$(dirname "$0")/.."

root="$PWD/build/hsm-local"
data="$root/data"
log="$root/qlhsmd.log"
pid_file="$root/qlhsmd.pid"
port_file="$root/qlhsmd.port"
unlock_file="$root/unlock"
password="${HSM_LOCAL_PASSWORD:-24681357}"
wanted_port="${HSM_LOCAL_PORT:-4433}"

find_daemon() {
  for candidate in "${QLHSMD:-}" build/release/bin/qlhsmd build/debug/bin/qlhsmd; do
    if [[ -n "$candidate" && -x "$candidate" ]]; then
      echo "$candidate"
      return 0
    fi
  done
  echo "hsm-local: no qlhsmd built (build the release preset first, or set QLHSMD)" >&2
  return 1
}

running_pid() {
  [[ -f "$pid_file" ]] || return 1
  local pid
  pid="$(cat "$pid_file")"
  [[ -n "$pid" ]] && kill -0 "$pid" 2>/dev/null && echo "$pid"
}

port_taken() {
  # Something already answers on 127.0.0.1:$1.
  (exec 3<>"/dev/tcp/127.0.0.1/$1") 2>/dev/null
}

# The port the daemon printed on its log ("listening on HOST:PORT").
logged_port() {
  sed -n 's/^listening on [^ ]*:\([0-9][0-9]*\)$/\1/p' "$log" | tail -n 1
}

print_where() {
  echo "address: 127.0.0.1"
  echo "port:    $(cat "$port_file")"
  echo "data:    $data"
  echo "user:    master"
}

start() {
  if pid="$(running_pid)"; then
    echo "hsm-local: already running (pid $pid)"
    print_where
    return 0
  fi
  local daemon
  daemon="$(find_daemon)"
  mkdir -p "$root"
  if [[ -d "$data" && ! -f "$unlock_file" ]]; then
    echo "hsm-local: $data has no unlock secret beside it ($unlock_file);" \
      "remove $data to make a new HSM" >&2
    return 1
  fi
  if [[ ! -d "$data" ]]; then
    (umask 077 && head -c 32 /dev/urandom | base64 >"$unlock_file")
    "$daemon" init --data-dir "$data" --password "$password" --unlock-file "$unlock_file" \
      >"$log" 2>&1 || {
      cat "$log" >&2
      return 1
    }
    echo "hsm-local: new HSM in $data (user master, password $password)"
  fi
  local port="$wanted_port"
  if port_taken "$port"; then
    echo "hsm-local: port $port is taken; asking for a free one"
    port=0
  fi
  : >"$log"
  nohup "$daemon" serve --data-dir "$data" --listen "127.0.0.1:$port" \
    --unlock-file "$unlock_file" >>"$log" 2>&1 &
  echo $! >"$pid_file"
  # Wait for the listening line (the daemon prints the port it got, which matters for port 0).
  local got=""
  for _ in $(seq 1 100); do
    got="$(logged_port)"
    [[ -n "$got" ]] && break
    if ! running_pid >/dev/null; then
      echo "hsm-local: qlhsmd stopped at start:" >&2
      cat "$log" >&2
      rm -f "$pid_file"
      return 1
    fi
    sleep 0.1
  done
  if [[ -z "$got" ]]; then
    echo "hsm-local: qlhsmd did not report its port; see $log" >&2
    return 1
  fi
  echo "$got" >"$port_file"
  scripts/pin-hsm.sh "127.0.0.1:$got" "$("$daemon" fingerprint --data-dir "$data")"
  echo "hsm-local: qlhsmd running (pid $(cat "$pid_file"))"
  print_where
}

stop() {
  local pid
  if ! pid="$(running_pid)"; then
    echo "hsm-local: not running"
    rm -f "$pid_file" "$port_file"
    return 0
  fi
  kill -TERM "$pid"
  for _ in $(seq 1 100); do
    kill -0 "$pid" 2>/dev/null || break
    sleep 0.1
  done
  if kill -0 "$pid" 2>/dev/null; then
    echo "hsm-local: qlhsmd (pid $pid) did not stop within 10 s" >&2
    return 1
  fi
  rm -f "$pid_file" "$port_file"
  echo "hsm-local: stopped"
}

status() {
  local pid
  if pid="$(running_pid)"; then
    echo "hsm-local: running (pid $pid)"
    print_where
  else
    echo "hsm-local: not running"
    [[ -d "$data" ]] && echo "data:    $data"
    return 3
  fi
}

case "${1:-}" in
  start) start ;;
  stop) stop ;;
  status) status ;;
  port) cat "$port_file" ;;
  *)
    echo "usage: $0 start|stop|status|port" >&2
    exit 2
    ;;
esac
