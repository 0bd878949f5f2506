#!/usr/bin/python3
"""A small GTK 4 host of the installed typelibs: presents the paywall over
its window, buys a product through the page (a click on its "Buy" button)
and prints, one JSON line each,
what the paywall's signals said. Closes the paywall after the purchase and
ends once it is closed.

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
    paywall.connect("closed", lambda *_: seen.append("closed") or say(signal="closed"))
    shown = []
    paywall.present(window, None,
                    lambda p, res: shown.append(p.present_finish(res)))
    loop_until(lambda: shown)
    say(shown=shown[0])

    # The page on screen: the paywall's own window covers ours.
    view = next(v for v in map(web_view, Gtk.Window.list_toplevels()) if v is not None)
    # Clicks the product's "Buy" button once the page has shown its products
    # (the page asked through the bridge and was answered).
    button = "document.getElementById(%s)" % json.dumps("plan-" + product)
    ready = "(function () { var p = %s; return p !== null && !p.querySelector('button').disabled; })()"
    while evaluate(view, ready % button) != "true":
        GLib.timeout_add(50, lambda: False)
        GLib.MainContext.default().iteration(True)
    evaluate(view, "%s.querySelector('button').click(); true" % button)
    loop_until(lambda: "finished" in seen)
    # No reference of ours may keep the paywall's window from being disposed
    # (its end is told when it is).
    del view
    paywall.close()
    loop_until(lambda: "closed" in seen)


if __name__ == "__main__":
    main()
