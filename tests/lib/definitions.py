"""Random valid and invalid job definitions and job files, for tests that compare verdicts."""

import json
import random

from tests.lib.appliance import RECORD

# The members of a definition.
MEMBERS = [
    "name",
    "user",
    "package_username",
    "period",
    "crontab",
    "cmd",
    "cmd_list",
    "assure_execute",
    "run_on_passive",
    "assure_execute_action",
]

GOOD = {"name": "x", "user": "root", "period": "daily", "cmd": RECORD}


def damaged_files(seed):
    """Contents of damaged job files. Some of them are still valid."""
    chance = random.Random(seed)
    good = json.dumps([{**GOOD, "crontab": "* * * * *", "cmd_list": [RECORD, "\u00e4\n"]}], ensure_ascii=False).encode()
    special = [
        b"",
        b"\xef\xbb\xbf" + good,
        b"[" * 65 + b"]" * 65,
        b"[" * 63 + b"]" * 63,
        b"[" * 100000,
        b'{"a":' * 70 + b"1" + b"}" * 70,
        b"[1,]",
        b"// c\n[] /* d */",
        b"'x'",
        b'"' + b"x" * 100000 + b'"',
        b"\r\r\n[",
        b"[1e999]",
        b"[NaN]",
        b"null\x00",
        b"\xff",
    ]
    for _ in range(300):
        content = bytearray(good)
        for _ in range(chance.randint(1, 3)):
            at = chance.randrange(len(content))
            content[at : at + chance.randint(0, 2)] = bytes(
                [chance.choice(b'\x00\n"\\{}[]:,x5-\xc3\xff\x1b')]
            ) * chance.randint(0, 2)
        special.append(bytes(content))
    return special


class Definitions:
    """Random definitions, most of whose members are valid. The accounts and programs of the valid ones exist
    on the appliance, so that the verdict depends on the definition alone."""

    MISSING = object()
    NUMBERS = [("0", "59", "60"), ("3", "23", "24"), ("1", "31", "32"), ("1", "12", "13"), ("0", "6", "7")]

    def __init__(self, seed):
        self._chance = random.Random(seed)

    def _pick(self, good, bad):
        return self._chance.choice(bad if self._chance.random() < 0.06 else good)

    def _item(self, lowest, highest, above):
        return self._pick(
            [lowest, highest, "*", "~", f"{lowest}~{highest}", f"+{lowest}", "*/5", "~9", "*x"],
            [
                above,
                "",
                "x",
                f"{lowest}-{highest}",
                f"{highest}~{lowest}",
                "-1",
                f"{lowest}~",
                f"{lowest}~{above}",
                "1~2~3",
                "99999999999",
                " ",
            ],
        )

    def _crontab(self):
        fields = [
            ",".join(self._item(*numbers) for _ in range(self._chance.choice([1, 1, 1, 2]))) for numbers in self.NUMBERS
        ]
        return (
            self._pick(["", "", ""], [" ", " 5", "\t"]).join([self._pick([" "], ["  "]).join(fields), ""])
            if self._chance.random() < 0.97
            else self._chance.choice([" ".join(fields[1:]), "", self.MISSING, 5, None, ["* * * * *"]])
        )

    def _account(self):
        return self._pick(
            [
                {"user": "root"},
                {"user": "system"},
                {"user": "package", "package_username": "alice"},
                {"user": "packages", "package_username": "bob"},
                {"user": "root", "extra": {}},
            ],
            [{}, {"user": None}, {"user": ["root"]}, {"user": "package"}, {"user": 5}],
        )

    def _command(self):
        return self._pick(
            [
                {"cmd": RECORD},
                {"cmd": RECORD + " a  'b'"},
                {"cmd_list": [RECORD, 5, None, True, 1.5]},
                {"cmd": 5, "cmd_list": [RECORD]},
            ],
            [
                {},
                {"cmd": None},
                {"cmd": 5},
                {"cmd_list": []},
                {"cmd_list": RECORD},
                {"cmd": RECORD, "cmd_list": None},
                {"cmd": RECORD, "cmd_list": []},
                {"cmd": RECORD, "cmd_list": {}},
                {"cmd": RECORD, "cmd_list": {"a": 1}},
                {"cmd": RECORD, "cmd_list": "x"},
                {"cmd_list": [RECORD, {}]},
                {"cmd_list": [RECORD, []]},
                {"cmd_list": [RECORD, ["x"]]},
                {"cmd_list": {"0": RECORD}},
            ],
        )

    def one(self, name):
        definition = {
            "name": self._pick([name], [5, None, self.MISSING, [name]]),
            "period": self._pick(
                ["hourly", "daily", "Weekly", "month", "monday", "crontab", "crontab", "crontab", "cron", "Crontab"],
                ["", " daily", "yearly", "my crontab", "crontabs", "\u00e4", 5, None, self.MISSING, ["daily"]],
            ),
            "crontab": self._crontab(),
            "assure_execute": self._pick(
                [self.MISSING, 0, 48, -1, 1.5, True, None, 2147483647, -2147483648, -3.7],
                ["5", [], {}, 2147483648, -2147483649, 1e300, ""],
            ),
            "assure_execute_action": self._chance.choice([self.MISSING, "run", "wait", "x", 5, []]),
            "run_on_passive": self._pick([self.MISSING, True, False, None, 0, 7, 1.5], ["true", [], {}, ""]),
            **self._account(),
            **self._command(),
        }
        definition = {member: value for member, value in definition.items() if value is not self.MISSING}
        return self._pick([definition], [5, "text", None, [], {}, [definition]])
