"""Fixtures of the C API tests: a velquin-sandbox over TLS on loopback that
trusts the local store's receipts, a client bundle pointing at it, and the
hosts run from the installed prefix (run-gobject-tests sets the paths)."""
import json
import os
import signal
import subprocess
import sys
import time

import pytest

HERE = os.path.dirname(os.path.abspath(__file__))
SOURCE = os.path.dirname(os.path.dirname(HERE))
PYTHON = "/usr/bin/python3"
LIMIT_S = 60
# The local store's products: those the sandbox's configuration entitles.
STORE_CONFIG = {
    "can_make_payments": True, "locale": "en_US", "currency": "USD",
    "products": [
        {"type": "auto-renewable", "id": "com.velquin.demo.monthly",
         "title": "Premium (monthly)", "description": "Every feature, billed monthly",
         "price": "4.99", "subscription_period": {"unit": "month", "count": 1},
         "group": "premium"},
        {"type": "auto-renewable", "id": "com.velquin.demo.yearly",
         "title": "Premium (yearly)", "description": "Every feature, billed yearly",
         "price": "39.99", "subscription_period": {"unit": "year", "count": 1},
         "group": "premium"},
    ],
}


def wait_for(condition, what, limit=LIMIT_S):
    """Polls condition() until it gives a true value; fails after `limit`."""
    deadline = time.monotonic() + limit
    while True:
        value = condition()
        if value:
            return value
        if time.monotonic() > deadline:
            pytest.fail("gave up waiting for " + what)
        time.sleep(0.05)


class Sandbox:
    def __init__(self, program, root):
        self.program = program
        self.data = os.path.join(root, "sandbox")
        self.process = None

    def start(self, *args):
        port_file = os.path.join(self.data, "port")
        if os.path.exists(port_file):
            os.unlink(port_file)
        self.process = subprocess.Popen([self.program, "--data-dir", self.data, *args],
                                        stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        return int(wait_for(lambda: os.path.exists(port_file) and open(port_file).read().strip(),
                            "the sandbox's port"))

    def stop(self):
        self.process.send_signal(signal.SIGTERM)
        self.process.wait(LIMIT_S)

    def events(self, name=None):
        out = subprocess.run([self.program, "--data-dir", self.data, "events", "--json"],
                             check=True, capture_output=True, text=True).stdout
        events = json.loads(out)["events"]
        return [e for e in events if name is None or e["name"] == name]


class Home:
    """A throw-away home (XDG folders) and bundle the hosts run in."""

    def __init__(self, root, bundle):
        self.bundle = bundle
        self.env = dict(os.environ,
                        XDG_CONFIG_HOME=os.path.join(root, "config"),
                        XDG_DATA_HOME=os.path.join(root, "data"),
                        XDG_CACHE_HOME=os.path.join(root, "cache"))
        self.env.pop("DBUS_SESSION_BUS_ADDRESS", None)

    def host(self, job, *args, expect_status=0):
        """Runs host.py JOB in a new process; returns its JSON line."""
        done = subprocess.run([PYTHON, os.path.join(HERE, "host.py"), self.bundle, job, *args],
                              env=self.env, capture_output=True, text=True, timeout=2 * LIMIT_S)
        assert done.returncode == expect_status, done.stdout + done.stderr
        return json.loads(done.stdout.strip().splitlines()[-1])

    def start(self, argv):
        """Starts a program that prints one JSON line and waits for its stdin to close."""
        process = subprocess.Popen(argv, env=self.env, stdin=subprocess.PIPE,
                                   stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
        line = process.stdout.readline()
        if not line:
            process.stdin.close()
            pytest.fail("%s printed nothing: %s" % (argv[0], process.stderr.read()))
        return process, json.loads(line)

    def finish(self, process):
        process.stdin.close()
        assert process.wait(LIMIT_S) == 0, process.stderr.read()


@pytest.fixture(scope="session")
def prefix():
    path = os.environ.get("VELQUIN_PREFIX")
    if not path:
        pytest.skip("run through run-gobject-tests (VELQUIN_PREFIX names the installed prefix)")
    return path


@pytest.fixture(scope="session")
def sandbox(tmp_path_factory, prefix):
    root = str(tmp_path_factory.mktemp("velquin"))
    program = os.environ["VELQUIN_SANDBOX"]
    box = Sandbox(program, root)
    bundle = os.path.join(root, "bundle")
    box.start("--write-bundle", bundle)
    with open(os.path.join(bundle, "store-config.json"), "w") as out:
        json.dump(STORE_CONFIG, out)
    home = Home(root, bundle)
    # The sandbox reads its trusted receipt keys when it starts: start it
    # again, on the same port and data, trusting this home's store key.
    key = os.path.join(root, "receipt-public-key.pem")
    with open(key, "w") as out:
        out.write(home.host("receipt-key")["pem"])
    port = open(os.path.join(box.data, "port")).read().strip()
    box.stop()
    box.start("--port", port, "--receipt-public-key", key)
    box.home = home
    yield box
    box.stop()


@pytest.fixture
def home(sandbox):
    return sandbox.home
