"""Decisions of the scripts."""

import subprocess
from importlib.machinery import SourceFileLoader
from importlib.util import module_from_spec, spec_from_loader
from pathlib import Path

import pytest

SCRIPTS = Path(__file__).resolve().parents[2] / "scripts"


def load(name):
    """Loads a script without a file name extension as a module."""
    loader = SourceFileLoader(name, str(SCRIPTS / name))
    module = module_from_spec(spec_from_loader(name, loader))
    loader.exec_module(module)
    return module


class Workshop:
    """A workshop whose system tests pass or fail as given."""

    def __init__(self, *answers):
        self.answers = list(answers)

    def passes_system_tests(self):
        return self.answers.pop(0)


@pytest.mark.parametrize(
    "answers,sound,left",
    [
        ((True, False), True, 1),
        ((False, True, False), True, 1),
        ((False, False, True), True, 0),
        ((False, False, False, True), False, 1),
    ],
)
def test_mutants_are_tried_although_the_tests_failed_once(answers, sound, left):
    workshop = Workshop(*answers)
    assert load("mutate").is_sound(workshop) == sound
    assert len(workshop.answers) == left


def compare_builds(daemon, other, *options):
    return subprocess.run(
        [SCRIPTS / "compare-builds", "--old-daemon", daemon, "--new-daemon", other, *options],
        check=False,
        text=True,
        errors="replace",
        stdout=subprocess.PIPE,
        stderr=subprocess.STDOUT,
        timeout=600,
    )


@pytest.mark.native(reason="the clock of the comparison is built for the host")
def test_a_build_does_not_differ_from_itself(request):
    daemon = Path(request.config.getoption("--daemon")).resolve()
    result = compare_builds(daemon, daemon, "--appliances", "12")
    assert result.returncode == 0, result.stdout
    assert result.stdout.startswith("12 appliances") and result.stdout.endswith(": 0 differ\n")


@pytest.mark.native(reason="the clock of the comparison is built for the host")
@pytest.mark.parametrize(
    "text,other",
    [
        (b"removed cleared jobs: %s", b"removed cleared job:  %s"),  # a message
        (b"lastExecution", b"lastexecution"),  # a document
        (b"missing binary", b"Missing binary"),
    ],
)
def test_a_build_with_another_text_differs(request, tmp_path, text, other):
    daemon = Path(request.config.getoption("--daemon")).resolve()
    program = daemon.read_bytes()
    assert text in program
    (tmp_path / "kestcrond").write_bytes(program.replace(text, other))
    (tmp_path / "kestcrond").chmod(0o755)
    result = compare_builds(daemon, tmp_path / "kestcrond", "--appliances", "12", "--most", "1")
    assert result.returncode == 1, result.stdout
    assert "\n--- old\n+++ new\n" in result.stdout
    assert other.split(b"%")[0].decode() in result.stdout and text[:10].decode() in result.stdout
