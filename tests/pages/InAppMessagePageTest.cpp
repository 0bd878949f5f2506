// In-app message pages stacking over the host's window, in windows of their own.
#include <adwaita.h>
#include <webkit/webkit.h>

#include "PageFixture.h"
#include "velquin/Velquin.h"
#include "velquin/gtk/Pages.h"

namespace velquin::testing {
namespace {

using gtk::OVInAppMessagePage;

std::string message(const std::string& title, const std::string& colour) {
  return "<!DOCTYPE html><html><head><meta charset=\"utf-8\"></head><body style=\"font-family:"
         "sans-serif;text-align:center;padding-top:40%;background:" + colour + "\"><h1>" + title +
         "</h1></body></html>";
}

// Over a plain GtkWindow and over a libadwaita application window.
class InAppMessagePageTest : public PagesTest, public ::testing::WithParamInterface<bool> {};

GtkWidget* contentOf(GtkWindow* window) {
  if (ADW_IS_APPLICATION_WINDOW(window)) {
    return adw_application_window_get_content(ADW_APPLICATION_WINDOW(window));
  }
  return gtk_window_get_child(window);
}

TEST_P(InAppMessagePageTest, AMessageAskedForWithoutAWindowWaitsForOne) {
  useManualClock();
  auto presenter = Velquin::shared().pagePresenter();
  EXPECT_TRUE(presenter->presentInAppMessage(message("Welcome back", "white")));
  advance(std::chrono::seconds(1), std::chrono::milliseconds(500));
  EXPECT_TRUE(OVInAppMessagePage::shownPages().empty());
  GtkWindow* host = openHostWindow(GetParam());
  advance(std::chrono::milliseconds(500), std::chrono::milliseconds(100));
  ASSERT_EQ(OVInAppMessagePage::shownPages().size(), 1u);
  EXPECT_EQ(gtk_window_get_transient_for(OVInAppMessagePage::shownPages()[0]->window()), host);

  // None comes in time: nothing is shown, later or ever.
  OVInAppMessagePage::shownPages()[0]->closeAction();
  gtk_window_destroy(host);
  EXPECT_TRUE(presenter->presentInAppMessage(message("Too late", "white")));
  advance(std::chrono::seconds(11), std::chrono::milliseconds(500));
  openHostWindow(GetParam());
  advance(std::chrono::seconds(1), std::chrono::milliseconds(100));
  EXPECT_TRUE(OVInAppMessagePage::shownPages().empty());
}

TEST_P(InAppMessagePageTest, PagesStackOverTheHostWithoutTouchingItsWidgets) {
  GtkWindow* host = openHostWindow(GetParam());
  GtkWidget* content = contentOf(host);
  auto presenter = Velquin::shared().pagePresenter();
  ASSERT_TRUE(presenter->presentInAppMessage(message("First offer", "#ffd166")));
  ASSERT_TRUE(presenter->presentInAppMessage(message("Second offer", "#06d6a0")));
  auto pages = OVInAppMessagePage::shownPages();
  ASSERT_EQ(pages.size(), 2u);
  auto first = pages[0];
  std::weak_ptr<OVInAppMessagePage> second = pages[1];
  pages.clear();

  // Each in its own window, the second over the first.
  EXPECT_EQ(contentOf(host), content);
  EXPECT_EQ(gtk_window_get_transient_for(first->window()), host);
  EXPECT_EQ(gtk_window_get_transient_for(second.lock()->window()), first->window());
  EXPECT_TRUE(waitForPage(second.lock()->webView()));
  // Covering all the host's content (a libadwaita window's own size also
  // counts its rounded frame).
  EXPECT_TRUE(iterateUntil([&] {
    return gtk_widget_get_width(first->widget()) >= gtk_widget_get_width(content) &&
           gtk_widget_get_height(first->widget()) >= gtk_widget_get_height(content) &&
           gtk_widget_get_width(content) > 0;
  }));
  screenshot(GTK_WIDGET(second.lock()->window()),
             GetParam() ? "in-app-message-over-adwaita" : "in-app-message-stacked");

  // Escape closes the top one and reveals the one below.
  ASSERT_TRUE(pressEscape(second.lock()->window()));
  EXPECT_TRUE(second.expired());
  ASSERT_EQ(OVInAppMessagePage::shownPages().size(), 1u);
  EXPECT_TRUE(gtk_widget_get_mapped(first->widget()));

  g_signal_emit_by_name(first->closeButton(), "clicked");
  EXPECT_TRUE(OVInAppMessagePage::shownPages().empty());
  EXPECT_FALSE(first->window());
  EXPECT_EQ(contentOf(host), content);
  EXPECT_TRUE(gtk_widget_get_mapped(content));
}

INSTANTIATE_TEST_SUITE_P(Hosts, InAppMessagePageTest, ::testing::Bool(),
                         [](const auto& test) { return test.param ? "Adwaita" : "GtkWindow"; });

}  // namespace
}  // namespace velquin::testing
