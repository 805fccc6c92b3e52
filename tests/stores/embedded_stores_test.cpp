// The typed state_db and history_db suites on the stores inside the process: in memory, SQLite,
// and SQLite behind a forwarding_state_db; the database stores' own suites on SQLite.
#include <gtest/gtest.h>

#include <memory>

#include "stores/database_store_suite.h"
#include "stores/history_db_suite.h"
#include "stores/incremental_save_suite.h"
#include "stores/state_db_suite.h"
#include "zelcapi/memory_db.h"
#include "zelcapi/sqlite_db.h"

using zelcapi::db_item_job;
using zelcapi::history_db;
using zelcapi::state_db;

namespace {

struct memory_store {
  static std::unique_ptr<state_db> open(const std::string&) {
    return std::make_unique<zelcapi::memory_state_db>();
  }
};
struct sqlite_store {
  static std::unique_ptr<state_db> open(const std::string& path) {
    return std::make_unique<zelcapi::sqlite_state_db>(path);
  }
};

// The SQLite store behind a forwarding_state_db that overrides nothing: every guarantee holds
// through it. The store is a base listed first, so that it is built before the forwarder.
struct sqlite_holder {
  explicit sqlite_holder(const std::string& path) : sqlite(path) {}
  zelcapi::sqlite_state_db sqlite;
};
class forwarded_sqlite final : private sqlite_holder, public zelcapi::forwarding_state_db {
 public:
  explicit forwarded_sqlite(const std::string& path)
      : sqlite_holder(path), forwarding_state_db(sqlite) {}
};
struct forwarded_store {
  static std::unique_ptr<state_db> open(const std::string& path) {
    return std::make_unique<forwarded_sqlite>(path);
  }
};

struct counting_sqlite_store {
  using db = zelcapi::sqlite_state_db;
  static std::string location(const zeltest::scratch_dir& dir) { return dir.file("state.db"); }
  static std::unique_ptr<db> open(const std::string& path) { return std::make_unique<db>(path); }
  // A store of another program that only reads the file while this one writes it.
  static std::unique_ptr<db> open_reader(const std::string& path) {
    zelcapi::sqlite_options options;
    options.read_only = true;
    return std::make_unique<db>(path, options);
  }
  static std::unique_ptr<history_db> open_history(const std::string& path) {
    return std::make_unique<zelcapi::sqlite_history_db>(path);
  }
};

struct memory_history {
  static std::unique_ptr<history_db> open(const std::string&) {
    return std::make_unique<zelcapi::memory_history_db>();
  }
};
struct sqlite_history {
  static std::unique_ptr<history_db> open(const std::string& path) {
    return std::make_unique<zelcapi::sqlite_history_db>(path);
  }
};

}  // namespace

INSTANTIATE_TYPED_TEST_SUITE_P(MemoryStateDb, StateDbTest, memory_store);
INSTANTIATE_TYPED_TEST_SUITE_P(SqliteStateDb, StateDbTest, sqlite_store);
INSTANTIATE_TYPED_TEST_SUITE_P(ForwardedSqliteStateDb, StateDbTest, forwarded_store);
INSTANTIATE_TYPED_TEST_SUITE_P(MemoryHistoryDb, HistoryDbTest, memory_history);
INSTANTIATE_TYPED_TEST_SUITE_P(SqliteHistoryDb, HistoryDbTest, sqlite_history);

TEST(SqliteHistoryDb, SharesAFileWithTheStateStoreAndKeepsRecordsOnReopen) {
  zeltest::scratch_dir dir;
  const std::string path = dir.file("mirror.db");
  {
    zelcapi::sqlite_state_db states(path);
    zelcapi::sqlite_history_db history(path);
    history.store_item(db_item_job, "j1", zeltest::job("job of alice", 4));
    states.begin_save();
    states.store_workflow_results({});
    states.store_workflow_sequence_number(3);
  }
  zelcapi::sqlite_history_db history(path);
  EXPECT_EQ(history.count_items(db_item_job), 1u);
  EXPECT_EQ(zelcapi::sqlite_state_db(path).load_workflow_sequence_number(), 3u);
}
INSTANTIATE_TYPED_TEST_SUITE_P(SqliteIncrementalSave, IncrementalSaveTest, counting_sqlite_store);
INSTANTIATE_TYPED_TEST_SUITE_P(SqliteDatabaseStore, DatabaseStoreTest, counting_sqlite_store);
