#!/usr/bin/env python3
"""Checks vault tokens and one-time passwords with Python's standard library alone.

usage: check_vault_oath.py QLUTIL QLHSMD LIBQLAPI

Starts a qlhsmd of its own (a temporary data directory, a free loopback port), makes tokens of
every check kind with `qlutil -j svault-gen-token` and checks each token's length, alphabet, kept
parts and check digits (Luhn, CPF, CNPJ, voter number), and reads every secret back through its
blob. Then it recomputes QGenerateHOTPOffline's values with hmac/hashlib for random seeds,
counters, times, hashes and digit counts, calling the library through ctypes.
"""
import ctypes
import hashlib
import hmac
import os
import random
import string
import subprocess
import sys
import tempfile

PASSWORD = "24681357"


def luhn_ok(d):
    total = 0
    for i, c in enumerate(reversed(d)):
        v = int(c)
        if i % 2 == 1:
            v = v * 2 - 9 if v * 2 > 9 else v * 2
        total += v
    return total % 10 == 0


def mod11(digits, weights):
    r = sum(int(c) * w for c, w in zip(digits, weights)) % 11
    return 0 if r < 2 else 11 - r


def cpf_ok(d):
    return (len(d) == 11 and int(d[9]) == mod11(d[:9], range(10, 1, -1))
            and int(d[10]) == mod11(d[:10], range(11, 1, -1)))


def cnpj_ok(d):
    w1 = [5, 4, 3, 2, 9, 8, 7, 6, 5, 4, 3, 2]
    return len(d) == 14 and int(d[12]) == mod11(d[:12], w1) and int(d[13]) == mod11(d[:13], [6] + w1)


def voter_ok(d):
    # The Brazilian voter registration number: 8 serial digits, 2 state digits (01-28), 2 checks.
    if len(d) != 12 or not 1 <= int(d[8:10]) <= 28:
        return False
    state = d[8:10]
    r1 = sum(int(c) * w for c, w in zip(d[:8], range(2, 10))) % 11
    if r1 == 10:
        r1 = 0
    elif r1 == 0 and state in ("01", "02"):
        r1 = 1
    r2 = (int(d[8]) * 7 + int(d[9]) * 8 + r1 * 9) % 11
    if r2 == 10:
        r2 = 0
    elif r2 == 0 and state in ("01", "02"):
        r2 = 1
    return int(d[10]) == r1 and int(d[11]) == r2


ALPHABETS = {
    10: string.digits,
    16: string.digits + "ABCDEF",
    26: string.ascii_uppercase,
    52: string.ascii_uppercase + string.ascii_lowercase,
    62: string.digits + string.ascii_uppercase + string.ascii_lowercase,
}


class Hsm:
    def __init__(self, qlhsmd, root):
        self.data = os.path.join(root, "hsm")
        env = dict(os.environ, QLHSMD_UNLOCK="python-check-unlock")
        subprocess.run([qlhsmd, "init", "--data-dir", self.data, "--password", PASSWORD,
                        "--kdf-cost", "16", "--unlock-cost", "16"], env=env, check=True,
                       stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        self.log_path = os.path.join(root, "qlhsmd.log")
        self.log = open(self.log_path, "w")
        self.proc = subprocess.Popen([qlhsmd, "serve", "--data-dir", self.data, "--listen",
                                      "127.0.0.1:0"], env=env, stdout=subprocess.PIPE,
                                     stderr=self.log, text=True)
        line = self.proc.stdout.readline().strip()
        if not line.startswith("listening on "):
            raise RuntimeError("qlhsmd did not start: " + line + self.tail())
        self.port = line.rsplit(":", 1)[1]

    def tail(self):
        self.log.flush()
        with open(self.log_path, errors="replace") as f:
            return "\n--- qlhsmd's standard error:\n" + f.read()[-4000:]

    def stop(self):
        self.proc.terminate()
        self.proc.wait(timeout=60)
        self.log.close()


def main():
    qlutil, qlhsmd, libqlapi = (os.path.abspath(p) for p in sys.argv[1:4])
    failures = []
    with tempfile.TemporaryDirectory() as root:
        # The HSM's certificate is pinned on first use in a file of this run's own.
        os.environ["QLAPI_KNOWN_HSMS"] = os.path.join(root, "known_hsms")
        hsm = Hsm(qlhsmd, root)
        try:
            def job(*args):
                r = subprocess.run([qlutil, "-a", "127.0.0.1", "--port", hsm.port, "-u", "master",
                                    "-w", PASSWORD, "-j"] + list(args), cwd=root,
                                   capture_output=True, text=True)
                if r.returncode != 0:
                    raise RuntimeError("%s: exit %d\n%s%s%s" % (" ".join(args), r.returncode,
                                                               r.stdout, r.stderr, hsm.tail()))
                return r.stdout

            def field(out, label):
                for line in out.splitlines():
                    if line.startswith(label + ": "):
                        return line[len(label) + 2:]
                raise RuntimeError("no " + label + " in " + out)

            job("gen-key", "-k", "aes256", "-kn", "pyvault")
            rng = random.Random(2026)
            cases = []
            for _ in range(10):
                pan = "".join(rng.choice(string.digits) for _ in range(rng.randint(12, 19)))
                cases.append(("pan", 10, pan))
                cases.append(("cpf", 10, "".join(rng.choice(string.digits) for _ in range(11))))
                cases.append(("cnpj", 10, "".join(rng.choice(string.digits) for _ in range(14))))
                voter = "".join(rng.choice(string.digits) for _ in range(8))
                cases.append(("iel", 10, voter + "%02d" % rng.randint(1, 28) + "00"))
                for base in ALPHABETS:
                    # A first letter or digit: a leading '-' would read as an option.
                    text = rng.choice(string.ascii_letters + string.digits) + "".join(
                        rng.choice(string.ascii_letters + string.digits + "-. /")
                        for _ in range(rng.randint(0, 30)))
                    cases.append(("none", base, text.strip()))
            for kind, base, secret in cases:
                out = job("svault-gen-token", "-kn", "pyvault", "-cks", kind, "-rep",
                          "base%d" % base, "-secret", secret)
                token = field(out, "Token")
                blob = field(out, "Blob")
                what = "%s base%d %r -> %r" % (kind, base, secret, token)
                digits = "".join(c for c in token if c.isdigit())
                sdigits = "".join(c for c in secret if c.isdigit())
                ok = len(token) == len(secret) and all(
                    (a.isalnum()) == (b.isalnum()) and (a.isalnum() or a == b)
                    for a, b in zip(secret, token))
                ok = ok and all(c in ALPHABETS[base] for c in token if c.isalnum())
                if kind == "pan":
                    ok = ok and digits[:6] == sdigits[:6] and digits[-4:] == sdigits[-4:]
                    ok = ok and luhn_ok(digits)
                elif kind == "cpf":
                    ok = ok and cpf_ok(digits)
                elif kind == "cnpj":
                    ok = ok and digits[8:12] == sdigits[8:12] and cnpj_ok(digits)
                elif kind == "iel":
                    ok = ok and digits[8:10] == sdigits[8:10] and voter_ok(digits)
                back = job("svault-get-data", "-kn", "pyvault", "-inform", "hex", "-in", blob,
                           "-op", "secret").splitlines()[0]
                if not ok or back != secret:
                    failures.append(what + (" (read back %r)" % back if back != secret else ""))
        finally:
            hsm.stop()

    lib = ctypes.CDLL(libqlapi)
    gen = lib.QGenerateHOTPOffline
    gen.argtypes = [ctypes.c_char_p, ctypes.c_uint32, ctypes.c_uint32, ctypes.c_uint64,
                    ctypes.c_uint32, ctypes.c_uint64, ctypes.c_uint32, ctypes.c_char_p]
    gen.restype = ctypes.c_int
    rng = random.Random(4226)
    hashes = [hashlib.sha1, hashlib.sha256, hashlib.sha512]
    for _ in range(300):
        seed = bytes(rng.randrange(256) for _ in range(rng.randint(16, 64)))
        h = rng.randrange(3)
        digits = rng.randint(6, 8)
        timed = rng.random() < 0.5
        step = rng.randint(1, 3600)
        t0 = rng.randrange(1 << 20)
        factor = rng.randrange(1 << 40) + t0
        counter = (factor - t0) // step if timed else factor
        mac = hmac.new(seed, counter.to_bytes(8, "big"), hashes[h]).digest()
        off = mac[-1] & 0x0F
        expected = "%0*d" % (digits, (int.from_bytes(mac[off:off + 4], "big") & 0x7FFFFFFF)
                             % 10 ** digits)
        out = ctypes.create_string_buffer(9)
        rc = gen(seed, len(seed), (h << 8) | (3 if timed else 2), factor, step, t0, digits, out)
        if rc != 0 or out.value.decode() != expected:
            failures.append("OTP hash %d digits %d %s: rc %d %r, expected %s"
                            % (h, digits, "time" if timed else "event", rc, out.value, expected))

    for f in failures:
        print("FAIL", f)
    print("%d tokens and 300 one-time passwords checked, %d failures" % (len(cases), len(failures)))
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())
