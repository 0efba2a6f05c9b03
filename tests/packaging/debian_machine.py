"""A fresh Debian in a folder, for a package to be installed in.

debootstrap makes it once, from this machine's own mirror, in build/package; a Machine is that one
with an overlay of its own, which takes whatever is written. systemd does not run in it: a service
is started as its unit says, see Machine.service_command(). All of this wants the machine's root.
"""

import os
import shutil
import subprocess
from pathlib import Path

import namespaces

_TREE = Path(__file__).resolve().parents[2]

# Beside the minimal system: what the package depends on, and what it suggests.
_PACKAGES = "adduser,init-system-helpers,libssl3,libstdc++6,libsystemd0,logrotate"

# `unshare` gives the service mounts of its own; the shell makes them: $1, the root, is read-only
# but for the folder $2 in it, where there is one.
_MOUNTS = """
set -e
mount --bind "$1" "$1"
mount -o remount,bind,ro "$1"
mount --bind "$1$2" "$1$2"
mount -o remount,bind,rw "$1$2"
shift 2
exec "$@"
"""


def _output(*words):
    return subprocess.run(words, check=True, capture_output=True, text=True).stdout


def _mirror():
    """The name of this machine's release, and where its own packages come from."""
    release = dict(line.split("=", 1) for line in
                   Path("/etc/os-release").read_text().splitlines())["VERSION_CODENAME"]
    targets = _output("apt-get", "indextargets", "--format", "$(CODENAME) $(REPO_URI)",
                      "Created-By: Packages")
    return release, dict(line.split() for line in targets.splitlines())[release]


def fresh_system():
    """The folder with the system that debootstrap made; made now where there is none."""
    release, mirror = _mirror()
    architecture = _output("dpkg", "--print-architecture").strip()
    system = _TREE / "build" / "package" / f"debian-{release}-{architecture}"
    if not system.exists():
        half_made = system.with_name(f"{system.name}.part")
        shutil.rmtree(half_made, ignore_errors=True)
        # Mounts of its own: what debootstrap mounts must not stay when it is interrupted.
        subprocess.run(["unshare", "--mount", "debootstrap", "--variant=minbase",
                        f"--include={_PACKAGES}", release, half_made, mirror], check=True)
        half_made.rename(system)
    return system


class Machine:
    """`folder`: an empty one, for the overlay. Mounts belong to the calling process's namespace."""

    def __init__(self, system, folder):
        self._folder = folder
        subprocess.run(["mount", "-t", "tmpfs", "none", folder], check=True)
        self.root = folder / "root"
        layers = [folder / "upper", folder / "work"]
        for path in [self.root, *layers]:
            path.mkdir()
        subprocess.run(["mount", "-t", "overlay", "overlay", "-o",
                        f"lowerdir={system},upperdir={layers[0]},workdir={layers[1]}", self.root],
                       check=True)
        subprocess.run(["mount", "--rbind", "/proc", self.root / "proc"], check=True)

    def close(self):
        """Unmounts it, with what is mounted in it, before somebody clears the folder."""
        namespaces.unmount(self._folder)

    def run(self, *words):
        """Runs a program in it, as root; what it printed."""
        finished = subprocess.run(
            ["chroot", self.root, *map(str, words)], capture_output=True, text=True,
            env={"PATH": "/usr/sbin:/usr/bin:/sbin:/bin", "DEBIAN_FRONTEND": "noninteractive",
                 "LC_ALL": "C"})
        assert finished.returncode == 0, f"{words}: {finished.stdout}{finished.stderr}"
        return finished.stdout

    def install(self, package):
        shutil.copy(package, self.root / "tmp")
        self.run("dpkg", "--install", f"/tmp/{package.name}")
        (self.root / "tmp" / package.name).unlink()

    def path(self, inside):
        return self.root / str(inside).lstrip("/")

    def files(self):
        """Everything in it but what a running system has: name to type, rights and owners."""
        found = {}
        for folder, folders, files in os.walk(self.root):
            here = Path(folder).relative_to(self.root)
            folders[:] = [name for name in folders
                          if str(here / name) not in ("proc", "sys", "dev")]
            for name in folders + files:
                status = os.lstat(Path(folder, name))
                found[f"/{here / name}"] = (status.st_mode, status.st_uid, status.st_gid)
        return found

    def service_command(self, unit):
        """What starts the service of a Unit with its user, its rights and its folder of logs."""
        logs = f"/var/log/{unit.one('LogsDirectory')}"
        user, group = unit.one("User"), unit.one("Group")
        self.run("install", "-d", "-o", user, "-g", group, "-m", unit.one("LogsDirectoryMode"),
                 logs)
        rights = [f"+{right.removeprefix('CAP_').lower()}"
                  for right in unit.one("AmbientCapabilities").split()]
        some = ",".join(["-all", *rights])
        return ["unshare", "--mount", "sh", "-c", _MOUNTS, "sh", self.root, logs,
                "chroot", self.root, "setpriv", "--reuid", user, "--regid", group, "--init-groups",
                "--no-new-privs", "--bounding-set", some, "--inh-caps", some,
                "--ambient-caps", some, *unit.one("ExecStart").split()]
