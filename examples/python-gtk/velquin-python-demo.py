#!/usr/bin/python3
"""velquin-python-demo: a small GTK 4 host written in Python against the
Velquin typelibs. Its start screen shows the subscription state and a
"Go premium" button that opens the server's paywall; the welcome page lies
over it at start.

    velquin-python-demo.py BUNDLE_DIR

With an installed prefix, point GI_TYPELIB_PATH at PREFIX/lib/girepository-1.0
and LD_LIBRARY_PATH at PREFIX/lib (see the README).
"""
import sys

import gi

gi.require_version("Gtk", "4.0")
gi.require_version("Velquin", "1.0")
gi.require_version("VelquinGtk", "1.0")
from gi.repository import GLib, Gtk, Velquin, VelquinGtk  # noqa: E402


class DemoWindow(Gtk.ApplicationWindow):
    def __init__(self, app):
        super().__init__(application=app, title="Velquin Python demo",
                         default_width=480, default_height=640)
        self.sdk = Velquin.Sdk.get_default()
        self.paywall = VelquinGtk.Paywall.new()
        self.paywall.connect("purchase-finished", self.on_purchase_finished)
        self.paywall.connect("closed", lambda *_: self.refresh())

        box = Gtk.Box(orientation=Gtk.Orientation.VERTICAL, spacing=12,
                      valign=Gtk.Align.CENTER, halign=Gtk.Align.CENTER)
        self.state = Gtk.Label(label="Checking your subscription…")
        button = Gtk.Button(label="Go premium")
        button.connect("clicked", self.on_go_premium)
        box.append(self.state)
        box.append(button)

        overlay = Gtk.Overlay(child=box)
        # The welcome page removes itself once shown (or after 30 s).
        overlay.add_overlay(VelquinGtk.welcome_page_new(30.0))
        self.set_child(overlay)

        self.sdk.connect("app-config-handled", lambda *_: self.refresh())
        self.sdk.configure()
        self.sdk.track_event("ev_python_demo_opened", '{"screen": "home"}')

    def refresh(self):
        self.sdk.has_active_subscription(None, self.on_subscriber)

    def on_subscriber(self, sdk, result):
        try:
            subscriber = sdk.has_active_subscription_finish(result)
        except GLib.Error as error:
            self.state.set_label("Could not check: " + error.message)
            return
        if subscriber.props.is_active:
            self.state.set_label("Premium: " + subscriber.props.product_id)
        else:
            self.state.set_label("Free plan")

    def on_go_premium(self, _button):
        self.paywall.present(self, None, self.on_paywall_shown)

    def on_paywall_shown(self, paywall, result):
        try:
            paywall.present_finish(result)
        except GLib.Error as error:
            self.state.set_label("No paywall: " + error.message)

    def on_purchase_finished(self, _paywall, product_id, subscriber, error):
        if error is not None:
            self.state.set_label("Purchase of %s failed: %s" % (product_id, error.message))
        elif subscriber is not None and subscriber.props.is_active:
            self.state.set_label("Premium: " + product_id)


def main():
    if len(sys.argv) != 2:
        sys.exit("usage: velquin-python-demo.py BUNDLE_DIR")
    Velquin.set_bundle_path(sys.argv[1])
    app = Gtk.Application(application_id="com.example.VelquinPythonDemo")
    # The SDK's main queue moves onto GTK's main context before any other use.
    app.connect("startup", lambda *_: VelquinGtk.install())
    app.connect("activate", lambda a: DemoWindow(a).present())
    return app.run(None)


if __name__ == "__main__":
    sys.exit(main())
