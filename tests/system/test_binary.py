"""The program file: its hardening and its dependencies."""

import re
import subprocess
from pathlib import Path

import pytest


@pytest.fixture(name="binary")
def find_binary(request):
    return Path(request.config.getoption("--daemon")).resolve()


def readelf(binary, *options):
    return subprocess.run(["readelf", "--wide", *options, binary], check=True, text=True, capture_output=True).stdout


def is_instrumented(binary):
    """Whether it is built with sanitizers or line counts instead of the hardening."""
    return re.search(rb"__asan_init|__gcov_dump", binary.read_bytes()) is not None


def test_the_program_is_hardened(binary):
    if is_instrumented(binary):
        pytest.skip("an instrumented build")
    assert re.search(r"Type:\s+DYN", readelf(binary, "--file-header"))
    segments = readelf(binary, "--program-headers")
    assert "GNU_RELRO" in segments
    assert re.search(r"GNU_STACK .* RW ", segments), "the stack must not be executable"
    assert not re.search(r" RWE ", segments)
    dynamic = readelf(binary, "--dynamic")
    assert "BIND_NOW" in dynamic and "PIE" in dynamic
    assert not re.search(r"R(UN)?PATH", dynamic)
    symbols = readelf(binary, "--dyn-syms")
    assert "__stack_chk_fail" in symbols
    assert re.search(r"__(v?snprintf|syslog|memcpy|read)_chk", symbols)


def test_the_program_needs_only_its_declared_dependencies(binary):
    if is_instrumented(binary):
        pytest.skip("an instrumented build")
    needed = re.findall(r"NEEDED.*\[(.*?)\.so", readelf(binary, "--dynamic"))
    assert set(needed) <= {"libjsoncpp", "libstdc++", "libm", "libgcc_s", "libc", "ld-linux-x86-64", "ld-linux-armhf"}
