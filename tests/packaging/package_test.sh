#!/usr/bin/env bash
# usage: package_test.sh BUILD_DIR
# Builds the .deb of BUILD_DIR with cpack, unpacks it with dpkg -x into a clean folder and checks
# that what was unpacked works from there: qlutil and qlhsmd run on the package's own library,
# an HSM made and served by the unpacked qlhsmd answers the unpacked qlutil, the completion
# offers commands and options, and systemd-analyze accepts the unit.
set -euo pipefail
build=$(cd "$1" && pwd)
work=$(mktemp -d)
daemon=
cleanup() {
  [ -n "${daemon}" ] && kill "${daemon}" 2>/dev/null && wait "${daemon}" 2>/dev/null
  rm -rf "${work}"
}
trap cleanup EXIT
fail() { echo "FAIL: $*" >&2; exit 1; }

cmake --build "${build}" --target qlutil_completion >"${work}/completion.log" 2>&1 ||
  { cat "${work}/completion.log" >&2; fail "the completion"; }
(cd "${build}" && cpack -G DEB -B "${work}/out" >"${work}/cpack.log" 2>&1) ||
  { cat "${work}/cpack.log" >&2; fail "cpack"; }
deb=$(ls "${work}"/out/*.deb)
dpkg-deb --field "${deb}" Package Version Depends | tee "${work}/control"
grep -q '^Depends: .*libssl3' "${work}/control" || fail "the package does not depend on libssl3"
dpkg-deb --ctrl-tarfile "${deb}" | tar -t | grep -q 'postinst' || fail "no postinst"

root=${work}/root
dpkg -x "${deb}" "${root}"
for f in usr/bin/qlutil usr/bin/qlhsmd usr/include/qlapi.h usr/lib/systemd/system/qlhsmd.service \
         usr/lib/sysusers.d/qlhsmd.conf usr/share/bash-completion/completions/qlutil; do
  [ -e "${root}/${f}" ] || fail "${f} is not in the package"
done
ls "${root}"/usr/lib*/libqlapi.so >/dev/null 2>&1 || ls "${root}"/usr/lib/*/libqlapi.so >/dev/null ||
  fail "libqlapi.so is not in the package"
if dpkg -c "${deb}" | grep -q 'qlhsmd_test'; then fail "the test build of qlhsmd is packaged"; fi

# The unpacked programs load the unpacked library, not one of the build folder.
ldd "${root}/usr/bin/qlutil" | grep 'libqlapi' | grep -q "${root}/usr/" ||
  { ldd "${root}/usr/bin/qlutil" >&2; fail "qlutil does not load the package's libqlapi"; }

# qlutil's help screen (exit 255), then an HSM of the unpacked qlhsmd asked by the unpacked qlutil.
set +e
"${root}/usr/bin/qlutil" >"${work}/help.txt" 2>&1
rc=$?
set -e
[ "${rc}" -eq 255 ] || fail "qlutil without arguments exited ${rc}"
grep -q 'Performance tests (-p command):' "${work}/help.txt" || fail "no help screen"

export QLHSMD_UNLOCK=package-test QLAPI_KNOWN_HSMS=${work}/known_hsms
"${root}/usr/bin/qlhsmd" init --data-dir "${work}/hsm" --password 24681357 --kdf-cost 16 \
  --unlock-cost 16 >/dev/null
"${root}/usr/bin/qlhsmd" serve --data-dir "${work}/hsm" --listen 127.0.0.1:0 \
  >"${work}/serve.out" 2>"${work}/serve.err" &
daemon=$!
for _ in $(seq 1 300); do
  grep -q '^listening on ' "${work}/serve.out" 2>/dev/null && break
  sleep 0.1
done
port=$(sed -n 's/^listening on .*:\([0-9]*\)$/\1/p' "${work}/serve.out")
[ -n "${port}" ] || { cat "${work}/serve.err" >&2; fail "the unpacked qlhsmd did not listen"; }
out=$(cd "${work}" && "${root}/usr/bin/qlutil" -a 127.0.0.1 --port "${port}" -u master \
  -w 24681357 -j gen-rand -len 16) || fail "qlutil -j gen-rand against the unpacked qlhsmd: ${out}"
echo "${out}" | grep -Eq '[0-9A-Fa-f]{32}' || fail "gen-rand printed no random bytes: ${out}"

# Completion: commands after -p, options of the command, nothing for an unknown command.
complete_words() {
  bash -c 'source "$1"; shift; COMP_WORDS=("$@"); COMP_CWORD=$(($# - 1)); _qlutil;
           if ((${#COMPREPLY[@]})); then printf "%s\n" "${COMPREPLY[@]}"; fi' _ \
    "${root}/usr/share/bash-completion/completions/qlutil" "$@" | sort | tr '\n' ' '
}
[ "$(complete_words qlutil -p sign-h)" = "sign-hash sign-hashed-data " ] ||
  fail "-p sign-h completes to '$(complete_words qlutil -p sign-h)'"
[ "$(complete_words qlutil -j remove-u)" = "remove-user " ] || fail "-j remove-u"
complete_words qlutil -p sign-hash -t 2 --lat | grep -q -- '--latency' || fail "--lat"
complete_words qlutil -p sign-hash --k | grep -q -- '--kn' || fail "--k of sign-hash"
[ -z "$(complete_words qlutil -p no-such-command -)" ] || fail "options of an unknown command"
[ "$(complete_words qlutil -)" = "-f -j -p -s " ] || fail "the kinds"

# The unit, with its program where the package was unpacked.
if command -v systemd-analyze >/dev/null; then
  sed "s|/usr/bin/qlhsmd|${root}/usr/bin/qlhsmd|" \
    "${root}/usr/lib/systemd/system/qlhsmd.service" >"${work}/qlhsmd.service"
  systemd-analyze verify "${work}/qlhsmd.service" 2>&1 | tee "${work}/verify.txt"
  # A directive it cannot parse is only a warning to systemd-analyze: any line fails the test.
  if grep -v -e 'Failed to .*cgroup' "${work}/verify.txt" | grep -q .; then
    fail "systemd-analyze verify"
  fi
else
  fail "systemd-analyze is not installed (Debian package systemd)"
fi
echo "package ok: ${deb##*/}"
