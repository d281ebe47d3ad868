"""The schema of job files: it is valid, its examples are accepted, and it refuses what the daemon refuses."""

import itertools
import json
import re
from pathlib import Path

import pytest
from tests.lib.appliance import RECORD, SOURCES
from tests.lib.definitions import GOOD, Definitions, damaged_files
from jsonschema import Draft202012Validator, RefResolver

PROJECT = Path(__file__).resolve().parents[2]
SCHEMA = json.loads((PROJECT / "packaging/kestcron.job.schema.json").read_text())
MEMBERS = SCHEMA["$defs"]["definition"]["properties"]
JOB_FILE = Draft202012Validator(SCHEMA)
ACCOUNT_FILE = Draft202012Validator({"$ref": SCHEMA["$id"] + "#account-file"}, resolver=RefResolver.from_schema(SCHEMA))
PKG = SOURCES["pkg"]
ALICE = SOURCES["pkg_nonroot"] + "/alice"
FULL = {**GOOD, "period": "crontab", "crontab": "* * * * *"}

# Limits of the schema that its comment lists, each with a definition that it accepts. For these the
# daemon refuses the whole file...
REFUSED_FILES = {
    "nested deeper than 64 levels": {**GOOD, "extra": json.loads("[" * 64 + "]" * 64)},
    "larger than 1 MiB": {**GOOD, "extra": "x" * (1 << 20)},
}
# ... and for these it leaves the job out.
LEFT_OUT = {
    "an account that does not exist": {"user": "package", "package_username": "carol"},
    "a program that does not exist": {"cmd": "/missing"},
    "is not a regular file": {"cmd": "/usr/local/bin"},
    "having a slash": {"name": "a/b"},
    "a zero byte": {"name": "zero\x00byte"},
    "more than 255 bytes": {"name": "n" * 250},
    "a user of no class": {"user": "nobody"},
    "without the name of its account as a text": {"user": "package", "package_username": 5},
}


def parts(value):
    """Every object in the schema."""
    if isinstance(value, dict):
        yield value
    for inner in value.values() if isinstance(value, dict) else value:
        if isinstance(inner, (dict, list)):
            yield from parts(inner)


def without_comments(text):
    return re.sub(r"^\s*//.*$", "", text, flags=re.MULTILINE)


# --- The schema itself --------------------------------------------------------------------------


def test_the_schema_is_valid():
    assert SCHEMA["$schema"] == Draft202012Validator.META_SCHEMA["$id"]
    Draft202012Validator.check_schema(SCHEMA)
    # The meta schema accepts a misspelt keyword, which then has no effect.
    keywords = {
        "$schema",
        "$id",
        "$defs",
        "$ref",
        "$anchor",
        "$comment",
        "title",
        "description",
        "default",
        "examples",
        "type",
        "const",
        "pattern",
        "minimum",
        "maximum",
        "items",
        "minItems",
        "maxItems",
        "required",
        "properties",
        "allOf",
        "anyOf",
        "not",
        "if",
        "then",
        "else",
    }
    by_name = [MEMBERS, SCHEMA["$defs"], *(part["properties"] for part in parts(SCHEMA) if "properties" in part)]
    for part in parts({key: value for key, value in SCHEMA.items() if key != "examples"}):
        if not any(part is names for names in by_name) and "cmd" not in part:
            assert set(part) <= keywords, part


def test_patterns_mean_the_same_to_all_editors():
    patterns = [part["pattern"] for part in parts(SCHEMA) if "pattern" in part]
    assert len(patterns) > 10
    for pattern in patterns:
        assert pattern.isascii()
        assert not re.search(r"\\[^tr1]|\(\?[^:!]", pattern), pattern


def test_every_member_is_explained():
    for name, member in MEMBERS.items():
        assert {"title", "description", "examples"} <= set(member), name


def test_the_schema_has_the_members_that_the_daemon_reads(machine, ctl):
    machine.write(PKG + "/f", json.dumps([{**{name: None for name in MEMBERS}, "extra": 1}]))
    _, answer = ctl.json("check")
    unknown = [problem["member"] for problem in answer["problems"] if problem["message"].startswith("unknown member")]
    assert unknown == ["extra"]


def test_examples_of_members(machine, ctl):
    for name, member in MEMBERS.items():
        for example in member["examples"]:
            definition = {**FULL, "package_username": "alice", name: example}
            if name in ("cmd", "cmd_list"):
                definition.pop("cmd")
                definition[name] = example
            assert JOB_FILE.is_valid([definition]), definition
            machine.write(f"{PKG}/{name}-{member['examples'].index(example)}", json.dumps([definition]))
    assert ctl("check", "--errors-only", "--portable").returncode == 0


def test_examples_of_files(machine, ctl):
    machine.account_directory("alice")
    examples = [(JOB_FILE, PKG, example) for example in SCHEMA["examples"]]
    examples += [(ACCOUNT_FILE, ALICE, example) for example in SCHEMA["$defs"]["accountFile"]["examples"]]
    for number, (schema, directory, example) in enumerate(examples):
        schema.validate(example)
        machine.write(f"{directory}/{number}", json.dumps(example))
    assert ctl("check", "--errors-only", "--portable").returncode == 0
    assert len(examples) >= 4


def test_the_jobs_of_the_example_appliance():
    files = [
        path
        for source in SOURCES.values()
        for path in (PROJECT / "examples").joinpath(source[1:]).rglob("*")
        if path.is_file()
    ]
    assert len(files) >= 5
    for path in files:
        schema = ACCOUNT_FILE if path.parent.parent.name == "kestcron_nonroot.d" else JOB_FILE
        schema.validate(json.loads(without_comments(path.read_text())))


# The message about a valid definition whose job is left out.
LEFT_OUT_TEXT = "the daemon will not load this job"

# --- Agreement with the daemon ------------------------------------------------------------------


def refused(ctl):
    """The file and line of each definition that is not valid, and the files that the daemon cannot read,
    from one check of all files."""
    _, answer = ctl.json("check", "--errors-only")
    problems = [problem for problem in answer["problems"] if LEFT_OUT_TEXT not in problem["message"]]
    places = {(problem["file"], problem["line"]) for problem in problems if problem["job"] is not None}
    return places, {problem["file"] for problem in problems if problem["job"] is None}


def expect_agreement(machine, ctl, schema, directory, definitions):
    """Writes the definitions to arrays, one on each line, and compares which of them are refused."""
    places = {}
    for start in range(0, len(definitions), 500):
        path = f"{directory}/f{start:05}"
        batch = definitions[start : start + 500]
        machine.write(path, "[" + ",\n".join(map(json.dumps, batch)) + "]")
        places.update({(path, line): one for line, one in enumerate(batch, 1)})
    by_daemon, unread = refused(ctl)
    by_schema = {place for place, one in places.items() if not schema.is_valid([one])}
    assert not unread
    assert by_daemon <= set(places)
    differing = {
        json.dumps(places[place]): "refused by the " + ("daemon" if place in by_daemon else "schema") + " alone"
        for place in by_daemon ^ by_schema
    }
    assert not differing, (len(differing), dict(itertools.islice(differing.items(), 5)))
    return len(definitions) - len(by_daemon), len(by_daemon)


@pytest.mark.parametrize(
    "schema,directory,seed,count",
    [(JOB_FILE, PKG, 1, 1500), (ACCOUNT_FILE, ALICE, 2, 1000), (ACCOUNT_FILE, ALICE, 5, 1000)],
)
def test_random_definitions_agree(machine, ctl, schema, directory, seed, count):
    machine.account_directory("alice")
    chance = Definitions(seed)
    good, bad = expect_agreement(machine, ctl, schema, directory, [chance.one(f"n{number}") for number in range(count)])
    assert min(good, bad) > 200, "too few valid or invalid definitions"


@pytest.mark.parametrize("count,valid", [(1024, True), (1025, False)])
def test_the_number_of_jobs_of_an_account(machine, ctl, count, valid):
    machine.account_directory("alice")
    jobs = [{**GOOD, "name": f"{number}"} for number in range(count)]
    machine.write(f"{ALICE}/many", json.dumps(jobs))
    assert ACCOUNT_FILE.is_valid(jobs) == valid
    assert (ctl("check", "--errors-only").returncode == 0) == valid
    assert JOB_FILE.is_valid(jobs)


def test_every_range_of_numbers(machine, ctl):
    crontabs = []
    for field, highest in enumerate([59, 23, 31, 12, 6]):
        for low, high in itertools.product(range(highest + 2), repeat=2):
            for before in ("", "~,"):
                fields = ["*"] * 5
                fields[field] = f"{before}{low}~{high}"
                crontabs.append(" ".join(fields))
    good, bad = expect_agreement(machine, ctl, JOB_FILE, PKG, [{**FULL, "crontab": crontab} for crontab in crontabs])
    # All pairs whose first number is not greater are valid, alone and after a "~".
    assert good == sum(count * (count + 1) for count in (60, 24, 31, 12, 7))
    assert bad > good


def test_every_way_to_write_a_number(machine, ctl):
    numbers = [
        "0",
        "1",
        "6",
        "7",
        "00",
        "+0",
        "-0",
        "-00",
        "+-0",
        "-+0",
        "--0",
        "-1",
        "+5",
        "++5",
        "+ 5",
        "05",
        "0005",
        "0x5",
        "5.0",
        "5e0",
        "12",
        "013",
        "24",
        "0031",
        "032",
        "059",
        "60",
        "006",
        "0" * 50 + "3",
        "4294967297",
        "",
        "\t",
        "\t5",
        "5\r\n",
        "\v5\f",
        "5\t5",
        "\x005",
        "5\x00",
        "\u00a05",
        "\u0665",
        "~",
        "~x",
        "\t~",
        "*",
        "*x~3",
        "\t*",
        "x",
        "?",
        "1-5",
        "L",
        "5/2",
    ]
    words = numbers + [
        ",".join(pair)
        for pair in [
            ("5", "5"),
            ("", "5"),
            ("5", ""),
            ("5", "x"),
            ("*", "~"),
            ("5", "9~3"),
            ("~9", "3~"),
            ("5", "\n"),
            ("3\n", "*\n"),
        ]
    ]
    words += [
        "~".join(pair)
        for pair in itertools.product(["1", "05", "+6", "-0", "-00", "\t3", "3\n", "012", "", "9"], repeat=2)
    ] + ["1~2~3", "*1~0"]
    words += ["*," + word for word in words]
    crontabs = []
    for field, word in itertools.product(range(5), words):
        fields = ["*"] * 5
        fields[field] = word
        crontabs.append(" ".join(fields))
    crontabs += [
        "",
        " ",
        "*",
        "* * * *",
        "* * * * * *",
        " * * * * *",
        "* * * * * ",
        "* *  * * *",
        "*\t* * * *",
        "* * * * *\n",
        "\n* * * * *",
        "~ ~ ~ ~ ~",
        "     ",
        "* * * * ,",
    ]
    good, bad = expect_agreement(machine, ctl, JOB_FILE, PKG, [{**FULL, "crontab": crontab} for crontab in crontabs])
    assert min(good, bad) > 400


def test_every_value_of_every_member(machine, ctl):
    values = [
        "",
        "x",
        "root",
        "package",
        "a package",
        "c",
        "C",
        "Crontab",
        "my crontab",
        "h\n",
        " h",
        "\u0125",
        "run",
        RECORD,
        None,
        True,
        False,
        0,
        -1,
        0.5,
        -0.5,
        1e10,
        -1e10,
        2147483647,
        2147483648,
        2147483647.0,
        2147483647.5,
        -2147483648,
        -2147483649,
        -2147483648.5,
        18446744073709551615,
        10**30,
        [],
        {},
        [""],
        [[]],
        [{}],
        [None, 1],
        {"0": RECORD},
    ]
    bases = [
        GOOD,
        FULL,
        {**FULL, "period": "Cron"},
        {**GOOD, "period": "my crontab", "crontab": "x"},
        {**GOOD, "user": "package", "package_username": "alice"},
        {**GOOD, "cmd_list": [RECORD]},
    ]
    definitions = [{**base, member: value} for base in bases for member in MEMBERS for value in values]
    definitions += [
        {key: value for key, value in base.items() if key != member} for base in bases for member in MEMBERS
    ]
    good, bad = expect_agreement(machine, ctl, JOB_FILE, PKG, definitions)
    assert min(good, bad) > 500


@pytest.mark.parametrize("schema,directory", [(JOB_FILE, PKG), (ACCOUNT_FILE, ALICE)])
def test_files_without_an_array_and_damaged_ones(machine, ctl, schema, directory):
    machine.account_directory("alice")
    chance = Definitions(3)
    contents = [json.dumps(chance.one("x")).encode() for _ in range(300)] + damaged_files(4)
    documents = {}
    for number, content in enumerate(contents):
        if len(content) > 10000:
            continue  # an account's files share its quota
        path = f"{directory}/{number:03}"
        machine.write(path, content)
        try:  # as lenient with texts as the daemon, because the schema does not restrict them
            documents[path] = json.loads(content.decode(errors="surrogateescape"), strict=False)
        except ValueError:
            pass
    places, unread = refused(ctl)
    by_daemon = {file for file, _ in places}
    compared = set(documents) - unread
    assert len(compared) > 350
    # The daemon finds no job in such a file and reports no error.
    jobless = {path for path in compared if not isinstance(documents[path], (dict, list))}
    assert jobless and not jobless & by_daemon
    assert "a document that is neither an object nor an array" in SCHEMA["$comment"]
    by_schema = {path for path in compared if not schema.is_valid(documents[path])}
    assert {path: documents[path] for path in by_schema ^ (by_daemon & compared | jobless)} == {}
    assert 100 < len(by_schema) < len(compared) - 100


@pytest.mark.parametrize("reason", REFUSED_FILES)
def test_files_that_only_the_daemon_refuses(machine, ctl, reason):
    assert reason in SCHEMA["$comment"]
    assert JOB_FILE.is_valid([REFUSED_FILES[reason]])
    machine.write(PKG + "/f", json.dumps([REFUSED_FILES[reason]]))
    assert refused(ctl) == (set(), {PKG + "/f"})


@pytest.mark.parametrize("reason", LEFT_OUT)
def test_jobs_that_only_the_daemon_leaves_out(machine, ctl, reason):
    assert reason in SCHEMA["$comment"]
    definition = {**GOOD, **LEFT_OUT[reason]}
    assert JOB_FILE.is_valid([definition])
    machine.write(PKG + "/f", json.dumps([definition]))
    assert refused(ctl) == (set(), set())
    _, answer = ctl.json("check")
    (error,) = [problem for problem in answer["problems"] if LEFT_OUT_TEXT in problem["message"]]
    assert error["severity"] == "error"
