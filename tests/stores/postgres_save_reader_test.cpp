// Readers that follow a PostgreSQL state store's saves: the last save whole, then only what each
// later save wrote and removed, the announcement of each commit, the saves that are no longer
// kept, a server restarted under a listening reader, and databases of the previous schema.
#include <gtest/gtest.h>

#include <chrono>
#include <string>

#include "stores/store_test_support.h"
#include "support/postgres_server.h"
#include "support/raised_message.h"
#include "zelbase/exceptions.h"
#include "zelcapi/postgres_db.h"

using namespace std::chrono_literals;
using zelcapi::db_item_job;
using zelcapi::db_item_node;
using zelcapi::postgres_save_reader;
using zelcapi::postgres_state_db;
using zelcapi::save_changes;
using zelcore::properties;
using zeltest::jobs;
using zeltest::postgres_environment;
using zeltest::postgres_session;
using zeltest::save_jobs;

namespace {

// The jobs a reader holds after applying `changes` to `held`.
properties applied(const properties& held, const save_changes& changes) {
  properties out = changes.whole ? properties(false) : held;
  for (const std::string& id : changes.removed[db_item_job]) out.erase(id);
  for (const auto& [id, record] : *changes.items[db_item_job])
    out.set_properties_value(id, static_cast<const properties&>(*record));
  return out;
}

class PostgresSaveReaderTest : public testing::Test {
 protected:
  zeltest::postgres_server& server = postgres_environment::server();
  std::string conninfo = server.fresh_database();
  postgres_state_db db{conninfo};
};

}  // namespace

TEST_F(PostgresSaveReaderTest, ADatabaseWithoutASaveGivesAnEmptyWholeState) {
  postgres_save_reader reader(conninfo);
  const save_changes first = reader.read_since(0);
  EXPECT_EQ(first.save, 0u);
  EXPECT_TRUE(first.whole);
  for (const auto& items : first.items) EXPECT_TRUE(items->empty());
  ASSERT_TRUE(first.workflow_results);
  EXPECT_TRUE(first.workflow_results->empty());
}

TEST_F(PostgresSaveReaderTest, ALaterSaveBringsOnlyWhatItWroteAndRemoved) {
  const properties first = jobs(1000, 1);
  save_jobs(db, first, 7);
  postgres_save_reader reader(conninfo);
  const save_changes loaded = reader.read_since(0);
  EXPECT_TRUE(loaded.whole);
  EXPECT_TRUE(*loaded.items[db_item_job] == first);
  EXPECT_EQ(loaded.workflow_sequence_number, 7u);
  ASSERT_TRUE(loaded.workflow_results);
  EXPECT_EQ(loaded.workflow_results->get_properties_value("WOFL-1").get_int_value("st"), 2);
  EXPECT_EQ(loaded.workflow_results->get_properties_value("WOFL-1").get_int_value("ht"), 3);

  properties second = first;
  for (int n = 0; n < 10; ++n)
    second.set_properties_value("j" + std::to_string(n * 100), zeltest::job("changed", 5));
  second.erase("j1");
  second.erase("j2");
  second.set_properties_value("new", zeltest::job("new", 1));
  save_jobs(db, second, 8);

  const save_changes changes = reader.read_since(loaded.save);
  EXPECT_EQ(changes.save, loaded.save + 1);
  EXPECT_FALSE(changes.whole);
  EXPECT_EQ(changes.items[db_item_job]->size(), 11u);
  EXPECT_EQ(changes.removed[db_item_job], (std::vector<std::string>{"j1", "j2"}));
  EXPECT_TRUE(changes.items[db_item_node]->empty());
  // The same results as before: the save did not write them again.
  EXPECT_FALSE(changes.workflow_results);
  EXPECT_EQ(changes.workflow_sequence_number, 8u);
  EXPECT_TRUE(applied(first, changes) == second);
  EXPECT_TRUE(applied(first, changes) == *db.load_items(db_item_job));

  const save_changes nothing = reader.read_since(changes.save);
  EXPECT_EQ(nothing.save, changes.save);
  EXPECT_FALSE(nothing.whole);
  EXPECT_TRUE(nothing.items[db_item_job]->empty());
  EXPECT_TRUE(nothing.removed[db_item_job].empty());
}

TEST_F(PostgresSaveReaderTest, ARecordRemovedAndWrittenAgainIsWrittenNotRemoved) {
  const properties first = jobs(5, 1);
  save_jobs(db, first, 1);
  postgres_save_reader reader(conninfo);
  const std::uint64_t held = reader.read_since(0).save;
  properties second = first;
  second.erase("j3");
  save_jobs(db, second, 2);
  save_jobs(db, first, 3);
  save_jobs(db, second, 4);
  save_jobs(db, first, 5);

  const save_changes changes = reader.read_since(held);
  EXPECT_EQ(changes.save, held + 4);
  EXPECT_TRUE(changes.removed[db_item_job].empty());
  EXPECT_TRUE(changes.items[db_item_job]->is_present("j3"));
  EXPECT_TRUE(applied(first, changes) == first);
}

TEST_F(PostgresSaveReaderTest, ResultsComeOnlyWhenASaveChangedThem) {
  db.begin_save();
  db.store_workflow_results({{"WOFL-1", zelcapi::workflow_result_info(2u, 1u)}});
  db.store_workflow_sequence_number(1);
  postgres_save_reader reader(conninfo);
  const std::uint64_t held = reader.read_since(0).save;
  db.begin_save();
  db.store_workflow_results({{"WOFL-1", zelcapi::workflow_result_info(2u, 1u)}});
  db.store_workflow_sequence_number(2);
  EXPECT_FALSE(reader.read_since(held).workflow_results);

  // The same status with another "ht" is a change, as is a result more.
  db.begin_save();
  db.store_workflow_results({{"WOFL-1", zelcapi::workflow_result_info(2u, 4u)},
                             {"WOFL-2", zelcapi::workflow_result_info(3u, 1u)}});
  db.store_workflow_sequence_number(3);
  const save_changes changed = reader.read_since(held);
  ASSERT_TRUE(changed.workflow_results);
  EXPECT_EQ(changed.workflow_results->size(), 2u);
  EXPECT_EQ(changed.workflow_results->get_properties_value("WOFL-1").get_int_value("ht"), 4);
  EXPECT_EQ(changed.workflow_sequence_number, 3u);
}

TEST_F(PostgresSaveReaderTest, ClearedTablesMakeTheReaderLoadWhole) {
  save_jobs(db, jobs(10, 1), 1);
  postgres_save_reader reader(conninfo);
  const std::uint64_t held = reader.read_since(0).save;
  db.clear();
  const save_changes changes = reader.read_since(held);
  EXPECT_TRUE(changes.whole);
  EXPECT_TRUE(changes.items[db_item_job]->empty());
  ASSERT_TRUE(changes.workflow_results);
  EXPECT_TRUE(changes.workflow_results->empty());

  // Results written after the clear reach the readers, though they equal those before it.
  save_jobs(db, jobs(10, 1), 2);
  const save_changes again = reader.read_since(changes.save);
  ASSERT_TRUE(again.workflow_results);
  EXPECT_EQ(again.workflow_results->size(), 1u);
  EXPECT_EQ(again.items[db_item_job]->size(), 10u);
}

TEST_F(PostgresSaveReaderTest, AReaderBehindTheKeptSavesLoadsWhole) {
  save_jobs(db, jobs(3, 1), 1);
  postgres_save_reader reader(conninfo);
  const std::uint64_t held = reader.read_since(0).save;
  properties records = jobs(3, 1);
  // The 1,000 saves kept are those after the next one.
  for (int n = 0; n < 1001; ++n) {
    records.set_properties_value("j0", zeltest::job("j0", n));
    save_jobs(db, records, 2 + n);
  }
  postgres_session psql(conninfo);
  EXPECT_EQ(psql.query_int("SELECT count(*) FROM zelcapi_saves"), 1000);
  EXPECT_EQ(psql.query_int("SELECT min(number) FROM zelcapi_saves"),
            static_cast<std::int64_t>(held + 2));
  const save_changes changes = reader.read_since(held);
  EXPECT_TRUE(changes.whole);
  EXPECT_TRUE(*changes.items[db_item_job] == records);
  // One save later is still within them.
  EXPECT_FALSE(reader.read_since(held + 1).whole);
}

TEST_F(PostgresSaveReaderTest, EachCommittedSaveIsAnnounced) {
  postgres_save_reader reader(conninfo);
  EXPECT_FALSE(reader.wait_for_save(0ms));
  save_jobs(db, jobs(3, 1), 1);
  EXPECT_TRUE(reader.wait_for_save(10s));
  EXPECT_FALSE(reader.wait_for_save(0ms));

  // A save rolled back is not announced.
  db.begin_save();
  db.store_item(db_item_job, "j9", zeltest::job("j9", 1));
  db.begin_save();
  db.store_workflow_results({});
  db.store_workflow_sequence_number(2);
  EXPECT_TRUE(reader.wait_for_save(10s));
  EXPECT_FALSE(reader.read_since(0).items[db_item_job]->is_present("j9"));
  EXPECT_FALSE(reader.wait_for_save(0ms));
}

TEST_F(PostgresSaveReaderTest, AServerRestartedUnderAListeningReaderIsFoundAndHeardAgain) {
  save_jobs(db, jobs(3, 1), 1);
  postgres_save_reader reader(conninfo);
  const std::uint64_t held = reader.read_since(0).save;
  server.stop_immediately();
  const std::string lost =
      zeltest::raised_message<zelbase::es::uspec>([&] { reader.wait_for_save(10s); });
  EXPECT_NE(lost.find("PostgreSQL store '" + reader.server() + "'"), std::string::npos) << lost;
  EXPECT_THROW(reader.read_since(held), zelbase::es::uspec);
  server.start();
  // Announcements may have been missed while there was no session.
  EXPECT_TRUE(reader.wait_for_save(0ms));
  save_jobs(db, jobs(4, 1), 2);
  EXPECT_TRUE(reader.wait_for_save(10s));
  const save_changes changes = reader.read_since(held);
  EXPECT_FALSE(changes.whole);
  EXPECT_EQ(changes.items[db_item_job]->size(), 1u);
}

TEST_F(PostgresSaveReaderTest, ADatabaseOfThePreviousSchemaIsBroughtUpToDate) {
  const std::string old = server.fresh_database();
  postgres_session(old).execute(
      "CREATE TABLE zelcapi_meta(key text PRIMARY KEY, value text NOT NULL);"
      " INSERT INTO zelcapi_meta VALUES ('application', 'zelcapi'), ('schema_version', '1');"
      " CREATE TABLE jobs(id text PRIMARY KEY, record jsonb NOT NULL);"
      " INSERT INTO jobs VALUES ('j1', '{\"status\": 1}');"
      " CREATE TABLE workflow_sequence(number bigint NOT NULL);"
      " INSERT INTO workflow_sequence VALUES (4)");
  EXPECT_EQ(zeltest::raised_message<zelbase::es::uspec>([&] { postgres_save_reader early(old); }),
            "PostgreSQL store '" + server.label_of(old) +
                "': schema version 1 numbers no saves: a mirror of this version must open the "
                "database first");

  postgres_state_db upgraded(old);
  postgres_session psql(old);
  EXPECT_EQ(psql.query("SELECT value FROM zelcapi_meta WHERE key = 'schema_version'"), "2");
  postgres_save_reader reader(old);
  const save_changes loaded = reader.read_since(0);
  EXPECT_TRUE(loaded.whole);
  EXPECT_EQ(loaded.items[db_item_job]->get_properties_value("j1").get_int_value("status"), 1);
  EXPECT_EQ(loaded.workflow_sequence_number, 4u);

  properties j1(false);
  j1.set_properties_value("j1", zeltest::job("j1", 2));
  save_jobs(upgraded, j1, 5);
  // What it loaded came from no numbered save: the first one is read whole.
  const save_changes first = reader.read_since(loaded.save);
  EXPECT_TRUE(first.whole);
  EXPECT_EQ(first.items[db_item_job]->get_properties_value("j1").get_int_value("status"), 2);
  j1.set_properties_value("j1", zeltest::job("j1", 3));
  save_jobs(upgraded, j1, 6);
  const save_changes changes = reader.read_since(first.save);
  EXPECT_FALSE(changes.whole);
  EXPECT_EQ(changes.items[db_item_job]->size(), 1u);
}

TEST_F(PostgresSaveReaderTest, ADatabaseWithoutAStoreIsRefused) {
  const std::string empty = server.fresh_database();
  const std::string refused =
      zeltest::raised_message<zelbase::es::uspec>([&] { postgres_save_reader reader(empty); });
  EXPECT_EQ(refused, "PostgreSQL store '" + server.label_of(empty) +
                         "': the database holds no zelcapi state store");
  // It created nothing.
  EXPECT_EQ(postgres_session(empty).query_int(
                "SELECT count(*) FROM information_schema.tables WHERE table_schema = 'public'"),
            0);
}
