// What the PostgreSQL stores add to the typed suites: saves that write only what changed (counted
// by the store and by the server), readers of other connections during a save, a server that
// dies in the middle of a save or cancels a statement, the schema's checks, and the texts of
// connection failures.
#include <gtest/gtest.h>
#include <pwd.h>
#include <stdlib.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <functional>
#include <iostream>
#include <random>
#include <thread>
#include <vector>

#include "stores/store_test_support.h"
#include "support/postgres_server.h"
#include "support/raised_message.h"
#include "support/resident_memory.h"
#include "zelbase/exceptions.h"
#include "zelcapi/postgres_db.h"

using zelcapi::db_item_job;
using zelcapi::postgres_history_db;
using zelcapi::postgres_state_db;
using zelcore::properties;
using zeltest::expect_saved;
using zeltest::jobs;
using zeltest::postgres_environment;
using zeltest::postgres_session;
using zeltest::save_jobs;

namespace {

template <class F>
std::string uspec_of(F f) {
  return zeltest::raised_message<zelbase::es::uspec>(f);
}

// `records` with the status of every `every`-th one changed.
properties with_changes(const properties& records, int every) {
  properties out = records;
  int n = 0;
  for (const auto& [id, record] : records) {
    if (n++ % every != 0) continue;
    properties changed = static_cast<const properties&>(*record);
    changed.set_int_value("status", 99);
    out.set_properties_value(id, changed);
  }
  return out;
}

double seconds_of(const std::function<void()>& f) {
  const auto start = std::chrono::steady_clock::now();
  f();
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

class PostgresStateDbTest : public testing::Test {
 protected:
  // The rows of `table` that the last committed save wrote: those of its transaction, which
  // also wrote the sequence number.
  std::int64_t rows_written_by_last_save(const std::string& table) {
    return postgres_session(conninfo).query_int(
        "SELECT count(*) FROM " + table +
        " WHERE xmin::text = (SELECT xmin::text FROM workflow_sequence)");
  }
  std::int64_t count(const std::string& sql) { return postgres_session(conninfo).query_int(sql); }

  zeltest::postgres_server& server = postgres_environment::server();
  std::string conninfo = server.fresh_database();
  postgres_state_db db{conninfo};
};

}  // namespace

TEST_F(PostgresStateDbTest, SaveWithOnePercentChangedWritesOnlyThoseRecords) {
  const properties first = jobs(10000, 1);
  const double full = seconds_of([&] { save_jobs(db, first, 1); });
  EXPECT_EQ(db.last_save_counts().written, 10000u);
  EXPECT_EQ(rows_written_by_last_save("jobs"), 10000);

  const properties second = with_changes(first, 100);
  const double incremental = seconds_of([&] { save_jobs(db, second, 2); });
  const zelcapi::save_counts counts = db.last_save_counts();
  EXPECT_EQ(counts.written, 100u);
  EXPECT_EQ(counts.unchanged, 9900u);
  EXPECT_EQ(counts.removed, 0u);
  EXPECT_EQ(rows_written_by_last_save("jobs"), 100);
  EXPECT_EQ(count("SELECT count(*) FROM jobs WHERE (record->>'status')::int = 99"), 100);
  expect_saved(db, second, 2);
  // 44 bytes a record, and the seen marks' bit.
  EXPECT_LE(db.digest_memory_bytes(), 10000u * 44 + 10000u / 8 + 64);
  std::cout << "10,000 jobs: full save " << full << " s, 1% changed " << incremental
            << " s, digests " << db.digest_memory_bytes() << " bytes\n";
}

TEST_F(PostgresStateDbTest, SaveThatNoLongerHoldsRecordsDeletesThemAndWritesNothingElse) {
  const properties first = jobs(1000, 1);
  save_jobs(db, first, 1);
  properties second = first;
  for (int n = 0; n < 10; ++n) second.erase("j" + std::to_string(n * 7));
  save_jobs(db, second, 2);
  const zelcapi::save_counts counts = db.last_save_counts();
  EXPECT_EQ(counts.written, 0u);
  EXPECT_EQ(counts.removed, 10u);
  EXPECT_EQ(count("SELECT count(*) FROM jobs"), 990);
  EXPECT_EQ(rows_written_by_last_save("jobs"), 0);
  expect_saved(db, second, 2);
}

TEST_F(PostgresStateDbTest, StoreOpenedOnASavedDatabaseKnowsWhatItHolds) {
  // Records whose jsonb text differs from ours: keys reordered, escapes, NUL and other bytes.
  zeltest::random_bytes_trees random(5);
  properties records(false);
  for (int n = 0; n < 200; ++n) records.set_properties_value(random.bytes(), random.tree(3));
  zeltest::save_jobs(db, records, 1);

  postgres_state_db reopened(conninfo);
  save_jobs(reopened, records, 2);
  EXPECT_EQ(reopened.last_save_counts().written, 0u);
  EXPECT_EQ(reopened.last_save_counts().unchanged, records.size());
  EXPECT_EQ(rows_written_by_last_save("jobs"), 0);
  expect_saved(reopened, records, 2);
}

TEST_F(PostgresStateDbTest, ReadersOfOtherConnectionsSeeThePreviousSaveWholeUntilTheCommit) {
  const properties first = jobs(1000, 1);
  save_jobs(db, first, 1);
  postgres_state_db reader(conninfo);

  db.begin_save();
  for (const auto& [id, record] : with_changes(first, 1))
    db.store_item(db_item_job, id, static_cast<const properties&>(*record));
  db.store_workflow_results({});  // the changed records are in the table's new row versions
  EXPECT_EQ(count("SELECT count(*) FROM jobs WHERE (record->>'status')::int = 99"), 0);
  expect_saved(reader, first, 1);

  db.store_workflow_sequence_number(2);
  EXPECT_EQ(count("SELECT count(*) FROM jobs WHERE (record->>'status')::int = 99"), 1000);
  EXPECT_EQ(reader.load_workflow_sequence_number(), 2u);
}

TEST_F(PostgresStateDbTest, LoadHoldsARowAtATimeNotTheWholeTable) {
  if (zeltest::sanitized_allocator()) GTEST_SKIP() << "resident sizes mean nothing here";
  // 2,000 records of 16 KiB: a table of 32 MiB, whose rows libpq would hold whole at once.
  save_jobs(db, jobs(2000, 1, 16 * 1024), 1);
  const std::int64_t row_bytes = count("SELECT sum(length(id) + length(record::text)) FROM jobs");
  const std::size_t before = zeltest::resident_bytes();
  ASSERT_TRUE(zeltest::reset_resident_peak());
  zelcapi::properties_cptr loaded = db.load_items(db_item_job);
  const std::size_t peak = zeltest::resident_peak_bytes();
  const std::size_t held = zeltest::resident_bytes();  // the loaded records
  ASSERT_EQ(loaded->size(), 2000u);
  // Beyond the records it returns, a load holds a few rows at most, not the table.
  const auto signed_bytes = [](std::size_t n) { return static_cast<std::int64_t>(n); };
  const std::int64_t passing = signed_bytes(peak) - signed_bytes(held);
  std::cout << "rows " << row_bytes << " bytes; load held "
            << signed_bytes(held) - signed_bytes(before) << " bytes after, " << passing
            << " bytes more at its peak\n";
  EXPECT_LT(passing, row_bytes / 8);
}

namespace {

// Does `action` (a crash of the server, say) after `after` records of a save.
class interrupting_db final : public zelcapi::forwarding_state_db {
 public:
  interrupting_db(state_db& inner, int after, std::function<void()> action)
      : forwarding_state_db(inner), after_(after), action_(std::move(action)) {}
  void store_item(zelcapi::db_item_type type, const std::string& id,
                  const properties& record) override {
    if (++calls_ == after_) action_();
    forwarding_state_db::store_item(type, id, record);
  }

 private:
  int after_;
  std::function<void()> action_;
  int calls_ = 0;
};

}  // namespace

TEST_F(PostgresStateDbTest, ServerKilledInTheMiddleOfASaveLosesNoCommittedSave) {
  const properties first = jobs(2000, 1, 100);
  save_jobs(db, first, 1);
  interrupting_db crashing(db, 1000, [&] { server.stop_immediately(); });
  const std::string message = uspec_of([&] { save_jobs(crashing, with_changes(first, 1), 2); });
  EXPECT_EQ(message.rfind("PostgreSQL store '" + server.label_of(conninfo) + "': ", 0), 0u)
      << message;
  EXPECT_EQ(message.find('\n'), std::string::npos) << message;
  server.start();

  // Loads and the next save connect again; the save rebuilds its digests from the server.
  expect_saved(db, first, 1);
  const properties third = with_changes(first, 2);
  save_jobs(db, third, 3);
  EXPECT_EQ(db.last_save_counts().written, 1000u);
  expect_saved(db, third, 3);
  expect_saved(*std::make_unique<postgres_state_db>(conninfo), third, 3);
}

TEST_F(PostgresStateDbTest, ConnectionsDroppedInTheMiddleOfASaveAreOpenedAgain) {
  const properties first = jobs(500, 1);
  save_jobs(db, first, 1);
  // The server ends every session of the store's database, as an administrator may.
  interrupting_db dropping(db, 250, [&] {
    postgres_session(conninfo).execute(
        "SELECT pg_terminate_backend(pid) FROM pg_stat_activity"
        " WHERE datname = current_database() AND pid <> pg_backend_pid()");
  });
  EXPECT_EQ(uspec_of([&] { save_jobs(dropping, with_changes(first, 1), 2); }),
            "PostgreSQL store '" + db.server() +
                "': terminating connection due to administrator command");
  expect_saved(db, first, 1);
  const properties third = with_changes(first, 5);
  save_jobs(db, third, 3);
  EXPECT_EQ(db.last_save_counts().written, 100u);
  expect_saved(db, third, 3);
}

namespace {

// The writer lock's holder, as pg_locks shows it: the pid of its session, or 0.
std::int64_t lock_holder(const std::string& conninfo, std::int64_t key) {
  return postgres_session(conninfo).query_int(
      "SELECT coalesce(max(pid), 0) FROM pg_locks WHERE locktype = 'advisory' AND granted"
      " AND objsubid = 1 AND objid = " +
      std::to_string(key));
}

// Calls `attempt` until it is true or 10 s have passed; whether it became true.
bool eventually(const std::function<bool()>& attempt) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (!attempt()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  return true;
}

constexpr std::int64_t state_writer_lock = 2053467252;

// Ends the session that holds the lock `key`, as a network failure or an administrator would.
void end_holder_session(const std::string& conninfo, std::int64_t key) {
  const std::int64_t holder = lock_holder(conninfo, key);
  ASSERT_NE(holder, 0);
  postgres_session(conninfo).execute("SELECT pg_terminate_backend(" + std::to_string(holder) + ")");
}

// The records of `first` with a third of them changed, ten gone and one of its own.
properties another_save_of(const properties& first) {
  properties out = with_changes(first, 3);
  for (int n = 0; n < 10; ++n) out.erase("j" + std::to_string(n));
  out.set_properties_value("only-the-standby-saved-this", zeltest::job("x", 5));
  return out;
}

}  // namespace

TEST_F(PostgresStateDbTest, LeadingStoresWriteByTurnsOnlyOnTheSessionThatHoldsTheLock) {
  const std::string does_not_lead =
      "PostgreSQL store '" + db.server() +
      "': does not lead: another session holds this database's writer lock (the session that "
      "held it for this store ended, or it never did)";
  ASSERT_TRUE(db.try_lead());
  EXPECT_TRUE(db.try_lead()) << "taken again by its holder";
  auto standby = std::make_unique<postgres_state_db>(conninfo);
  EXPECT_FALSE(standby->try_lead());
  EXPECT_FALSE(standby->leads());
  const properties first = jobs(300, 1);
  save_jobs(db, first, 1);
  EXPECT_EQ(uspec_of([&] { save_jobs(*standby, jobs(5, 7), 7); }), does_not_lead);
  expect_saved(*standby, first, 1);  // reading needs no lead

  end_holder_session(conninfo, state_writer_lock);
  ASSERT_TRUE(eventually([&] { return standby->try_lead(); }));
  const properties second = another_save_of(first);
  save_jobs(*standby, second, 2);

  // The former leader does not know yet; its next save opens a new session, which may not take
  // the lock: it writes nothing, then or later.
  EXPECT_TRUE(db.leads());
  EXPECT_EQ(uspec_of([&] { save_jobs(db, first, 3); }), does_not_lead);
  EXPECT_FALSE(db.leads());
  EXPECT_EQ(uspec_of([&] { save_jobs(db, first, 3); }), does_not_lead);
  expect_saved(db, second, 2);

  // Once the standby's session ends, it leads again.
  standby.reset();
  ASSERT_TRUE(eventually([&] { return db.try_lead(); }));
  save_jobs(db, first, 3);
  expect_saved(*std::make_unique<postgres_state_db>(conninfo), first, 3);
}

TEST_F(PostgresStateDbTest, ALeaderOnANewSessionReadsTheTablesAgainBeforeItSaves) {
  ASSERT_TRUE(db.try_lead());
  const properties first = jobs(300, 1);
  save_jobs(db, first, 1);
  // While the leader's session is gone, another store leads for a while and saves.
  end_holder_session(conninfo, state_writer_lock);
  {
    postgres_state_db other(conninfo);
    ASSERT_TRUE(eventually([&] { return other.try_lead(); }));
    save_jobs(other, another_save_of(first), 2);
  }
  // The leader's next save finds its session gone, opens a new one and takes the lock again:
  // what it knew of the tables is of its old session, so it reads them again, and its save
  // holds exactly its records.
  ASSERT_TRUE(eventually([&] { return lock_holder(conninfo, state_writer_lock) == 0; }));
  save_jobs(db, first, 3);
  EXPECT_TRUE(db.leads());
  EXPECT_EQ(db.last_save_counts().removed, 1u);
  expect_saved(*std::make_unique<postgres_state_db>(conninfo), first, 3);
}

TEST_F(PostgresStateDbTest, ALeadingHistoryWritesOnlyOnItsLockedSession) {
  postgres_history_db leader(conninfo), standby(conninfo);
  ASSERT_TRUE(leader.try_lead());
  EXPECT_FALSE(standby.try_lead());
  leader.store_item(db_item_job, "j1", zeltest::job("one", 1));
  const std::string refused =
      uspec_of([&] { standby.store_item(db_item_job, "j2", zeltest::job("two", 1)); });
  EXPECT_NE(refused.find("': does not lead: "), std::string::npos) << refused;
  EXPECT_EQ(count("SELECT count(*) FROM history"), 1);

  end_holder_session(conninfo, 2053467253);
  ASSERT_TRUE(eventually([&] { return standby.try_lead(); }));
  standby.store_item(db_item_job, "j2", zeltest::job("two", 1));
  EXPECT_NE(uspec_of([&] {
              leader.store_item(db_item_job, "j3", zeltest::job("three", 1));
            }).find("': does not lead: "),
            std::string::npos);
  EXPECT_EQ(count("SELECT count(*) FROM history"), 2);
}

TEST_F(PostgresStateDbTest, StatementTimeoutRollsTheSaveBackWithTheServersText) {
  postgres_state_db impatient(conninfo + " options='-c statement_timeout=300'");
  const properties first = jobs(50, 1);
  save_jobs(impatient, first, 1);
  postgres_session locker(conninfo);
  locker.execute("BEGIN; LOCK TABLE jobs IN ACCESS EXCLUSIVE MODE");
  EXPECT_EQ(uspec_of([&] { save_jobs(impatient, with_changes(first, 2), 2); }),
            "PostgreSQL store '" + impatient.server() +
                "': canceling statement due to statement timeout");
  locker.execute("ROLLBACK");
  expect_saved(impatient, first, 1);
  const properties third = with_changes(first, 3);
  save_jobs(impatient, third, 3);
  expect_saved(impatient, third, 3);
}

namespace {

// A file system of `bytes` (a tmpfs) in the server's directory, for a tablespace that fills up;
// mounting needs root, so `mounted()` is false elsewhere.
class small_file_system {
 public:
  small_file_system(const std::string& path, std::size_t bytes) : path_(path) {
    if (::mkdir(path.c_str(), 0700) != 0) return;
    const std::string size = "size=" + std::to_string(bytes);
    mounted_ = ::mount("tmpfs", path.c_str(), "tmpfs", 0, size.c_str()) == 0;
    if (const passwd* server = ::getpwnam("postgres"); mounted_ && server)
      mounted_ = ::chown(path.c_str(), server->pw_uid, server->pw_gid) == 0;
  }
  ~small_file_system() {
    ::umount2(path_.c_str(), MNT_DETACH);
    ::rmdir(path_.c_str());
  }
  small_file_system(const small_file_system&) = delete;
  small_file_system& operator=(const small_file_system&) = delete;
  bool mounted() const noexcept { return mounted_; }

 private:
  std::string path_;
  bool mounted_ = false;
};

}  // namespace

// `count` jobs of 4 KB of random hex each, which the server cannot compress much.
properties incompressible_jobs(int count, int status) {
  std::mt19937_64 random(7);
  properties out = jobs(count, status);
  for (const auto& [id, record] : jobs(count, status)) {
    std::string noise;
    while (noise.size() < 4096) noise += std::to_string(random());
    properties noisy = static_cast<const properties&>(*record);
    noisy.set_string_value("noise", noise);
    out.set_properties_value(id, noisy);
  }
  return out;
}

TEST_F(PostgresStateDbTest, FullDiskDuringASaveRollsItBackWithTheServersText) {
  small_file_system small(server.socket_dir() + "/small", 1024 * 1024);
  if (!small.mounted() || ::geteuid() != 0) GTEST_SKIP() << "cannot mount a file system here";
  postgres_session admin(conninfo);
  admin.execute("CREATE TABLESPACE small LOCATION '" + server.socket_dir() + "/small'");
  admin.execute("ALTER TABLE jobs SET TABLESPACE small");
  const properties first = jobs(50, 1);
  save_jobs(db, first, 1);

  const std::string message = uspec_of([&] { save_jobs(db, incompressible_jobs(1000, 2), 2); });
  EXPECT_EQ(message.rfind("PostgreSQL store '" + db.server() + "': could not extend file", 0), 0u)
      << message;
  EXPECT_NE(message.find("No space left on device"), std::string::npos) << message;
  expect_saved(db, first, 1);

  // With room again, the next save succeeds.
  admin.execute("ALTER TABLE jobs SET TABLESPACE pg_default");
  const properties third = incompressible_jobs(1000, 3);
  save_jobs(db, third, 3);
  expect_saved(db, third, 3);
  admin.execute("DROP TABLESPACE small");
}

TEST_F(PostgresStateDbTest, RecordsAreJsonbThatQueriesAnswer) {
  db.begin_save();
  for (int n = 0; n < 30; ++n)
    db.store_item(db_item_job, "j" + std::to_string(n), zeltest::job("job", n % 3));
  properties odd(false);
  odd.set_string_value("nul", std::string("a\0b", 3));
  odd.set_string_value("bytes", "\xff");
  odd.set_string_value("utf8", "\xc3\xa9t\xc3\xa9");
  db.store_item(db_item_job, std::string("\xfe", 1), odd);
  db.store_workflow_results({});
  db.store_workflow_sequence_number(1);

  EXPECT_EQ(count("SELECT count(*) FROM jobs WHERE (record->>'status')::int = 2"), 10);
  postgres_session psql(conninfo);
  EXPECT_EQ(psql.query("SELECT record->'nul'->>'~x' FROM jobs WHERE id = '~xfe'"), "610062");
  EXPECT_EQ(psql.query("SELECT record->'bytes'->>'~x' FROM jobs WHERE id = '~xfe'"), "ff");
  EXPECT_EQ(psql.query("SELECT record->>'utf8' FROM jobs WHERE id = '~xfe'"), "\xc3\xa9t\xc3\xa9");
  EXPECT_EQ(psql.query("SELECT value FROM zelcapi_meta WHERE key = 'schema_version'"), "2");
}

TEST_F(PostgresStateDbTest, RecordInJsonbsOwnKeyOrderAndSpacingLoadsAsStored) {
  const properties record{{"aa", zelcore::make_int(1)},
                          {"b", zelcore::make_string("x")},
                          {"c", zelcore::make_int(INT64_MIN)}};
  save_jobs(db, properties{{"j1", zelcore::property_ptr(new properties(record))}}, 1);
  // jsonb orders keys by length first; ours are in byte order and without spaces.
  EXPECT_EQ(postgres_session(conninfo).query("SELECT record::text FROM jobs WHERE id = 'j1'"),
            "{\"b\": \"x\", \"c\": -9223372036854775808, \"aa\": 1}");
  properties loaded(false);
  ASSERT_TRUE(db.load_item(db_item_job, "j1", loaded));
  EXPECT_TRUE(loaded == record) << loaded.describe();
}

TEST_F(PostgresStateDbTest, NewerSchemaVersionIsRefused) {
  postgres_session(conninfo).execute(
      "UPDATE zelcapi_meta SET value = '3' WHERE key = 'schema_version'");
  EXPECT_EQ(uspec_of([&] { postgres_state_db again(conninfo); }),
            "PostgreSQL store '" + db.server() +
                "': schema version 3 is newer than version 2 that this library reads");
}

TEST_F(PostgresStateDbTest, TablesOfAnotherLayoutAreRefused) {
  postgres_session(conninfo).execute(
      "DROP TABLE nodes; CREATE TABLE nodes(id text PRIMARY KEY, data text)");
  EXPECT_EQ(uspec_of([&] { postgres_state_db again(conninfo); }),
            "PostgreSQL store '" + db.server() +
                "': table nodes has the columns (id text,data text) where this library expects "
                "(id text,record jsonb,saved_in bigint): not a zelcapi store");

  const std::string other = server.fresh_database();
  postgres_session(other).execute("CREATE TABLE jobs(id integer)");
  EXPECT_EQ(uspec_of([&] { postgres_state_db foreign(other); }),
            "PostgreSQL store '" + server.label_of(other) +
                "': table jobs exists in a database without table zelcapi_meta: not a zelcapi "
                "store");
}

TEST_F(PostgresStateDbTest, StoresOpenedAtOnceOnAnEmptyDatabaseAllOpen) {
  const std::string empty = server.fresh_database();
  std::vector<std::thread> openers;
  std::vector<std::string> failures(8);
  for (std::size_t i = 0; i < failures.size(); ++i) {
    openers.emplace_back([&, i] {
      try {
        if (i % 2)
          postgres_state_db opened(empty);
        else
          postgres_history_db opened(empty);
      } catch (const std::exception& e) {
        failures[i] = e.what();
      }
    });
  }
  for (std::thread& t : openers) t.join();
  for (const std::string& failure : failures) EXPECT_EQ(failure, "");
}

TEST(PostgresConnection, MalformedConnectionStringsAreOneClearLine) {
  EXPECT_EQ(uspec_of([] { postgres_state_db db("dbname"); }),
            "PostgreSQL store '(malformed connection string)': missing \"=\" after \"dbname\" in "
            "connection info string");
  EXPECT_EQ(uspec_of([] { postgres_state_db db("hots=x"); }),
            "PostgreSQL store '(malformed connection string)': invalid connection option \"hots\"");
  const std::string with_password = uspec_of([] { postgres_state_db db("password=s3cret hots"); });
  EXPECT_EQ(with_password.find("s3cret"), std::string::npos) << with_password;
  EXPECT_EQ(with_password.rfind("PostgreSQL store '(malformed connection string)': ", 0), 0u);
  // A keyword that libpq refuses is named even beside a password; a value never is.
  EXPECT_EQ(uspec_of([] { postgres_state_db db("hots=x dbname=y password=s3cret"); }),
            "PostgreSQL store '(malformed connection string)': invalid connection option \"hots\"");
  const std::string in_uri =
      uspec_of([] { postgres_state_db db("postgresql://someone:s3cret@[::1/cluster"); });
  EXPECT_EQ(in_uri.find("s3cret"), std::string::npos) << in_uri;
}

TEST(PostgresConnection, UnreachableServerIsOneClearLine) {
  const std::string message = uspec_of(
      [] { postgres_state_db db("postgresql://zeltest:s3cret@/mirror?host=/nonexistent"); });
  EXPECT_EQ(message.rfind("PostgreSQL store 'host=/nonexistent dbname=mirror user=zeltest': "
                          "connection to server on socket \"/nonexistent/.s.PGSQL.5432\" failed: ",
                          0),
            0u)
      << message;
  EXPECT_EQ(message.find('\n'), std::string::npos) << message;
  EXPECT_EQ(message.find("s3cret"), std::string::npos) << message;
}

TEST(PostgresConnection, WrongPasswordIsOneClearLineWithoutThePassword) {
  zeltest::postgres_server guarded;  // a server of its own, which requires a password
  guarded.require_password("right-one");
  const std::string base = guarded.conninfo("postgres");
  const std::string message =
      uspec_of([&] { postgres_state_db db(base + " password=wrong-secret"); });
  EXPECT_EQ(message.find("wrong-secret"), std::string::npos) << message;
  EXPECT_EQ(message.find('\n'), std::string::npos) << message;
  EXPECT_NE(message.find("password authentication failed for user \"zeltest\""), std::string::npos)
      << message;
  EXPECT_EQ(
      message.rfind(
          "PostgreSQL store 'host=" + guarded.socket_dir() + " dbname=postgres user=zeltest': ", 0),
      0u)
      << message;

  postgres_state_db with_password(base + " password=right-one");
  EXPECT_FALSE(with_password.has_saved_state());
  // libpq's own password file serves as for psql.
  const std::string passfile = guarded.socket_dir() + "/passfile";
  std::ofstream(passfile) << "*:*:*:zeltest:right-one\n";
  chmod(passfile.c_str(), 0600);
  setenv("PGPASSFILE", passfile.c_str(), 1);
  EXPECT_NO_THROW(postgres_history_db from_passfile(base));
  unsetenv("PGPASSFILE");
}
