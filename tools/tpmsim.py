"""A TPM simulator for tests and benchmarks, in a network namespace of its own.

The daemon reaches its TPM through the TSS library's default TCTI, which ends with a
simulator on localhost:2321: a fixed port. Each test therefore runs in a private network
namespace (entered by the test's thread, so that the reference server's threads and every
process the test starts are inside too), where its swtpm owns 127.0.0.1:2321 without
colliding with anything. Needs root (CAP_SYS_ADMIN for the namespace).
"""

import ctypes
import os
import shutil
import subprocess
import tempfile
import time
from pathlib import Path

import childproc

CLONE_NEWNET = 0x40000000
HOST, PORT = "127.0.0.1", 2321
TCTI = f"swtpm:host={HOST},port={PORT}"
AUTHKEY_HANDLE = "0x81018001"
# tpm2-tools' way of saying the daemon's key template
AUTHKEY_ATTRIBUTES = "fixedtpm|fixedparent|sensitivedataorigin|userwithauth|noda|decrypt|sign"
_LIBC = ctypes.CDLL(None, use_errno=True)


def real_tpm_present():
    return any(Path(p).exists() for p in ("/dev/tpmrm0", "/dev/tpm0"))


class NetNamespace:
    """A fresh network namespace with loopback up, for the calling thread and whatever it
    starts until `leave()`."""

    def __init__(self):
        self._home = os.open("/proc/thread-self/ns/net", os.O_RDONLY)
        if _LIBC.unshare(CLONE_NEWNET) != 0:
            os.close(self._home)
            raise OSError(ctypes.get_errno(), "unshare(CLONE_NEWNET)")
        subprocess.run(["ip", "link", "set", "lo", "up"], check=True, timeout=10)

    def leave(self):
        if _LIBC.setns(self._home, CLONE_NEWNET) != 0:
            raise OSError(ctypes.get_errno(), "setns")
        os.close(self._home)


def tool(*args, check=True):
    """Runs a tpm2-tools command against the simulator; its standard output."""
    done = subprocess.run([args[0], "-T", TCTI, *args[1:]], capture_output=True, text=True,
                          timeout=60)
    if check and done.returncode != 0:
        raise AssertionError(f"{' '.join(args)} failed: {done.stderr}")
    return done.stdout


class Swtpm:
    """swtpm on 127.0.0.1:2321 (control port 2322) with a fresh state directory."""

    def __init__(self):
        self.state = Path(tempfile.mkdtemp(prefix="zel-swtpm-"))
        self.proc = None

    def start(self, timeout=10.0):
        self.proc = subprocess.Popen(
            ["swtpm", "socket", "--tpm2", "--server", f"type=tcp,bindaddr={HOST},port={PORT}",
             "--ctrl", f"type=tcp,bindaddr={HOST},port={PORT + 1}",
             "--flags", "not-need-init,startup-clear", "--tpmstate", f"dir={self.state}"],
            stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        deadline = time.monotonic() + timeout
        while subprocess.run(["tpm2_getcap", "-T", TCTI, "properties-fixed"],
                             capture_output=True, timeout=10).returncode != 0:
            if self.proc.poll() is not None or time.monotonic() > deadline:
                raise AssertionError("swtpm did not come up")
            time.sleep(0.05)
        return self

    def stop(self):
        childproc.stop(self.proc)

    def cleanup(self):
        self.stop()
        shutil.rmtree(self.state, ignore_errors=True)

    # --- what a factory and a checker do with tpm2-tools

    def provision_public_key(self):
        """The PEM public key the daemon's authentication key will have, derived from the
        endorsement hierarchy with the same template (a primary key is a function of its
        template), and the key's TPM name; no object is left in the TPM."""
        ctx, pem, name = (self.state / n for n in ("ek.ctx", "authkey.pem", "authkey.name"))
        tool("tpm2_createprimary", "-Q", "-C", "e", "-G", "rsa2048:null:null",
             "-a", AUTHKEY_ATTRIBUTES, "-c", str(ctx))
        tool("tpm2_readpublic", "-Q", "-c", str(ctx), "-f", "pem", "-o", str(pem),
             "-n", str(name))
        tool("tpm2_flushcontext", "-t")
        return pem.read_text(), name.read_bytes()

    def persistent_name(self):
        name = self.state / "persistent.name"
        tool("tpm2_readpublic", "-Q", "-c", AUTHKEY_HANDLE, "-n", str(name))
        return name.read_bytes()

    def handles(self, kind):
        return tool("tpm2_getcap", f"handles-{kind}").split()[1::2]


def default_tcti_env(directory):
    """Environment for the daemon that makes the TSS loader try the simulator before any
    TPM device of the machine: its first choice is a library named libtss2-tcti-default.so
    on the loader path. One subdirectory per installed architecture (the loader skips
    libraries of another one), so that a daemon under an emulator finds its own."""
    dirs = []
    for target in sorted(Path("/usr/lib").glob("*/libtss2-tcti-swtpm.so.0")):
        arch_dir = Path(directory) / target.parent.name
        arch_dir.mkdir(exist_ok=True)
        link = arch_dir / "libtss2-tcti-default.so"
        if not link.is_symlink():
            link.symlink_to(target)
        dirs.append(str(arch_dir))
    return {"LD_LIBRARY_PATH": ":".join(dirs)}
