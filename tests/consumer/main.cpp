// A host that embeds the library the way an application does: public headers
// only, linked against the installed libvelquin. It names an empty bundle
// (no token file), so start-up returns without contacting anything.
#include <cstdio>

#include <velquin/Bundle.h>
#include <velquin/Models.h>
#include <velquin/Velquin.h>

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: %s EMPTY_BUNDLE_DIR\n", argv[0]);
    return 2;
  }
  velquin::Bundle::setMainBundlePath(argv[1]);
  auto& sdk = velquin::Velquin::shared();
  sdk.setPurchasesLogs(false);
  sdk.configure();
  std::printf("consumer host: bundle %s, network %s, user id '%s'\n",
              velquin::Bundle::main().path().c_str(),
              velquin::attributionSourceName(velquin::AttributionNetwork::custom).c_str(),
              sdk.getAppUserId().c_str());
  return 0;
}
