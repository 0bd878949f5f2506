// The token file as the developer wrote it: what is refused, and what the
// developer is told about it.
#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <string>

#include "backend/AppToken.h"
#include "support/TempEnvironment.h"
#include "velquin/Bundle.h"

namespace velquin {
namespace {

TEST(AppToken, PortsOutsideTheirRangeAreRefused) {
  struct Case {
    const char* address;
    bool valid;
  } cases[] = {
      {"api.example.com:443", true}, {"api.example.com", true},  {"127.0.0.1:65535", true},
      {"[::1]:8443", true},          {"::1", true},              {"127.0.0.1:1", true},
      {"api.example.com:0", false},  {"127.0.0.1:65536", false}, {"127.0.0.1:99999", false},
      {"api.example.com:", false},   {"[::1]:12a", false},       {"h:-1", false},
  };
  for (const auto& c : cases) EXPECT_EQ(hasValidPort(c.address), c.valid) << c.address;
}

bool mentions(const AppToken& token, const std::string& text) {
  return std::any_of(token.problems.begin(), token.problems.end(),
                     [&](const std::string& p) { return p.find(text) != std::string::npos; });
}

TEST(AppToken, EachProblemOfTheFileIsNamed) {
  testing::TempEnvironment env;
  Bundle bundle(env.bundleDir());
  AppToken missing = AppToken::load(bundle);
  EXPECT_FALSE(missing.accessToken);
  EXPECT_TRUE(mentions(missing, "is not in the bundle folder"));

  env.writeTokenFile({{"access_token", "k"}, {"api_address", "127.0.0.1:99999"}});
  AppToken wrapped = AppToken::load(bundle);
  EXPECT_FALSE(wrapped.apiAddress);
  EXPECT_FALSE(wrapped.accessToken);  // nothing is sent anywhere else instead
  EXPECT_TRUE(mentions(wrapped, "\"api_address\" 127.0.0.1:99999"));

  env.writeTokenFile({{"api_address", "127.0.0.1:8443"}},
                     {{"access_token", "<integer>12345</integer>"}});
  AppToken numeric = AppToken::load(bundle);
  EXPECT_FALSE(numeric.accessToken);
  EXPECT_EQ(numeric.apiAddress, "127.0.0.1:8443");
  EXPECT_TRUE(mentions(numeric, "\"access_token\" is not text"));

  { std::ofstream(env.bundleDir() / "velquin-app-token.plist") << "\x01\x02not a plist"; }
  EXPECT_TRUE(mentions(AppToken::load(bundle), "is not a property list"));

  env.writeTokenFile({{"access_token", "k"}, {"api_address", "127.0.0.1:8443"}});
  AppToken fine = AppToken::load(bundle);
  EXPECT_TRUE(fine.problems.empty());
  EXPECT_EQ(fine.accessToken, "k");
}

}  // namespace
}  // namespace velquin
