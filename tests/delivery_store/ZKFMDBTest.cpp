#include "delivery/ZKFMDB.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <SQLiteCpp/SQLiteCpp.h>
#include <fstream>
#include <thread>

#include "delivery_store/TestModels.h"
#include "support/TempEnvironment.h"
#include "velquin/Bundle.h"

namespace velquin {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using testing::Note;

std::vector<std::string> filesIn(const std::filesystem::path& folder) {
  std::vector<std::string> names;
  for (const auto& entry : std::filesystem::directory_iterator(folder)) {
    names.push_back(entry.path().filename().string());
  }
  std::sort(names.begin(), names.end());
  return names;
}

class ZKFMDBTest : public ::testing::Test {
 protected:
  void SetUp() override {
    env_.installAsMainBundle();
    std::filesystem::create_directories(folder());
    db_ = ZKFMDB::initWithDBName("test.sqlite", folder());
    ASSERT_NE(db_, nullptr);
  }
  std::filesystem::path folder() const { return env_.root() / "db"; }
  static const Note& noteAt(const std::vector<ZKRecord>& records, std::size_t i) {
    auto* note = dynamic_cast<const Note*>(std::get<std::shared_ptr<ZKModelObject>>(records.at(i)).get());
    if (!note) throw std::runtime_error("not a Note");
    return *note;
  }

  velquin::testing::TempEnvironment env_;
  std::unique_ptr<ZKFMDB> db_;
};

TEST(ZKModelMapping, TypeEncodingsMapToColumnWords) {
  EXPECT_EQ(ZKFMDB::propertTypeConvert("T@\"NSString\",C,N"), "TEXT");
  EXPECT_EQ(ZKFMDB::propertTypeConvert("T@\"NSData\""), "BLOB");
  for (const char* integer : {"Ti", "TI", "Ts", "TS", "T@\"NSNumber\"", "TB", "Tq,N", "TQ"}) {
    EXPECT_EQ(ZKFMDB::propertTypeConvert(integer), "INTEGER") << integer;
  }
  EXPECT_EQ(ZKFMDB::propertTypeConvert("Tf"), "REAL");
  EXPECT_EQ(ZKFMDB::propertTypeConvert("Td"), "REAL");
  for (const char* none : {"T@\"NSDictionary\"", "T@\"NSArray\"", "Tc", "T@\"NSDate\"", ""}) {
    EXPECT_EQ(ZKFMDB::propertTypeConvert(none), std::nullopt) << none;
  }
}

TEST(ZKModelMapping, ModelColumnsAndCreateTexts) {
  ZKColumns columns = ZKFMDB::modelToDictionary(Note::zk_model(), {"ratio"});
  std::vector<std::pair<std::string, std::string>> entries(columns.begin(), columns.end());
  EXPECT_THAT(entries, ElementsAre(std::pair<std::string, std::string>{"title", "TEXT"},
                                   std::pair<std::string, std::string>{"body", "BLOB"},
                                   std::pair<std::string, std::string>{"count", "INTEGER"},
                                   std::pair<std::string, std::string>{"score", "INTEGER"}));

  velquin::testing::TempEnvironment env;
  auto db = ZKFMDB::initWithDBName("m.sqlite", env.root());
  ASSERT_NE(db, nullptr);
  EXPECT_EQ(db->createTable("t", ZKColumns{{"a", "TEXT"}, {"b", "REAL"}}, {}),
            "CREATE TABLE t (pkid  INTEGER PRIMARY KEY, a TEXT, b REAL)");
  EXPECT_EQ(db->createTable("t", Note::zk_model(), {"body", "score", "ratio"}),
            "CREATE TABLE t (pkid INTEGER PRIMARY KEY, title TEXT, count INTEGER)");
  // A skipped last entry leaves the statement unclosed, so it fails.
  EXPECT_EQ(db->createTable("t", ZKColumns{{"a", "TEXT"}, {"pkid", "INTEGER"}}, {}),
            "CREATE TABLE t (pkid  INTEGER PRIMARY KEY, a TEXT,");
  EXPECT_FALSE(db->zk_createTable("t", ZKColumns{{"a", "TEXT"}, {"b", "TEXT"}}, {"b"}));
}

TEST_F(ZKFMDBTest, ModelRoundTripKeepsMappedPropertiesOnly) {
  ASSERT_TRUE(db_->zk_createTable("notes", Note::zk_model()));
  EXPECT_THAT(db_->zk_columnNameArray("notes"),
              ElementsAre("pkid", "title", "body", "count", "score", "ratio"));

  Note note;
  note.title = "first";
  note.body = ZKBlob{0, 1, 0xff};
  note.count = 1LL << 40;
  note.score = 2.5;
  note.ratio = 0.25;
  note.tags = {{"k", 1}};
  ASSERT_TRUE(db_->zk_insertTable("notes", note));
  Note untitled;
  ASSERT_TRUE(db_->zk_insertTable("notes", untitled));

  auto rows = db_->zk_lookupTable("notes", ZKShape::of<Note>());
  ASSERT_EQ(rows.size(), 2u);
  const Note& restored = noteAt(rows, 0);
  EXPECT_EQ(restored.title, "first");
  EXPECT_EQ(restored.body, (ZKBlob{0, 1, 0xff}));
  EXPECT_EQ(restored.count, 1LL << 40);
  EXPECT_EQ(restored.score, 2.0);  // a number object keeps no fraction
  EXPECT_EQ(restored.ratio, 0.25);
  EXPECT_TRUE(restored.tags.is_null());
  EXPECT_EQ(noteAt(rows, 1).title, std::nullopt);
  EXPECT_EQ(noteAt(rows, 1).score, 0.0);

  // The same model named by its registered name or by an instance.
  EXPECT_EQ(db_->zk_lookupTable("notes", ZKShape::named("Note")).size(), 2u);
  EXPECT_EQ(db_->zk_lookupTable("notes", ZKShape(note), "where count > %@", {std::int64_t{0}}).size(),
            1u);
  EXPECT_TRUE(db_->zk_lookupTable("notes", ZKShape::named("NoSuchModel")).empty());
  EXPECT_FALSE(db_->zk_createTable("other", ZKShape::named("NoSuchModel")));
}

TEST_F(ZKFMDBTest, DictionaryRowsKeepOnlyTableColumns) {
  ASSERT_TRUE(db_->zk_createTable("t", ZKColumns{{"name", "TEXT"}, {"n", "INTEGER"}, {"x", "REAL"}, {"b", "BLOB"}}));
  EXPECT_TRUE(db_->zk_insertTable("t", ZKRow{{"name", std::string("a")}, {"n", std::int64_t{7}},
                                             {"pkid", std::int64_t{99}}, {"unknown", 1.5}}));
  EXPECT_FALSE(db_->zk_insertTable("t", ZKRow{{"unknown", std::int64_t{1}}}));
  EXPECT_EQ(db_->lastInsertPrimaryKeyId("t"), 1);  // pkid from the row was ignored

  auto rows = db_->zk_lookupTableWrapper(
      "t", ZKColumns{{"name", "TEXT"}, {"n", "INTEGER"}, {"x", "REAL"}, {"b", "BLOB"}, {"n2", "DATE"}},
      std::nullopt);
  ASSERT_EQ(rows.size(), 1u);
  const auto& row = std::get<ZKRow>(rows[0]);
  EXPECT_EQ(row.at("name"), ZKValue(std::string("a")));
  EXPECT_EQ(row.at("n"), ZKValue(std::int64_t{7}));
  EXPECT_EQ(row.at("x"), ZKValue(0.0));  // NULL numbers read as 0
  EXPECT_EQ(row.count("b"), 0u);         // NULL bytes are left out
  EXPECT_EQ(row.count("n2"), 0u);
}

TEST_F(ZKFMDBTest, InsertArrayReportsFailedIndexes) {
  ASSERT_TRUE(db_->zk_createTable("t", ZKColumns{{"v", "INTEGER"}}));
  std::vector<ZKRecord> records;
  records.emplace_back(ZKRow{{"nope", std::int64_t{0}}});
  records.emplace_back(ZKRow{{"v", std::int64_t{1}}});
  records.emplace_back(std::shared_ptr<ZKModelObject>());
  records.emplace_back(ZKRow{{"v", std::int64_t{3}}});
  EXPECT_THAT(db_->zk_insertTable("t", records), ElementsAre(0u, 2u));
  EXPECT_EQ(db_->zk_tableItemCount("t"), 2);
}

TEST_F(ZKFMDBTest, WhereFormatsDeleteAndUpdate) {
  ASSERT_TRUE(db_->zk_createTable("user", ZKColumns{{"requestId", "TEXT"}, {"n", "INTEGER"}}));
  for (const char* id : {"42", "042", "420", "42.5", "abc"}) {
    ASSERT_TRUE(db_->zk_insertTable("user", ZKRow{{"requestId", std::string(id)}}));
  }
  auto ids = [&] {
    std::vector<std::string> out;
    for (auto& r : db_->zk_lookupTable("user", ZKColumns{{"requestId", "TEXT"}})) {
      out.push_back(std::get<std::string>(std::get<ZKRow>(r).at("requestId")));
    }
    return out;
  };
  EXPECT_TRUE(db_->zk_deleteTable("user", "WHERE requestId = %@", std::optional<std::string>("42")));
  EXPECT_THAT(ids(), ElementsAre("042", "420", "42.5", "abc"));
  EXPECT_TRUE(db_->zk_deleteTable("user", "where requestId=%@", std::optional<std::string>("42.5")));
  EXPECT_FALSE(db_->zk_deleteTable("user", "WHERE requestId = %@", std::optional<std::string>("abc")));
  // No id pastes "(null)", which matches no row.
  EXPECT_TRUE(db_->zk_deleteTable("user", "WHERE requestId = %@", std::optional<std::string>()));
  EXPECT_FALSE(db_->zk_deleteTable1("user", ""));
  EXPECT_THAT(ids(), ElementsAre("042", "420", "abc"));
  EXPECT_TRUE(db_->zk_deleteTable1("user", "WHERE requestId = '%@' or requestId like '4%%'",
                                   {std::string("abc")}));
  EXPECT_THAT(ids(), ElementsAre("042"));

  EXPECT_TRUE(db_->zk_updateTable("user", ZKRow{{"n", std::int64_t{5}}, {"pkid", std::int64_t{0}}},
                                  "WHERE requestId = '%@'", {std::string("042")}));
  auto rows = db_->zk_lookupTable("user", ZKColumns{{"n", "INTEGER"}, {"pkid", "INTEGER"}});
  ASSERT_EQ(rows.size(), 1u);
  EXPECT_EQ(std::get<ZKRow>(rows[0]).at("n"), ZKValue(std::int64_t{5}));
  EXPECT_EQ(std::get<ZKRow>(rows[0]).at("pkid"), ZKValue(std::int64_t{2}));
  EXPECT_EQ(ZKFMDB::formatWhere("a %@ b %@ c %@ %%", {std::int64_t{1}, ZKValue()}), "a 1 b (null) c %@ %");
}

TEST_F(ZKFMDBTest, TableOperations) {
  EXPECT_FALSE(db_->zk_isExistTable("t"));
  EXPECT_EQ(db_->zk_tableItemCount("t"), 0);
  EXPECT_TRUE(db_->zk_columnNameArray("t").empty());
  ASSERT_TRUE(db_->zk_createTable("t", ZKColumns{{"v", "INTEGER"}}));
  EXPECT_FALSE(db_->zk_createTable("t", ZKColumns{{"v", "INTEGER"}}));
  EXPECT_TRUE(db_->zk_isExistTable("t"));
  EXPECT_EQ(db_->lastInsertPrimaryKeyId("t"), 0);
  for (int i = 0; i < 3; ++i) db_->zk_insertTable("t", ZKRow{{"v", std::int64_t{i}}});
  EXPECT_EQ(db_->zk_tableItemCount("t"), 3);
  EXPECT_EQ(db_->lastInsertPrimaryKeyId("t"), 3);
  EXPECT_TRUE(db_->zk_deleteAllDataFromTable("t"));
  EXPECT_EQ(db_->zk_tableItemCount("t"), 0);
  EXPECT_TRUE(db_->zk_deleteTable("t"));
  EXPECT_FALSE(db_->zk_isExistTable("t"));
}

TEST_F(ZKFMDBTest, AlterTableByModelAndByDictionary) {
  ASSERT_TRUE(db_->zk_createTable("notes", ZKColumns{{"title", "TEXT"}, {"count", "INTEGER"}}));
  EXPECT_TRUE(db_->zk_alterTable("notes", Note::zk_model(), {"ratio"}));
  EXPECT_THAT(db_->zk_columnNameArray("notes"), ElementsAre("pkid", "title", "count", "body", "score"));
  EXPECT_FALSE(db_->zk_alterTable("notes", Note::zk_model(), {"ratio"}));  // nothing to add

  // Dictionaries do not skip existing columns: the whole change is undone.
  EXPECT_FALSE(db_->zk_alterTable("notes", ZKColumns{{"extra", "TEXT"}, {"title", "TEXT"}}));
  EXPECT_THAT(db_->zk_columnNameArray("notes"), ElementsAre("pkid", "title", "count", "body", "score"));
  EXPECT_TRUE(db_->zk_alterTable("notes", ZKColumns{{"extra", "TEXT"}, {"title", "TEXT"}}, {"title"}));
  EXPECT_EQ(db_->zk_columnNameArray("notes").back(), "extra");

  // Inserts see the new column at once.
  ASSERT_TRUE(db_->zk_insertTable("notes", ZKRow{{"extra", std::string("e")}}));
  EXPECT_EQ(db_->zk_lookupTable("notes", ZKColumns{{"extra", "TEXT"}}, "where extra = 'e'").size(), 1u);
}

TEST_F(ZKFMDBTest, TransactionsCommitUnlessRolledBack) {
  ASSERT_TRUE(db_->zk_createTable("t", ZKColumns{{"v", "INTEGER"}}));
  db_->zk_inTransaction([&](bool&) { db_->zk_insertTable("t", ZKRow{{"v", std::int64_t{1}}}); });
  db_->zk_inTransaction([&](bool& rollback) {
    db_->zk_insertTable("t", ZKRow{{"v", std::int64_t{2}}});
    rollback = true;
  });
  db_->zk_inTransaction([&](bool&) {
    db_->zk_insertTable("t", ZKRow{{"v", std::int64_t{3}}});
    throw std::runtime_error("block failed");
  });
  EXPECT_EQ(db_->zk_tableItemCount("t"), 1);
}

TEST_F(ZKFMDBTest, ConcurrentQueuedWorkIsSerialised) {
  ASSERT_TRUE(db_->zk_createTable("t", ZKColumns{{"thread", "INTEGER"}, {"seen", "INTEGER"}}));
  constexpr int kThreads = 4;
  constexpr int kRounds = 50;
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < kRounds; ++i) {
        db_->zk_inDatabase([&] {
          // Count and insert form one unit: no other block may interleave.
          std::int64_t before = db_->zk_tableItemCount("t");
          db_->zk_insertTable("t", ZKRow{{"thread", std::int64_t{t}}, {"seen", before}});
        });
      }
    });
  }
  for (auto& thread : threads) thread.join();
  auto rows = db_->zk_lookupTable("t", ZKColumns{{"seen", "INTEGER"}});
  ASSERT_EQ(rows.size(), static_cast<std::size_t>(kThreads * kRounds));
  for (std::size_t i = 0; i < rows.size(); ++i) {
    EXPECT_EQ(std::get<ZKRow>(rows[i]).at("seen"), ZKValue(static_cast<std::int64_t>(i)));
  }
}

TEST_F(ZKFMDBTest, SharedInstanceLivesInTheDataFolderInWalMode) {
  ZKFMDB* shared = ZKFMDB::shareDatabase();
  ASSERT_NE(shared, nullptr);
  EXPECT_EQ(shared->dbPath(), Bundle::main().dataDirectory() / "ZKFMDB.sqlite");
  EXPECT_EQ(ZKFMDB::shareDatabase("other.sqlite", folder()), shared);
  shared->close();
  EXPECT_EQ(ZKFMDB::shareDatabase(), shared);  // opened again
  EXPECT_TRUE(shared->zk_createTable("t", ZKColumns{{"v", "INTEGER"}}));

  SQLite::Database raw(shared->dbPath().string());
  EXPECT_EQ(raw.execAndGet("PRAGMA journal_mode").getString(), "wal");
}

TEST_F(ZKFMDBTest, TheLogIsCheckpointedAndStartsOverWithoutWritersWaiting) {
  // Commits never checkpoint themselves; the checkpoint thread must still
  // keep the log from growing without end.
  ASSERT_TRUE(db_->zk_createTable("t", ZKColumns{{"v", "TEXT"}}));
  for (int i = 0; i < 1500; ++i) {
    ASSERT_TRUE(db_->zk_insertTable("t", ZKRow{{"v", std::string(200, 'x')}}));
  }
  // Each checkpoint copies what was committed when it began; the log
  // starts over at the first commit after one has copied it all. Where it
  // last started over depends on how the checkpoint thread kept pace, but
  // once no checkpoint is pending and a commit has followed, the log holds
  // fewer frames than the mark that schedules one (1000); without the
  // checkpoint thread it would hold at least one frame per insert (1502).
  for (int i = 0; i < 2; ++i) {
    db_->drainCheckpoints();
    ASSERT_TRUE(db_->zk_insertTable("t", ZKRow{{"v", std::string(200, 'y')}}));
  }
  SQLite::Database raw(db_->dbPath().string(), SQLite::OPEN_READWRITE);
  SQLite::Statement checkpoint(raw, "PRAGMA wal_checkpoint");
  ASSERT_TRUE(checkpoint.executeStep());
  EXPECT_LT(checkpoint.getColumn(1).getInt64(), 1000);  // frames in the log
  EXPECT_EQ(db_->zk_tableItemCount("t"), 1502);
}

TEST_F(ZKFMDBTest, CorruptFilesAreMovedAsideAndReplaced) {
  const auto garbage = folder() / "garbage.sqlite";
  std::ofstream(garbage) << std::string(8192, 'x');
  {
    ::testing::internal::CaptureStderr();
    auto db = ZKFMDB::initWithDBName("garbage.sqlite", folder());
    std::string log = ::testing::internal::GetCapturedStderr();
    ASSERT_NE(db, nullptr);
    EXPECT_THAT(log, HasSubstr("is corrupt"));
    EXPECT_TRUE(db->zk_createTable("t", ZKColumns{{"v", "INTEGER"}}));
    EXPECT_TRUE(db->zk_insertTable("t", ZKRow{{"v", std::int64_t{1}}}));
  }

  // A database cut short in the middle of its pages.
  const auto truncated = folder() / "cut.sqlite";
  {
    auto db = ZKFMDB::initWithDBName("cut.sqlite", folder());
    ASSERT_TRUE(db->zk_createTable("t", ZKColumns{{"v", "TEXT"}}));
    db->zk_inTransaction([&](bool&) {
      for (int i = 0; i < 2000; ++i) db->zk_insertTable("t", ZKRow{{"v", std::string(200, 'a')}});
    });
    SQLite::Database raw(truncated.string(), SQLite::OPEN_READWRITE);
    raw.exec("PRAGMA wal_checkpoint(TRUNCATE)");
  }
  const auto size = std::filesystem::file_size(truncated);
  std::filesystem::resize_file(truncated, size / 2);
  {
    // SQLite cannot read the schema of a file cut short: nothing is
    // carried over, and the fresh file takes new tables.
    auto db = ZKFMDB::initWithDBName("cut.sqlite", folder());
    ASSERT_NE(db, nullptr);
    EXPECT_FALSE(db->zk_isExistTable("t"));
    EXPECT_TRUE(db->zk_createTable("t", ZKColumns{{"v", "TEXT"}}));
  }

  auto files = filesIn(folder());
  auto asideCount = std::count_if(files.begin(), files.end(), [](const std::string& name) {
    return name.find(".sqlite.corrupt-") != std::string::npos &&
           name.find("-wal") == std::string::npos && name.find("-shm") == std::string::npos;
  });
  EXPECT_EQ(asideCount, 2) << ::testing::PrintToString(files);
  for (const auto& name : files) {
    if (name.starts_with("garbage.sqlite.corrupt-") && !name.ends_with("-wal") &&
        !name.ends_with("-shm")) {
      EXPECT_EQ(std::filesystem::file_size(folder() / name), 8192u);  // kept as it was
    }
  }
}

TEST_F(ZKFMDBTest, ReadableRowsOfAFileWithOneBadPageAreCarriedOver) {
  const auto path = folder() / "damaged.sqlite";
  {
    auto db = ZKFMDB::initWithDBName("damaged.sqlite", folder());
    ASSERT_TRUE(db->zk_createTable("t", ZKColumns{{"n", "INTEGER"}, {"v", "TEXT"}}));
    db->zk_inTransaction([&](bool&) {
      for (std::int64_t i = 0; i < 400; ++i) {
        db->zk_insertTable("t", ZKRow{{"n", i}, {"v", std::string(400, 'a')}});
      }
    });
  }  // the last connection closes: the WAL is folded into the file
  const auto pages = std::filesystem::file_size(path) / 4096;
  ASSERT_GT(pages, 20u);
  {
    // Garbage over one leaf page in the middle of the table.
    std::fstream file(path, std::ios::in | std::ios::out | std::ios::binary);
    file.seekp(static_cast<std::streamoff>(pages / 2 * 4096));
    const std::string garbage(4096, '\x5a');
    file.write(garbage.data(), static_cast<std::streamsize>(garbage.size()));
  }
  ::testing::internal::CaptureStderr();
  auto db = ZKFMDB::initWithDBName("damaged.sqlite", folder());
  std::string log = ::testing::internal::GetCapturedStderr();
  ASSERT_NE(db, nullptr);
  EXPECT_THAT(log, HasSubstr("is corrupt"));
  EXPECT_THAT(log, HasSubstr("readable row(s)"));
  const auto carried = db->zk_tableItemCount("t");
  EXPECT_GE(carried, 380);  // a 4 KB page holds about nine of these rows
  EXPECT_LT(carried, 400);
  EXPECT_EQ(std::filesystem::status(path).permissions() &
                (std::filesystem::perms::group_all | std::filesystem::perms::others_all),
            std::filesystem::perms::none);
}

TEST_F(ZKFMDBTest, UnusableDataFolderGivesNoStoreAndALogLine) {
  // The data folder's parent is a plain file: nothing can be created there.
  std::ofstream(env_.root() / "blocked") << "file";
  setenv("XDG_DATA_HOME", (env_.root() / "blocked").c_str(), 1);
  ::testing::internal::CaptureStderr();
  EXPECT_EQ(ZKFMDB::shareDatabase(), nullptr);
  std::string log = ::testing::internal::GetCapturedStderr();
  EXPECT_THAT(log, HasSubstr("can not create the data folder"));
  EXPECT_THAT(log, HasSubstr("database can not open !"));
}

TEST_F(ZKFMDBTest, ReadOnlyFolderGivesNoStore) {
  if (geteuid() == 0) GTEST_SKIP() << "permissions do not bind root";
  const auto readOnly = env_.root() / "readonly";
  std::filesystem::create_directories(readOnly);
  std::filesystem::permissions(readOnly, std::filesystem::perms::owner_read |
                                             std::filesystem::perms::owner_exec);
  EXPECT_EQ(ZKFMDB::initWithDBName("x.sqlite", readOnly), nullptr);
}

}  // namespace
}  // namespace velquin
