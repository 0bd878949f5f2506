#include "PageSupport.h"

#include <unicode/currunit.h>
#include <unicode/locid.h>
#include <unicode/numberformatter.h>
#include <unicode/unistr.h>
#include <webkit/webkit.h>

#include <algorithm>
#include <cmath>

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

WebKitWebView* makeWebView(GObject* userContentManager) {
  WebKitSettings* settings = webkit_settings_new();
  webkit_settings_set_enable_javascript(settings, TRUE);
  webkit_settings_set_javascript_can_open_windows_automatically(settings, TRUE);
  webkit_settings_set_minimum_font_size(settings, 10);
  GObject* view = userContentManager
                      ? G_OBJECT(g_object_new(WEBKIT_TYPE_WEB_VIEW, "settings", settings,
                                              "user-content-manager", userContentManager, nullptr))
                      : G_OBJECT(g_object_new(WEBKIT_TYPE_WEB_VIEW, "settings", settings, nullptr));
  g_object_unref(settings);
  gtk_widget_set_hexpand(GTK_WIDGET(view), TRUE);
  gtk_widget_set_vexpand(GTK_WIDGET(view), TRUE);
  return WEBKIT_WEB_VIEW(view);
}

namespace {
GtkCssProvider* pageStyles() {
  static GtkCssProvider* provider = [] {
    GtkCssProvider* css = gtk_css_provider_new();
    gtk_css_provider_load_from_data(css,
                                    ".velquin-white { background-color: white; }\n"
                                    ".velquin-close { font-size: 25px; font-weight: 900; "
                                    "min-width: 44px; min-height: 44px; padding: 0; "
                                    "background: none; border: none; box-shadow: none; }\n",
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
  gtk_widget_set_size_request(button, 44, 44);
  gtk_widget_set_halign(button, GTK_ALIGN_END);
  gtk_widget_set_valign(button, GTK_ALIGN_START);
  gtk_widget_set_margin_end(button, 50 - 44);
  gtk_widget_set_margin_top(button, 8);
  return button;
}

void paintWhite(GtkWidget* widget) { addStyle(widget, "velquin-white"); }

void removeFromParent(GtkWidget* widget) {
  GtkWidget* parent = gtk_widget_get_parent(widget);
  if (!parent) return;
  if (GTK_IS_OVERLAY(parent)) {
    if (gtk_overlay_get_child(GTK_OVERLAY(parent)) == widget) {
      gtk_overlay_set_child(GTK_OVERLAY(parent), nullptr);
    } else {
      gtk_overlay_remove_overlay(GTK_OVERLAY(parent), widget);
    }
  } else if (GTK_IS_WINDOW(parent)) {
    gtk_window_set_child(GTK_WINDOW(parent), nullptr);
  } else if (GTK_IS_BOX(parent)) {
    gtk_box_remove(GTK_BOX(parent), widget);
  } else {
    gtk_widget_unparent(widget);
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
