// The typed state_db, history_db and database store suites on the PostgreSQL stores, each test
// on a fresh database of the binary's private server.
#include <gtest/gtest.h>

#include <memory>

#include "stores/database_store_suite.h"
#include "stores/history_db_suite.h"
#include "stores/incremental_save_suite.h"
#include "stores/state_db_suite.h"
#include "support/postgres_server.h"
#include "zelcapi/postgres_db.h"

namespace {

testing::Environment* const server =
    testing::AddGlobalTestEnvironment(new zeltest::postgres_environment);

struct postgres_store {
  static std::unique_ptr<zelcapi::state_db> open(const std::string&) {
    return std::make_unique<zelcapi::postgres_state_db>(
        zeltest::postgres_environment::server().fresh_database());
  }
};
struct postgres_history {
  static std::unique_ptr<zelcapi::history_db> open(const std::string&) {
    return std::make_unique<zelcapi::postgres_history_db>(
        zeltest::postgres_environment::server().fresh_database());
  }
};

struct counting_postgres_store {
  using db = zelcapi::postgres_state_db;
  static std::string location(const zeltest::scratch_dir&) {
    return zeltest::postgres_environment::server().fresh_database();
  }
  static std::unique_ptr<db> open(const std::string& conninfo) {
    return std::make_unique<db>(conninfo);
  }
  static std::unique_ptr<db> open_reader(const std::string& conninfo) { return open(conninfo); }
  static std::unique_ptr<zelcapi::history_db> open_history(const std::string& conninfo) {
    return std::make_unique<zelcapi::postgres_history_db>(conninfo);
  }
};

}  // namespace

INSTANTIATE_TYPED_TEST_SUITE_P(PostgresStateDb, StateDbTest, postgres_store);
INSTANTIATE_TYPED_TEST_SUITE_P(PostgresHistoryDb, HistoryDbTest, postgres_history);
INSTANTIATE_TYPED_TEST_SUITE_P(PostgresIncrementalSave, IncrementalSaveTest,
                               counting_postgres_store);
INSTANTIATE_TYPED_TEST_SUITE_P(PostgresDatabaseStore, DatabaseStoreTest, counting_postgres_store);
