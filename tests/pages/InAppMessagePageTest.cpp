// In-app message pages stacking over the host's window.
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

class InAppMessagePageTest : public PagesTest {};

TEST_F(InAppMessagePageTest, NothingIsShownWithoutAnActiveWindow) {
  EXPECT_FALSE(Velquin::shared().pagePresenter()->presentInAppMessage(message("A", "white")));
  EXPECT_TRUE(OVInAppMessagePage::shownPages().empty());
}

TEST_F(InAppMessagePageTest, PagesStackAndClosingTheTopOneRevealsTheOneBelow) {
  GtkWindow* host = openHostWindow();
  auto presenter = Velquin::shared().pagePresenter();
  ASSERT_TRUE(presenter->presentInAppMessage(message("First offer", "#ffd166")));
  ASSERT_TRUE(presenter->presentInAppMessage(message("Second offer", "#06d6a0")));
  auto pages = OVInAppMessagePage::shownPages();
  ASSERT_EQ(pages.size(), 2u);
  auto first = pages[0];
  std::weak_ptr<OVInAppMessagePage> second = pages[1];
  pages.clear();

  // Both cover the whole window, the second above the first.
  GtkWidget* layer = gtk_widget_get_parent(first->widget());
  EXPECT_EQ(layer, gtk_widget_get_parent(second.lock()->widget()));
  EXPECT_EQ(gtk_widget_get_last_child(layer), second.lock()->widget());
  EXPECT_TRUE(waitForPage(second.lock()->webView()));
  EXPECT_TRUE(iterateUntil([&] {
    return gtk_widget_get_width(first->widget()) == gtk_widget_get_width(GTK_WIDGET(host));
  }));
  screenshot(GTK_WIDGET(host), "in-app-message-stacked");

  g_signal_emit_by_name(second.lock()->closeButton(), "clicked");
  EXPECT_TRUE(second.expired());
  ASSERT_EQ(OVInAppMessagePage::shownPages().size(), 1u);
  EXPECT_EQ(gtk_widget_get_last_child(layer), first->widget());
  EXPECT_TRUE(gtk_widget_get_mapped(first->widget()));
  EXPECT_TRUE(waitForPage(first->webView()));
  screenshot(GTK_WIDGET(host), "in-app-message-revealed");

  g_signal_emit_by_name(first->closeButton(), "clicked");
  EXPECT_TRUE(OVInAppMessagePage::shownPages().empty());
  EXPECT_FALSE(gtk_widget_get_parent(first->widget()));
}

}  // namespace
}  // namespace velquin::testing
