// The paywall: the time from asking the SDK to show it
// (loadPaywallToPurachase) until the page's getSkuDetailsCallback has run
// in the page, and the memory one paywall on screen adds: in this process
// and in WebKit's helper processes. Uses the sandbox's default paywall page,
// which asks for its products through the script bridge on load.
//
//   paywall_bench [--runs N]
// Needs a display; without one it runs itself again under xvfb-run.
#include <gtk/gtk.h>
#include <unistd.h>
#include <webkit/webkit.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "BenchSandbox.h"
#include "BenchStats.h"
#include "velquin/Bundle.h"
#include "velquin/NotificationCenter.h"
#include "velquin/OVPurchase.h"
#include "velquin/LocalStore.h"
#include "velquin/StoreKit.h"
#include "velquin/Velquin.h"
#include "velquin/gtk/Pages.h"

namespace {

using velquin::bench::Clock;
using velquin::gtk::VelQuinOVPPaywallviewController;

constexpr const char* kStoreConfig = R"json({
  "locale": "en_US", "currency": "USD",
  "products": [
    {"type": "auto-renewable", "id": "com.velquin.demo.monthly", "title": "Premium (monthly)",
     "description": "Every feature, billed monthly", "price": "4.99", "group": "premium",
     "subscription_period": {"unit": "month", "count": 1}},
    {"type": "auto-renewable", "id": "com.velquin.demo.yearly", "title": "Premium (yearly)",
     "description": "Every feature, billed yearly", "price": "39.99", "group": "premium",
     "subscription_period": {"unit": "year", "count": 1}},
    {"type": "non-consumable", "id": "com.velquin.demo.lifetime", "title": "Premium for life",
     "description": "Pay once", "price": "79.99"}
  ]
})json";

long residentKb(pid_t pid) {
  std::ifstream status("/proc/" + std::to_string(pid) + "/status");
  std::string line;
  while (std::getline(status, line)) {
    if (line.rfind("VmRSS:", 0) == 0) return std::strtol(line.c_str() + 6, nullptr, 10);
  }
  return 0;
}

// The resident memory of this process's children (WebKit's web and network
// processes), in kB.
long childrenResidentKb() {
  long total = 0;
  for (const auto& entry : std::filesystem::directory_iterator("/proc")) {
    const std::string name = entry.path().filename().string();
    if (name.find_first_not_of("0123456789") != std::string::npos) continue;
    std::ifstream stat(entry.path() / "stat");
    std::string text;
    std::getline(stat, text);
    auto close = text.rfind(')');
    if (close == std::string::npos) continue;
    char state = 0;
    int ppid = 0;
    if (std::sscanf(text.c_str() + close + 1, " %c %d", &state, &ppid) != 2) continue;
    if (ppid == getpid()) total += residentKb(std::stoi(name));
  }
  return total;
}

bool iterateUntil(const std::function<bool()>& done, std::chrono::seconds limit) {
  auto until = Clock::now() + limit;
  guint wake = g_timeout_add(5, [](gpointer) -> gboolean { return G_SOURCE_CONTINUE; }, nullptr);
  bool held = true;
  while (!done()) {
    if (Clock::now() > until) {
      held = false;
      break;
    }
    g_main_context_iteration(nullptr, TRUE);
  }
  g_source_remove(wake);
  return held;
}

struct Run {
  double ms = 0;
  long selfKb = 0;
  long childrenKb = 0;
};

// Shows one paywall and waits until getSkuDetailsCallback has run in it.
std::optional<Run> showOnce(GtkWindow* host) {
  // The host is the active window again once the last paywall has gone.
  iterateUntil([&] { return gtk_window_is_active(host); }, std::chrono::seconds(5));
  auto start = Clock::now();
  auto shown = std::make_shared<std::atomic<int>>(0);
  velquin::Velquin::shared().loadPaywallToPurachase(
      [shown](bool ok, std::optional<std::string>) { *shown = ok ? 1 : -1; });
  if (!iterateUntil([&] { return *shown != 0; }, std::chrono::seconds(20)) || *shown < 0) {
    return std::nullopt;
  }
  auto paywall = VelQuinOVPPaywallviewController::presented().back();
  // The callback has run once a script handed to the page after it has.
  auto ran = std::make_shared<std::optional<Clock::time_point>>();
  paywall->setScriptObserver([paywall = std::weak_ptr(paywall), ran](const std::string& script) {
    auto page = paywall.lock();
    if (!page || script.rfind("getSkuDetailsCallback(", 0) != 0) return;
    webkit_web_view_evaluate_javascript(
        page->webView(), "0", -1, nullptr, nullptr, nullptr,
        [](GObject*, GAsyncResult*, gpointer data) {
          auto* at = static_cast<std::shared_ptr<std::optional<Clock::time_point>>*>(data);
          **at = Clock::now();
          delete at;
        },
        new std::shared_ptr<std::optional<Clock::time_point>>(ran));
  });
  if (!iterateUntil([&] { return ran->has_value(); }, std::chrono::seconds(20))) return std::nullopt;
  Run run;
  run.ms = std::chrono::duration<double, std::milli>(**ran - start).count();
  run.selfKb = residentKb(getpid());
  run.childrenKb = childrenResidentKb();
  paywall->closeAction();
  paywall.reset();
  iterateUntil([] { return VelQuinOVPPaywallviewController::presented().empty(); },
               std::chrono::seconds(5));
  return run;
}

}  // namespace

int main(int argc, char** argv) {
  int runs = 10;
  for (int i = 1; i < argc; ++i) {
    if (std::strcmp(argv[i], "--runs") == 0 && i + 1 < argc) runs = std::max(1, std::atoi(argv[++i]));
  }
  if (!getenv("DISPLAY") && !getenv("WAYLAND_DISPLAY") && !getenv("VELQUIN_BENCH_XVFB")) {
    setenv("VELQUIN_BENCH_XVFB", "1", 1);
    std::vector<char*> args = {const_cast<char*>("xvfb-run"), const_cast<char*>("-a"),
                               const_cast<char*>("-s"),
                               const_cast<char*>("-screen 0 1280x1024x24")};
    for (int i = 0; i < argc; ++i) args.push_back(argv[i]);
    args.push_back(nullptr);
    execvp("xvfb-run", args.data());
    std::perror("paywall_bench: xvfb-run");
    return 1;
  }
  if (!gtk_init_check()) {
    std::fprintf(stderr, "paywall_bench: no display\n");
    return 1;
  }

  velquin::bench::BenchSandbox sandbox;
  if (!sandbox.start()) {
    std::fprintf(stderr, "paywall_bench: the sandbox did not start\n");
    return 1;
  }
  velquin::bench::useHome(sandbox.work() / "home");
  auto storeConfig = sandbox.work() / "store-config.json";
  std::ofstream(storeConfig) << kStoreConfig;
  velquin::Bundle::setMainBundlePath(sandbox.bundle());
  velquin::LocalStore::setConfigurationPath(storeConfig);
  if (!velquin::gtk::install()) return 1;

  auto handled = std::make_shared<std::atomic<bool>>(false);
  velquin::NotificationCenter::defaultCenter().addObserver(
      velquin::OVPurchase::kAppConfigHandledNotification,
      [handled](const velquin::Notification&) { *handled = true; });
  velquin::Velquin::shared().configure();
  if (!iterateUntil([&] { return handled->load(); }, std::chrono::seconds(20))) {
    std::fprintf(stderr, "paywall_bench: start-up did not finish\n");
    return 1;
  }

  GtkWindow* host = GTK_WINDOW(gtk_window_new());
  gtk_window_set_default_size(host, 480, 720);
  gtk_window_present(host);
  iterateUntil([&] { return gtk_window_is_active(host); }, std::chrono::seconds(10));

  long selfBefore = residentKb(getpid());
  long childrenBefore = childrenResidentKb();
  auto first = showOnce(host);  // starts WebKit's helper processes
  if (!first) {
    std::fprintf(stderr, "paywall_bench: the first paywall did not answer\n");
    return 1;
  }
  long selfIdle = residentKb(getpid());
  std::vector<double> times;
  std::vector<double> selfAdded, childrenAdded;
  for (int i = 0; i < runs; ++i) {
    long selfClosed = residentKb(getpid());
    long childrenClosed = childrenResidentKb();
    auto run = showOnce(host);
    if (!run) {
      std::fprintf(stderr, "paywall_bench: run %d did not answer\n", i);
      return 1;
    }
    times.push_back(run->ms);
    selfAdded.push_back(static_cast<double>(run->selfKb - selfClosed) / 1024.0);
    childrenAdded.push_back(static_cast<double>(run->childrenKb - childrenClosed) / 1024.0);
  }
  using velquin::bench::percentile;
  std::printf("paywall runs %d (one paywall at a time over one host window, under %s)\n", runs,
              getenv("VELQUIN_BENCH_XVFB") ? "Xvfb" : "the current display");
  std::printf("first paywall, presented until getSkuDetailsCallback ran in the page: %.1f ms "
              "(starts WebKit's processes)\n", first->ms);
  std::printf("later paywalls, presented until getSkuDetailsCallback ran in the page: p50 %.1f ms, "
              "p90 %.1f ms, max %.1f ms\n",
              percentile(times, 0.5), percentile(times, 0.9), percentile(times, 1.0));
  std::printf("memory of the first paywall: this process +%.1f MB, WebKit processes +%.1f MB\n",
              static_cast<double>(first->selfKb - selfBefore) / 1024.0,
              static_cast<double>(first->childrenKb - childrenBefore) / 1024.0);
  std::printf("memory one later paywall adds while shown: this process p50 %+.1f MB, "
              "WebKit processes p50 %+.1f MB (after closing: this process %+.1f MB over idle)\n",
              percentile(selfAdded, 0.5), percentile(childrenAdded, 0.5),
              static_cast<double>(residentKb(getpid()) - selfIdle) / 1024.0);
  std::printf("ratio paywall_callback_p50_vs_1s_aim %.3f\n", percentile(times, 0.5) / 1000.0);
  std::printf("ratio paywall_first_callback_vs_1s_aim %.3f\n", first->ms / 1000.0);
  gtk_window_destroy(host);
  return 0;
}
