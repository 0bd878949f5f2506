// A GJS host of the installed typelib: start-up, one event, the subscriber.
// Prints one JSON line and stays until its standard input closes.
imports.gi.versions.Velquin = '1.0';
const {Gio, GLib, Velquin} = imports.gi;

Velquin.set_bundle_path(ARGV[0]);
const sdk = Velquin.Sdk.get_default();
const context = GLib.MainContext.default();

let handled = false;
sdk.connect('app-config-handled', () => { handled = true; });
sdk.configure();
while (!handled)
    context.iteration(true);

const requestId = sdk.track_event('ev_lang_gjs', JSON.stringify({lang: 'gjs'}));
let subscriber = null;
sdk.has_active_subscription(null, (source, result) => {
    subscriber = sdk.has_active_subscription_finish(result);
});
while (subscriber === null)
    context.iteration(true);

print(JSON.stringify({requestId, userId: sdk.get_user_id(), isActive: subscriber.is_active}));
const input = new Gio.DataInputStream({
    base_stream: new Gio.UnixInputStream({fd: 0, close_fd: false}),
});
while (input.read_line(null)[0] !== null)
    ;
