// The SQLite state store as a file: reopening, files that are not a store, failing writes, a
// saver killed mid-save, and the tables as the sqlite3 shell sees them.
#include <gtest/gtest.h>
#include <signal.h>
#include <sqlite3.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <random>

#include "stores/store_test_support.h"
#include "support/raised_message.h"
#include "zelbase/exceptions.h"
#include "zelcapi/sqlite_db.h"

using zelcapi::db_item_job;
using zelcapi::sqlite_options;
using zelcapi::sqlite_state_db;
using zelcore::properties;
using zeltest::expect_saved;
using zeltest::job;
using zeltest::jobs;
using zeltest::raised_message;
using zeltest::save_jobs;

namespace {

// Runs SQL on the file through a connection of the test's own.
std::string sql_on(const std::string& path, const std::string& sql) {
  sqlite3* db = nullptr;
  sqlite3_open(path.c_str(), &db);
  std::string out;
  char* error = nullptr;
  sqlite3_exec(
      db, sql.c_str(),
      [](void* into, int columns, char** values, char**) {
        auto& text = *static_cast<std::string*>(into);
        for (int i = 0; i < columns; ++i) text += std::string(values[i] ? values[i] : "") + "|";
        text += "\n";
        return 0;
      },
      &out, &error);
  if (error) {
    out = std::string("error: ") + error;
    sqlite3_free(error);
  }
  sqlite3_close(db);
  return out;
}

template <class F>
std::string uspec_of(F f) {
  return raised_message<zelbase::es::uspec>(f);
}

class SqliteStateDbTest : public testing::Test {
 protected:
  zeltest::scratch_dir dir;
  std::string path = dir.file("mirror.db");
};

}  // namespace

TEST_F(SqliteStateDbTest, ReopenedFileHoldsTheLastSave) {
  const properties first = jobs(20, 1);
  {
    sqlite_state_db db(path);
    save_jobs(db, first, 41);
  }
  sqlite_state_db db(path);
  EXPECT_TRUE(db.has_saved_state());
  expect_saved(db, first, 41);
}

TEST_F(SqliteStateDbTest, SaveRewritesOnlyTheRowsOfChangedRecordsAsTheFileShows) {
  // A row written again gets a new rowid; rows left alone keep theirs.
  properties records = jobs(2000, 1);
  sqlite_state_db db(path);
  save_jobs(db, records, 1);
  const std::string highest = sql_on(path, "SELECT max(rowid) FROM jobs");
  for (int n = 0; n < 2000; n += 100)
    records.set_properties_value("j" + std::to_string(n), job("x", 7));
  save_jobs(db, records, 2);
  EXPECT_EQ(sql_on(path, "SELECT count(*) FROM jobs WHERE rowid > " +
                             highest.substr(0, highest.find('|'))),
            "20|\n");
  expect_saved(db, records, 2);
}

TEST_F(SqliteStateDbTest, OpenSaveIsRolledBackWhenTheStoreCloses) {
  const properties first = jobs(3, 1);
  {
    sqlite_state_db db(path);
    save_jobs(db, first, 1);
    db.begin_save();
    db.store_item(db_item_job, "late", job("late", 0));
  }
  sqlite_state_db db(path);
  expect_saved(db, first, 1);
}

TEST_F(SqliteStateDbTest, StoreClosedWhileASavesRowsAreBeingWrittenKeepsThePreviousSave) {
  const properties first = jobs(3, 1);
  {
    sqlite_state_db db(path);
    save_jobs(db, first, 1);
    db.begin_save();
    // Megabytes of rows: some are handed to the save's writing thread before the store closes.
    for (const auto& [id, record] : jobs(5000, 2, 1000))
      db.store_item(db_item_job, id, static_cast<const properties&>(*record));
  }
  sqlite_state_db db(path);
  expect_saved(db, first, 1);
}

TEST_F(SqliteStateDbTest, FileIsInWriteAheadLogModeWithTheSchemaVersion) {
  { sqlite_state_db db(path); }
  EXPECT_EQ(sql_on(path, "PRAGMA journal_mode"), "wal|\n");
  EXPECT_EQ(sql_on(path, "PRAGMA user_version"), "1|\n");
  EXPECT_EQ(sql_on(path, "SELECT name FROM sqlite_master WHERE type = 'table' ORDER BY name"),
            "clients|\njobs|\nnodes|\nslots|\nsources|\nsubmissions|\ntasks|\n"
            "workflow_results|\nworkflow_sequence|\nworkflows|\n");
}

TEST_F(SqliteStateDbTest, RecordsAreJsonThatSqliteReads) {
  {
    sqlite_state_db db(path);
    save_jobs(db, jobs(4, 2), 1);
    db.store_item(db_item_job, "odd", properties{{"name", zelcore::make_string("\xff\x01")}});
  }
  EXPECT_EQ(sql_on(path,
                   "SELECT id, json_extract(record, '$.name'), json_extract(record, '$.status'),"
                   " json_extract(record, '$.killed'), json_extract(record, '$.progress.done')"
                   " FROM jobs WHERE id IN ('j1', 'j3') ORDER BY id"),
            "j1|job 1|2|0|2|\nj3|job 3|2|0|2|\n");
  EXPECT_EQ(sql_on(path, "SELECT record FROM jobs WHERE id = 'odd'"),
            "{\"name\":{\"~x\":\"ff01\"}}|\n");
}

// Strings are scanned eight bytes at a time: a byte that must be escaped, or that starts a
// UTF-8 sequence or breaks one, is found wherever it stands in a word, in keys and values alike.
TEST_F(SqliteStateDbTest, EveryByteToEscapeIsFoundAtEveryPositionOfAString) {
  const std::string specials[] = {"\"",   "\\",       "\n",           std::string(1, '\0'), "\x1f",
                                  "\x7f", "\xc3\xa9", "\xe2\x82\xac", "\xf0\x9f\x99\x82",   "\xff",
                                  "\xc3"};
  properties records(false);
  int n = 0;
  for (const std::string& special : specials) {
    for (std::size_t at = 0; at <= 24; ++at) {
      std::string text(24, 'a');
      text.insert(at, special);
      records.set_properties_value("r" + std::to_string(n++),
                                   properties{{text, zelcore::make_string(text)}});
    }
  }
  {
    sqlite_state_db db(path);
    save_jobs(db, records, 1);
  }
  EXPECT_EQ(sql_on(path, "SELECT count(*) FROM jobs WHERE json_valid(record)"),
            std::to_string(n) + "|\n");
  // The quote at position 9 is escaped, every other byte written as it is.
  const std::string quoted = "aaaaaaaaa\\\"" + std::string(15, 'a');
  EXPECT_EQ(sql_on(path, "SELECT record FROM jobs WHERE id = 'r9'"),
            "{\"" + quoted + "\":\"" + quoted + "\"}|\n");
  sqlite_state_db db(path);
  expect_saved(db, records, 1);
}

TEST_F(SqliteStateDbTest, ShellAnswersAJsonExtractQueryOverJobs) {
  {
    sqlite_state_db db(path);
    properties records = jobs(5, 1);
    records.set_properties_value("j2", job("failed one", 5));
    save_jobs(db, records, 1);
  }
  const std::string command = "sqlite3 -readonly '" + path +
                              "' \"SELECT id, json_extract(record, '\\$.name') FROM jobs"
                              " WHERE json_extract(record, '\\$.status') = 5\" 2>&1";
  FILE* shell = popen(command.c_str(), "r");
  ASSERT_NE(shell, nullptr);
  std::string out;
  char buffer[256];
  while (std::fgets(buffer, sizeof buffer, shell)) out += buffer;
  EXPECT_EQ(pclose(shell), 0) << out;
  EXPECT_EQ(out, "j2|failed one\n");
}

TEST_F(SqliteStateDbTest, FileOfRandomBytesIsRefused) {
  std::mt19937 random(5);
  {
    std::ofstream file(path, std::ios::binary);
    for (int n = 0; n < 8192; ++n) file.put(static_cast<char>(random()));
  }
  EXPECT_EQ(uspec_of([&] { sqlite_state_db db(path); }),
            "SQLite store '" + path + "': file is not a database");
}

TEST_F(SqliteStateDbTest, DatabaseOfAnotherApplicationIsRefused) {
  sql_on(path, "CREATE TABLE accounts(id INTEGER PRIMARY KEY, owner TEXT)");
  EXPECT_EQ(uspec_of([&] { sqlite_state_db db(path); }),
            "SQLite store '" + path +
                "': not a zelcapi store: the file holds tables of another application");
  const std::string other = dir.file("other.db");
  sql_on(other, "PRAGMA application_id = 42");
  EXPECT_EQ(uspec_of([&] { sqlite_state_db db(other); }),
            "SQLite store '" + other +
                "': not a zelcapi store: the file belongs to another application "
                "(application_id 42)");
}

TEST_F(SqliteStateDbTest, NewerSchemaVersionIsRefused) {
  { sqlite_state_db db(path); }
  sql_on(path, "PRAGMA user_version = 2");
  EXPECT_EQ(uspec_of([&] { sqlite_state_db db(path); }),
            "SQLite store '" + path +
                "': schema version 2 is newer than version 1 that this library reads");
}

TEST_F(SqliteStateDbTest, OneWriterAtATimeWhileReadersComeAndGo) {
  auto writer = std::make_unique<sqlite_state_db>(path);
  writer->begin_save();
  writer->store_item(zelcapi::db_item_job, "j1", zelcore::properties(false));
  writer->store_workflow_sequence_number(1);

  // A second store loads, but its first write is refused; so is its lead.
  sqlite_state_db second(path);
  EXPECT_EQ(second.load_workflow_sequence_number(), 1u);
  const std::string refused =
      "SQLite store '" + path +
      "': another writer has it open (a second mirror?): one writes at a time";
  EXPECT_EQ(uspec_of([&] { second.begin_save(); }), refused);
  EXPECT_EQ(uspec_of([&] { second.clear(); }), refused);
  EXPECT_FALSE(second.try_lead());
  EXPECT_TRUE(writer->try_lead()) << "its holder leads";
  EXPECT_EQ(second.load_workflow_sequence_number(), 1u) << "the refused writes changed the file";

  // Closed, the writer leaves no lock file, and the other store may write.
  writer.reset();
  EXPECT_NE(::access((path + "-lock").c_str(), F_OK), 0);
  EXPECT_TRUE(second.try_lead());
  second.begin_save();
  second.store_workflow_sequence_number(2);
  EXPECT_EQ(sqlite_state_db(path).load_workflow_sequence_number(), 2u);
}

TEST_F(SqliteStateDbTest, LockFileLeftByAKilledWriterDoesNotHoldTheNextOne) {
  { sqlite_state_db db(path); }
  const pid_t child = ::fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    sqlite_state_db db(path);
    db.try_lead();
    ::kill(::getpid(), SIGKILL);
  }
  int status = 0;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  ASSERT_TRUE(WIFSIGNALED(status));
  EXPECT_EQ(::access((path + "-lock").c_str(), F_OK), 0) << "the killed writer left its lock file";
  sqlite_state_db next(path);
  EXPECT_TRUE(next.try_lead());
  EXPECT_FALSE(next.has_saved_state());
}

TEST_F(SqliteStateDbTest, FileThatCannotBeOpenedIsRefused) {
  const std::string missing = dir.file("no-such-dir/mirror.db");
  EXPECT_EQ(uspec_of([&] { sqlite_state_db db(missing); }),
            "SQLite store '" + missing + "': unable to open database file");
  sqlite_options read_only;
  read_only.read_only = true;
  EXPECT_EQ(uspec_of([&] { sqlite_state_db db(path, read_only); }),
            "SQLite store '" + path + "': unable to open database file");
}

TEST_F(SqliteStateDbTest, MalformedRecordIsAnErrorNamingTableAndId) {
  {
    sqlite_state_db db(path);
    save_jobs(db, jobs(2, 1), 1);
  }
  sql_on(path, "UPDATE jobs SET record = '{\"name\":' WHERE id = 'j1'");
  sqlite_state_db db(path);
  EXPECT_EQ(uspec_of([&] { db.load_items(db_item_job); }),
            "SQLite store '" + path +
                "': malformed record in table jobs, id 'j1': value expected at offset 8");
  properties out(false);
  EXPECT_TRUE(db.load_item(db_item_job, "j0", out));
}

TEST_F(SqliteStateDbTest, EveryKindOfMalformedRecordIsRefusedWithItsReason) {
  { sqlite_state_db db(path); }
  const std::pair<std::string, std::string> cases[] = {
      {"{\"a\":1.5}", "not an integer at offset 6"},
      {"{\"a\":null}", "null is not a value of a record at offset 5"},
      {"{\"a\":99999999999999999999}", "integer out of 64-bit range at offset 25"},
      {"{\"~z\":1}", "unknown escape form at offset 6"},
      {"{\"a\":1,\"~b\":2}", "a key beginning with '~' outside an escape form at offset 11"},
      {"{\"~x\":\"abc\"}", "odd number of hex digits at offset 11"},
      {"{\"~o\":[\"a\"]}", "',' expected at offset 10"},
      {"[1,2]", "the record is not an object at offset 5"},
      {"{\"a\":\"\\ud800\"}", "lone high surrogate at offset 12"},
      {"{\"a\":1} x", "text after the record at offset 8"},
      {std::string(2000, '['), "nesting deeper than 1024 at offset 1025"},
  };
  for (const auto& [json, reason] : cases) {
    sql_on(path, "DELETE FROM jobs");
    sqlite3* raw = nullptr;
    sqlite3_open(path.c_str(), &raw);
    sqlite3_stmt* insert = nullptr;
    sqlite3_prepare_v2(raw, "INSERT INTO jobs VALUES('bad', ?1)", -1, &insert, nullptr);
    sqlite3_bind_text(insert, 1, json.data(), static_cast<int>(json.size()), SQLITE_STATIC);
    ASSERT_EQ(sqlite3_step(insert), SQLITE_DONE);
    sqlite3_finalize(insert);
    sqlite3_close(raw);
    sqlite_state_db db(path);
    EXPECT_EQ(uspec_of([&] { db.load_items(db_item_job); }),
              "SQLite store '" + path + "': malformed record in table jobs, id 'bad': " + reason)
        << json;
  }
}

TEST_F(SqliteStateDbTest, ReadOnlyStoreRefusesASaveAndKeepsThePreviousOne) {
  const properties first = jobs(5, 1);
  {
    sqlite_state_db db(path);
    save_jobs(db, first, 7);
  }
  sqlite_options read_only;
  read_only.read_only = true;
  sqlite_state_db db(path, read_only);
  expect_saved(db, first, 7);
  EXPECT_EQ(uspec_of([&] { save_jobs(db, jobs(2, 2), 8); }),
            "SQLite store '" + path + "': attempt to write a readonly database");
  expect_saved(db, first, 7);
}

TEST_F(SqliteStateDbTest, FullDiskDuringASaveIsRaisedWhileItGoesOnAndKeepsThePreviousSave) {
  const properties first = jobs(5, 1);
  {
    sqlite_state_db db(path);
    save_jobs(db, first, 7);
  }
  sqlite_options small;
  small.max_size_bytes = 256 * 1024;
  sqlite_state_db db(path, small);
  db.begin_save();
  // Megabytes of rows: the insert that fails is raised by a later store_item, not by the end.
  const properties many = jobs(8000, 2, 200);
  std::size_t given = 0;
  EXPECT_EQ(uspec_of([&] {
              for (const auto& [id, record] : many) {
                db.store_item(db_item_job, id, static_cast<const properties&>(*record));
                ++given;
              }
            }),
            "SQLite store '" + path + "': database or disk is full");
  EXPECT_LT(given, many.size());
  expect_saved(db, first, 7);
  // The failed save's further writes are refused; the next save starts afresh.
  EXPECT_EQ(uspec_of([&] { db.store_workflow_sequence_number(8); }),
            "SQLite store '" + path +
                "': the save was abandoned after an error; begin_save starts a new one");
  const properties next = jobs(6, 3);
  save_jobs(db, next, 9);
  expect_saved(db, next, 9);
  // The next save too large for the file fails as well and keeps what was saved.
  EXPECT_EQ(uspec_of([&] { save_jobs(db, jobs(2000, 2, 200), 10); }),
            "SQLite store '" + path + "': database or disk is full");
  expect_saved(db, next, 9);
}

TEST_F(SqliteStateDbTest, SaverKilledMidSaveLeavesThePreviousSave) {
  const properties first = jobs(300, 1, 50);
  {
    sqlite_state_db db(path);
    save_jobs(db, first, 11);
  }
  int ready[2];
  ASSERT_EQ(pipe(ready), 0);
  const pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    try {
      sqlite_state_db db(path);
      db.begin_save();
      const properties record = job("big", 9);
      for (int n = 0;; ++n) {
        db.store_item(db_item_job, "k" + std::to_string(n), record);
        // Far beyond the page cache, so that pages of the open save are in the log already.
        if (n == 20000 && write(ready[1], "x", 1) != 1) _exit(2);
      }
    } catch (...) {
      _exit(3);
    }
  }
  close(ready[1]);
  char signal_byte = 0;
  ASSERT_EQ(read(ready[0], &signal_byte, 1), 1);
  close(ready[0]);
  ASSERT_EQ(kill(child, SIGKILL), 0);
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  ASSERT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL);

  EXPECT_EQ(sql_on(path, "PRAGMA integrity_check"), "ok|\n");
  sqlite_state_db db(path);
  expect_saved(db, first, 11);
}

TEST_F(SqliteStateDbTest, FullDurabilityStoreSavesAndReopens) {
  sqlite_options full;
  full.durability = zelcapi::sqlite_durability::full;
  const properties first = jobs(3, 1);
  {
    sqlite_state_db db(path, full);
    save_jobs(db, first, 2);
  }
  sqlite_state_db db(path, full);
  expect_saved(db, first, 2);
}

TEST_F(SqliteStateDbTest, RecordsOfOneLoadShareEqualShortStringsAndStayApartFromAnotherLoad) {
  properties records(false);
  for (int n = 0; n < 10; ++n)
    records.set_properties_value("j" + std::to_string(n),
                                 properties{{"user", zelcore::make_string("alice")},
                                            {"id", zelcore::make_string("j" + std::to_string(n))}});
  sqlite_state_db db(path);
  save_jobs(db, records, 1);
  const auto first = db.load_items(db_item_job);
  const auto second = db.load_items(db_item_job);
  const auto user = [](const properties& loaded, const char* id) {
    return loaded.get_properties_value(id).get_property("user").get();
  };
  EXPECT_EQ(user(*first, "j0"), user(*first, "j9"));
  EXPECT_NE(user(*first, "j0"), user(*second, "j0"));
  EXPECT_TRUE(*first == records);
}
