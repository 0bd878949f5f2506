#!/usr/bin/python3
"""A small host over the installed Velquin typelib: runs one job of the SDK
in this process and prints one JSON line with what it saw.

    host.py BUNDLE JOB [ARGS...]

Jobs: receipt-key, configure, track N, products ID..., purchase ID [--outcome
cancel|defer] [--cancel-after-start], restore, subscriber, bad-input.
Exits 0 after printing; a GLib.Error the job does not expect ends it with
status 2 and its domain, code and message.
"""
import json
import sys

import gi

gi.require_version("Velquin", "1.0")
from gi.repository import Gio, GLib, Velquin  # noqa: E402

LIMIT_S = 60


def loop_until(done):
    """Iterates the default main context until done() is true."""
    context = GLib.MainContext.default()
    expired = []
    timer = GLib.timeout_add_seconds(LIMIT_S, lambda: expired.append(True) or False)
    while not done():
        if expired:
            raise SystemExit("host: gave up waiting")
        context.iteration(True)
    GLib.source_remove(timer)


def call(start, finish, *args, cancellable=None):
    """Runs an asynchronous call to completion; returns (result, error)."""
    box = {}

    def ready(sdk, result):
        try:
            box["value"] = finish(result)
        except GLib.Error as error:
            box["error"] = error

    start(*args, cancellable, ready)
    loop_until(lambda: box)
    return box.get("value"), box.get("error")


def error_json(error):
    if error is None:
        return None
    return {"domain": GLib.quark_to_string(error.domain) if isinstance(error.domain, int)
            else error.domain, "code": error.code, "message": error.message}


def subscriber_json(subscriber):
    return {
        "isActive": subscriber.props.is_active,
        "productId": subscriber.props.product_id,
        "expireAt": subscriber.props.expire_at,
        "entitlements": [{"id": e.props.id, "productId": e.props.product_id,
                          "isActive": e.props.is_active}
                         for e in subscriber.get_entitlements()],
    }


def configure(sdk):
    handled = []
    handler = sdk.connect("app-config-handled", lambda *_: handled.append(True))
    sdk.configure()
    loop_until(lambda: handled)
    sdk.disconnect(handler)


def products(sdk, ids):
    found, error = call(sdk.get_products, sdk.get_products_finish, ids)
    if error:
        fail(error)
    return found


def fail(error):
    print(json.dumps({"error": error_json(error)}))
    sys.exit(2)


def main():
    bundle, job, args = sys.argv[1], sys.argv[2], sys.argv[3:]
    Velquin.set_bundle_path(bundle)
    sdk = Velquin.Sdk.get_default()
    out = {}
    if job == "receipt-key":
        out["pem"] = Velquin.LocalStore.get_default().get_receipt_public_key_pem()
    elif job == "configure":
        configure(sdk)
        out["userId"] = sdk.get_user_id()
    elif job == "track":
        configure(sdk)
        ids = [sdk.track_event("ev_gobject_test", json.dumps({"i": i}))
               for i in range(int(args[0]))]
        out["distinctIds"] = len(set(ids))
        # Stays until the caller has seen every event arrive.
        print(json.dumps(out), flush=True)
        sys.stdin.read()
        return
    elif job == "products":
        out["products"] = [{"id": p.props.product_id, "title": p.props.title,
                            "price": p.props.price, "currency": p.props.currency_code}
                           for p in products(sdk, args)]
    elif job == "purchase":
        configure(sdk)
        product = products(sdk, [args[0]])[0]
        store = Velquin.LocalStore.get_default()
        if "--outcome" in args:
            outcome = {"cancel": Velquin.Outcome.CANCEL,
                       "defer": Velquin.Outcome.DEFER}[args[args.index("--outcome") + 1]]
            store.set_next_outcome(outcome, 0, 0)
        cancellable = Gio.Cancellable()
        if "--cancel-after-start" in args:
            GLib.idle_add(lambda: cancellable.cancel() or False)
        subscriber, error = call(sdk.purchase_product, sdk.purchase_product_finish, product,
                                 cancellable=cancellable)
        out["error"] = error_json(error)
        out["subscriber"] = subscriber_json(subscriber) if subscriber else None
    elif job in ("restore", "subscriber"):
        configure(sdk)
        start, finish = ((sdk.restore_purchases, sdk.restore_purchases_finish) if job == "restore"
                         else (sdk.has_active_subscription, sdk.has_active_subscription_finish))
        subscriber, error = call(start, finish)
        out["error"] = error_json(error)
        out["subscriber"] = subscriber_json(subscriber) if subscriber else None
    elif job == "bad-input":
        out["errors"] = bad_input(sdk)
    else:
        raise SystemExit("host: unknown job " + job)
    print(json.dumps(out))


def bad_input(sdk):
    """Every refused argument: what it gave, as [domain, code] or a request id.
    Python hands over UTF-8 only; the C test passes raw invalid bytes."""
    deep = "{\"a\":" + "[" * 100000 + "]" * 100000 + "}"
    cases = {
        "array": "[1, 2]",
        "number": "3",
        "not-json": "{\"a\": ",
        "lone-surrogate": "{\"a\": \"\\ud800\"}",
        "deep": deep,
    }
    seen = {}
    for name, params in cases.items():
        try:
            seen[name] = ["ok", sdk.track_event("ev_bad", params)]
        except GLib.Error as error:
            seen[name] = [GLib.quark_to_string(error.domain)
                          if isinstance(error.domain, int) else error.domain, error.code]
    try:
        sdk.receive_push_notification("[]", True)
        seen["push-array"] = ["ok"]
    except GLib.Error as error:
        seen["push-array"] = [error.domain, error.code]
    return seen


if __name__ == "__main__":
    main()
