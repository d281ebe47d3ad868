"""Support for makers of images and platforms: the trees for Buildroot and Yocto, as far as they can be
tested without either, and the replacement of the platform library, with a daemon built that way."""

import fnmatch
import glob
import json
import os
import re
import subprocess
import types
from pathlib import Path

import kconfiglib
import pytest
from tests.lib.appliance import PERSISTENT_FILE, SOURCES, Appliance, every_minute, never
from tests.lib.private_machine import wait_for

TOP = Path(__file__).resolve().parents[2]
BUILDROOT = TOP / "packaging/buildroot"
LAYER = TOP / "packaging/yocto/meta-kestcrond"
VERSION = re.search(r"^project\(kestcrond VERSION ([\d.]+) ", (TOP / "CMakeLists.txt").read_text(), re.M)[1]

# The source of each file of an image, and its mode.
FILES = {
    "/etc/default/kestcrond": ("default/kestcrond", 0o644),
    "/etc/logrotate.d/kestcrond": ("logrotate/kestcrond", 0o644),
    "/etc/init.d/kestcrond": ("init.d/kestcrond", 0o755),
    "/usr/lib/kestcrond/mount-programs": ("lib/mount-programs", 0o755),
    "/usr/lib/systemd/system/kestcrond.service": ("systemd/kestcrond.service", 0o644),
    "/usr/lib/tmpfiles.d/kestcrond.conf": ("tmpfiles.d/kestcrond.conf", 0o644),
}


def options(text):
    """The options that a text sets, with their values. All of them must be options of the project."""
    known = re.findall(r"^(?:option|set)\((KESTCROND_\w+) ", (TOP / "cmake/options.cmake").read_text(), re.M)
    found = dict(re.findall(r"-D(\w+)=(\"[^\"]*\"|[^\s,'\"]*)", text))
    assert set(found) <= set(known)
    return found


def places():
    """The directories for job files and their parents, with the modes with which the daemon and the
    package create them."""
    modes = {}
    for source, directory in SOURCES.items():
        modes[directory] = 0o755 if source == "pkg_nonroot" else 0o750
        for parent in Path(directory).parents:
            if str(parent) not in ("/", "/usr"):
                modes[str(parent)] = 0o755
    return modes


def holds(root):
    """Path to (content, mode) of the files, and to mode of the directories, below `root`."""
    files, directories = {}, {}
    for path in root.rglob("*"):
        inside, mode = "/" + str(path.relative_to(root)), path.stat().st_mode & 0o7777
        if path.is_dir():
            directories[inside] = mode
        else:
            files[inside] = (path.read_bytes(), mode)
    return files, directories


def expected_files(*paths):
    return {path: ((TOP / "packaging" / FILES[path][0]).read_bytes(), FILES[path][1]) for path in paths}


# --- Buildroot -----------------------------------------------------------------------------------

# The parts of Buildroot that a package uses. "image" is the installation step.
STAND_IN = r"""
qstrip = $(strip $(subst ",,$(1)))
cmake-package = packages += kestcrond
INSTALL = install
define sep


endef
include $(BR2_EXTERNAL_KESTCROND_PATH)/external.mk
values:
	@:$(foreach name,$(filter KESTCROND_%,$(.VARIABLES)),$(info @$(name)@$($(name))))
	$(info @packages@$(packages)@)
.PHONY: $(KESTCROND_SITE)/image
$(KESTCROND_SITE)/image:
	$(KESTCROND_INSTALL_INIT_SYSV)
	$(KESTCROND_INSTALL_INIT_SYSTEMD)
	$(foreach hook,$(KESTCROND_POST_INSTALL_TARGET_HOOKS),$($(hook))$(sep))
"""


def make(tmp_path, goal, **configuration):
    makefile = tmp_path / "Makefile"
    lines = [f"{name} = {value}" for name, value in configuration.items()]
    makefile.write_text("\n".join(lines) + STAND_IN)
    done = subprocess.run(
        [
            "make",
            "-f",
            makefile,
            "--warn-undefined-variables",
            goal,
            f"BR2_EXTERNAL_KESTCROND_PATH={BUILDROOT}",
            f"TARGET_DIR={tmp_path}/image",
        ],
        check=True,
        capture_output=True,
        text=True,
    )
    # Options that were not chosen are undefined. Any other undefined variable is an error.
    unknown = re.findall(r"undefined variable '(?!BR2_)(\w+)'", done.stderr)
    assert set(unknown) <= {"KESTCROND_INSTALL_LOGROTATE"}
    return done.stdout


def values(tmp_path, **configuration):
    """The variables of the package as make evaluates them."""
    words = make(tmp_path, "values", **configuration).split("@")[1:]
    return {name: " ".join(text.split()) for name, text in zip(words[::2], words[1::2])}


def test_buildroot_values(tmp_path):
    found = values(tmp_path)
    assert found["packages"] == "kestcrond", "the package is not registered with Buildroot"
    assert found["KESTCROND_VERSION"] == VERSION
    assert Path(found["KESTCROND_SITE"]) == TOP and found["KESTCROND_SITE_METHOD"] == "local"
    assert all((TOP / name).is_file() for name in found["KESTCROND_LICENSE_FILES"].split())
    assert found["KESTCROND_DEPENDENCIES"].split() == ["host-pkgconf", "boost", "jsoncpp"]
    assert options(found["KESTCROND_CONF_OPTS"]) == {
        "KESTCROND_BUILD_TESTS": "OFF",
        "KESTCROND_BUILD_FUZZERS": "OFF",
        "KESTCROND_BUILD_CTL": "OFF",
        "KESTCROND_SMALL": "OFF",
        "KESTCROND_HARDENING": "OFF",
    }


def test_buildroot_values_with_everything(tmp_path):
    found = values(
        tmp_path,
        BR2_PACKAGE_KESTCROND_CTL="y",
        BR2_PACKAGE_KESTCROND_SMALL="y",
        BR2_TOOLCHAIN_HAS_SSP="y",
        BR2_PACKAGE_LOGROTATE="y",
        BR2_PACKAGE_KESTCROND_PLATFORM_LIBRARIES='"kestcore;kestsdk"',
    )
    assert found["KESTCROND_DEPENDENCIES"].split()[-1] == "cli11"
    assert options(found["KESTCROND_CONF_OPTS"]) == {
        "KESTCROND_BUILD_TESTS": "OFF",
        "KESTCROND_BUILD_FUZZERS": "OFF",
        "KESTCROND_BUILD_CTL": "ON",
        "KESTCROND_SMALL": "ON",
        "KESTCROND_HARDENING": "ON",
        "KESTCROND_PLATFORM_LIBRARIES": '"kestcore;kestsdk"',
    }


def test_buildroot_accepts_another_site(tmp_path):
    (tmp_path / "CMakeLists.txt").write_text("project(kestcrond VERSION 7.8.9 LANGUAGES CXX\n")
    found = values(tmp_path, KESTCROND_SITE=tmp_path)
    assert found["KESTCROND_VERSION"] == "7.8.9"


@pytest.mark.parametrize("logrotate", ["y", ""])
def test_buildroot_image(tmp_path, logrotate):
    examples = tmp_path / "image/usr/share/kestcrond/examples"
    examples.mkdir(parents=True)
    (examples / "README.md").touch()
    make(tmp_path, f"{TOP}/image", BR2_PACKAGE_LOGROTATE=logrotate)
    expected = expected_files(*(path for path in FILES if logrotate or "logrotate" not in path))
    expected["/etc/init.d/S60kestcrond"] = expected.pop("/etc/init.d/kestcrond")
    assert holds(tmp_path / "image")[0] == expected


def test_buildroot_directories(tmp_path):
    table = values(tmp_path)["KESTCROND_PERMISSIONS"].split()
    rows = [table[i : i + 10] for i in range(0, len(table), 10)]
    assert {row[0]: int(row[2], 8) for row in rows} == places()
    assert all(row[1] == "d" and row[3:] == ["0", "0"] + ["-"] * 5 for row in rows)


NEEDS = [
    "BR2_USE_MMU",
    "BR2_USE_WCHAR",
    "BR2_INSTALL_LIBSTDCPP",
    "BR2_TOOLCHAIN_HAS_THREADS_NPTL",
    "BR2_TOOLCHAIN_GCC_AT_LEAST_9",
    "BR2_TOOLCHAIN_USES_GLIBC",
    "BR2_ROOTFS_MERGED_USR",
]
OTHERS = [
    "BR2_TOOLCHAIN_USES_MUSL",
    "BR2_PACKAGE_BOOST",
    "BR2_PACKAGE_JSONCPP",
    "BR2_GCC_ENABLE_LTO",
    "BR2_TOOLCHAIN_EXTERNAL",
    "BR2_PACKAGE_CLI11",
]


def menu(tmp_path, monkeypatch, *chosen, without=()):
    """The configuration with the symbols `chosen`, in a Buildroot that lacks those in `without`."""
    monkeypatch.setenv("BR2_EXTERNAL_KESTCROND_PATH", str(BUILDROOT))
    top = tmp_path / "Config.in"
    known = [name for name in NEEDS + OTHERS if name not in without]
    top.write_text(
        "".join(f'config {name}\n\tbool "{name}"\n\n' for name in known) + f'source "{BUILDROOT}/Config.in"\n'
    )
    configuration = kconfiglib.Kconfig(str(top), warn_to_stderr=False)
    for name in chosen:
        configuration.syms[name].set_value("y")
    assert configuration.warnings == []
    return configuration


def comments(configuration):
    """The visible comments, by their first words."""
    return {
        " ".join(node.prompt[0].split()[:2])
        for node in configuration.node_iter()
        if node.item == kconfiglib.COMMENT and kconfiglib.expr_value(node.prompt[1])
    }


def test_buildroot_menu(tmp_path, monkeypatch):
    chosen = menu(tmp_path, monkeypatch, *NEEDS, "BR2_PACKAGE_CLI11", "BR2_PACKAGE_KESTCROND")
    for name in ("", "_CTL"):
        assert chosen.syms[f"BR2_PACKAGE_KESTCROND{name}"].str_value == "y"
    assert chosen.syms["BR2_PACKAGE_KESTCROND_SMALL"].str_value == "n"
    for name in ("BR2_PACKAGE_BOOST", "BR2_PACKAGE_JSONCPP"):
        assert chosen.syms[name].str_value == "y", "the library is not selected"
    assert comments(chosen) == set()
    # The menu defines each symbol of the package that the makefile uses.
    asked = re.findall(r"\((BR2_PACKAGE_KESTCROND\w*)", (BUILDROOT / "package/kestcrond/kestcrond.mk").read_text())
    assert len(asked) >= 3 and set(asked) <= {symbol.name for symbol in chosen.defined_syms}


@pytest.mark.parametrize("missing", NEEDS)
def test_buildroot_menu_without(tmp_path, monkeypatch, missing):
    rest = [name for name in NEEDS if name != missing]
    chosen = menu(tmp_path, monkeypatch, *rest, "BR2_PACKAGE_KESTCROND")
    assert chosen.syms["BR2_PACKAGE_KESTCROND"].str_value == "n"
    assert comments(chosen) == ({"kestcrond needs"} if missing != "BR2_USE_MMU" else set())


def test_buildroot_menu_with_musl(tmp_path, monkeypatch):
    rest = [name for name in NEEDS if name != "BR2_TOOLCHAIN_USES_GLIBC"]
    chosen = menu(tmp_path, monkeypatch, *rest, "BR2_TOOLCHAIN_USES_MUSL", "BR2_PACKAGE_KESTCROND")
    assert chosen.syms["BR2_PACKAGE_KESTCROND"].str_value == "y"


@pytest.mark.parametrize("without", [(), ("BR2_PACKAGE_CLI11",)])
def test_buildroot_menu_without_the_library_of_the_tool(tmp_path, monkeypatch, without):
    """The library is not chosen, or this Buildroot does not have it."""
    chosen = menu(tmp_path, monkeypatch, *NEEDS, "BR2_PACKAGE_KESTCROND", without=without)
    assert chosen.syms["BR2_PACKAGE_KESTCROND_CTL"].str_value == "n"
    assert comments(chosen) == {"kestcronctl needs"}


# --- Yocto ---------------------------------------------------------------------------------------

STATEMENT = re.compile(
    r"""
    (?:\#[^\n]*)?\n
  | inherit\ (?P<classes>[\w. -]+)\n
  | (?P<function>def\ \w+\(d\):\n(?:\ +[^\n]*\n)+)
  | (?P<task>do_\w+(?::append)?)\(\)\ \{\n(?P<body>(?:\ +[^\n]*\n)+)\}\n
  | (?P<name>[A-Za-z_]\w*(?:[:-](?:\w|\$\{\w+\}|-)+)?)(?:\[(?P<flag>\w+)\])?
    \ (?P<operator>=|\?=|\?\?=|\+=|=\+|\.=)\ "(?P<value>(?:[^"\\\n]|\\\n)*)"\n
""",
    re.X,
)

# Variables that the core layer sets for a target.
CORE = {
    "PN": "kestcrond",
    "bindir": "/usr/bin",
    "sbindir": "/usr/sbin",
    "datadir": "/usr/share",
    "sysconfdir": "/etc",
    "systemd_system_unitdir": "/usr/lib/systemd/system",
    "PACKAGES": "kestcrond-doc kestcrond",
    "WORKDIR": "/work",
    "FILES:kestcrond": "/usr/sbin/* /etc /usr/share/kestcrond",
}


class Recipe:
    """A recipe or configuration file, in the subset of the language that the project uses. Other
    statements are refused."""

    def __init__(self, path, **given):
        self.raw = {**CORE, "THISDIR": str(path.parent), **given}
        self.weak, self.flags, self.tasks = {}, {}, {}
        self.classes, self.read = [], []
        mark = types.SimpleNamespace(mark_dependency=lambda _, file: self.read.append(file))
        self.world = {"d": self, "os": os, "bb": types.SimpleNamespace(parse=mark)}
        text, position = path.read_text(), 0
        while position < len(text):
            statement = STATEMENT.match(text, position)
            assert statement, f"{path.name}: not understood: {text[position:position + 80]!r}"
            self.take(statement)
            position = statement.end()
        for name, value in self.weak.items():
            self.raw.setdefault(name, value)

    def take(self, statement):
        if statement["classes"]:
            self.classes += statement["classes"].split()
        elif statement["function"]:
            exec(statement["function"], self.world)
        elif statement["task"]:
            self.tasks[statement["task"]] = statement["body"]
        elif statement["flag"]:
            self.flags.setdefault(statement["name"], {})[statement["flag"]] = statement["value"]
        elif statement["name"]:
            self.assign(self.expand(statement["name"]), statement["operator"], statement["value"].replace("\\\n", ""))

    def assign(self, name, operator, value):
        before = self.raw.get(name, "")
        if operator == "??=":
            self.weak[name] = value
        elif operator != "?=" or name not in self.raw:
            self.raw[name] = {"+=": f"{before} {value}", "=+": f"{value} {before}", ".=": before + value}.get(
                operator, value
            )

    def expand(self, text):
        text = re.sub(r"\$\{@(.*?)\}", lambda found: str(eval(found[1], self.world)), text)
        return re.sub(r"\$\{([\w:]+)\}", lambda found: self.getVar(found[1]), text)

    def getVar(self, name):
        return self.expand(self.raw[name])

    def words(self, name):
        return self.getVar(name).split()


@pytest.fixture(name="recipe")
def read_recipe(tmp_path):
    return Recipe(LAYER / "recipes-core/kestcrond/kestcrond.bb", D=str(tmp_path), S=str(TOP))


def test_yocto_layer():
    layer = Recipe(LAYER / "conf/layer.conf", LAYERDIR=str(LAYER))
    [name] = layer.words("BBFILE_COLLECTIONS")
    recipes = [str(path) for path in LAYER.rglob("*.bb")]
    assert recipes
    for path in recipes:
        assert any(path in glob.glob(pattern) for pattern in layer.words("BBFILES"))
        assert re.match(layer.getVar(f"BBFILE_PATTERN_{name}"), path)
    assert layer.getVar("BBPATH") == f":{LAYER}"
    assert int(layer.getVar(f"BBFILE_PRIORITY_{name}")) > 0
    assert layer.words(f"LAYERDEPENDS_{name}") == ["core", "openembedded-layer"]
    assert layer.words(f"LAYERSERIES_COMPAT_{name}")


def test_yocto_values(recipe):
    assert Path(recipe.getVar("EXTERNALSRC")) == TOP
    assert recipe.getVar("PV") == VERSION
    assert recipe.read == [str(TOP / "CMakeLists.txt")], "a new version would not be detected"
    assert recipe.classes == ["externalsrc", "cmake", "pkgconfig", "features_check", "systemd", "update-rc.d"]
    assert recipe.words("REQUIRED_DISTRO_FEATURES") == ["usrmerge"]
    assert recipe.words("DEPENDS") == ["boost", "jsoncpp"]
    assert options(recipe.getVar("EXTRA_OECMAKE")) == {
        "KESTCROND_BUILD_TESTS": "OFF",
        "KESTCROND_BUILD_FUZZERS": "OFF",
        "KESTCROND_PLATFORM_LIBRARIES": "",
    }
    on, off, library = recipe.flags["PACKAGECONFIG"]["ctl"].split(",")
    assert (options(on), options(off), library) == (
        {"KESTCROND_BUILD_CTL": "ON"},
        {"KESTCROND_BUILD_CTL": "OFF"},
        "cli11",
    )
    on, off = recipe.flags["PACKAGECONFIG"]["small"].split(",")
    assert (options(on), options(off)) == ({"KESTCROND_SMALL": "ON"}, {"KESTCROND_SMALL": "OFF"})
    assert set(recipe.words("PACKAGECONFIG")) <= set(recipe.flags["PACKAGECONFIG"])


def package_of(recipe, path):
    """The first of the recipe's packages that takes a file or a directory."""
    patterns = {
        name: recipe.words(f"FILES:{name}") if f"FILES:{name}" in recipe.raw else []
        for name in recipe.words("PACKAGES")
    }
    patterns["kestcrond"] += [
        f"{CORE['systemd_system_unitdir']}/{unit}" for unit in recipe.words("SYSTEMD_SERVICE:kestcrond")
    ]
    return next(
        (
            name
            for name, wanted in patterns.items()
            for pattern in wanted
            if fnmatch.fnmatch(path, pattern) or path.startswith(pattern + "/")
        ),
        None,
    )


def test_yocto_image(recipe, tmp_path):
    step = recipe.expand(recipe.tasks["do_install:append"])
    subprocess.run(["sh", "-eu", "-c", step], check=True)
    files, directories = holds(tmp_path)
    assert files == expected_files(*FILES)
    assert {
        path: mode for path, mode in directories.items() if path.startswith(("/usr/kest", "/usr/local"))
    } == places()
    assert [path for path in [*files, *places()] if package_of(recipe, path) != "kestcrond"] == []
    assert set(recipe.words("CONFFILES:kestcrond")) <= set(files)
    assert f"/etc/init.d/{recipe.getVar('INITSCRIPT_NAME')}" in files


def test_yocto_packages(recipe):
    """Each installed file is in its package."""
    install = (TOP / "cmake/install.cmake").read_text()
    assert "completions RENAME kestcronctl" in install and "kestcrond/examples" in install
    for path, package in [
        ("/usr/sbin/kestcrond", "kestcrond"),
        ("/usr/bin/kestcronctl", "kestcrond-ctl"),
        ("/usr/share/bash-completion/completions/kestcronctl", "kestcrond-ctl"),
        ("/usr/share/kestcrond/prometheus/kestcron.rules.yml", "kestcrond-ctl"),
        ("/usr/share/kestcrond/examples/README.md", "kestcrond-examples"),
        ("/usr/share/kestcrond/kestcron.job.schema.json", "kestcrond"),
        ("/usr/share/kestcrond/kestcronctl.schema.json", "kestcrond-ctl"),
    ]:
        assert package_of(recipe, path) == package, path


# --- The platform library of a maker -------------------------------------------------------------

HEADERS = [
    header
    for header in sorted((TOP / "src/platform").glob("*.h"))
    if (TOP / "src/platform/posix" / f"{header.stem}.cpp").exists()
]


def declared(header):
    """The functions that a header declares, each in one line and with its qualified name."""
    text = re.sub(r"//[^\n]*|^#[^\n]*", "", header.read_text(), flags=re.M)
    scope = "::".join(re.findall(r"^(?:namespace|class) ([\w:]+) \{", text, re.M))
    functions = re.findall(r"^ *(\w[\w:<>]*(?: \w+)*[ *&]+)(\w+)\(([^;{}]*?)\)(?: __attribute__.*)?;", text, re.M)
    for result, name, arguments in functions:
        whole = f"{scope}::{name}" if scope else name
        yield re.sub(r"\s+", " ", f"{result}{whole}({arguments})").replace(" = nullptr", "")


def test_porting_lists_every_call():
    """The guide lists exactly the functions that a maker provides, as they are declared."""
    guide = (TOP / "docs/porting.md").read_text()
    calls = [call for header in HEADERS for call in declared(header)]
    assert len(calls) == len(set(calls)) >= 19
    assert re.findall(r"^### `(.*)`$", guide, re.M) == sorted(calls, key=lambda call: guide.find(f"### `{call}`"))
    names = {re.search(r"(\w+)\(", call)[1] for call in calls}
    assert set(re.findall(r"\b(?:XLIBC|KEST[A-Z])\w+|\bJson(?:From|To)\w+", guide)) <= names | {
        "XLIBCProc",
        "KESTUtils",
        "KESTRandom",
        "KESTCROND_PLATFORM_LIBRARIES",
        "KESTCROND_BUILD_TESTS",
    }
    for header in (TOP / "src/platform").glob("*.h"):
        assert f"`src/platform/{header.name}`" in guide
        assert (header in HEADERS) == (f"`src/platform/posix/{header.stem}.cpp`" in guide)


def test_the_headers_declare_every_call():
    """The library of src/platform/posix defines exactly the functions that the headers declare."""
    names = {re.search(r"(\w+)\(", call)[1] for header in HEADERS for call in declared(header)}
    defined = set()
    for source in (TOP / "src/platform/posix").glob("*.cpp"):
        text = re.sub(r"^namespace \{.*?^\} // namespace$", "", source.read_text(), flags=re.M | re.S)
        defined |= set(re.findall(r"^\w[\w:<>:\* &]*?(\w+)\([^;]*?\) \{$", text, re.M))
    assert defined == names


def cmake(*arguments):
    done = subprocess.run(["cmake", *arguments], capture_output=True, text=True)
    assert done.returncode == 0, (done.stdout + done.stderr)[-4000:]


@pytest.mark.parametrize("version,status", [("1.8.4", 1), ("1.9.0", 0)])
def test_the_oldest_version_of_the_json_library_is_required(tmp_path, version, status):
    """With an older version the daemon aborts when the first job is removed."""
    (tmp_path / "jsoncpp.pc").write_text(
        f"Name: jsoncpp\nDescription: JSON\nVersion: {version}\nLibs: -ljsoncpp\n" "Cflags: -I/usr/include/jsoncpp\n"
    )
    done = subprocess.run(
        ["cmake", "-S", TOP, "-B", tmp_path / "build", "-DKESTCROND_BUILD_CTL=OFF"],
        env={**os.environ, "PKG_CONFIG_PATH": str(tmp_path)},
        capture_output=True,
        text=True,
        check=False,
    )
    assert (done.returncode != 0) == (status != 0), done.stderr


@pytest.mark.native(reason="the daemon of the maker is built for the host")
def test_the_platform_library_of_a_maker(tmp_path):
    """Runs the daemon with the library of tests/porting, which reads the status of another controller."""
    library, build = tmp_path / "maker", tmp_path / "build"
    cmake("-S", TOP / "tests/porting", "-B", library, "-DCMAKE_BUILD_TYPE=Release")
    cmake("--build", library, "--parallel", "2")
    cmake(
        "-S",
        TOP,
        "-B",
        build,
        "-DCMAKE_BUILD_TYPE=Release",
        "-DKESTCROND_BUILD_CTL=OFF",
        f"-DKESTCROND_PLATFORM_LIBRARIES={library}/libmaker_platform.a",
    )
    cmake("--build", build, "--target", "kestcrond", "--parallel", "2")
    assert not list(build.rglob("posix/*.o")), "the library of the project is linked too"

    with Appliance(build / "kestcrond") as machine:
        machine.clock("2026-06-02 02:10:10")
        overdue = never("x", assure_execute=1, assure_execute_action="run")
        machine.jobs("builtin", "f", [overdue])
        machine.jobs("pkg", "g", [every_minute("y")])
        # The job ran long ago, so that it runs on a held machine.
        entry = {
            "config": {**overdue, "name": "builtin-f-x"},
            "lastExecution": 1780000000,
            "schedule": machine.drawn(Minute=0, hour=0, day=31, month=2),
        }
        machine.write(PERSISTENT_FILE, json.dumps({"jobs": {"builtin-f-x": entry}}))
        machine.write("/run/kestvorld.status", "0")  # not used by this library
        machine.write("/run/controller/state", "held\n")
        machine.start_and_wait()
        wait_for(machine.log_lines)
        assert ["state[AssureExecuteRun]" in line for line in machine.log_lines()] == [True]
        machine.write("/run/controller/state", "active\n")
        wait_for(lambda: machine.runs("pkg-g-y"))
        assert machine.runs("pkg-g-y")[0] == "root root []"
        assert "state[Ready]" in machine.log_lines()[1]
        assert "Fail to KESTVorldStatusGet()" not in machine.texts()
        machine.write("/run/controller/state", "asleep\n")
        machine.wait_for_text("Fail to KESTVorldStatusGet()")
        machine.stop()
