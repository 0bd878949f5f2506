/* A C99 host of the installed C API: start-up, one event, the subscriber;
 * then the refusals of arguments that are not UTF-8. Prints one JSON line
 * and stays until its standard input closes, so the event can be delivered. */
#include <stdio.h>
#include <string.h>

#include <velquin-glib/velquin-glib.h>

static gboolean handled = FALSE;
static VelquinSubscriber *subscriber = NULL;
static GError *failure = NULL;

static void on_handled (VelquinSdk *sdk, gpointer data)
{
  (void) sdk;
  (void) data;
  handled = TRUE;
}

static void on_subscriber (GObject *source, GAsyncResult *result, gpointer data)
{
  (void) data;
  subscriber = velquin_sdk_has_active_subscription_finish (VELQUIN_SDK (source), result, &failure);
}

/* The code of the error a call with invalid UTF-8 gives; 0 when none. */
static int refusal_of_event (VelquinSdk *sdk, const char *name, const char *params)
{
  GError *error = NULL;
  gchar *id = velquin_sdk_track_event (sdk, name, params, &error);
  int code = 0;
  if (id == NULL && error != NULL && error->domain == VELQUIN_ERROR)
    code = error->code;
  g_free (id);
  g_clear_error (&error);
  return code;
}

int main (int argc, char **argv)
{
  VelquinSdk *sdk;
  GError *error = NULL;
  gchar *request_id;
  gchar *user_id;
  gboolean active = FALSE;
  int c;

  if (argc != 2)
    return 64;
  velquin_set_bundle_path (argv[1]);
  sdk = velquin_sdk_get_default ();
  g_signal_connect (sdk, "app-config-handled", G_CALLBACK (on_handled), NULL);
  velquin_sdk_configure (sdk);
  while (!handled)
    g_main_context_iteration (NULL, TRUE);

  request_id = velquin_sdk_track_event (sdk, "ev_lang_c", "{\"lang\":\"c\"}", &error);
  if (request_id == NULL)
    {
      fprintf (stderr, "track: %s\n", error->message);
      return 1;
    }
  velquin_sdk_has_active_subscription (sdk, NULL, on_subscriber, NULL);
  while (subscriber == NULL && failure == NULL)
    g_main_context_iteration (NULL, TRUE);
  if (failure != NULL)
    {
      fprintf (stderr, "subscriber: %s\n", failure->message);
      return 1;
    }
  g_object_get (subscriber, "is-active", &active, NULL);
  user_id = velquin_sdk_get_user_id (sdk);

  printf ("{\"requestId\":\"%s\",\"userId\":\"%s\",\"isActive\":%s,"
          "\"badName\":%d,\"badParams\":%d,\"badKey\":%d}\n",
          request_id, user_id, active ? "true" : "false",
          refusal_of_event (sdk, "ev_\xff\xfe", NULL),
          refusal_of_event (sdk, "ev_lang_c", "{\"a\":\"\xc3\x28\"}"),
          refusal_of_event (sdk, "ev_lang_c", "{\"\xed\xa0\x80\":1}"));
  fflush (stdout);
  while ((c = getchar ()) != EOF)
    ;
  g_free (request_id);
  g_free (user_id);
  g_object_unref (subscriber);
  return 0;
}
