"""The same start-up from C99, GJS and Vala, each built or run against the
installed prefix alone: the event reaches the sandbox once."""
import json
import os
import subprocess

import pytest

from conftest import wait_for

PROGRAMS = os.path.join(os.path.dirname(os.path.abspath(__file__)), "programs")


def pkg_config(*args):
    return subprocess.run(["pkg-config", *args, "velquin-glib-1"], check=True,
                          capture_output=True, text=True).stdout.split()


def build_c(out):
    program = str(out / "startup-c")
    subprocess.run(["cc", "-std=c99", "-Wall", "-Werror", "-o", program,
                    os.path.join(PROGRAMS, "startup.c"), *pkg_config("--cflags", "--libs")],
                   check=True)
    return [program]


def build_vala(out, prefix):
    program = str(out / "startup-vala")
    subprocess.run(["valac", "--vapidir", os.path.join(prefix, "share", "vala", "vapi"),
                    "--pkg", "velquin-glib-1", "-o", program,
                    os.path.join(PROGRAMS, "startup.vala")], check=True, cwd=str(out))
    return [program]


@pytest.mark.parametrize("lang", ["c", "gjs", "vala"])
def test_startup_event_and_subscriber(lang, tmp_path, prefix, sandbox, home):
    if lang == "c":
        argv = build_c(tmp_path)
    elif lang == "vala":
        argv = build_vala(tmp_path, prefix)
    else:
        argv = ["gjs", os.path.join(PROGRAMS, "startup.js")]
    process, seen = home.start(argv + [home.bundle])
    name = "ev_lang_" + lang
    arrived = wait_for(lambda: sandbox.events(name), "the " + lang + " event")
    home.finish(process)
    assert seen["requestId"] and seen["userId"]
    assert [json.loads(e["value"]) for e in arrived] == [{"lang": lang}]
    assert isinstance(seen["isActive"], bool)
    if lang == "c":
        # Invalid UTF-8 in the name, in a value and in a key: refused, no crash.
        assert (seen["badName"], seen["badParams"], seen["badKey"]) == (6, 3, 3)
