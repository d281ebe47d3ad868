"""Job definitions as the daemon loads them: what it accepts, what it refuses, and the messages."""

import pytest
from tests.lib.appliance import RECORD, every_minute, never
from tests.lib.private_machine import wait_for

RULES = {
    "period": 'Failed [!jsConf.isMember("period") || !jsConf["period"].isString() || '
    'jsConf["period"].asString().empty()], err=',
    "user": 'Failed [!jsConf.isMember("user") || !jsConf["user"].isString()], err=',
    "cmd": 'Failed [(!jsConf.isMember("cmd") || !jsConf["cmd"].isString()) && '
    '(!jsConf.isMember("cmd_list") || !jsConf["cmd_list"].isArray())], err=',
    "package_username": 'Failed ["package" == jsConf["user"].asString() && '
    '!jsConf.isMember("package_username")], err=',
    "crontab": 'Failed [!jsConf.isMember("crontab") || !jsConf["crontab"].isString()], err=',
    "empty": 'Failed [0 == _jsJob["cmd_list"].size()], err=',
}
FILE = "Job JSON format error: /usr/local/etc/kestcron.d/f"


def load(machine, **members):
    """Loads one job with these members, None for those to leave out; returns the errors."""
    definition = {"name": "x", "user": "root", "period": "daily", "cmd": RECORD, **members}
    machine.jobs("pkg", "f", [{key: value for key, value in definition.items() if value is not None}])
    machine.start_and_wait()
    texts = machine.texts()
    assert list(machine.entries()) == ([] if texts else ["pkg-f-x"])
    if texts:
        assert texts.pop() == FILE
    return texts


@pytest.mark.parametrize(
    "rule,members",
    [
        ("period", {"period": None}),
        ("period", {"period": ""}),
        ("period", {"period": 5}),
        ("user", {"user": None}),
        ("user", {"user": ["root"]}),
        ("cmd", {"cmd": None}),
        ("cmd", {"cmd": 5}),
        ("cmd", {"cmd": None, "cmd_list": "x"}),
        ("package_username", {"user": "package"}),
        ("crontab", {"period": "crontab"}),
        ("crontab", {"period": "my crontab"}),
        ("crontab", {"period": "crontabs", "crontab": 5}),
        # Only the first of several broken rules is reported.
        ("period", {"period": None, "user": None, "cmd": None}),
        ("user", {"user": None, "cmd": None}),
    ],
)
def test_rules(machine, rule, members):
    texts = load(machine, **members)
    assert texts[0].startswith(RULES[rule])
    assert texts[1:] == ["crontab format error"]
    assert [message.tag for message in machine.messages(priority="err")] == ["cronjob", "cronjob", "crondaemon"]


@pytest.mark.parametrize(
    "members,messages",
    [
        ({"period": "yearly"}, ["error period"]),
        ({"period": " daily"}, ["error period"]),
        ({"period": "Crontab"}, []),
        ({"period": "crontab", "crontab": "* * * *"}, []),
        ({"period": "crontab", "crontab": "* * * * * *"}, []),
        ({"period": "crontab", "crontab": "*  * * *"}, ["%s is not a valid number"]),
        ({"period": "crontab", "crontab": "60 * * * *"}, []),
        ({"period": "crontab", "crontab": "* 24 * * *"}, []),
        ({"period": "crontab", "crontab": "* * 0 * *"}, []),
        ({"period": "crontab", "crontab": "* * 32 * *"}, []),
        ({"period": "crontab", "crontab": "* * * 0 *"}, []),
        ({"period": "crontab", "crontab": "* * * 13 *"}, []),
        ({"period": "crontab", "crontab": "* * * * 7"}, []),
        ({"period": "crontab", "crontab": "-1 * * * *"}, []),
        ({"period": "crontab", "crontab": "1~2~3 * * * *"}, []),
        ({"period": "crontab", "crontab": "50~60 * * * *"}, []),
        ({"period": "crontab", "crontab": "1-5 * * * *"}, ["1-5 is not a valid number"]),
        ({"period": "crontab", "crontab": "1,,2 * * * *"}, [" is not a valid number"]),
        ({"period": "crontab", "crontab": "5, * * * *"}, [" is not a valid number"]),
        ({"period": "crontab", "crontab": "* * * * mon"}, ["mon is not a valid number"]),
        ({"period": "crontab", "crontab": "* 9~3 * * *"}, ["range.from[9] cannot greater than range.to[3]"]),
        ({"period": "crontab", "crontab": "x~3 * * * *"}, ["x is not a valid number"]),
        ({"period": "crontab", "crontab": "%n%s * * * *"}, ["%n%s is not a valid number"]),
        ({"period": "C", "crontab": ["* * * * *"]}, []),
        ({"cmd": None, "cmd_list": []}, ["empty"]),
        ({"cmd_list": "text"}, ["empty"]),
        ({"cmd_list": {}}, ["empty"]),
        ({"cmd_list": {"a": "b"}}, []),
        ({"cmd_list": [RECORD, ["nested"]]}, []),
        ({"assure_execute": "2"}, []),
        ({"assure_execute": [2]}, []),
        ({"assure_execute": 2147483648}, []),
        ({"assure_execute": 1e300}, []),
        ({"run_on_passive": "yes"}, []),
        ({"run_on_passive": {}}, []),
    ],
)
def test_parse_errors(machine, members, messages):
    if messages == ["%s is not a valid number"]:
        messages = [" is not a valid number"]
    texts = load(machine, **members)
    assert texts.pop() == "parse error"
    if messages == ["empty"]:
        assert len(texts) == 1 and texts[0].startswith(RULES["empty"])
    else:
        assert texts == messages


@pytest.mark.parametrize(
    "members",
    [
        {"period": "Hourly"},
        {"period": "h"},
        {"period": "hx"},
        {"period": "w"},
        {"period": "Month"},
        {"period": "Crontab", "crontab": "* * * * *"},
        {"period": "crontabs", "crontab": "* * * * *"},
        {"period": "crontab", "crontab": "+7 1~2,3 ~5 */2 5,5"},
        {"period": "crontab", "crontab": "\t7\n * * * *"},
        {"user": "package", "package_username": "alice"},
        {"cmd": 5, "cmd_list": [RECORD]},
        {"assure_execute": 2.9},
        {"assure_execute": True},
        {"assure_execute": -1},
        {"assure_execute_action": 5},
        {"run_on_passive": 1},
        {"unknown": {"a": [1]}},
    ],
)
def test_accepted(machine, members):
    assert load(machine, **members) == []


def test_only_the_exact_user_package_requires_its_account_in_the_definition(machine):
    machine.jobs("pkg", "f", [never("x", user="packager")])
    machine.start_and_wait()
    # The definition is accepted, and the job is dropped when its program is staged.
    assert "Job JSON format error: /usr/local/etc/kestcron.d/f" not in machine.texts()
    assert machine.texts()[0] == "you are not package! error user in config"


def test_defaults_are_written_into_the_definition(machine):
    machine.jobs(
        "pkg",
        "f",
        [
            {"name": "x", "user": "root", "period": "daily", "cmd": RECORD},
            never("own", assure_execute=5, assure_execute_action=None, run_on_passive=True),
        ],
    )
    machine.start_and_wait()
    defaults = ("assure_execute", "assure_execute_action", "run_on_passive")
    configs = {name: [entry["config"][key] for key in defaults] for name, entry in machine.entries().items()}
    assert configs == {"pkg-f-x": [0, "wait", False], "pkg-f-own": [5, None, True]}
    assert all("startup" in entry and "startup" not in entry["config"] for entry in machine.entries().values())


def test_run_on_passive_accepts_convertible_values(machine):
    machine.template(maxDelay=0)
    machine.jobs(
        "pkg",
        "f",
        [
            every_minute("one", run_on_passive=1),
            every_minute("zero", run_on_passive=0),
            every_minute("null", run_on_passive=None),
        ],
    )
    machine.start_and_wait("--passive-mode")
    wait_for(lambda: len(machine.runs("pkg-f-one")) >= 2)
    assert machine.runs("pkg-f-zero") == machine.runs("pkg-f-null") == []
