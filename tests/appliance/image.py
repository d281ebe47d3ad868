"""The disk of the board: an initramfs with the disk drivers, and an ext4 image of the root.

Debian's kernel has its disk drivers in modules, so an initramfs must load them before the root is mounted.
This one contains only the modules for a virtual board, and `init.c`, which loads them.
"""

import contextlib
import pathlib
import re
import shutil
import stat
import subprocess

HERE = pathlib.Path(__file__).resolve().parent

# Modules to load, in this order, each after its dependencies.
MODULES = ["crc32c_generic", "virtio_mmio", "virtio_blk", "ext4"]


def _depends(module: pathlib.Path) -> list[str]:
    """The names of the modules that this one declares as its dependencies."""
    found = re.search(rb"\0depends=([^\0]*)\0", module.read_bytes())
    return [name for name in found.group(1).decode().split(",") if name] if found else []


def _in_order(modules: pathlib.Path) -> list[pathlib.Path]:
    """The files of MODULES and their dependencies, each after those that it needs."""
    files = {file.stem.replace("-", "_"): file for file in modules.rglob("*.ko")}
    order: list[pathlib.Path] = []

    def add(name: str) -> None:
        file = files[name.replace("-", "_")]
        if file not in order:
            for needed in _depends(file):
                add(needed)
            order.append(file)

    for name in MODULES:
        add(name)
    return order


class _Archive:
    """A cpio archive in the format of the kernel ("newc")."""

    def __init__(self, path: pathlib.Path) -> None:
        self._out = path.open("wb")
        self._inode = 0

    def _pad(self) -> None:
        self._out.write(b"\0" * (-self._out.tell() % 4))

    def add(self, name: str, mode: int, content: bytes = b"", device: tuple[int, int] = (0, 0)) -> None:
        self._inode += 1
        named = name.encode() + b"\0"
        numbers = (self._inode, mode, 0, 0, 1, 0, len(content), 0, 0, *device, len(named), 0)
        self._out.write(b"070701" + b"".join(b"%08X" % number for number in numbers) + named)
        self._pad()
        self._out.write(content)
        self._pad()

    def close(self) -> None:
        self.add("TRAILER!!!", 0)
        self._out.close()


def make_initramfs(path: pathlib.Path, kernel: pathlib.Path) -> None:
    """Writes the initramfs; `kernel` is the unpacked package."""
    init = path.with_name("init")
    subprocess.run(
        ["arm-linux-gnueabihf-gcc", "-Wall", "-Wextra", "-Werror", "-O2", "-static", "-o", init, HERE / "init.c"],
        check=True,
    )
    modules = _in_order(kernel / "lib/modules")
    with contextlib.closing(_Archive(path)) as archive:
        for directory in ("dev", "modules", "root"):
            archive.add(directory, stat.S_IFDIR | 0o755)
        # The kernel opens this before "/dev" is mounted.
        archive.add("dev/console", stat.S_IFCHR | 0o600, device=(5, 1))
        for module in modules:
            archive.add(f"modules/{module.name}", stat.S_IFREG | 0o644, module.read_bytes())
        names = "".join(f"/modules/{module.name}\n" for module in modules)
        archive.add("modules/list", stat.S_IFREG | 0o644, names.encode())
        archive.add("init", stat.S_IFREG | 0o755, init.read_bytes())


def prepare_root(root: pathlib.Path) -> None:
    """Adds what the tests need: a shell on the console, and the service that reads the clock of the board."""
    shutil.copytree(HERE / "board", root, dirs_exist_ok=True)
    for unit, target in (("board-shell", "multi-user"), ("board-clock", "sysinit")):
        wants = root / f"etc/systemd/system/{target}.target.wants/{unit}.service"
        wants.parent.mkdir(parents=True, exist_ok=True)
        wants.unlink(missing_ok=True)
        wants.symlink_to(f"/etc/systemd/system/{unit}.service")
    # The tests use the console, and the root has no modules.
    for name in ("serial-getty@ttyAMA0", "getty@tty1", "systemd-modules-load"):
        mask = root / f"etc/systemd/system/{name}.service"
        mask.unlink(missing_ok=True)
        mask.symlink_to("/dev/null")
    (root / "etc/hostname").write_text("board\n")
    (root / "etc/fstab").write_text("/dev/vda / ext4 defaults 0 1\n")


def make_disk(path: pathlib.Path, root: pathlib.Path, megabytes: int) -> None:
    path.unlink(missing_ok=True)
    subprocess.run(
        ["mkfs.ext4", "-q", "-L", "board", "-d", root, path, f"{megabytes}M"], check=True, stdout=subprocess.DEVNULL
    )
