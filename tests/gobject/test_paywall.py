"""A Python GTK 4 app under a display presents the paywall over its window,
buys through the page and hears the paywall's signals."""
import json
import os
import subprocess

HERE = os.path.dirname(os.path.abspath(__file__))
WITH_DISPLAY = os.path.join(os.path.dirname(HERE), "pages", "with-display")


def test_paywall_purchase_through_the_page_is_signalled(home):
    done = subprocess.run([WITH_DISPLAY, "/usr/bin/python3", os.path.join(HERE, "paywall_app.py"),
                           home.bundle, "com.velquin.demo.yearly"],
                          env=home.env, capture_output=True, text=True, timeout=180)
    lines = [json.loads(line) for line in done.stdout.splitlines() if line.startswith("{")]
    assert done.returncode == 0, done.stdout + done.stderr
    assert {"shown": True} in lines
    signals = [line for line in lines if "signal" in line]
    assert [s["signal"] for s in signals] == ["presented", "purchase-started",
                                              "purchase-finished", "closed"]
    assert signals[1]["productId"] == "com.velquin.demo.yearly"
    assert signals[2] == {"signal": "purchase-finished", "productId": "com.velquin.demo.yearly",
                          "isActive": True, "error": None}
