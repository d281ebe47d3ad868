"""Random appliances: their files, and a script of changes and restarts. Most files are valid, some are unusual,
some are broken. A seed and a number determine the whole appliance."""

import copy
import datetime
import json
import random
import zoneinfo

from tests.lib.appliance import PERSISTENT_FILE, PERSISTENT_TEMPLATE, SOURCES
from tests.lib.definitions import MEMBERS
from tests.lib.private_machine import template_config
from tests.lib.stepped_machine import WITNESS

KEYS = ["Minute", "hour", "day", "month", "week"]
BOUNDS = [(0, 59), (0, 23), (1, 31), (1, 12), (0, 6)]
ACCOUNTS = {"alice": 2001, "bob": 2002, "system": 2003}
ZONES = ["UTC", "UTC", "UTC", "Europe/Berlin", "America/New_York", "Asia/Kolkata", "Australia/Lord_Howe"]
MISSING = object()


class Raw(str):
    """JSON text that is written unchanged."""


class Members(list):
    """An object as pairs of names and values, so that a name can occur twice."""


# --- JSON ----------------------------------------------------------------------------------------


class Writer:
    """Writes JSON in one of several common styles."""

    def __init__(self, chance):
        self.indent = chance.choice([None, None, "  ", "    ", "\t"])
        self.colon = chance.choice([":", ": ", " : "])
        self.escapes = chance.random() < 0.3
        self.comments = chance.random() < 0.05

    def write(self, value, depth=0):
        """Returns the bytes of a value. A text given as bytes is quoted but not escaped."""
        if isinstance(value, Raw):
            return value.encode("utf-8", "surrogateescape")
        if isinstance(value, bytes):
            return b'"' + value + b'"'
        if isinstance(value, str):
            return self.quoted(value)
        if isinstance(value, (dict, Members)):
            pairs = value.items() if isinstance(value, dict) else value
            return self.between(
                b"{",
                [self.quoted(name) + self.colon.encode() + self.write(member, depth + 1) for name, member in pairs],
                b"}",
                depth,
            )
        if isinstance(value, (list, tuple)):
            return self.between(b"[", [self.write(element, depth + 1) for element in value], b"]", depth)
        return json.dumps(value).encode()

    def quoted(self, text):
        if isinstance(text, bytes):
            return b'"' + text + b'"'
        try:
            return json.dumps(text, ensure_ascii=self.escapes).encode("utf-8", "surrogateescape")
        except UnicodeEncodeError:  # a lone surrogate
            return json.dumps(text).encode()

    def between(self, begin, pieces, end, depth):
        if self.indent is None or not pieces:
            return begin + b", ".join(pieces) + end
        line = b"\n" + (self.indent * (depth + 1)).encode()
        comment = b" // as it was" if self.comments else b""
        return begin + comment + line + (b"," + line).join(pieces) + b"\n" + (self.indent * depth).encode() + end


def parsed(text):
    """The value of a document, with its real numbers unchanged; MISSING if it is not valid JSON."""
    try:
        return json.loads(text, strict=False, parse_float=Raw, parse_constant=Raw)
    except (ValueError, RecursionError):
        return MISSING


ODD = [
    None,
    True,
    False,
    0,
    1,
    -1,
    5,
    Raw("0.0"),
    Raw("5.0"),
    Raw("-0"),
    Raw("1.5"),
    Raw("1e2"),
    Raw("5e-1"),
    Raw("1e300"),
    2147483647,
    2147483648,
    -2147483648,
    -2147483649,
    4294967296,
    9223372036854775807,
    9223372036854775808,
    -9223372036854775808,
    -9223372036854775809,
    18446744073709551615,
    18446744073709551616,
    "",
    "5",
    "0",
    "text",
    "\u00e4\u20ac\U0001f600",
    "zero\0byte",
    "line\nand\ttab",
    b"\xff\xfe",
    b"\xc3",
    b"\\ud800",
    b"\\ud83d\\ude00",
    "x" * 80,
    [],
    {},
    [0],
    [5, 5],
    [[]],
    [{}],
    {"a": {}},
    {"": 0},
    {"jobs": {}},
    [None, True, "x", 1],
    ["a rather long text in a list"] * 4,
    [Raw("0.1")] * 30,
    {"z": 1, "a": [1, {"b": [2, 3]}]},
    Members([("a", 1), ("a", 2)]),
    {"zero\0byte": 1},
    {"\u00e4": "\u00e4"},
    Raw("-1e-7"),
    Raw("123456789.123456789"),
    Raw("1.7976931348623157e308"),
    Raw("5e-324"),
    Raw("1e5"),
    Raw("[" * 50 + "]" * 50),
    Raw("[" * 60 + "]" * 60),
    Raw('{"a":' * 58 + "1" + "}" * 58),
]


def odd_value(chance):
    return copy.deepcopy(chance.choice(ODD))


def damaged(chance, good):
    """The content of a file that is not a JSON document, or an unusual one."""
    special = [
        b"",
        b" ",
        b"\n",
        b"{",
        b"[",
        b"nul",
        b"null",
        b"5",
        b'"text"',
        b"true",
        b"[]",
        b"{}",
        b"[[]]",
        b"[[],{},5,null]",
        b"\xef\xbb\xbf" + good,
        b"[" * 65 + b"]" * 65,
        b"[" * 63 + b"]" * 63,
        b'{"a":' * 70 + b"1" + b"}" * 70,
        b"[1,]",
        b"// c\n[] /* d */",
        b"'x'",
        b"[1e999]",
        b"[NaN]",
        b"null\x00",
        b"\xff",
        good + good,
        good + b"\x00",
        good + b" x",
        good[:-1],
        good[: len(good) // 2],
        b'"' + b"x" * 3000 + b'"',
        b"[" + b" " * (1 << 20) + b"]",
    ]
    if chance.random() < 0.5 or not good:
        return chance.choice(special)
    content = bytearray(good)
    for _ in range(chance.randint(1, 3)):
        at = chance.randrange(len(content) + 1)
        content[at : at + chance.randint(0, 2)] = bytes(
            [chance.choice(b'\x00\n"\\{}[]:,x5-\xc3\xff\x1b')]
        ) * chance.randint(0, 2)
    return bytes(content)


# --- Definitions ---------------------------------------------------------------------------------


class Definitions:
    """Definitions of one appliance. Many are due in the minutes after it starts."""

    NAMES = ["a", "b", "c", "backup", "report", *(f"j{number}" for number in range(1, 16))]
    ODD_NAMES = [
        "",
        "x y",
        "\u00e4",
        "\U0001f600",
        "l" * 60,
        "l" * 300,
        "a-b",
        "A",
        "x.conf",
        "n",
        "n\0l",
        "n\0l",
        "n\0m",
        "new\nline",
        "a/b",
        "..",
        'q"uote',
        b"\xff\xfe",
        "default",
        "%s%n",
        "\x1b[1m",
    ]
    PROGRAMS = [WITNESS] * 12 + ["/srv/link", "/srv/script", "/srv/alices", "/srv/changing"]
    ODD_PROGRAMS = [
        "/usr/local/bin/missing",
        "/srv/dir",
        "/srv/text",
        "/srv/empty",
        "/srv/closed",
        "/srv/fifo",
        "/srv/dangling",
        "/srv/relative",
        "/srv/relative",
        "witness",
        "/dev/null",
        "",
        "/usr/bin/true",
        "/srv/loop",
        "/srv/alices/x",
        WITNESS + "\0x",
        "/etc/passwd",
        "/" + "n" * 300,
    ]
    WORDS = ["a", "b", "--all", "'c'", "\u00e4", "", "%d", "$HOME", "a" * 70, "\\", '"', "\t"]

    def __init__(self, chance, local):
        self.chance = chance
        self.local = local

    def one(self):
        """Returns a definition, or sometimes a value of another type."""
        chance = self.chance
        if chance.random() < 0.03:
            return odd_value(chance)
        definition = {"name": chance.choice(self.NAMES), **self.account(), **self.times(), **self.command()}
        if chance.random() < 0.08:
            definition["name"] = chance.choice(self.ODD_NAMES)
        self.add_settings(definition)
        for _ in range(chance.choice([0, 0, 0, 1, 2])):
            definition[
                chance.choice(["comment", "x", "version", "", "\u00e4", "schedule", "startup", "cmd_str", "zero\0byte"])
            ] = odd_value(chance)
        if chance.random() < 0.1:
            self.damage(definition)
        if chance.random() < 0.2:
            return self.shuffled(definition)
        return definition

    def account(self):
        return self.chance.choice(
            [{"user": "root"}] * 8
            + [{"user": "system"}] * 4
            + 2 * [{"user": "package", "package_username": name} for name in ("alice", "bob")]
            + [{"user": "packages", "package_username": "bob"}, {"user": "root", "extra": {}}]
            + [
                self.chance.choice(
                    [
                        {"user": "package", "package_username": "nobody here"},
                        {"user": "package"},
                        {"user": "rooty"},
                        {"user": "daemon"},
                        {"user": "package", "package_username": None},
                        {"user": "package", "package_username": "alice\0x"},
                        {"user": "package", "package_username": "carol"},
                        {"user": "package", "package_username": "carol"},
                    ]
                )
            ]
        )

    def times(self):
        if self.chance.random() < 0.35:
            return {"period": self.chance.choice(["hourly", "daily", "Weekly", "month", "monday", "H", "d", "w", "m"])}
        return {"period": self.chance.choice(["crontab"] * 5 + ["Cron", "c", "crontabs"]), "crontab": self.crontab()}

    # Numbers of items in a field. A long list takes more than one line in a document.
    COUNTS = [1] * 9 + [2] * 3 + [4] * 2 + [30]

    def crontab(self):
        chance = self.chance
        kind = chance.random()
        if kind < 0.3:
            return "* * * * *"
        if kind < 0.33:
            return chance.choice(
                [
                    "",
                    "* * * *",
                    "* * * * * *",
                    " * * * * *",
                    "* * * * * ",
                    "*  * * *",
                    "* * * *\t*",
                    "@daily",
                    "0 0 31 2 *",
                    "* * * * *\n",
                ]
            )
        return " ".join(",".join(self.item(field) for _ in range(chance.choice(self.COUNTS))) for field in range(5))

    def item(self, field):
        chance = self.chance
        lowest, highest = BOUNDS[field]
        now = (self.local.minute, self.local.hour, self.local.day, self.local.month, (self.local.weekday() + 1) % 7)[
            field
        ]
        near = min(max(now + (chance.randint(0, 5) if field == 0 else 0), lowest), highest)
        if chance.random() < 0.01:
            return chance.choice(
                [
                    str(highest + 1),
                    "",
                    "x",
                    "1-5",
                    f"{highest}~{lowest}",
                    "-1",
                    "1~",
                    f"{lowest}~{highest + 1}",
                    "1~2~3",
                    "99999999999",
                    " ",
                    "0x5",
                    "~~",
                    "+-5",
                    "5.0",
                ]
            )
        return chance.choice(
            [
                "*",
                "*",
                "*",
                "~",
                str(near),
                str(near),
                f"{lowest}~{highest}",
                f"{near}~{near}",
                f"{lowest}~{near}",
                f"{near}~{highest}",
                str(chance.randint(lowest, highest)),
                f"+{near}",
                "*/5",
                "~9",
                "*x",
                f"0{near}",
            ]
        )

    def program(self):
        return self.chance.choice(self.ODD_PROGRAMS if self.chance.random() < 0.05 else self.PROGRAMS)

    def command(self):
        chance = self.chance
        program = self.program()
        words = [chance.choice(self.WORDS) for _ in range(chance.choice([0, 0, 1, 2, 5]))]
        if chance.random() < 0.5:
            return {"cmd": chance.choice([" ", " ", " ", "  "]).join([program, *words])}
        if chance.random() < 0.3:
            words += [
                chance.choice(
                    [
                        5,
                        None,
                        True,
                        False,
                        Raw("1.50"),
                        Raw("1e2"),
                        "",
                        b"\xe4",
                        "z\0z",
                        18446744073709551615,
                        -5,
                        Raw("-0.0"),
                    ]
                )
                for _ in range(chance.randint(1, 3))
            ]
        if chance.random() < 0.1:
            words += ["an argument of many"] * chance.randint(3, 40)
        return {"cmd_list": [program, *words], **chance.choice([{}, {}, {"cmd": "x"}, {"cmd": 5}])}

    def add_settings(self, definition):
        chance = self.chance
        if chance.random() < 0.35:
            definition["assure_execute"] = chance.choice(
                [
                    0,
                    1,
                    1,
                    2,
                    48,
                    -1,
                    Raw("1.5"),
                    Raw("0.0"),
                    True,
                    None,
                    2147483647,
                    -2147483648,
                    Raw("-3.7"),
                    Raw("2e0"),
                ]
            )
        if chance.random() < 0.3:
            definition["assure_execute_action"] = chance.choice(["run", "run", "wait", "x", 5, []])
        if chance.random() < 0.3:
            definition["run_on_passive"] = chance.choice([True, True, False, None, 0, 7, Raw("1.5")])

    def damage(self, definition):
        chance = self.chance
        member = chance.choice(MEMBERS)
        if chance.random() < 0.35:
            definition.pop(member, None)
        else:
            definition[member] = odd_value(chance)

    def shuffled(self, definition):
        pairs = list(definition.items())
        self.chance.shuffle(pairs)
        if pairs and self.chance.random() < 0.2:
            pairs.append((self.chance.choice(pairs)[0], odd_value(self.chance)))
        return Members(pairs)

    def change(self, definition):
        """Returns the definition with one change, which may be only in its notation."""
        chance = self.chance
        if not isinstance(definition, (dict, Members)) or not definition:
            return self.one()
        pairs = list(definition.items() if isinstance(definition, dict) else definition)
        at = pairs.index(some_member(chance, pairs))
        name, value = pairs[at]
        action = chance.random()
        if action < 0.15:
            pairs.pop(at)
        elif action < 0.35:
            pairs.append(
                (
                    chance.choice(["added", "assure_execute", "run_on_passive", "comment", "assure_execute_action"]),
                    chance.choice([0, 1, Raw("0.0"), Raw("0.0"), "run", "wait", False, odd_value(chance)]),
                )
            )
        elif action < 0.5:
            pairs[at] = (name, same_in_another_notation(chance, value))
        elif action < 0.6:
            pairs[at] = (name, odd_value(chance))
        elif action < 0.7:
            chance.shuffle(pairs)
        else:
            fresh = {**self.times(), **self.command()}
            pairs = [pair for pair in pairs if pair[0] not in fresh] + list(fresh.items())
        return Members(pairs)


def some_member(chance, pairs):
    """Picks a pair of name and value; with a chance of one half, only from the values that are not texts."""
    others = [pair for pair in pairs if not isinstance(pair[1], str) or isinstance(pair[1], Raw)]
    return chance.choice(others if others and chance.random() < 0.5 else pairs)


def same_in_another_notation(chance, value):
    """A value that a careless comparison takes for equal."""
    if value is None or value is False or value == 0:
        return chance.choice([0, Raw("0.0"), Raw("0.0"), Raw("-0"), Raw("-0.0"), False, None, "", [], {}])
    if value is True:
        return chance.choice([1, Raw("1.0"), True, "true"])
    if isinstance(value, int):
        return chance.choice([Raw(f"{value}.0"), str(value), value, Raw(f"{value}e0")])
    if isinstance(value, str) and not isinstance(value, Raw):
        return chance.choice([value + " ", value.upper(), [value], value.replace(" ", "  ")])
    if isinstance(value, list):
        return chance.choice([value + [None], value[:-1], value[::-1], [value], {"0": value}])
    if isinstance(value, dict):
        return chance.choice([{**value, "more": 1}, [value], {}, dict(list(value.items())[1:])])
    return value


# --- Saved documents -----------------------------------------------------------------------------


class Editor:
    """Changes saved documents as the passage of time, people and broken disks do."""

    def __init__(self, seed, now):
        self.chance = random.Random(seed)
        self.now = now

    def edit(self, text, is_template):
        """Returns the bytes of the changed document `text`."""
        good = text.encode("utf-8", "surrogateescape")
        if self.chance.random() < 0.08:
            return damaged(self.chance, good)
        document = parsed(text)
        if not isinstance(document, dict):
            return damaged(self.chance, good)
        if is_template:
            self.edit_template(document)
        else:
            self.edit_jobs(document)
        return Writer(self.chance).write(document) + b"\n"

    def value(self):
        return odd_value(self.chance)

    def edit_template(self, document):
        if self.chance.random() < 0.7:
            document["maxDelay"] = self.chance.choice([0, 0, 1, 5, 60, 299, 300, 301, 600, 3600, 100000, self.value()])
        for _ in range(self.chance.choice([0, 1, 1, 2])):
            self.edit_entry(document)

    def edit_jobs(self, document):
        chance = self.chance
        if chance.random() < 0.1:
            document[chance.choice(["version", "jobs", "", "\u00e4"])] = self.value()
        jobs = document.get("jobs")
        if not isinstance(jobs, dict):
            return
        for name in list(jobs):
            for _ in range(chance.choice([0, 0, 1, 1, 2, 4])):
                self.edit_job(jobs, name)

    def edit_job(self, jobs, name):
        chance = self.chance
        action = chance.random()
        if action < 0.03:
            jobs[name] = self.value()
        elif action < 0.06:
            jobs[chance.choice([name + "x", "builtin-gone-x", "pkg_nonroot-alice-a-b", "", name[:-1]])] = jobs.pop(
                name, None
            )
        elif action < 0.08:
            jobs[chance.choice([name + "\0x", name + "\0", name.upper()])] = copy.deepcopy(jobs.get(name))
        elif action < 0.1:
            jobs[name] = jobs[chance.choice(list(jobs))] if jobs else {}
        elif action < 0.12:
            jobs.pop(name, None)
        elif isinstance(jobs.get(name), dict):
            self.edit_entry(jobs[name])

    def edit_entry(self, entry):
        chance = self.chance
        action = chance.random()
        if action < 0.28:
            self.edit_schedule(entry)
        elif action < 0.56:
            entry[chance.choice(["lastExecution", "startup", "expireTime"])] = self.time()
        elif action < 0.63:
            entry[chance.choice(["cmd_list", "cmd_str", "schedule", "config"])] = self.value()
        elif action < 0.7:
            entry.pop(
                chance.choice(["lastExecution", "startup", "expireTime", "cmd_list", "cmd_str", "schedule", "config"]),
                None,
            )
        elif action < 0.87:
            entry[chance.choice(["note", "a", "zz", "", "\u00e4", "zero\0byte"])] = self.value()
        elif isinstance(entry.get("config"), dict):
            self.edit_config(entry["config"])

    def time(self):
        """A time, valid or not."""
        now = self.now
        return self.chance.choice(
            [
                now,
                now - 60,
                now - 4000,
                now - 200000,
                now + 5000,
                0,
                5,
                Raw(f"{now}.0"),
                Raw(f"{now - 9000}.0"),
                Raw(f"{now}.5"),
                str(now),
                Raw("5.0"),
                Raw("0.0"),
                Raw("-0.0"),
                Raw("0.5"),
                Raw("1e9"),
                Raw("1e18"),
                Raw("1e19"),
                -5,
                True,
                False,
                None,
                "5",
                [now],
                9223372036854775807,
                9223372036854775808,
                -9223372036854775808,
                -9223372036854775807,
                18446744073709551615,
                self.value(),
            ]
        )

    def edit_config(self, config):
        chance = self.chance
        name = "added"
        if config and chance.random() < 0.9:
            name = some_member(chance, list(config.items()))[0]
        action = chance.random()
        if action < 0.35:
            config.pop(name, None)
        elif action < 0.65:
            config[name] = same_in_another_notation(chance, config.get(name))
        else:
            config[name] = self.value()

    def edit_schedule(self, entry):
        chance = self.chance
        schedule = entry.get("schedule")
        if not isinstance(schedule, dict) or chance.random() < 0.05:
            entry["schedule"] = self.value()
            return
        key = chance.choice(KEYS)
        if chance.random() < 0.1:
            entry["schedule"] = {key: schedule.get(key)}
        elif chance.random() < 0.1:
            schedule.pop(key, None)
        elif chance.random() < 0.1:
            schedule[chance.choice(["minute", "extra", "", "year", "M"])] = self.value()
        else:
            schedule[key] = self.values()

    def values(self):
        chance = self.chance
        if chance.random() < 0.15:
            return self.value()
        odd = [
            -1,
            Raw("-1.0"),
            Raw("-1.0"),
            Raw("5.0"),
            Raw("0.5"),
            Raw("-1.5"),
            True,
            None,
            "-1",
            4294967295,
            -4294967297,
            self.value(),
        ]
        usual = [-1, -1, -1, 0, 1, 2, 5, 12, 31, 59, 60, 63, 64, -2]
        return [
            chance.choice(odd if chance.random() < share else usual)
            for share in [chance.choice([0, 0, 0.5, 0.9])]
            for _ in range(chance.choice([0, 1, 1, 1, 2, 3, 40]))
        ]


# --- Appliances ----------------------------------------------------------------------------------


class JobFile:
    """A job file: its path and its definitions."""

    def __init__(self, path, definitions, is_single):
        self.path = path
        self.definitions = definitions
        self.is_single = is_single

    def content(self, chance):
        value = self.definitions[0] if self.is_single else self.definitions
        text = Writer(chance).write(value) + b"\n"
        return damaged(chance, text) if chance.random() < 0.04 else text


class GeneratedAppliance:
    """The script of an appliance: `steps` are tuples of the name of a method of Life and its arguments; they begin
    at the second `now`, in the time zone `zone`."""

    FILES = [
        "a.conf",
        "b.conf",
        "c.conf",
        "a",
        "b",
        "dyn-a.conf",
        "d.conf.bak",
        "a.conf.conf",
        "conf",
        "e-f.conf",
        "z.conf",
    ]
    ODD_FILES = [
        ".hidden.conf",
        ".conf",
        "x.confx",
        "\u00e4.conf",
        "\udcff.conf",
        "n" * 200,
        "con.conff",
        "%s",
        "new\nline",
    ]

    def __init__(self, seed, number):
        self.chance = random.Random(f"{seed} {number}")
        self.zone = self.chance.choice(ZONES)
        self.local = self.moment()
        self.now = int(self.local.timestamp())
        self.definitions = Definitions(self.chance, self.local)
        self.files = {}
        self.steps = []
        self.kind = self.chance.choices(["usual", "a day", "large", "crowded"], [0.98, 0.004, 0.014, 0.002])[0]
        self.live()

    def moment(self):
        """A moment, often shortly before a redraw."""
        chance = self.chance
        day = datetime.datetime(2026, 6, 2) + datetime.timedelta(days=chance.randrange(400))
        minute = chance.choice([chance.randrange(24 * 60), chance.randrange(24) * 60 + 58, 23 * 60 + 58])
        if chance.random() < 0.3:
            day = chance.choice(
                [
                    datetime.datetime(2026, 12, 31),
                    datetime.datetime(2026, 6, 30),
                    datetime.datetime(2026, 8, 30),
                    datetime.datetime(2028, 2, 28),
                    datetime.datetime(2026, 10, 24),
                    datetime.datetime(2027, 3, 27),
                    datetime.datetime(2040, 2, 29),
                    datetime.datetime(2026, 2, 28),
                ]
            )
        moment = day + datetime.timedelta(minutes=minute, seconds=chance.randrange(60))
        return moment.replace(tzinfo=zoneinfo.ZoneInfo(self.zone))

    # --- Events ---------------------------------------------------------------------------------

    def live(self):
        chance = self.chance
        self.prepare()
        self.first_documents()
        self.start()
        if self.kind == "a day":
            self.steps.append(("cycles", [60] * 1440))
        elif self.kind == "crowded":
            self.steps.append(("cycles", [60] * 35))
        else:
            self.cycles(chance.choice([0, 1, 2, 3, 5]))
        if chance.random() < 0.02:
            self.steps.append(("start_another",))
        for _ in range(chance.choice([1, 1, 2, 3])):
            self.change()
            if chance.random() < 0.75:
                self.steps.append(("reload",))
            self.cycles(chance.choice([0, 1, 2, 4]))
        for _ in range(chance.choice([1, 1, 2])):
            self.steps.append(("kill",) if chance.random() < 0.05 else ("stop",))
            self.between_lives()
            self.start()
            self.cycles(chance.choice([0, 1, 3]))
        self.steps.append(("stop",))

    def start(self):
        arguments = ["--passive-mode"] if self.chance.random() < 0.08 else []
        if self.chance.random() < 0.01:
            arguments.append("--unknown")
        self.steps.append(("start", self.chance.getrandbits(64), *arguments))

    def cycles(self, count):
        chance = self.chance
        if count:
            self.steps.append(("cycles", [chance.choice([60] * 20 + [59, 61, 90, 120, 3600]) for _ in range(count)]))
        if chance.random() < 0.05:
            self.steps.append(("set_clock", chance.choice([3600, -3600, 86400, -7200, 30, -90000])))
            self.steps.append(("cycles", [60]))

    def between_lives(self):
        chance = self.chance
        if chance.random() < 0.4:
            self.steps.append(("pass_time", chance.choice([5, 60, 3600, 7300, 90000, 2000000])))
        if chance.random() < 0.7:
            self.steps.append(("edit", PERSISTENT_FILE, chance.getrandbits(32)))
        if chance.random() < 0.35:
            self.steps.append(("edit", PERSISTENT_TEMPLATE, chance.getrandbits(32)))
        if chance.random() < 0.5:
            self.change()
        if chance.random() < 0.05:
            self.steps.append(
                (
                    "change",
                    [
                        (
                            "remove",
                            chance.choice([PERSISTENT_FILE, PERSISTENT_TEMPLATE, "/tmp/kestcrond", "/usr/kest/etc"]),
                        )
                    ],
                )
            )

    # --- Files ----------------------------------------------------------------------------------

    def prepare(self):
        """Creates the programs and the first job files."""
        changes = [
            ("link", "/srv/link", WITNESS),
            ("link", "/srv/relative", "script"),
            ("link", "/srv/dangling", "/srv/missing"),
            ("link", "/srv/loop", "/srv/loop"),
            ("directory", "/srv/dir", 0o755, 0),
            ("fifo", "/srv/fifo"),
            ("write", "/srv/text", b"text\n", 0o755, 0),
            ("write", "/srv/empty", b"", 0o755, 0),
            ("script", "/srv/script", 0),
            ("script", "/srv/changing", 1),
            ("copy", "/srv/closed", WITNESS, 0o600, 0),
            ("copy", "/srv/alices", WITNESS, 0o700, ACCOUNTS["alice"]),
        ]
        count = 1 if self.kind == "a day" else self.chance.choice([0, 1, 2, 3, 3, 4, 5, 8])
        for _ in range(count):
            changes += self.fresh_file()
        if self.kind == "large":
            changes += self.large_file()
        if self.kind == "crowded":
            changes += self.crowd()
        changes += self.misplaced_objects()
        self.steps.append(("change", changes))

    def place(self):
        """The path of a job file."""
        chance = self.chance
        source = chance.choice(list(SOURCES))
        directory = SOURCES[source]
        if source == "pkg_nonroot":
            directory += "/" + chance.choice(["alice", "alice", "alice", "bob", "system", "root", ".hidden"])
        names = self.ODD_FILES if chance.random() < 0.08 else self.FILES
        return f"{directory}/{chance.choice(names)}"

    def fresh_file(self):
        chance = self.chance
        is_single = chance.random() < 0.2
        count = 1 if is_single else chance.choice([0, 1, 2, 3, 4, 5, 6, 8])
        path = self.place()
        self.files[path] = file = JobFile(path, [self.definitions.one() for _ in range(count)], is_single)
        return self.written(file)

    def large_file(self):
        """A file with many jobs, some with long definitions."""
        chance = self.chance
        path = self.place()
        count = chance.choice([40, 150, 400])
        program = WITNESS if count < 100 else "/nowhere"
        many = [
            {
                "name": f"n{number}",
                "user": "root",
                "period": "daily",
                "cmd": program,
                "text": "x" * chance.choice([10, 500, 3000]),
            }
            for number in range(count)
        ]
        self.files[path] = file = JobFile(path, many + [self.definitions.one()], False)
        return self.written(file)

    def crowd(self):
        """More jobs of one account, due in every minute, than may wait for their starts at a time."""
        many = [
            {"name": f"n{number}", "user": "package", "period": "crontab", "crontab": "* * * * *", "cmd": WITNESS}
            for number in range(40)
        ]
        path = SOURCES["pkg_nonroot"] + "/alice/crowd.conf"
        self.files[path] = file = JobFile(path, many, False)
        return self.written(file)

    def written(self, file):
        directory, account = file.path.rpartition("/")[0], 0
        if directory.startswith(SOURCES["pkg_nonroot"]):
            account = ACCOUNTS.get(directory.rpartition("/")[2], 0)
        return [
            ("directory", directory, 0o755, account),
            ("write", file.path, file.content(self.chance), 0o644, account),
        ]

    def misplaced_objects(self):
        """Now and then, objects that do not belong among job files."""
        chance = self.chance
        top = SOURCES["pkg_nonroot"]
        return [
            change
            for change in [
                ("directory", top + "/mallory", 0o755, 4242),
                ("directory", top + "/bob", 0o000, ACCOUNTS["bob"]),
                ("write", top + "/file", b"[]", 0o644, 0),
                ("link", top + "/link", top + "/alice"),
                ("directory", SOURCES["pkg"] + "/directory.conf", 0o755, 0),
                ("fifo", SOURCES["builtin"] + "/fifo.conf"),
                ("link", SOURCES["pkg"] + "/link.conf", SOURCES["builtin"] + "/a.conf"),
                ("link", SOURCES["pkg"] + "/dangling.conf", "/nowhere"),
                *[("write", "/run/kestvorld.status", text, 0o644, 0) for text in (b"2\n", b"2\n", b"2", b"x")],
                ("account", "carol", True),
                ("write", "/tmp/kestcrond", b"in the way", 0o644, ACCOUNTS["alice"]),
                ("write", SOURCES["builtin-dyn"], b"", 0o644, 0),
            ]
            if chance.random() < 0.025
        ]

    def first_documents(self):
        """Saved documents as an earlier run might have left them."""
        chance = self.chance
        changes = []
        if chance.random() < 0.6 and self.kind != "crowded":
            config = template_config(chance.choice(["~ ~ ~ ~ ~", "~ ~ ~ ~ ~", self.definitions.crontab()]))
            template = {
                "config": config,
                "schedule": {key: [chance.randint(*bounds)] for key, bounds in zip(KEYS, BOUNDS)},
            }
            text = json.dumps({**template, "maxDelay": chance.choice([0, 0, 0, 1, 60, 300, 600])})
            if chance.random() < 0.3:
                text = Editor(chance.getrandbits(32), self.now).edit(text, True).decode(errors="surrogateescape")
            changes.append(("write", PERSISTENT_TEMPLATE, text.encode(errors="surrogateescape"), 0o644, 0))
        if chance.random() < 0.4:
            text = Writer(chance).write({"jobs": self.entries()}).decode(errors="surrogateescape")
            changes.append(
                ("write", PERSISTENT_FILE, Editor(chance.getrandbits(32), self.now).edit(text, False), 0o640, 0)
            )
        if changes:
            self.steps.append(("change", changes))

    def entries(self):
        """The entries of the jobs in the files, almost as the daemon would have saved them."""
        chance = self.chance
        entries = {}
        for file in self.files.values():
            label = next(label for label, directory in SOURCES.items() if file.path.startswith(directory + "/"))
            inside = file.path[len(SOURCES[label]) + 1 :].replace(".conf", "").replace("/", "-")
            for definition in file.definitions:
                if not isinstance(definition, dict) or not isinstance(definition.get("name"), str):
                    continue
                name = f"{label}-{inside}-{'default' if file.is_single else definition['name']}"
                config = {
                    **definition,
                    "assure_execute": 0,
                    "assure_execute_action": "wait",
                    "run_on_passive": False,
                    **definition,
                    "name": name,
                }
                entries[name] = {
                    "config": config,
                    "startup": self.now - chance.choice([60, 5000, 500000]),
                    "schedule": {
                        key: [chance.choice([-1, chance.randint(*bounds)])] for key, bounds in zip(KEYS, BOUNDS)
                    },
                    "expireTime": 0,
                    "lastExecution": self.now - chance.choice([60, 5000, 500000]),
                }
        return entries

    def change(self):
        """Changes job files as an operator or a package does."""
        chance = self.chance
        changes = []
        for _ in range(chance.choice([0, 1, 1, 2, 3])):
            changes += self.one_change()
        if chance.random() < 0.15:
            changes.append(
                ("write", "/run/kestvorld.status", chance.choice([b"2\n", b"2\n", b"1\n", b"1", b"22"]), 0o644, 0)
            )
        if chance.random() < 0.05:
            changes.append(("account", "carol", chance.random() < 0.7))
        if chance.random() < 0.1:
            changes.append(("script", "/srv/changing", chance.randrange(3)))
        if chance.random() < 0.12:
            changes.append(
                (
                    "remove",
                    chance.choice(
                        [
                            *["/tmp/kestcrond"] * 6,
                            "/run/kestvorld.status",
                            "/usr/local/etc/kestcron_nonroot.d",
                            "/usr/kest/share/kestcron.d",
                            "/run/kestcrond.config",
                            "/srv/script",
                            "/srv/alices",
                        ]
                    ),
                )
            )
        if changes:
            self.steps.append(("change", changes))

    def one_change(self):
        chance = self.chance
        if not self.files or chance.random() < 0.2:
            return self.fresh_file()
        file = self.files[chance.choice(list(self.files))]
        action = chance.random()
        if action < 0.15:
            del self.files[file.path]
            return [("remove", file.path)]
        if action < 0.3 and file.definitions:
            file.definitions.pop(chance.randrange(len(file.definitions)))
            file.is_single = file.is_single and bool(file.definitions)
        elif action < 0.45:
            file.definitions.append(self.definitions.one())
        elif action < 0.9 and file.definitions:
            at = chance.randrange(len(file.definitions))
            file.definitions[at] = self.definitions.change(file.definitions[at])
        return self.written(file)
