// A host that starts the SDK and returns from main after the given number of
// microseconds, while start-up's backend calls are still connecting or in
// flight. It must exit with status 0, like any program that returns 0.
//
// With EVENTS, it first waits until start-up's own events are delivered,
// records EVENTS events "ev_exit" {"seq": i}, lets their calls start and
// returns at once: their replies come while the process exits, within the
// exit drain of DRAIN_MS milliseconds.
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <thread>

#include <velquin/Bundle.h>
#include <velquin/OVAnalytics.h>
#include <velquin/Velquin.h>

int main(int argc, char** argv) {
  if (argc != 3 && argc != 5) {
    std::fprintf(stderr, "usage: %s BUNDLE_DIR MICROSECONDS [EVENTS DRAIN_MS]\n", argv[0]);
    return 2;
  }
  velquin::Bundle::setMainBundlePath(argv[1]);
  auto& sdk = velquin::Velquin::shared();
  sdk.setPurchasesLogs(false);
  sdk.configure();
  std::this_thread::sleep_for(std::chrono::microseconds(std::atoi(argv[2])));
  if (argc == 5) {
    velquin::Velquin::setExitDrainMilliseconds(std::atol(argv[4]));
    auto& analytics = sdk.analytics();
    const auto giveUp = std::chrono::steady_clock::now() + std::chrono::seconds(120);
    while ((!analytics.canSendEvents() || !analytics.isDeliveryIdle() ||
            analytics.cachedEventCount() > 0) &&
           std::chrono::steady_clock::now() < giveUp) {
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    for (int i = 0; i < std::atoi(argv[3]); ++i) {
      analytics.recordEvent("ev_exit", {{"seq", i}}, [](const velquin::OVEventResponse&) {});
    }
    // The calls start on the delivery queue; once it has run, they are in
    // flight (the slots are free: nothing else is being sent).
    analytics.isDeliveryIdle();
  }
  return 0;
}
