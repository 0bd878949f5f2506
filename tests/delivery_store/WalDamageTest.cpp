// A write-ahead log left behind by a process that ended without closing the
// database: its rows live only in the log. The log is taken as the writer
// left it (files copied while the writer still has them open), then
// damaged in the ways disks and crashes damage it, and opened through the
// table store.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <SQLiteCpp/SQLiteCpp.h>
#include <fstream>

#include "delivery/WalSurvey.h"
#include "delivery/ZKFMDB.h"
#include "support/TempEnvironment.h"

namespace velquin {
namespace {

using ::testing::HasSubstr;
using ::testing::Not;

constexpr std::size_t kPageSize = 4096;
constexpr std::size_t kFrameSize = 24 + kPageSize;

class WalDamage : public ::testing::Test {
 protected:
  void SetUp() override { std::filesystem::create_directories(folder()); }

  std::filesystem::path folder() const { return env_.root() / "db"; }
  std::filesystem::path database() const { return folder() / "cache.sqlite"; }
  std::filesystem::path wal() const { return folder() / "cache.sqlite-wal"; }

  // `rows` rows of about 1 kB, one transaction each, with no checkpoint;
  // after `restartAfter` rows (when given) the log is checkpointed and
  // starts over, so the rest overwrite its first frames. The database and
  // its log are copied to database() while the writer still has them open.
  void writeLeftBehind(int rows, int restartAfter = -1) {
    const auto source = folder() / "writer.sqlite";
    SQLite::Database writer(source.string(), SQLite::OPEN_READWRITE | SQLite::OPEN_CREATE);
    writer.exec("PRAGMA journal_mode=WAL");
    writer.exec("PRAGMA wal_autocheckpoint=0");
    writer.exec("CREATE TABLE t (pkid INTEGER PRIMARY KEY, v TEXT)");
    SQLite::Statement insert(writer, "INSERT INTO t (v) VALUES (?)");
    for (int i = 0; i < rows; ++i) {
      if (i == restartAfter) writer.exec("PRAGMA wal_checkpoint(RESTART)");
      insert.bind(1, std::string(1000, static_cast<char>('a' + i % 26)));
      insert.exec();
      insert.reset();
    }
    std::filesystem::copy_file(source, database());
    std::filesystem::copy_file(source.string() + "-wal", wal());
  }

  std::size_t framesInLog() const { return (std::filesystem::file_size(wal()) - 32) / kFrameSize; }

  void flipByteAt(std::size_t offset) const {
    std::fstream file(wal(), std::ios::in | std::ios::out | std::ios::binary);
    file.seekg(static_cast<std::streamoff>(offset));
    char byte = 0;
    file.read(&byte, 1);
    byte = static_cast<char>(byte ^ 0x5a);
    file.seekp(static_cast<std::streamoff>(offset));
    file.write(&byte, 1);
  }
  // An offset inside the page that frame `frame` (1-based) carries.
  static std::size_t insidePageOf(std::size_t frame) {
    return 32 + (frame - 1) * kFrameSize + 24 + 100;
  }

  // Opens the copy through the table store; its warnings, and the rows.
  std::int64_t openAndCount(std::string& log) {
    ::testing::internal::CaptureStderr();
    auto db = ZKFMDB::initWithDBName("cache.sqlite", folder());
    log = ::testing::internal::GetCapturedStderr();
    if (!db) return -1;
    return db->zk_tableItemCount("t");
  }

  std::vector<std::filesystem::path> damagedCopies() const {
    std::vector<std::filesystem::path> copies;
    for (const auto& entry : std::filesystem::directory_iterator(folder())) {
      if (entry.path().filename().string().starts_with("cache.sqlite.wal-damaged-")) {
        copies.push_back(entry.path());
      }
    }
    return copies;
  }

  velquin::testing::TempEnvironment env_;
};

TEST_F(WalDamage, ADamagedFrameIsReportedAndTheLogKeptBeforeRecovery) {
  writeLeftBehind(40);
  const std::size_t frames = framesInLog();
  ASSERT_GT(frames, 30u);
  flipByteAt(insidePageOf(frames / 2));
  const auto originalSize = std::filesystem::file_size(wal());
  std::vector<char> original(originalSize);
  std::ifstream(wal(), std::ios::binary)
      .read(original.data(), static_cast<std::streamsize>(originalSize));

  const WalSurvey survey = surveyWal(wal());
  EXPECT_TRUE(survey.damaged());
  EXPECT_LT(survey.recoverable, frames / 2);
  EXPECT_EQ(survey.saltFrames.size(), frames);

  std::string log;
  const std::int64_t rows = openAndCount(log);
  // The rows before the damaged frame are there, the rest are gone.
  EXPECT_GT(rows, 5);
  EXPECT_LT(rows, 40);
  const auto copies = damagedCopies();
  ASSERT_EQ(copies.size(), 1u);
  // One warning naming the copy and what was lost.
  EXPECT_THAT(log, HasSubstr("write-ahead log of " + database().string() + " is damaged"));
  EXPECT_THAT(log, HasSubstr("kept as " + copies[0].string()));
  EXPECT_THAT(log, HasSubstr(std::to_string(frames - survey.recoverable) +
                             " frame(s) after frame " + std::to_string(survey.recoverable)));
  // The copy is the log as the crashed writer left it, byte for byte.
  std::vector<char> kept(std::filesystem::file_size(copies[0]));
  std::ifstream(copies[0], std::ios::binary)
      .read(kept.data(), static_cast<std::streamsize>(kept.size()));
  EXPECT_EQ(kept, original);

  // Opening again finds nothing more to report; the copy stays.
  EXPECT_EQ(openAndCount(log), rows);
  EXPECT_THAT(log, Not(HasSubstr("damaged")));
  EXPECT_EQ(damagedCopies().size(), 1u);
}

TEST_F(WalDamage, ADamagedLogHeaderLosesEveryFrameAndIsReported) {
  writeLeftBehind(10);
  const std::size_t frames = framesInLog();
  flipByteAt(26);  // inside the header's checksum: recovery ignores the whole log
  std::string log;
  EXPECT_LE(openAndCount(log), 0);
  EXPECT_THAT(log, HasSubstr(std::to_string(frames) + " frame(s) after frame 0"));
  EXPECT_EQ(damagedCopies().size(), 1u);
}

TEST_F(WalDamage, CleanAndReusedLogsOpenSilently) {
  // A log that started over after a checkpoint still holds frames of its
  // earlier round past its end: they carry another salt and are no loss.
  writeLeftBehind(40, 30);
  std::string log;
  EXPECT_EQ(openAndCount(log), 40);
  EXPECT_THAT(log, Not(HasSubstr("damaged")));
  EXPECT_TRUE(damagedCopies().empty());
}

TEST_F(WalDamage, ATransactionCutShortAtTheEndIsAnOrdinaryCrashNotDamage) {
  // The process died while appending its last transaction: only that
  // transaction is lost, and it never committed, so nobody was told it was
  // stored. Cut inside the last frame, or the last page written only in
  // part: either way nothing is reported.
  writeLeftBehind(40);
  std::filesystem::resize_file(wal(), std::filesystem::file_size(wal()) - 1000);
  std::string log;
  EXPECT_EQ(openAndCount(log), 39);
  EXPECT_THAT(log, Not(HasSubstr("damaged")));

  std::filesystem::remove(database());
  std::filesystem::remove(wal());
  std::filesystem::remove(folder() / "cache.sqlite-shm");
  std::filesystem::remove(folder() / "writer.sqlite");
  std::filesystem::remove(folder() / "writer.sqlite-wal");
  std::filesystem::remove(folder() / "writer.sqlite-shm");
  writeLeftBehind(40);
  flipByteAt(std::filesystem::file_size(wal()) - 10);
  EXPECT_EQ(openAndCount(log), 39);
  EXPECT_THAT(log, Not(HasSubstr("damaged")));
  EXPECT_TRUE(damagedCopies().empty());
}

TEST_F(WalDamage, ALogInUseByAnotherInstanceIsLeftAlone) {
  // While one instance has the file open, its log is live: another
  // instance opening the same file must not judge or copy it.
  writeLeftBehind(40);
  auto first = ZKFMDB::initWithDBName("cache.sqlite", folder());
  ASSERT_NE(first, nullptr);
  const auto frames = framesInLog();
  flipByteAt(insidePageOf(frames - 2));  // damage the live log behind the first's back
  std::string log;
  ::testing::internal::CaptureStderr();
  auto second = ZKFMDB::initWithDBName("cache.sqlite", folder());
  log = ::testing::internal::GetCapturedStderr();
  ASSERT_NE(second, nullptr);
  EXPECT_THAT(log, Not(HasSubstr("damaged")));
  EXPECT_TRUE(damagedCopies().empty());
}

}  // namespace
}  // namespace velquin
