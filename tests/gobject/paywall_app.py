#!/usr/bin/python3
"""A small GTK 4 host of the installed typelibs: presents the paywall over
its window, buys a product through the page (as a click on the page's
button would: the page's purchase message) and prints, one JSON line each,
what the paywall's signals said and when the user became a subscriber.
Ends then.

    paywall_app.py BUNDLE PRODUCT_ID
"""
import json
import sys

import gi

gi.require_version("Gtk", "4.0")
gi.require_version("WebKit", "6.0")
gi.require_version("Velquin", "1.0")
gi.require_version("VelquinGtk", "1.0")
from gi.repository import GLib, Gtk, Velquin, VelquinGtk, WebKit  # noqa: E402

LIMIT_S = 90


def say(**fields):
    print(json.dumps(fields), flush=True)


def loop_until(done):
    expired = []
    timer = GLib.timeout_add_seconds(LIMIT_S, lambda: expired.append(True) or False)
    while not done():
        if expired:
            say(gaveUp=True)
            sys.exit(1)
        GLib.MainContext.default().iteration(True)
    GLib.source_remove(timer)


def web_view(widget):
    if isinstance(widget, WebKit.WebView):
        return widget
    child = widget.get_first_child()
    while child is not None:
        found = web_view(child)
        if found:
            return found
        child = child.get_next_sibling()
    return None


def evaluate(view, script):
    box = {}
    view.evaluate_javascript(script, -1, None, None, None,
                             lambda v, res: box.setdefault("value", v.evaluate_javascript_finish(res)))
    loop_until(lambda: box)
    return box["value"].to_string()


def main():
    bundle, product = sys.argv[1], sys.argv[2]
    # The bundle first: installing the pages already starts the SDK.
    Velquin.set_bundle_path(bundle)
    Gtk.init()
    assert VelquinGtk.install()
    sdk = Velquin.Sdk.get_default()
    handled = []
    sdk.connect("app-config-handled", lambda *_: handled.append(True))
    sdk.configure()

    window = Gtk.Window(title="python host", default_width=800, default_height=600)
    window.present()
    loop_until(lambda: handled)

    paywall = VelquinGtk.Paywall.new()
    seen = []
    paywall.connect("presented", lambda *_: seen.append("presented") or say(signal="presented"))
    paywall.connect("purchase-started",
                    lambda _p, pid: seen.append("started") or say(signal="purchase-started",
                                                                   productId=pid))

    def finished(_p, pid, subscriber, error):
        seen.append("finished")
        say(signal="purchase-finished", productId=pid,
            isActive=subscriber.props.is_active if subscriber else None,
            error=[error.domain, error.code] if error else None)

    paywall.connect("purchase-finished", finished)
    shown = []
    paywall.present(window, None,
                    lambda p, res: shown.append(p.present_finish(res)))
    loop_until(lambda: shown)
    say(shown=shown[0])

    # The page on screen: the paywall's own window covers ours.
    windows = [w for w in Gtk.Window.list_toplevels() if w is not window]
    view = next(v for v in map(web_view, windows) if v is not None)
    # Buys once the page has its products (the page asked and was answered).
    loop_until(lambda: view.get_estimated_load_progress() >= 1.0)
    evaluate(view, "window.webkit.messageHandlers.purchase.postMessage(%s); true"
             % json.dumps(product))
    # The purchase through the page made the user a subscriber.
    active = []

    def ask():
        sdk.has_active_subscription(None, answered)
        return False

    def answered(sdk, result):
        if sdk.has_active_subscription_finish(result).props.is_active:
            active.append(True)
        else:
            GLib.timeout_add(100, ask)

    ask()
    loop_until(lambda: active)
    say(active=True)


if __name__ == "__main__":
    main()
