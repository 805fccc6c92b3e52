// Saves that write only what changed, checked on every store that keeps digests of what it
// committed: the counts of a save, the records that a save no longer holds, a store reopened on
// what it holds, and saves after a failed or abandoned one.
#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "stores/store_test_support.h"
#include "zelcapi/sqlite_db.h"

using zelcapi::db_item_job;
using zelcapi::db_item_node;
using zelcapi::save_counts;
using zelcore::properties;
using zeltest::job;

namespace {

struct sqlite_store {
  using db = zelcapi::sqlite_state_db;
  static std::unique_ptr<db> open(const zeltest::scratch_dir& dir) {
    return std::make_unique<db>(dir.file("state.db"));
  }
};

template <class Store>
class IncrementalSaveTest : public testing::Test {
 protected:
  using db_type = typename Store::db;

  // Saves the jobs (and the nodes, when given) as the saver does.
  static void save(db_type& db, const properties& jobs, const properties& nodes = properties()) {
    db.begin_save();
    for (const auto& [id, record] : nodes)
      db.store_item(db_item_node, id, static_cast<const properties&>(*record));
    for (const auto& [id, record] : jobs)
      db.store_item(db_item_job, id, static_cast<const properties&>(*record));
    db.store_workflow_results({});
    db.store_workflow_sequence_number(++sequence_number);
  }

  static void expect_counts(const save_counts& got, std::uint64_t written, std::uint64_t unchanged,
                            std::uint64_t removed) {
    EXPECT_EQ(got.written, written);
    EXPECT_EQ(got.unchanged, unchanged);
    EXPECT_EQ(got.removed, removed);
  }

  static void expect_jobs(db_type& db, const properties& jobs) {
    const auto loaded = db.load_items(db_item_job);
    EXPECT_TRUE(*loaded == jobs) << loaded->size() << " jobs loaded, " << jobs.size()
                                 << " expected";
  }

  static inline std::uint64_t sequence_number = 0;
  zeltest::scratch_dir dir;
  std::unique_ptr<db_type> db = Store::open(dir);
};

using counting_stores = testing::Types<sqlite_store>;
TYPED_TEST_SUITE(IncrementalSaveTest, counting_stores);

properties jobs(int count, int status = 1) {
  properties out(false);
  for (int n = 0; n < count; ++n)
    out.set_properties_value("job-" + std::to_string(n), job("job " + std::to_string(n), status));
  return out;
}

}  // namespace

TYPED_TEST(IncrementalSaveTest, FirstSaveWritesEveryRecord) {
  this->save(*this->db, jobs(500));
  this->expect_counts(this->db->last_save_counts(), 500, 0, 0);
  this->expect_jobs(*this->db, jobs(500));
}

TYPED_TEST(IncrementalSaveTest, SaveWithOnePercentChangedWritesOnlyThose) {
  properties records = jobs(10000);
  this->save(*this->db, records);
  for (int n = 0; n < 10000; n += 100)
    records.set_properties_value("job-" + std::to_string(n), job("renamed", 2));
  this->save(*this->db, records);
  this->expect_counts(this->db->last_save_counts(), 100, 9900, 0);
  this->expect_jobs(*this->db, records);
}

TYPED_TEST(IncrementalSaveTest, RecordsNoLongerHeldAreDeletedAndNewOnesWritten) {
  properties records = jobs(1000);
  this->save(*this->db, records);
  for (int n = 0; n < 10; ++n) records.erase("job-" + std::to_string(n * 37));
  for (int n = 0; n < 5; ++n)
    records.set_properties_value("new-" + std::to_string(n), job("new", 1));
  this->save(*this->db, records);
  this->expect_counts(this->db->last_save_counts(), 5, 990, 10);
  this->expect_jobs(*this->db, records);
}

TYPED_TEST(IncrementalSaveTest, EmptySaveDeletesEverything) {
  this->save(*this->db, jobs(50), jobs(3));
  this->save(*this->db, properties());
  this->expect_counts(this->db->last_save_counts(), 0, 0, 53);
  EXPECT_EQ(this->db->load_items(db_item_node)->size(), 0u);
  this->expect_jobs(*this->db, properties());
}

TYPED_TEST(IncrementalSaveTest, KindsAreComparedApartUnderTheSameIds) {
  this->save(*this->db, jobs(20), jobs(20));
  this->save(*this->db, jobs(20, 2), jobs(20));  // the jobs change, the nodes do not
  this->expect_counts(this->db->last_save_counts(), 20, 20, 0);
  this->expect_jobs(*this->db, jobs(20, 2));
  EXPECT_TRUE(*this->db->load_items(db_item_node) == jobs(20));
}

TYPED_TEST(IncrementalSaveTest, StoreOpenedOnWhatItHoldsWritesOnlyTheChanges) {
  properties records = jobs(300);
  this->save(*this->db, records);
  this->db.reset();
  this->db = TypeParam::open(this->dir);
  records.set_properties_value("job-7", job("changed", 3));
  this->save(*this->db, records);
  this->expect_counts(this->db->last_save_counts(), 1, 299, 0);
  this->expect_jobs(*this->db, records);
}

TYPED_TEST(IncrementalSaveTest, SaveAfterAnAbandonedOneComparesWithTheLastCommittedSave) {
  const properties committed = jobs(100);
  this->save(*this->db, committed);
  // A save that changes records in place, then never commits.
  this->db->begin_save();
  for (const auto& [id, record] : jobs(100, 5))
    this->db->store_item(db_item_job, id, static_cast<const properties&>(*record));
  // The next save holds what was committed: nothing to write, since nothing of the abandoned one
  // was kept.
  this->save(*this->db, committed);
  this->expect_counts(this->db->last_save_counts(), 0, 100, 0);
  this->expect_jobs(*this->db, committed);
}

TYPED_TEST(IncrementalSaveTest, WritesOutsideASaveAreUndoneByTheNextSave) {
  const properties records = jobs(40);
  this->save(*this->db, records);
  this->db->store_item(db_item_job, "job-3", job("written outside", 9));
  this->db->remove_item(db_item_job, "job-4");
  this->db->store_item(db_item_job, "extra", job("extra", 1));
  this->save(*this->db, records);
  this->expect_counts(this->db->last_save_counts(), 2, 38, 1);
  this->expect_jobs(*this->db, records);
}

TYPED_TEST(IncrementalSaveTest, RemovalInsideASaveIsKeptAndTheNextSaveRereadsTheStore) {
  const properties records = jobs(30);
  this->save(*this->db, records);
  this->db->begin_save();
  for (const auto& [id, record] : records)
    this->db->store_item(db_item_job, id, static_cast<const properties&>(*record));
  this->db->remove_item(db_item_job, "job-1");
  this->db->store_workflow_results({});
  this->db->store_workflow_sequence_number(99);
  properties without = records;
  without.erase("job-1");
  this->expect_jobs(*this->db, without);
  this->save(*this->db, records);
  this->expect_counts(this->db->last_save_counts(), 1, 29, 0);
  this->expect_jobs(*this->db, records);
}

TYPED_TEST(IncrementalSaveTest, DigestsTakeSixteenBytesARecord) {
  this->save(*this->db, jobs(20000));
  const double per_record = static_cast<double>(this->db->digest_memory_bytes()) / 20000;
  EXPECT_LE(per_record, 16.2) << per_record << " bytes a record";
}
