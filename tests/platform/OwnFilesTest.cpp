// Only our own files: what the SDK reads must be a regular file of bounded
// size (a FIFO, a device or a huge file is an error, never a hang or a
// gigabyte), and what it writes is never reached through a symbolic link.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "delivery/ZKFMDB.h"
#include "platform/PropertyList.h"
#include "platform/SafeFile.h"
#include "platform/UserDefaults.h"
#include "store/StoreFiles.h"
#include "support/ChildProcess.h"
#include "support/TempEnvironment.h"
#include "velquin/Bundle.h"

namespace velquin::testing {
namespace {

namespace fs = std::filesystem;
using platform::PropertyList;

mode_t modeOf(const fs::path& file) {
  struct stat info {};
  EXPECT_EQ(::lstat(file.c_str(), &info), 0) << file;
  return info.st_mode & 07777;
}

std::string contentOf(const fs::path& file) {
  return platform::readRegularFile(file, 1 << 20).value_or("<unreadable>");
}

class OwnFiles : public ::testing::Test {
 protected:
  // A file outside our folders that a link in them points at.
  fs::path foreignFile() {
    auto file = env.root() / "someone-elses.txt";
    std::ofstream(file) << "not yours";
    fs::permissions(file, fs::perms::owner_read | fs::perms::owner_write |
                              fs::perms::group_read | fs::perms::others_read);
    return file;
  }
  TempEnvironment env;
};

TEST_F(OwnFiles, ReadsRefuseWhatIsNotABoundedRegularFile) {
  const auto fifo = env.root() / "Info.plist";
  ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
  const auto huge = env.root() / "huge.plist";
  std::ofstream(huge).put('<');
  fs::resize_file(huge, store::kMaxFileBytes + 1);

  for (const fs::path& file : {fifo, fs::path("/dev/zero"), huge, env.root()}) {
    SCOPED_TRACE(file.string());
    PropertyList::LoadError error{};
    EXPECT_FALSE(PropertyList::load(file, &error));  // returns: no wait for a writer
    EXPECT_EQ(error, PropertyList::LoadError::unreadable);
    std::string why;
    EXPECT_FALSE(store::readFile(file, &why));
    EXPECT_FALSE(why.empty());
  }
  std::string why;
  platform::ReadProblem problem{};
  EXPECT_FALSE(platform::readRegularFile(fifo, 100, &why, &problem));
  EXPECT_EQ(problem, platform::ReadProblem::notRegular);
  EXPECT_NE(why.find("is not a regular file"), std::string::npos) << why;
  EXPECT_FALSE(platform::readRegularFile(huge, PropertyList::kMaxFileBytes, &why, &problem));
  EXPECT_EQ(problem, platform::ReadProblem::tooLarge);

  // A regular file at the limit is read whole.
  const auto plist = env.root() / "ok.plist";
  PropertyList list;
  list.set("k", std::string("v"));
  ASSERT_TRUE(list.saveAtomically(plist));
  auto loaded = PropertyList::load(plist);
  ASSERT_TRUE(loaded);
  EXPECT_EQ(loaded->string("k"), "v");
}

TEST_F(OwnFiles, WritesNeverFollowALinkAndCreateOnlyPrivateFilesAndFolders) {
  const auto target = foreignFile();
  const auto folder = env.root() / "ours" / "deeper";
  ASSERT_TRUE(platform::makePrivateDirectories(folder));
  EXPECT_EQ(modeOf(env.root() / "ours"), 0700u);
  EXPECT_EQ(modeOf(folder), 0700u);

  // Defaults, keychain file, store files: a link in their place is refused.
  const auto link = folder / "defaults.plist";
  fs::create_symlink(target, link);
  PropertyList list;
  list.set("k", std::string("v"));
  std::string why;
  EXPECT_FALSE(list.saveAtomically(link, &why));
  EXPECT_NE(why.find("symbolic link"), std::string::npos) << why;
  EXPECT_FALSE(store::writeFileAtomically(link, "x", 0600, &why));
  EXPECT_TRUE(fs::is_symlink(link));
  EXPECT_EQ(contentOf(target), "not yours");
  EXPECT_EQ(modeOf(target), 0644u);

  // A written file is 0600, whatever the umask.
  const mode_t old = ::umask(0);
  ASSERT_TRUE(list.saveAtomically(folder / "keychain.plist"));
  ::umask(old);
  EXPECT_EQ(modeOf(folder / "keychain.plist"), 0600u);
}

TEST_F(OwnFiles, ASymlinkedDatabaseLeavesItsTargetUntouched) {
  const auto target = foreignFile();
  const auto folder = env.root() / "data";
  ASSERT_TRUE(platform::makePrivateDirectories(folder));
  fs::create_symlink(target, folder / ZKFMDB::kDefaultName);
  EXPECT_EQ(ZKFMDB::initWithDBName(std::nullopt, folder), nullptr);
  EXPECT_EQ(modeOf(target), 0644u);
  EXPECT_EQ(contentOf(target), "not yours");
  EXPECT_TRUE(fs::is_symlink(folder / ZKFMDB::kDefaultName));
}

TEST_F(OwnFiles, TheHostSaysWhatIsWrongWithAFifoInfoPlistAndKeepsItsTimeOut) {
  env.writeTokenFile({{"api_address", "127.0.0.1:1"}, {"access_token", "k"}, {"app_id", "a"}});
  fs::remove(env.bundleDir() / "Info.plist");
  ASSERT_EQ(::mkfifo((env.bundleDir() / "Info.plist").c_str(), 0600), 0);
  auto run = ChildProcess::run((binDir() / "velquin").string(),
                               {"--bundle", env.bundleDir().string(), "--timeout", "2", "user-id"},
                               std::chrono::seconds(60), true);
  ASSERT_TRUE(run.finished) << "the host hung on the FIFO";
  EXPECT_NE(run.output.find("Info.plist in " + env.bundleDir().string() + " cannot be read"),
            std::string::npos)
      << run.output;

  // A bundle folder that does not exist is said too.
  ::testing::internal::CaptureStderr();
  Bundle::setMainBundlePath(env.root() / "no-such-bundle");
  const std::string said = ::testing::internal::GetCapturedStderr();
  EXPECT_NE(said.find("does not exist"), std::string::npos) << said;
}

}  // namespace
}  // namespace velquin::testing
