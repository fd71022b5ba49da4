#!/bin/sh
# qlutil -p p11-sign-hash beside the minimal C loop over the same PKCS#11 module, on a token made
# for the run in a temporary folder, at 1 and 2 threads, RSA-2048 and EC P-256. Each side runs
# P11_BENCH_ROUNDS times, alternating, and keeps its best figure; the ratio is qlutil's over
# the loop's (the aim is 95% or more).
#
#   run_p11_bench.sh <qlutil> <p11_sign_loop> [module]
set -eu

QLUTIL=$1
LOOP=$2
MODULE=${3:-/usr/lib/softhsm/libsofthsm2.so}
ROUNDS=${P11_BENCH_ROUNDS:-3}
ITER_RSA=${P11_BENCH_ITER_RSA:-1500}
ITER_EC=${P11_BENCH_ITER_EC:-6000}
PIN=24681357

tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
mkdir "$tmp/tokens"
printf 'directories.tokendir = %s/tokens\nobjectstore.backend = file\nlog.level = ERROR\n' \
  "$tmp" >"$tmp/softhsm2.conf"
export SOFTHSM2_CONF="$tmp/softhsm2.conf"
slot=$(softhsm2-util --init-token --free --label bench --so-pin 1234 --pin "$PIN" |
  sed -n 's/.*reassigned to slot \([0-9]*\).*/\1/p')
[ -n "$slot" ] || { echo "could not make the token" >&2; exit 1; }

max() { if [ "$1" -gt "$2" ]; then echo "$1"; else echo "$2"; fi; }

echo "p11-sign-hash vs minimal PKCS#11 loop ($MODULE), best of $ROUNDS"
for key in rsa2048 p256; do
  if [ "$key" = rsa2048 ]; then qlkey=p11rsa2048; iter=$ITER_RSA; else qlkey=p11ecc_secp256r1; iter=$ITER_EC; fi
  for threads in 1 2; do
    loop_best=0
    ql_best=0
    round=0
    while [ "$round" -lt "$ROUNDS" ]; do
      loop=$("$LOOP" "$MODULE" "$slot" "$PIN" "$threads" "$iter" "$key")
      ql=$("$QLUTIL" -a 127.0.0.1 -u master -w "$PIN" -p p11-sign-hash -t "$threads" -i "$iter" \
        -h ckm_sha256 -k "$qlkey" -p11 "$MODULE" -slot "$slot" -print time | tr -d '\r\n')
      loop_best=$(max "$loop" "$loop_best")
      ql_best=$(max "$ql" "$ql_best")
      round=$((round + 1))
    done
    awk -v k="$key" -v t="$threads" -v l="$loop_best" -v q="$ql_best" 'BEGIN {
      printf "%-8s threads %d  loop %7d op/s  qlutil %7d op/s  ratio %5.1f%%\n", k, t, l, q, 100 * q / l }'
  done
done
