"""The manuals of the daemon and of its job files agree with the code: paths, members, options,
signals, states and messages. The tool checks their examples."""

import os
import re
import shutil
import subprocess
from pathlib import Path

import pytest

TOP = Path(__file__).resolve().parents[2]
PAGES = [TOP / "man/kestcrond.8", TOP / "man/kestcron.job.5"]
LAYERS = ["base", "platform", "log", "job", "core", "daemon"]

# Raw strings, strings and comments.
TOKEN = re.compile(r'R"\((?P<raw>.*?)\)"|"(?P<text>(?:[^"\\\n]|\\.)*)"|//[^\n]*|/\*.*?\*/', re.S)

# Only these paths belong to the daemon, not those of programs and examples.
OWN_PATH = re.compile(r"(?<![\w.])(?:/usr/kest|/usr/local/etc|/tmp/kestcrond|/var/run|/run|" r"/var/log)[\w./-]*")
CODE = {
    str(path.relative_to(TOP / "src")): path.read_text()
    for layer in LAYERS
    for path in sorted((TOP / "src" / layer).rglob("*"))
    if path.suffix in (".cpp", ".h")
}


def strings(source):
    """The texts of the string literals. Adjacent literals are one, as for the compiler."""
    texts, end = [], -1
    for token in TOKEN.finditer(source):
        text = token["raw"] if token["raw"] is not None else token["text"]
        if text is None:
            continue
        if token["raw"] is None:
            text = re.sub(r"\\(.)", r"\1", text)
        if end >= 0 and not source[end : token.start()].strip():
            texts[-1] += text
        else:
            texts.append(text)
        end = token.end()
    return texts


def code_strings():
    return {text for source in CODE.values() for text in strings(source)}


def without_comments(source):
    return TOKEN.sub(lambda token: "" if token[0].startswith("/") else token[0], source)


def manual(page):
    """The source of a page, with escape sequences as they are printed."""
    text = page.read_text()
    for escaped, printed in [(r"\&", ""), (r"\-", "-"), (r"\(dq", '"'), (r"\e", "\\")]:
        text = text.replace(escaped, printed)
    return text


def heads(pages, macro):
    """The words behind `.It MACRO` in the pages."""
    return [
        word
        for page in pages
        for line in re.findall(rf"^\.It {macro} (.*)$", manual(page), re.M)
        for word in re.findall(r"[\w-]+", line)
    ]


def section(page, name, level="Ss"):
    """The text below a heading, up to the next heading of any level."""
    found = re.search(rf"^\.{level} {re.escape(name)}\n(.*?)(?=^\.S[sh] |\Z)", manual(page), re.M | re.S)
    assert found, f"no {name!r} in {page.name}"
    return found[1]


def code_paths():
    return {text for text in code_strings() if re.fullmatch(r"/[a-z][\w./-]*", text)}


def test_the_manuals_name_every_path_of_the_code():
    paths = code_paths()
    assert len(paths) >= 15
    # Whole paths, so that "/dev" is not found in "/dev/null".
    named = {path for page in PAGES for path in re.findall(r"^\.(?:Pa|It Pa) (/\S*)", manual(page), re.M)}
    assert paths - named == set()


def test_every_path_of_the_manuals_is_in_the_code():
    paths, texts = code_paths(), code_strings()
    jobs = set(re.findall(r'"(/usr[^"]*kestcron[^"]*\.d)"', "\n".join(CODE.values())))
    assert len(jobs) == 4
    documented = {path.rstrip("./") for page in PAGES for path in OWN_PATH.findall(manual(page))}

    def known(path):
        if path in paths or jobs & {str(parent) for parent in list(Path(path).parents)[:2]}:
            return True  # or the job file of an example, which may be in the directory of an account
        return any(
            own.startswith(path + "/") or path.startswith(own) and path[len(own) :].lstrip("/") in texts
            for own in paths
        )

    assert {path for path in documented if not known(path)} == set()


def test_members():
    """The member lists contain exactly the members that the code reads or writes in definitions,
    templates and entries."""
    lookups = re.compile(
        r'(?:(?:Member|HasText)\((?:[^"();]|\([^()]*\))*,\s*"(\w+)"'
        r'|isMember\("(\w+)"\)|\["(\w+)"\]|StaticString\("(\w+)"\))'
    )
    members = set()
    for name, source in CODE.items():
        if name.startswith(("job/", "core/")):
            source = re.sub(r'R"\(.*?\)"', '""', without_comments(source), flags=re.S)
            members |= {"".join(found) for found in lookups.findall(source)}
    keys = re.search(r"keys\{(.*?)\}", CODE["job/cron_field.cpp"])
    members |= set(strings(keys[1]))
    assert {"period", "lastExecution", "maxDelay", "week", "run_on_passive"} <= members
    assert members == set(heads(PAGES, "Va"))


def test_each_member_of_a_definition_has_an_example():
    listed = section(PAGES[1], "Members")
    for name in heads([PAGES[1]], "Va"):
        source = listed if f".It Va {name}\n" in listed else section(PAGES[1], "The template")
        item = source.split(f".It Va {name}\n")[1].split("\n.It Va ")[0]
        assert f'.Dl "{name}": ' in item, name


def test_defaults():
    """The defaults in the member list are those that the code writes."""
    written = dict(
        re.findall(r'WriteWhenAbsent\(config, Json::StaticString\("(\w+)"\), "?(\w+)"?\)', CODE["job/definition.cpp"])
    )
    written["maxDelay"] = re.search(r"kDefaultMaxDelay = (\d+)", CODE["job/cronjob.h"])[1]
    listed = section(PAGES[1], "Members") + section(PAGES[1], "The template")
    documented = dict(re.findall(r"^\.It Va (\w+)\n[^\n]*; default\s(?:\.Dq )?(\w+)", listed, re.M))
    assert written == documented


def test_options():
    options = {
        text
        for name in ("daemon/kestcrond.cpp", "base/paths.h")
        for text in strings(CODE[name])
        if text.startswith("-")
    }
    assert options == {f"-{word}" for word in heads(PAGES, "Fl")}
    synopsis = section(PAGES[0], "SYNOPSIS", "Sh")
    assert set(re.findall(r"^\.Op Fl (\S+)$", synopsis, re.M)) == set(heads(PAGES, "Fl"))


def test_signals():
    used = set(re.findall(r"\bSIG[A-Z]+\b(?!_)", without_comments(CODE["daemon/kestcrond.cpp"])))
    assert used == set(heads(PAGES, "Dv"))


def test_states():
    traits = re.search(r"kTraits\{\{(.*?)\}\};", CODE["core/job_state.cpp"], re.S)
    assert set(strings(traits[1])) == set(heads([PAGES[0]], "Cm"))


def test_parts_of_the_note_of_a_launch():
    note = " ".join(strings(CODE["core/launch.cpp"]))
    assert re.findall(r"(\w+)\[", note) == heads([PAGES[0]], "Ql")


def formats(source):
    """The messages of a source file to the system log."""
    found = []
    for call in re.finditer(r"LOG_ERROR\(", without_comments(source)):
        rest = without_comments(source)[call.end() :]
        texts = strings(rest[: rest.index(";")])
        if not texts:
            continue  # the definition of the macro
        found += texts[:1] if texts[0] != "%s" else []
    if "current runtime: " in source:
        found.append("current runtime: %s")
    if "source.failure" in source:
        found += [text for text in strings(CODE["core/job_files.h"]) if "loaded failed" in text]
    return set(found)


def matches(text, documented):
    """Whether this item of the manual is the format, with a word in capitals for each conversion."""
    pieces = re.split(r"%(?:\d*[a-zA-Z])", text)
    return re.fullmatch("[A-Z]+".join(map(re.escape, pieces)), documented) is not None


def documented_messages():
    """The items of the lists of messages, by the tag in the heading of their group."""
    whole = manual(PAGES[0])
    groups = re.findall(r"^\.Ss (\w+): [^\n]*\n(.*?)(?=^\.S[sh] )", whole, re.M | re.S)
    documented = {}
    for tag, text in groups:
        documented.setdefault(tag, []).extend(re.findall(r"^\.It (.*)$", text, re.M))
    return documented


def test_messages():
    """The manual lists exactly the messages of the code, complete and under their tags."""
    reported = {}
    for name, source in CODE.items():
        if name.endswith(".cpp") and (texts := formats(source)):
            reported.setdefault(Path(name).name.split(".")[0], []).extend(texts)
    documented = documented_messages()
    assert sum(map(len, reported.values())) >= 60
    assert set(reported) == set(documented)
    for tag, texts in reported.items():
        assert [text for text in texts if not any(matches(text, one) for one in documented[tag])] == []
        assert [one for one in documented[tag] if not any(matches(text, one) for text in texts)] == []
        assert len(documented[tag]) == len(texts)


def test_fixed_words_of_messages():
    """The fixed texts that the code inserts into messages are documented."""
    calls = re.findall(r'LOG_ERROR\("Failed \[%s\], err=%m", ([^;]*)\);', CODE["log/memorylogger.cpp"])
    calls += re.findall(r'\{Kind::NoCommand, "cmd_list", ([^;]*)\}', CODE["job/definition.cpp"])
    words = {text for call in calls for text in strings(call)}
    assert len(words) == 4
    assert [
        word for word in words if f".Ql {word}\n" not in manual(PAGES[0]) and f".Ql {word} ,\n" not in manual(PAGES[0])
    ] == []


def test_failure_lines_of_the_execution_log():
    documented = [
        one for one in re.findall(r"^\.It (.*)$", section(PAGES[0], "The execution log"), re.M) if "ERROR" in one
    ]
    text = CODE["job/cronjob.start.cpp"]
    steps = set(re.findall(r'report\("(\w+)"\)', text))
    assert len(steps) == 3
    pieces = strings(re.search(r"WriteExecutionLog\(std::string\((.*?)\);", text, re.S)[1])
    first, last = strings(re.search(r"const std::string running =(.*?);", text, re.S)[1])[:2]
    failed = strings(re.search(r"rc < 0\)\s*WriteExecutionLog\((.*?)\);", text, re.S)[1])
    assert sorted(documented) == sorted(
        ["JOB".join([f"{pieces[0]}{step}{pieces[1]}", pieces[2]]) + f"ACCOUNT{pieces[3]}ERROR]" for step in steps]
        + [f"{first}JOB{last}COMMAND{failed[0]}-1{failed[1]}ERROR"]
    )


def test_lint(tmp_path):
    """mandoc reports nothing except long lines of the source, which readers do not see. References are
    looked up among the pages of the project."""
    pages = sorted((TOP / "man").iterdir())
    assert set(PAGES) <= set(pages)
    for page in pages:
        place = tmp_path / f"man{page.suffix[1:]}"
        place.mkdir(exist_ok=True)
        shutil.copy(page, place)
    subprocess.run(["/usr/sbin/makewhatis", tmp_path], check=True)
    done = subprocess.run(
        ["mandoc", "-T", "lint", "-W", "style", *pages],
        text=True,
        capture_output=True,
        env={**os.environ, "MANPATH": str(tmp_path)},
    )
    assert done.stdout + done.stderr == ""


@pytest.mark.parametrize("page", PAGES, ids=lambda page: page.name)
def test_no_quoted_word_is_taken_for_a_macro(page):
    """Quoted text is printed completely: an unescaped word such as "No" would be taken for a macro."""
    printed = subprocess.run(
        ["mandoc", "-T", "utf8", page], check=True, text=True, encoding="utf-8", capture_output=True
    ).stdout
    printed = re.sub(r"\s", "", re.sub(r".\x08", "", printed))
    quoted = re.findall(r"^\.(?:Dq|Ql|Dl|It Ql|It Li) (.*?)(?: [.,:;)])?$", manual(page), re.M)
    assert len(quoted) > 20
    # The manual may quote a text only to keep its blanks.
    assert [
        text
        for text in quoted
        if re.sub(r'\s|^"|"$', "", text) not in printed and re.sub(r"\s", "", text) not in printed
    ] == []


def tool(request, *arguments):
    binary = Path(request.config.getoption("--daemon")).resolve().parent / "kestcronctl"
    return subprocess.run([binary, *arguments], text=True, capture_output=True, timeout=60)


def example_files():
    """Each example of a job file with the path that its introduction names."""
    examples = section(PAGES[1], "EXAMPLES", "Sh")
    blocks = re.findall(r"^\.Bd -literal[^\n]*\n(.*?)^\.Ed$", examples, re.M | re.S)
    introductions = re.split(r"^\.Bd .*?^\.Ed$", examples, flags=re.M | re.S)
    return [
        (re.findall(r"^\.Pa (/\S+)", introduction, re.M)[0], block)
        for introduction, block in zip(introductions, blocks)
        if block[0] in "[{"
    ]


def test_the_tool_accepts_the_example_files(request, tmp_path):
    """The tool reports no problems on a machine with their programs and accounts."""
    examples = example_files()
    assert len(examples) == 3
    (tmp_path / "etc").mkdir()
    accounts = {"root": 0, "system": 2001, "reports": 2002, "weather": 2003}
    (tmp_path / "etc/passwd").write_text(
        "".join(f"{name}:x:{number}:{number}::/:/bin/false\n" for name, number in accounts.items())
    )
    for path, text in examples:
        file = tmp_path / path[1:]
        file.parent.mkdir(parents=True)
        file.write_text(text)
        if file.parent.name == "weather":
            os.chown(file.parent, accounts["weather"], -1)
        for program in re.findall(r'"cmd(?:_list)?": \[?\s*"(/[^" ]+)', text):
            there = tmp_path / program[1:]
            there.parent.mkdir(parents=True, exist_ok=True)
            there.write_text("#!/bin/sh\n")
            there.chmod(0o755)
    done = tool(request, "--root", tmp_path, "check")
    assert done.stdout + done.stderr == "kestcronctl: 3 files, 5 jobs: no problems\n"


def expressions():
    """The items of the lists of the section about expressions."""
    return section(PAGES[1], "Expressions")


def test_the_tool_refuses_the_refused_expressions(request):
    refused = [line.strip('"') for line in re.findall(r"^\.It Li (.*)$", expressions(), re.M)]
    assert len(refused) >= 10
    assert [one for one in refused if tool(request, "explain", one).returncode == 0] == []


def test_the_description_of_fields_and_periods():
    """The tables of periods and bounds agree with the code."""
    periods = re.findall(r"^\.It (\w) Ta \"(.*?)\" Ta", section(PAGES[1], "Periods"), re.M)
    assert sorted(periods) == sorted(re.findall(r"case '(\w)':\s*return \"(.*?)\";", CODE["job/definition.cpp"]))
    bounds = re.findall(r"\{'\w', (\d+), (\d+), (\d+)\}", CODE["job/cron_field.cpp"])
    documented = re.findall(r"^\.It \w+ Ta (\d+) to (\d+) Ta (\d+) to (\d+)", expressions(), re.M)
    assert documented == [(low, high, low, drawn) for low, high, drawn in bounds]


@pytest.mark.parametrize(
    "words,name,pattern",
    [
        (r"at most (\d+) MiB, and", "core/job_files.h", r"JobFileLimits\{std::size_t\{(1)\} << 20"),
        (r"quota of (\d+) MiB of job files", "core/job_files.h", r" bytes = std::size_t\{(1)\} << 20"),
        (r"counts as (\d+) KiB at least", "core/job_files.h", r"kLeastCharge = (1)024"),
        (r"quota of (\d+) MiB in the runtime", "core/job_files.h", r"Bytes = std::size_t\{(4)\} << 20"),
        (r"takes longer than (\d+) seconds, the jobs", "core/account_files.cpp", r"timeout = (\d+);"),
        (r"at most (\d+) levels", "core/job_files.h", r"<< 20, (\d+)\}"),
        (r"sleeps for (\d+) seconds; a signal", "core/crondaemon.cpp", r"kCycleSeconds = (\d+)"),
        (r"Up to (\d+) accounts", "core/crondaemon.h", r"kWatchLimit = (\d+)"),
    ],
)
def test_limits(words, name, pattern):
    """The limits in the text are those in the code. One watch is used for the source of the accounts."""
    documented = int(re.search(words, "".join(map(manual, PAGES)))[1])
    assert documented == int(re.search(pattern, CODE[name])[1]) - ("accounts" in words)
