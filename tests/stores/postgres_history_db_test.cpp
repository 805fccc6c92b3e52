// What the PostgreSQL history store adds to the typed suite: a batch that fails is rolled back
// whole, and a server that restarts or is gone between writes.
#include <gtest/gtest.h>

#include "stores/store_test_support.h"
#include "support/postgres_server.h"
#include "support/raised_message.h"
#include "zelbase/exceptions.h"
#include "zelcapi/postgres_db.h"

using zelcapi::db_item_job;
using zeltest::job;
using zeltest::postgres_environment;

namespace {

template <class F>
std::string uspec_of(F f) {
  return zeltest::raised_message<zelbase::es::uspec>(f);
}

class PostgresHistoryDbTest : public testing::Test {
 protected:
  zeltest::postgres_server& server = postgres_environment::server();
  std::string conninfo = server.fresh_database();
  zelcapi::postgres_history_db db{conninfo};
};

}  // namespace

TEST_F(PostgresHistoryDbTest, BatchWithAFailedWriteIsRolledBackWhole) {
  zeltest::postgres_session(conninfo).execute(
      "ALTER TABLE history ADD CONSTRAINT short_ids CHECK (length(id) < 10)");
  db.begin_batch();
  db.store_item(db_item_job, "j1", job("one", 4));
  EXPECT_EQ(uspec_of([&] { db.store_item(db_item_job, "a-long-job-id", job("two", 4)); }),
            "PostgreSQL store '" + db.server() +
                "': new row for relation \"history\" violates check constraint \"short_ids\"");
  EXPECT_EQ(uspec_of([&] { db.store_item(db_item_job, "j3", job("three", 4)); }),
            "PostgreSQL store '" + db.server() +
                "': the batch was rolled back after an error; end_batch ends it");
  EXPECT_EQ(uspec_of([&] { db.end_batch(); }),
            "PostgreSQL store '" + db.server() + "': the batch was rolled back after an error");
  EXPECT_EQ(db.count_items(db_item_job), 0u);
  db.store_item(db_item_job, "j4", job("four", 4));
  EXPECT_EQ(db.count_items(db_item_job), 1u);
}

TEST_F(PostgresHistoryDbTest, ServerRestartedBetweenWritesIsConnectedAgain) {
  db.store_item(db_item_job, "j1", job("one", 4));
  server.stop_immediately();
  server.start();
  db.store_item(db_item_job, "j2", job("two", 4));
  EXPECT_EQ(db.count_items(db_item_job), 2u);
}

TEST_F(PostgresHistoryDbTest, ServerThatIsGoneIsOneClearLineUntilItIsBack) {
  db.store_item(db_item_job, "j1", job("one", 4));
  server.stop_immediately();
  const std::string message = uspec_of([&] { db.count_items(db_item_job); });
  server.start();
  EXPECT_EQ(
      message.rfind("PostgreSQL store '" + db.server() + "': connection to server on socket \"" +
                        server.socket_dir() + "/.s.PGSQL.5432\" failed: ",
                    0),
      0u)
      << message;
  EXPECT_EQ(message.find('\n'), std::string::npos) << message;
  EXPECT_EQ(db.count_items(db_item_job), 1u);
}
