// The welcome page over a host's start screen, its time driven by the main
// queue's manual clock.
#include <adwaita.h>
#include <webkit/webkit.h>

#include <atomic>

#include "PageFixture.h"
#include "velquin/NotificationCenter.h"
#include "velquin/Velquin.h"
#include "velquin/gtk/Pages.h"

namespace velquin::testing {
namespace {

using gtk::VelquinWelcomePage;
using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr const char* kWelcome = R"html(<!DOCTYPE html><html><head><meta charset="utf-8">
<style>body{font-family:sans-serif;text-align:center;padding-top:30%;background:#1d3557;color:white}</style>
</head><body><h1>Welcome aboard</h1><p>Served by the test's sandbox.</p></body></html>)html";

class WelcomePageTest : public PagesTest {
 protected:
  nlohmann::json sandboxConfig() override { return {{"welcome_page", welcomePage}}; }

  void SetUp() override {
    PagesTest::SetUp();
    if (HasFatalFailure()) return;
    token = NotificationCenter::defaultCenter().addObserver(
        "VelQuinWelcomPageDateName", [this](const Notification&) { ++announcements; });
  }
  void TearDown() override {
    NotificationCenter::defaultCenter().removeObserver(token);
    PagesTest::TearDown();
  }

  // A host window whose start screen is an overlay with the welcome page on top.
  std::shared_ptr<VelquinWelcomePage> placePage() {
    GtkWindow* window = openHostWindow();
    GtkWidget* overlay = gtk_overlay_new();
    gtk_overlay_set_child(GTK_OVERLAY(overlay), gtk_label_new("Start screen"));
    gtk_window_set_child(window, overlay);
    auto page = VelquinWelcomePage::create();
    gtk_overlay_add_overlay(GTK_OVERLAY(overlay), page->widget());
    return page;
  }

  std::string welcomePage = kWelcome;
  std::atomic<int> announcements{0};
  NotificationCenter::Token token = 0;
};

TEST_F(WelcomePageTest, FirstLaunchSpinsThenShowsTheBackendsPageAndFadesAway) {
  useManualClock();
  auto page = placePage();
  EXPECT_TRUE(page->isLoaderSpinning());
  EXPECT_EQ(page->shownPage(), "");
  EXPECT_DOUBLE_EQ(page->waitingTime(), 30.0);

  ASSERT_TRUE(configureAndIterate());
  ASSERT_TRUE(iterateUntil([&] { return page->shownPage() == kWelcome; }));
  EXPECT_EQ(announcements, 1);
  EXPECT_EQ(Velquin::shared().storedWelcomePage(), std::string(kWelcome));
  EXPECT_FALSE(page->isLoaderSpinning());
  EXPECT_TRUE(waitForPage(page->webView()));
  screenshot(page->widget(), "welcome-page");

  advance(milliseconds(1900));
  EXPECT_TRUE(page->isOnScreen());
  EXPECT_DOUBLE_EQ(gtk_widget_get_opacity(page->widget()), 1.0);
  advance(milliseconds(600));
  double halfway = gtk_widget_get_opacity(page->widget());
  EXPECT_GT(halfway, 0.0);
  EXPECT_LT(halfway, 0.5);  // ease-out: most of the fade happens early
  advance(milliseconds(600));
  EXPECT_FALSE(page->isOnScreen());

  // The waiting time's removal finds nothing left, harmlessly.
  std::weak_ptr<VelquinWelcomePage> weak = page;
  page.reset();
  advance(seconds(30), seconds(1));
  EXPECT_TRUE(weak.expired());
}

class SecondLaunchTest : public WelcomePageTest {
 protected:
  // An earlier run of the app (the command-line host, over the same
  // folders) stored the page.
  void beforeSdk() override {
    int status = -1;
    auto first = runHost({"configure", "--wait", "15"}, &status);
    ASSERT_EQ(status, 0) << first.dump();
    ASSERT_EQ(first["hasWelcomePage"], true);
  }
};

TEST_F(SecondLaunchTest, TheStoredPageShowsAtOnceAndIsNotStoredAgain) {
  useManualClock();
  auto page = placePage();
  EXPECT_EQ(page->shownPage(), kWelcome);
  ASSERT_TRUE(configureAndIterate());
  // Let the refresh a notification would cause run, if one came.
  advance(milliseconds(100));
  EXPECT_EQ(announcements, 0);
  advance(milliseconds(2000));
  EXPECT_TRUE(page->isOnScreen());
  advance(milliseconds(1000));
  EXPECT_FALSE(page->isOnScreen());
}

class EmptyWelcomePageTest : public WelcomePageTest {
 protected:
  void SetUp() override {
    welcomePage = "";
    WelcomePageTest::SetUp();
  }
};

TEST_F(EmptyWelcomePageTest, AnEmptyPageIsAnnouncedButShowsNothingUntilTheWaitingTime) {
  useManualClock();
  auto page = placePage();
  ASSERT_TRUE(configureAndIterate());
  ASSERT_TRUE(iterateUntil([&] { return announcements == 1; }));
  EXPECT_TRUE(iterateUntil([&] { return !page->isLoaderSpinning(); }));
  EXPECT_EQ(Velquin::shared().storedWelcomePage(), std::string());
  EXPECT_EQ(page->shownPage(), "");
  advance(seconds(29), seconds(1));
  EXPECT_TRUE(page->isOnScreen());
  advance(seconds(1), seconds(1));
  EXPECT_FALSE(page->isOnScreen());
  page->removeFromSuperview();  // a second removal does nothing
  EXPECT_FALSE(page->isOnScreen());
}

TEST_F(WelcomePageTest, WhereNoRemoveCallExistsThePageIsOnlyHiddenAndTheHostsTreeStaysValid) {
  useManualClock();
  GtkWindow* window = openHostWindow(/*adwaita=*/true);
  GtkWidget* paned = gtk_paned_new(GTK_ORIENTATION_HORIZONTAL);
  GtkWidget* bin = adw_bin_new();
  std::weak_ptr<VelquinWelcomePage> inPaned = VelquinWelcomePage::create(1.0);
  std::weak_ptr<VelquinWelcomePage> inBin = VelquinWelcomePage::create(1.0);
  gtk_paned_set_start_child(GTK_PANED(paned), inPaned.lock()->widget());
  gtk_paned_set_end_child(GTK_PANED(paned), bin);
  adw_bin_set_child(ADW_BIN(bin), inBin.lock()->widget());
  adw_application_window_set_content(ADW_APPLICATION_WINDOW(window), paned);
  EXPECT_TRUE(inPaned.lock()->isOnScreen());

  advance(milliseconds(1100));
  EXPECT_FALSE(inPaned.lock()->isOnScreen());
  EXPECT_FALSE(inBin.lock()->isOnScreen());
  EXPECT_EQ(gtk_paned_get_start_child(GTK_PANED(paned)), inPaned.lock()->widget());
  EXPECT_EQ(adw_bin_get_child(ADW_BIN(bin)), inBin.lock()->widget());
  // The host takes them out when it likes; then they are gone.
  gtk_paned_set_start_child(GTK_PANED(paned), nullptr);
  adw_bin_set_child(ADW_BIN(bin), nullptr);
  EXPECT_TRUE(inPaned.expired());
  EXPECT_TRUE(inBin.expired());
}

}  // namespace
}  // namespace velquin::testing
