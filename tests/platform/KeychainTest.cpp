// The keychain: the 0600 file, the Secret Service on a private session bus
// (gnome-keyring), a Secret Service that never answers, and the choice
// between them.
#include <gio/gio.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <chrono>
#include <fstream>

#include "PrivateSessionBus.h"
#include "platform/Keychain.h"
#include "platform/SecretKeychain.h"
#include "support/TempEnvironment.h"

namespace velquin {
namespace {

using platform::FileKeychain;
using platform::Keychain;
using platform::SecretKeychain;
using Clock = std::chrono::steady_clock;

TEST(FileKeychain, StoresOnlyForTheOwnerAndSurvivesACorruptFile) {
  testing::TempEnvironment env;
  auto file = env.root() / "data" / "com.example" / "keychain.plist";
  {
    FileKeychain keychain(file);
    EXPECT_FALSE(keychain.load("a").has_value());
    ASSERT_TRUE(keychain.save("a", "1"));
    ASSERT_TRUE(keychain.save("b", "2"));
  }
  struct stat info{};
  ASSERT_EQ(stat(file.c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 0777, 0600u);

  FileKeychain reopened(file);
  EXPECT_EQ(reopened.load("a"), "1");
  EXPECT_EQ(reopened.load("b"), "2");

  std::ofstream(file, std::ios::trunc) << "<plist><dict><key>a</key><strin";
  EXPECT_FALSE(reopened.load("a").has_value());
  ASSERT_TRUE(reopened.save("c", "3"));
  EXPECT_EQ(reopened.load("c"), "3");
  ASSERT_EQ(stat(file.c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 0777, 0600u);
}

TEST(KeychainChoice, WithoutASessionBusTheFileIsUsedAtOnce) {
  testing::TempEnvironment env;
  env.installAsMainBundle();
  unsetenv("DBUS_SESSION_BUS_ADDRESS");
  setenv("XDG_RUNTIME_DIR", env.root().c_str(), 1);  // holds no "bus" socket

  auto start = Clock::now();
  EXPECT_FALSE(SecretKeychain::serviceAvailable());
  Keychain& keychain = Keychain::standard();
  EXPECT_LT(Clock::now() - start, std::chrono::seconds(1));
  EXPECT_NE(dynamic_cast<FileKeychain*>(&keychain), nullptr);
  ASSERT_TRUE(keychain.save("k", "v"));
  EXPECT_TRUE(std::filesystem::exists(env.root() / "data" / env.bundleId() / "keychain.plist"));
}

TEST(KeychainChoice, ABusWithoutASecretServiceGivesTheFile) {
  testing::TempEnvironment env;
  env.installAsMainBundle();
  testing::PrivateSessionBus bus(env.root() / "bus");
  if (!bus.ok()) GTEST_SKIP() << "no private session bus: " << bus.error();
  EXPECT_FALSE(SecretKeychain::serviceAvailable());
  EXPECT_NE(dynamic_cast<FileKeychain*>(&Keychain::standard()), nullptr);
}

class SecretServiceTest : public ::testing::Test {
 protected:
  void SetUp() override {
    bus_ = std::make_unique<testing::PrivateSessionBus>(env_.root() / "bus");
    if (!bus_->ok()) GTEST_SKIP() << "no private session bus: " << bus_->error();
    if (!bus_->startKeyring()) GTEST_SKIP() << "no gnome-keyring: " << bus_->error();
  }

  testing::TempEnvironment env_;
  std::unique_ptr<testing::PrivateSessionBus> bus_;
};

// A keychain that only counts; shows whether the Secret Service took a value.
class CountingKeychain final : public Keychain {
 public:
  std::optional<std::string> load(const std::string&) override {
    ++loads;
    return std::nullopt;
  }
  bool save(const std::string&, const std::string&) override {
    ++saves;
    return true;
  }
  int loads = 0;
  int saves = 0;
};

TEST_F(SecretServiceTest, ValuesRoundTripThroughTheDefaultCollection) {
  env_.installAsMainBundle();
  EXPECT_TRUE(SecretKeychain::serviceAvailable());
  EXPECT_NE(dynamic_cast<SecretKeychain*>(&Keychain::standard()), nullptr);

  auto counting = std::make_unique<CountingKeychain>();
  auto* fallback = counting.get();
  SecretKeychain keychain(std::move(counting));
  ASSERT_TRUE(keychain.save("com.example.deviceID", "ABC-1"));
  EXPECT_EQ(fallback->saves, 0);
  EXPECT_EQ(keychain.load("com.example.deviceID"), "ABC-1");
  ASSERT_TRUE(keychain.save("com.example.deviceID", "ABC-2"));  // replaces
  EXPECT_EQ(keychain.load("com.example.deviceID"), "ABC-2");
  EXPECT_EQ(fallback->loads, 0);

  // Another object (as after a restart) reads what the service kept; an
  // unknown key is looked for in the fallback too.
  SecretKeychain again(nullptr);
  EXPECT_EQ(again.load("com.example.deviceID"), "ABC-2");
  EXPECT_FALSE(again.load("com.example.other").has_value());
  EXPECT_FALSE(keychain.load("com.example.other").has_value());
  EXPECT_EQ(fallback->loads, 1);
}

TEST(SecretServiceWithoutDefaultCollection, ValuesGoToTheFile) {
  testing::TempEnvironment env;
  testing::PrivateSessionBus bus(env.root() / "bus");
  if (!bus.ok()) GTEST_SKIP() << "no private session bus: " << bus.error();
  if (!bus.startKeyring("")) GTEST_SKIP() << "no gnome-keyring: " << bus.error();
  auto file = env.root() / "keychain.plist";
  SecretKeychain keychain(std::make_unique<FileKeychain>(file));
  ASSERT_TRUE(keychain.save("id", "kept"));
  EXPECT_EQ(keychain.load("id"), "kept");
  EXPECT_EQ(FileKeychain(file).load("id"), "kept");
}

// Owns org.freedesktop.secrets on the bus and drops every call to it.
TEST(SilentSecretService, CallsFallBackToTheFileWithinTheTimeOut) {
  testing::TempEnvironment env;
  testing::PrivateSessionBus bus(env.root() / "bus");
  if (!bus.ok()) GTEST_SKIP() << "no private session bus: " << bus.error();

  GError* error = nullptr;
  GDBusConnection* silent = g_dbus_connection_new_for_address_sync(
      bus.address().c_str(),
      static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                        G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
      nullptr, nullptr, &error);
  ASSERT_NE(silent, nullptr) << error->message;
  g_dbus_connection_add_filter(
      silent,
      [](GDBusConnection*, GDBusMessage* message, gboolean incoming, gpointer) -> GDBusMessage* {
        if (incoming && g_dbus_message_get_message_type(message) == G_DBUS_MESSAGE_TYPE_METHOD_CALL) {
          g_object_unref(message);
          return nullptr;
        }
        return message;
      },
      nullptr, nullptr);
  GVariant* reply = g_dbus_connection_call_sync(
      silent, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
      "RequestName", g_variant_new("(su)", "org.freedesktop.secrets", 0u), G_VARIANT_TYPE("(u)"),
      G_DBUS_CALL_FLAGS_NONE, 2000, nullptr, &error);
  ASSERT_NE(reply, nullptr) << error->message;
  g_variant_unref(reply);
  ASSERT_TRUE(SecretKeychain::serviceAvailable());

  auto file = env.root() / "keychain.plist";
  SecretKeychain keychain(std::make_unique<FileKeychain>(file), std::chrono::milliseconds(300));
  auto start = Clock::now();
  ASSERT_TRUE(keychain.save("id", "kept"));
  EXPECT_EQ(keychain.load("id"), "kept");
  EXPECT_LT(Clock::now() - start, std::chrono::seconds(4));
  EXPECT_EQ(FileKeychain(file).load("id"), "kept");

  g_dbus_connection_close_sync(silent, nullptr, nullptr);
  g_object_unref(silent);
}

}  // namespace
}  // namespace velquin
