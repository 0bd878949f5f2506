// The random vendor identifier kept across launches when the machine id
// cannot be read.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>

#include "platform/SystemInfo.h"
#include "support/TempEnvironment.h"

namespace velquin {
namespace {

std::string contents(const std::filesystem::path& file) {
  std::ifstream in(file);
  std::string line;
  std::getline(in, line);
  return line;
}

TEST(PersistentRandomIdentifier, KeptAcrossCallsPrivateAndNeverThroughASymlink) {
  testing::TempEnvironment env;
  auto file = env.root() / "data" / "com.example" / "vendor-id";
  std::string first = platform::persistentRandomIdentifier(file);
  ASSERT_EQ(first.size(), 36u);
  EXPECT_EQ(first.find_first_of("abcdef"), std::string::npos);  // upper case
  EXPECT_EQ(platform::persistentRandomIdentifier(file), first);
  struct stat info{};
  ASSERT_EQ(stat(file.c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 0777, 0600u);
  // No temporary file left behind.
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(file.parent_path()), {}), 1);

  // A damaged file is replaced with a fresh id, which is then kept.
  std::ofstream(file, std::ios::trunc) << "not an id";
  std::string fresh = platform::persistentRandomIdentifier(file);
  ASSERT_EQ(fresh.size(), 36u);
  EXPECT_NE(fresh, first);
  EXPECT_EQ(platform::persistentRandomIdentifier(file), fresh);

  // A symlink in its place is neither followed nor replaced.
  auto elsewhere = env.root() / "elsewhere";
  std::ofstream(elsewhere) << "kept";
  auto linked = env.root() / "data" / "linked-id";
  std::filesystem::create_symlink(elsewhere, linked);
  EXPECT_EQ(platform::persistentRandomIdentifier(linked), "");
  EXPECT_EQ(contents(elsewhere), "kept");
  EXPECT_TRUE(std::filesystem::is_symlink(linked));
}

}  // namespace
}  // namespace velquin
