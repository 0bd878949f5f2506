// A Vala host compiled against the installed velquin-glib-1.vapi: start-up,
// one event, the subscriber. Prints one JSON line and stays until its
// standard input closes.
int main (string[] args) {
    Velquin.set_bundle_path (args[1]);
    var sdk = Velquin.Sdk.get_default ();
    var loop = new MainLoop ();
    sdk.app_config_handled.connect (() => loop.quit ());
    sdk.configure ();
    loop.run ();

    string request_id;
    try {
        request_id = sdk.track_event ("ev_lang_vala", "{\"lang\":\"vala\"}");
    } catch (Error e) {
        stderr.printf ("track: %s\n", e.message);
        return 1;
    }
    Velquin.Subscriber? subscriber = null;
    Error? failure = null;
    sdk.has_active_subscription.begin (null, (obj, res) => {
        try {
            subscriber = sdk.has_active_subscription.end (res);
        } catch (Error e) {
            failure = e;
        }
        loop.quit ();
    });
    loop.run ();
    if (failure != null) {
        stderr.printf ("subscriber: %s\n", failure.message);
        return 1;
    }
    stdout.printf ("{\"requestId\":\"%s\",\"userId\":\"%s\",\"isActive\":%s}\n",
                   request_id, sdk.get_user_id (), subscriber.is_active ? "true" : "false");
    stdout.flush ();
    while (stdin.read_line () != null) {
    }
    return 0;
}
