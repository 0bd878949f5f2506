"""The C API through PyGObject against the sandbox, each SDK run in its own
process (the SDK is a process-wide singleton)."""
import json
import os
import subprocess

from conftest import LIMIT_S, Home, Sandbox, wait_for

PRODUCT = "com.velquin.demo.monthly"
VELQUIN = "velquin-error-quark"


def test_startup_keeps_the_user_id_across_processes(sandbox, home):
    first = home.host("configure")["userId"]
    assert first
    assert home.host("configure")["userId"] == first


def test_a_thousand_events_are_delivered_exactly_once(sandbox, home):
    process, seen = home.start(["/usr/bin/python3", os.path.join(os.path.dirname(__file__),
                                "host.py"), home.bundle, "track", "1000"])
    assert seen["distinctIds"] == 1000
    wait_for(lambda: len(sandbox.events("ev_gobject_test")) >= 1000, "1000 events")
    home.finish(process)
    values = sorted(json.loads(e["value"])["i"] for e in sandbox.events("ev_gobject_test"))
    assert values == list(range(1000))


def test_products_come_from_the_local_store(home):
    found = home.host("products", PRODUCT, "com.example.unknown")["products"]
    assert found == [{"id": PRODUCT, "title": "Premium (monthly)", "price": "4.99",
                      "currency": "USD"}]
    error = home.host("products", "com.example.unknown", expect_status=2)["error"]
    assert (error["domain"], error["code"]) == (VELQUIN, 102)


def test_purchase_gives_an_entitlement_that_a_restore_in_a_new_process_finds(home):
    bought = home.host("purchase", PRODUCT)
    assert bought["error"] is None
    assert bought["subscriber"]["isActive"]
    assert PRODUCT in [e["productId"] for e in bought["subscriber"]["entitlements"]
                       if e["isActive"]]
    restored = home.host("restore")
    assert restored["error"] is None
    assert restored["subscriber"]["isActive"]
    assert restored["subscriber"]["productId"] == PRODUCT


def test_cancelled_purchases_give_their_domain_and_code(home):
    # The user cancels in the store.
    cancelled = home.host("purchase", PRODUCT, "--outcome", "cancel")["error"]
    assert (cancelled["domain"], cancelled["code"]) == (VELQUIN, 2)
    # The host cancels its GCancellable while the store waits.
    stopped = home.host("purchase", PRODUCT, "--outcome", "defer", "--cancel-after-start")["error"]
    assert (stopped["domain"], stopped["code"]) == ("g-io-error-quark", 19)


def test_a_backend_that_is_down_gives_unavailable(tmp_path, sandbox):
    down = Sandbox(sandbox.program, str(tmp_path))
    bundle = str(tmp_path / "bundle")
    down.start("--write-bundle", bundle)
    down.stop()  # the bundle now names a loopback port nobody listens on
    error = Home(str(tmp_path), bundle).host("subscriber")["error"]
    assert (error["domain"], error["code"]) == (VELQUIN, 314)


def test_bad_input_gives_an_error_never_a_crash(home):
    errors = home.host("bad-input")["errors"]
    assert errors == {
        "array": [VELQUIN, 3], "number": [VELQUIN, 3], "not-json": [VELQUIN, 3],
        "lone-surrogate": [VELQUIN, 3], "push-array": [VELQUIN, 3],
        # Parses, but nests deeper than the SDK sends: refused by the SDK.
        "deep": [VELQUIN, 6],
    }
