// A host that starts the SDK and returns from main after the given number of
// microseconds, while start-up's backend calls are still connecting or in
// flight. It must exit with status 0, like any program that returns 0.
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <thread>

#include <velquin/Bundle.h>
#include <velquin/Velquin.h>

int main(int argc, char** argv) {
  if (argc != 3) {
    std::fprintf(stderr, "usage: %s BUNDLE_DIR MICROSECONDS\n", argv[0]);
    return 2;
  }
  velquin::Bundle::setMainBundlePath(argv[1]);
  auto& sdk = velquin::Velquin::shared();
  sdk.setPurchasesLogs(false);
  sdk.configure();
  std::this_thread::sleep_for(std::chrono::microseconds(std::atoi(argv[2])));
  return 0;
}
