#include "PageSupport.h"

#include <unicode/currunit.h>
#include <unicode/locid.h>
#include <unicode/numberformatter.h>
#include <unicode/unistr.h>
#include <webkit/webkit.h>

#include <algorithm>
#include <cmath>
#include <string_view>

#include "velquin/gtk/Pages.h"

namespace velquin::gtk::detail {

std::string formatPrice(const SKProduct& product) {
  const std::string& decimal = product.price.stringValue();
  const std::string& code = product.priceLocale.currencyCode;
  if (code.size() != 3) return decimal;
  UErrorCode status = U_ZERO_ERROR;
  icu::UnicodeString isoCode = icu::UnicodeString::fromUTF8(code);
  icu::CurrencyUnit currency(isoCode.getTerminatedBuffer(), status);
  if (U_FAILURE(status)) return decimal;
  icu::Locale locale(product.priceLocale.localeIdentifier.c_str());
  auto formatted = icu::number::NumberFormatter::withLocale(locale)
                       .unit(currency)
                       .formatDecimal(decimal.c_str(), status);
  if (U_FAILURE(status)) return decimal;
  icu::UnicodeString text = formatted.toString(status);
  if (U_FAILURE(status) || text.isEmpty()) return decimal;
  std::string out;
  text.toUTF8String(out);
  return out;
}

nlohmann::ordered_json productRecord(const SKProduct& product, bool isActive) {
  nlohmann::ordered_json record;
  record["description"] = product.localizedDescription;
  record["freeTrialPeriod"] = "";
  record["isActive"] = isActive;
  record["price"] = formatPrice(product);
  record["price_amount_micros"] = "";
  if (!product.priceLocale.currencyCode.empty()) {
    record["price_currency_code"] = product.priceLocale.currencyCode;
  }
  record["productId"] = product.productIdentifier;
  record["title"] = product.localizedTitle;
  record["type"] = product.subscriptionPeriod ? "subs" : "other";
  if (product.subscriptionPeriod) record["subscriptionPeriod"] = 0;
  return record;
}

std::string javaScriptQuoted(const std::string& text) {
  std::string out;
  out.reserve(text.size() + 8);
  for (std::size_t i = 0; i < text.size(); ++i) {
    char c = text[i];
    switch (c) {
      case '\\': out += "\\\\"; break;
      case '\'': out += "\\'"; break;
      case '\n': out += "\\n"; break;
      case '\r': out += "\\r"; break;
      default:
        // U+2028 and U+2029 end a line inside a script: E2 80 A8 / E2 80 A9.
        if (static_cast<unsigned char>(c) == 0xE2 && i + 2 < text.size() &&
            static_cast<unsigned char>(text[i + 1]) == 0x80 &&
            (static_cast<unsigned char>(text[i + 2]) == 0xA8 ||
             static_cast<unsigned char>(text[i + 2]) == 0xA9)) {
          out += static_cast<unsigned char>(text[i + 2]) == 0xA8 ? "\\u2028" : "\\u2029";
          i += 2;
        } else {
          out += c;
        }
    }
  }
  return out;
}

std::optional<std::string> serialise(const nlohmann::ordered_json& value, std::string* error) {
  try {
    return value.dump();
  } catch (const nlohmann::json::exception& e) {
    if (error) *error = e.what();
    return std::nullopt;
  }
}

std::shared_ptr<Fade> Fade::start(GtkWidget* widget, std::chrono::milliseconds duration,
                                  std::chrono::milliseconds delay, std::function<void()> done) {
  std::shared_ptr<Fade> fade(new Fade());
  fade->widget_ = GTK_WIDGET(g_object_ref(widget));
  fade->steps_ = std::max<int>(1, static_cast<int>(duration / kStep));
  fade->done_ = std::move(done);
  // The timers hold the fade until it ends or is cancelled.
  fade->delayTimer_ = MainQueue::shared().after(delay, [fade] {
    fade->delayTimer_ = 0;
    fade->stepTimer_ = MainQueue::shared().every(kStep, [fade] { fade->tick(); });
  });
  return fade;
}

Fade::~Fade() {
  if (widget_) g_object_unref(widget_);
}

void Fade::tick() {
  if (!widget_) return;
  ++step_;
  double t = std::min(1.0, static_cast<double>(step_) / steps_);
  double eased = 1.0 - (1.0 - t) * (1.0 - t);  // ease-out: quick start, gentle end
  gtk_widget_set_opacity(widget_, 1.0 - eased);
  if (step_ < steps_) return;
  auto done = std::move(done_);
  cancel();
  if (done) done();
}

void Fade::cancel() {
  if (delayTimer_) MainQueue::shared().cancel(delayTimer_);
  if (stepTimer_) MainQueue::shared().cancel(stepTimer_);
  delayTimer_ = stepTimer_ = 0;
  done_ = nullptr;
  if (widget_) {
    GtkWidget* widget = widget_;
    widget_ = nullptr;
    g_object_unref(widget);
  }
}

WebKitNetworkSession* pagesNetworkSession() {
  static WebKitNetworkSession* session = webkit_network_session_new_ephemeral();
  return session;
}

WebKitWebView* makeWebView(GObject* userContentManager) {
  WebKitSettings* settings = webkit_settings_new();
  webkit_settings_set_enable_javascript(settings, TRUE);
  webkit_settings_set_javascript_can_open_windows_automatically(settings, TRUE);
  webkit_settings_set_minimum_font_size(settings, 10);
  webkit_settings_set_allow_file_access_from_file_urls(settings, FALSE);
  webkit_settings_set_allow_universal_access_from_file_urls(settings, FALSE);
  GObject* view = userContentManager
                      ? G_OBJECT(g_object_new(WEBKIT_TYPE_WEB_VIEW, "settings", settings,
                                              "network-session", pagesNetworkSession(),
                                              "user-content-manager", userContentManager, nullptr))
                      : G_OBJECT(g_object_new(WEBKIT_TYPE_WEB_VIEW, "settings", settings,
                                              "network-session", pagesNetworkSession(), nullptr));
  g_object_unref(settings);
  gtk_widget_set_hexpand(GTK_WIDGET(view), TRUE);
  gtk_widget_set_vexpand(GTK_WIDGET(view), TRUE);
  keepOnOwnDocument(WEBKIT_WEB_VIEW(view));
  return WEBKIT_WEB_VIEW(view);
}

bool isOwnDocument(const char* uri) {
  return uri && (std::string_view(uri) == "about:blank" || std::string_view(uri).empty());
}

namespace {

bool isLaunchable(const std::string& uri) {
  g_autofree char* scheme = g_uri_parse_scheme(uri.c_str());
  if (!scheme) return false;
  std::string_view name(scheme);
  return name == "http" || name == "https" || name == "mailto";
}

// Schemes a subframe may load: the network and documents made in place.
bool isRemoteOrInline(const std::string& uri) {
  g_autofree char* scheme = g_uri_parse_scheme(uri.c_str());
  if (!scheme) return false;
  std::string_view name(scheme);
  return name == "http" || name == "https" || name == "about" || name == "data";
}

std::string requestUri(WebKitURIRequest* request) {
  const char* uri = request ? webkit_uri_request_get_uri(request) : nullptr;
  return uri ? uri : "";
}

gboolean decidePolicy(WebKitWebView* view, WebKitPolicyDecision* decision,
                      WebKitPolicyDecisionType type, gpointer) {
  switch (type) {
    case WEBKIT_POLICY_DECISION_TYPE_NEW_WINDOW_ACTION: {
      // window.open and target=_blank: never a window of ours.
      auto* action = webkit_navigation_policy_decision_get_navigation_action(
          WEBKIT_NAVIGATION_POLICY_DECISION(decision));
      std::string uri = requestUri(webkit_navigation_action_get_request(action));
      webkit_policy_decision_ignore(decision);
      if (isLaunchable(uri)) launchUri(GTK_WIDGET(view), uri);
      return TRUE;
    }
    case WEBKIT_POLICY_DECISION_TYPE_NAVIGATION_ACTION: {
      // The frame is not known here: the main frame is held back when its
      // response arrives (below). Local schemes are refused in any frame.
      auto* action = webkit_navigation_policy_decision_get_navigation_action(
          WEBKIT_NAVIGATION_POLICY_DECISION(decision));
      std::string uri = requestUri(webkit_navigation_action_get_request(action));
      if (isOwnDocument(uri.c_str()) || isRemoteOrInline(uri)) {
        webkit_policy_decision_use(decision);
      } else {
        webkit_policy_decision_ignore(decision);
        if (isLaunchable(uri)) launchUri(GTK_WIDGET(view), uri);
      }
      return TRUE;
    }
    case WEBKIT_POLICY_DECISION_TYPE_RESPONSE: {
      auto* response = WEBKIT_RESPONSE_POLICY_DECISION(decision);
      if (!webkit_response_policy_decision_is_main_frame_main_resource(response)) return FALSE;
      // A main frame document the SDK did not load itself: the link goes to
      // the browser and the page stays where it is.
      std::string uri = requestUri(webkit_response_policy_decision_get_request(response));
      if (isOwnDocument(uri.c_str())) return FALSE;
      webkit_policy_decision_ignore(decision);
      if (isLaunchable(uri)) launchUri(GTK_WIDGET(view), uri);
      return TRUE;
    }
    default:
      return FALSE;
  }
}

}  // namespace

void keepOnOwnDocument(WebKitWebView* view) {
  g_signal_connect(view, "decide-policy", G_CALLBACK(decidePolicy), nullptr);
  // A navigation away whose site could not be reached never got to the
  // response check: it goes to the browser too, and no error page replaces
  // the page.
  g_signal_connect(view, "load-failed",
                   G_CALLBACK(+[](WebKitWebView* failed, WebKitLoadEvent, char* uri, GError* error,
                                  gpointer) -> gboolean {
                     if (!uri || isOwnDocument(uri)) return FALSE;
                     if (error && error->domain == WEBKIT_NETWORK_ERROR &&
                         error->code != WEBKIT_NETWORK_ERROR_CANCELLED && isLaunchable(uri)) {
                       launchUri(GTK_WIDGET(failed), uri);
                     }
                     return TRUE;
                   }),
                   nullptr);
  // window.open (and links for a new window the policy let through): no
  // view is ever made; the address goes to the browser.
  g_signal_connect(view, "create",
                   G_CALLBACK(+[](WebKitWebView* opener, WebKitNavigationAction* action,
                                  gpointer) -> GtkWidget* {
                     std::string uri = requestUri(webkit_navigation_action_get_request(action));
                     if (isLaunchable(uri)) launchUri(GTK_WIDGET(opener), uri);
                     return nullptr;
                   }),
                   nullptr);
}

void launchUri(GtkWidget* view, const std::string& uri) {
  auto* root = view ? gtk_widget_get_root(view) : nullptr;
  GtkWindow* window = root && GTK_IS_WINDOW(root) ? GTK_WINDOW(root) : nullptr;
  openUri(window, uri);
}

const char* const kBridgeWorld = "velquin-bridge";

void installBridge(WebKitUserContentManager* manager, const std::vector<std::string>& names) {
  nlohmann::json list = names;
  // The page's side, in the top frame's own world: postMessage hands the
  // body to our world through an event on the document (only string bodies
  // cross; anything else arrives as null and is dropped).
  std::string pageSide =
      "(() => {\n"
      "  const names = " +
      list.dump() +
      ";\n"
      "  const handlers = {};\n"
      "  for (const name of names) {\n"
      "    handlers[name] = Object.freeze({ postMessage(body) {\n"
      "      document.dispatchEvent(new CustomEvent('velquin-bridge', { detail:\n"
      "        JSON.stringify([name, typeof body === 'string' ? body : null]) }));\n"
      "    } });\n"
      "  }\n"
      "  Object.defineProperty(window, 'webkit', { value: Object.freeze({\n"
      "    messageHandlers: Object.freeze(handlers) }), configurable: false, writable: false });\n"
      "})();\n";
  // Our side, in the bridge's world of the top frame: the only code that can
  // reach the handlers.
  std::string ourSide =
      "document.addEventListener('velquin-bridge', (event) => {\n"
      "  let message;\n"
      "  try { message = JSON.parse(event.detail); } catch (e) { return; }\n"
      "  if (!Array.isArray(message) || typeof message[1] !== 'string') return;\n"
      "  const handler = window.webkit.messageHandlers[message[0]];\n"
      "  if (handler) handler.postMessage(message[1]);\n"
      "});\n";
  for (const auto& name : names) {
    webkit_user_content_manager_register_script_message_handler(manager, name.c_str(),
                                                                kBridgeWorld);
  }
  WebKitUserScript* page =
      webkit_user_script_new(pageSide.c_str(), WEBKIT_USER_CONTENT_INJECT_TOP_FRAME,
                             WEBKIT_USER_SCRIPT_INJECT_AT_DOCUMENT_START, nullptr, nullptr);
  WebKitUserScript* ours = webkit_user_script_new_for_world(
      ourSide.c_str(), WEBKIT_USER_CONTENT_INJECT_TOP_FRAME,
      WEBKIT_USER_SCRIPT_INJECT_AT_DOCUMENT_START, kBridgeWorld, nullptr, nullptr);
  webkit_user_content_manager_add_script(manager, page);
  webkit_user_content_manager_add_script(manager, ours);
  webkit_user_script_unref(page);
  webkit_user_script_unref(ours);
}

namespace {
GtkCssProvider* pageStyles() {
  static GtkCssProvider* provider = [] {
    GtkCssProvider* css = gtk_css_provider_new();
    gtk_css_provider_load_from_data(css,
                                    ".velquin-white { background-color: white; }\n"
                                    ".velquin-close { font-size: 25px; font-weight: 900; "
                                    "min-width: 44px; min-height: 44px; padding: 0; "
                                    "color: #1a1a1a; "
                                    "background: none; border: none; box-shadow: none; }\n"
                                    ".velquin-close:hover { background-color: rgba(0,0,0,0.08); }\n"
                                    ".velquin-spinner { color: #3a3a3a; }\n",
                                    -1);
    return css;
  }();
  return provider;
}

void addStyle(GtkWidget* widget, const char* styleClass) {
  gtk_style_context_add_provider_for_display(gtk_widget_get_display(widget),
                                             GTK_STYLE_PROVIDER(pageStyles()),
                                             GTK_STYLE_PROVIDER_PRIORITY_APPLICATION);
  gtk_widget_add_css_class(widget, styleClass);
}
}  // namespace

GtkWidget* makeCloseButton() {
  GtkWidget* button = gtk_button_new_with_label("✖️");
  addStyle(button, "velquin-close");
  gtk_accessible_update_property(GTK_ACCESSIBLE(button), GTK_ACCESSIBLE_PROPERTY_LABEL, "Close",
                                 -1);
  gtk_widget_set_tooltip_text(button, "Close");
  gtk_widget_set_size_request(button, 44, 44);
  gtk_widget_set_halign(button, GTK_ALIGN_END);
  gtk_widget_set_valign(button, GTK_ALIGN_START);
  gtk_widget_set_margin_end(button, 50 - 44);
  gtk_widget_set_margin_top(button, 8);
  return button;
}

void paintWhite(GtkWidget* widget) { addStyle(widget, "velquin-white"); }

GtkWidget* makeSpinner() {
  GtkWidget* spinner = gtk_spinner_new();
  addStyle(spinner, "velquin-spinner");
  gtk_widget_set_size_request(spinner, 64, 64);
  gtk_widget_set_halign(spinner, GTK_ALIGN_CENTER);
  gtk_widget_set_valign(spinner, GTK_ALIGN_CENTER);
  gtk_widget_set_can_target(spinner, FALSE);
  return spinner;
}

void closeOnEscape(GtkWindow* window, std::function<void()> close) {
  GtkEventController* shortcuts = gtk_shortcut_controller_new();
  gtk_shortcut_controller_set_scope(GTK_SHORTCUT_CONTROLLER(shortcuts), GTK_SHORTCUT_SCOPE_GLOBAL);
  auto* held = new std::function<void()>(std::move(close));
  GtkShortcutAction* action = gtk_callback_action_new(
      +[](GtkWidget*, GVariant*, gpointer data) -> gboolean {
        // A copy: closing may free the window, and with it this action.
        auto run = *static_cast<std::function<void()>*>(data);
        run();
        return TRUE;
      },
      held, [](gpointer data) { delete static_cast<std::function<void()>*>(data); });
  gtk_shortcut_controller_add_shortcut(
      GTK_SHORTCUT_CONTROLLER(shortcuts),
      gtk_shortcut_new(gtk_keyval_trigger_new(GDK_KEY_Escape, GdkModifierType(0)), action));
  gtk_widget_add_controller(GTK_WIDGET(window), shortcuts);
}

void removeFromParent(GtkWidget* widget) {
  GtkWidget* parent = gtk_widget_get_parent(widget);
  if (!parent) return;
  // Hidden first: in a container whose child cannot be taken out through
  // its own API (a window's only child, a paned, a libadwaita bin) the
  // widget stays in place, invisible, and the container keeps a valid child.
  gtk_widget_set_visible(widget, FALSE);
  if (GTK_IS_OVERLAY(parent) && gtk_overlay_get_child(GTK_OVERLAY(parent)) != widget) {
    gtk_overlay_remove_overlay(GTK_OVERLAY(parent), widget);
  } else if (GTK_IS_BOX(parent)) {
    gtk_box_remove(GTK_BOX(parent), widget);
  } else if (GTK_IS_GRID(parent)) {
    gtk_grid_remove(GTK_GRID(parent), widget);
  } else if (GTK_IS_FIXED(parent)) {
    gtk_fixed_remove(GTK_FIXED(parent), widget);
  } else if (GTK_IS_STACK(parent)) {
    gtk_stack_remove(GTK_STACK(parent), widget);
  }
}

GtkWindow* activeToplevel() {
  GListModel* toplevels = gtk_window_get_toplevels();
  GtkWindow* found = nullptr;
  for (guint i = 0, n = g_list_model_get_n_items(toplevels); i < n && !found; ++i) {
    auto* window = GTK_WINDOW(g_list_model_get_item(toplevels, i));
    if (gtk_widget_get_visible(GTK_WIDGET(window)) && gtk_window_is_active(window)) found = window;
    g_object_unref(window);
  }
  return found;
}

}  // namespace velquin::gtk::detail
