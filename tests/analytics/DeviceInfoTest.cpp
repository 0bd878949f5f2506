// The device-information manager: the device identifier over the keychain,
// the advertising identifier, the public-address lookup against a local
// HTTP server, the facts an event carries, and the helper's device queries.
#include "analytics/OVDeviceInfoManager.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <fstream>
#include <regex>
#include <thread>

#include "analytics/OVDeviceInfoManagerHelper.h"
#include "platform/Keychain.h"
#include "platform/SystemInfo.h"
#include "support/FakeEnv.h"
#include "support/TempEnvironment.h"

namespace velquin {
namespace {

using platform::FileKeychain;
using testing::FakeEnv;

TEST(DeviceIdentifier, WithoutVendorIdTheFixedTextIsStoredAndKept) {
  testing::TempEnvironment env;
  auto file = env.root() / "keychain.plist";
  FakeEnv fake(file, "");
  {
    OVDeviceInfoManager manager(fake, "com.example.app");
    EXPECT_EQ(manager.deviceIdentifier(), OVDeviceInfoManager::kFallbackVendorId);
  }
  EXPECT_EQ(FileKeychain(file).load("com.example.app.deviceID"),
            OVDeviceInfoManager::kFallbackVendorId);
  // Later the machine has an id, but the stored one stays.
  fake.setVendorId("11111111-2222-3333-4444-555555555555");
  OVDeviceInfoManager later(fake, "com.example.app");
  EXPECT_EQ(later.deviceIdentifier(), OVDeviceInfoManager::kFallbackVendorId);
}

TEST(DeviceIdentifier, StableAcrossManagersOverTheSameKeychainFile) {
  testing::TempEnvironment env;
  auto file = env.root() / "keychain.plist";
  FakeEnv first(file, "0A1B2C3D-0000-4000-8000-00000000ABCD");
  OVDeviceInfoManager a(first, "com.example.app");
  std::string id = a.deviceIdentifier();
  EXPECT_EQ(id, "0A1B2C3D-0000-4000-8000-00000000ABCD");
  EXPECT_EQ(a.deviceIdentifier(), id);

  FakeEnv second(file, "0A1B2C3D-0000-4000-8000-00000000ABCD");  // as after a restart
  OVDeviceInfoManager b(second, "com.example.app");
  EXPECT_EQ(b.deviceIdentifier(), id);
  EXPECT_EQ(first.vendorAsked, std::vector<std::string>{"com.example.app"});
  EXPECT_TRUE(second.vendorAsked.empty());
}

TEST(DeviceIdentifier, NoBundleIdentifierUsesTheFallbackKeyAndTheMachineId) {
  testing::TempEnvironment env;
  FakeEnv fake(env.root() / "keychain.plist");  // the machine's own vendor id
  std::string id = OVDeviceInfoManager(fake, "").deviceIdentifier();
  EXPECT_EQ(fake.keychain().load(std::string(OVDeviceInfoManager::kFallbackKeychainName) + ".deviceID"), id);
  EXPECT_TRUE(std::regex_match(id, std::regex("[0-9A-F]{8}(-[0-9A-F]{4}){3}-[0-9A-F]{12}"))) << id;
  // The machine id differs per application (or is missing for all).
  EXPECT_EQ(platform::vendorIdentifier("com.example.a") ==
                platform::vendorIdentifier("com.example.b"),
            platform::vendorIdentifier("com.example.a").empty());
}

TEST(AdvertisingIdentifier, OnlyAnAuthorisedNonZeroIdCounts) {
  testing::TempEnvironment env;
  FakeEnv fake(env.root() / "keychain.plist", "");
  OVDeviceInfoManager manager(fake, "com.example.app");
  EXPECT_FALSE(manager.advertisingIdentifier());  // no provider installed
  using Id = std::optional<std::string>;
  for (Id given : {Id(OVDeviceInfoManager::kZeroAdvertisingId), Id(), Id("")}) {
    manager.setAdvertisingIdProvider([given] { return given; });
    EXPECT_FALSE(manager.advertisingIdentifier());
  }
  manager.setAdvertisingIdProvider([] { return Id("6D92078A-8246-4BA4-AE5B-76104861E7DC"); });
  EXPECT_EQ(manager.advertisingIdentifier(), "6D92078A-8246-4BA4-AE5B-76104861E7DC");
}

// A listening socket on 127.0.0.1 and a free port; the port is 0 on failure.
int listenOnLoopback(int* port) {
  int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  *port = 0;
  if (bind(fd, reinterpret_cast<sockaddr*>(&address), length) == 0 && listen(fd, 4) == 0 &&
      getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) == 0) {
    *port = ntohs(address.sin_port);
  }
  return fd;
}

// Answers one HTTP request on 127.0.0.1 with a fixed body and remembers the
// request line.
class OneShotHttpServer {
 public:
  explicit OneShotHttpServer(std::string body) : body_(std::move(body)) {
    fd_ = listenOnLoopback(&port_);
    if (port_ == 0) {
      ADD_FAILURE() << "cannot listen on 127.0.0.1";
      return;
    }
    thread_ = std::thread([this] { serve(); });
  }
  ~OneShotHttpServer() {
    stop_ = true;
    if (thread_.joinable()) thread_.join();
    close(fd_);
  }

  std::string address() const { return "http://127.0.0.1:" + std::to_string(port_); }
  std::string requestLine() {
    if (thread_.joinable()) thread_.join();
    return requestLine_;
  }

 private:
  void serve() {
    pollfd pfd{fd_, POLLIN, 0};
    while (!stop_ && poll(&pfd, 1, 50) == 0) {
    }
    if (stop_) return;
    int client = accept4(fd_, nullptr, nullptr, SOCK_CLOEXEC);
    if (client < 0) return;
    std::string request;
    char buffer[1024];
    while (request.find("\r\n\r\n") == std::string::npos) {
      ssize_t n = read(client, buffer, sizeof buffer);
      if (n <= 0) break;
      request.append(buffer, static_cast<size_t>(n));
    }
    requestLine_ = request.substr(0, request.find("\r\n"));
    std::string reply = "HTTP/1.1 200 OK\r\nContent-Type: text/html; charset=utf-8\r\n"
                        "Content-Length: " + std::to_string(body_.size()) +
                        "\r\nConnection: close\r\n\r\n" + body_;
    ssize_t written = write(client, reply.data(), reply.size());
    (void)written;
    close(client);
  }

  std::string body_;
  int fd_ = -1;
  int port_ = 0;
  std::atomic<bool> stop_{false};
  std::thread thread_;
  std::string requestLine_;  // written by the server thread before it ends
};

class PublicAddressLookup : public ::testing::Test {
 protected:
  testing::TempEnvironment env_;
  FakeEnv fake_{env_.root() / "keychain.plist", ""};
};

TEST_F(PublicAddressLookup, ReadsTheAddressFromTheCityReply) {
  OneShotHttpServer server(
      "var returnCitySN = {\"cip\": \"203.0.113.7\", \"cid\": \"CN\", \"cname\": \"CHINA\"};");
  OVDeviceInfoManager manager(fake_, "com.example.app");
  ::testing::internal::CaptureStdout();
  ASSERT_TRUE(manager.startPublicAddressLookup(server.address() + "/"));
  EXPECT_FALSE(manager.startPublicAddressLookup(server.address()));  // one lookup only
  manager.waitForPublicAddressLookup();
  std::string out = ::testing::internal::GetCapturedStdout();
  EXPECT_EQ(server.requestLine(), "GET /cityjson?ie=utf-8 HTTP/1.1");
  EXPECT_EQ(manager.extranetIp(), "203.0.113.7");
  EXPECT_NE(out.find("OVDeviceInfoManager  get WAN IP Address: 203.0.113.7\n"), std::string::npos)
      << out;
}

TEST_F(PublicAddressLookup, AReplyThatIsNotTheCityScriptLeavesNoAddress) {
  OneShotHttpServer server("<html><body>502 Bad Gateway</body></html>");
  OVDeviceInfoManager manager(fake_, "com.example.app");
  ASSERT_TRUE(manager.startPublicAddressLookup(server.address()));
  manager.waitForPublicAddressLookup();
  EXPECT_EQ(manager.extranetIp(), "");
}

TEST_F(PublicAddressLookup, ASilentServerDoesNotHoldUpDestruction) {
  // The kernel accepts the connection into the backlog; nobody ever answers.
  int port = 0;
  int fd = listenOnLoopback(&port);
  ASSERT_NE(port, 0);

  int client = -1;
  auto start = std::chrono::steady_clock::now();
  {
    OVDeviceInfoManager manager(fake_, "com.example.app");
    ASSERT_TRUE(manager.startPublicAddressLookup("http://127.0.0.1:" + std::to_string(port)));
    // The lookup has connected once its connection can be accepted; it then
    // waits for a reply that never comes.
    pollfd pfd{fd, POLLIN, 0};
    ASSERT_EQ(poll(&pfd, 1, 30000), 1);
    client = accept4(fd, nullptr, nullptr, SOCK_CLOEXEC);
    ASSERT_GE(client, 0);
    EXPECT_EQ(manager.extranetIp(), "");
  }
  // Destruction stopped the transfer instead of waiting out its own 10 s limit.
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(10));
  close(client);
  close(fd);
}

TEST_F(PublicAddressLookup, TheSharedManagerLooksUpTheTokenFilesAddress) {
  OneShotHttpServer server("var returnCitySN = {\"cip\": \"192.0.2.44\"};");
  env_.writeTokenFile({{"access_token", "k"}, {"ip_lookup_address", server.address()}});
  env_.installAsMainBundle();
  auto& manager = OVDeviceInfoManager::shared();
  manager.waitForPublicAddressLookup();
  EXPECT_EQ(manager.extranetIp(), "192.0.2.44");
}

TEST_F(PublicAddressLookup, TheSharedManagerDoesNothingWithoutTheKey) {
  env_.writeTokenFile({{"access_token", "k"}});
  env_.installAsMainBundle();
  auto& manager = OVDeviceInfoManager::shared();
  EXPECT_FALSE(manager.startPublicAddressLookup(std::nullopt));
  EXPECT_FALSE(manager.startPublicAddressLookup(""));
  // Creation started no lookup, so this one is the first and is accepted.
  OneShotHttpServer server("var returnCitySN = {\"cip\": \"192.0.2.45\"};");
  EXPECT_TRUE(manager.startPublicAddressLookup(server.address()));
  manager.waitForPublicAddressLookup();
  EXPECT_EQ(manager.extranetIp(), "192.0.2.45");
}

TEST(DeviceFactsTest, BundleVersionsDefaultsAndHostProvidedValues) {
  testing::TempEnvironment env;
  env.writeInfoPlist("4.5.6", "789");
  env.installAsMainBundle();
  FakeEnv fake(env.root() / "keychain.plist", "");
  OVDeviceInfoManager manager(fake, env.bundleId());

  DeviceFacts facts = manager.deviceFacts();
  EXPECT_EQ(facts.packageName, env.bundleId());
  EXPECT_EQ(facts.packageVersion, "4.5.6");
  EXPECT_EQ(facts.packageVersionCode, "789");
  EXPECT_EQ(facts.carrier, "Nocarrier");
  EXPECT_EQ(facts.deviceModel, platform::hardwareMachine());
  EXPECT_FALSE(facts.osVersion.empty());
  EXPECT_FALSE(facts.timeZone.empty());
  EXPECT_EQ(facts.screenWidth, 0);
  EXPECT_EQ(facts.screenDensity, 0.0);
  EXPECT_GT(facts.extStorageSize, 0);
  EXPECT_GE(facts.extStorageSize, facts.availableStorageSize);

  manager.setScreen(1920, 1080, 1.5);
  manager.setCarrierProvider([] { return std::optional<std::string>("Example Mobile"); });
  facts = manager.deviceFacts();
  EXPECT_EQ(facts.carrier, "Example Mobile");
  EXPECT_EQ(facts.screenWidth, 1920);
  EXPECT_EQ(facts.screenHeight, 1080);
  EXPECT_EQ(facts.screenDensity, 1.5);
  manager.setCarrierProvider([] { return std::optional<std::string>(""); });
  EXPECT_EQ(manager.deviceFacts().carrier, "Nocarrier");
}

TEST(HelperQueries, AddressesLeaveOutLoopbackWhereTheyShould) {
  auto& helper = OVDeviceInfoManagerHelper::sharedManager();
  auto addresses = helper.getIPAddresses();
  ASSERT_TRUE(addresses.count("lo/ipv4"));  // loopback is up wherever these tests run
  EXPECT_EQ(addresses["lo/ipv4"], "127.0.0.1");
  for (bool preferIPv4 : {true, false}) {
    std::string ip = helper.getIPAddress(preferIPv4);
    EXPECT_TRUE(ip != "127.0.0.1" && ip != "::1" && !ip.empty()) << ip;
  }
  EXPECT_EQ(platform::firstIPv4Address().rfind("127.", 0), std::string::npos);
  EXPECT_LE(helper.getAvailableMemory(), helper.getTotalMemorySize());
}

TEST(HelperQueries, MacAddressAndBatteryFromASysfsTree) {
  testing::TempEnvironment env;
  auto net = env.root() / "net";
  auto write = [](const std::filesystem::path& file, const std::string& text) {
    std::filesystem::create_directories(file.parent_path());
    std::ofstream(file) << text << "\n";
  };
  write(net / "lo" / "address", "00:00:00:00:00:00");
  write(net / "lo" / "flags", "0x9");
  write(net / "a0" / "address", "00:00:00:00:00:00");      // zero: skipped
  write(net / "b0" / "address", "00:11:22:33:44:55:66:77");  // not six octets
  write(net / "c0" / "address", "0a:1b:2c:3d:4e:5f");
  write(net / "c0" / "flags", "0x1003");
  write(net / "d0" / "address", "aa:bb:cc:dd:ee:ff");
  EXPECT_EQ(platform::macAddress(net), "0A:1B:2C:3D:4E:5F");
  EXPECT_EQ(platform::macAddress(env.root() / "missing"), "");

  EXPECT_FALSE(platform::wirelessInterfaceUp(net));
  write(net / "d0" / "wireless" / "x", "");
  write(net / "d0" / "operstate", "up");
  EXPECT_TRUE(platform::wirelessInterfaceUp(net));

  auto power = env.root() / "power";
  EXPECT_EQ(platform::batteryLevelFromSysfs(power), -1);
  write(power / "AC" / "online", "1");
  write(power / "BAT0" / "capacity", "oops");
  EXPECT_EQ(platform::batteryLevelFromSysfs(power), -1);
  write(power / "BAT1" / "capacity", "87");
  EXPECT_DOUBLE_EQ(platform::batteryLevelFromSysfs(power), 0.87);
}

}  // namespace
}  // namespace velquin
