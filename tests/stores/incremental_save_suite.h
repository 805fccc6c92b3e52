// The typed suite of saves that write only what changed, for every store that keeps digests of
// what it committed: the counts of a save, the records that a save no longer holds, a store
// reopened on what it holds, and saves after an abandoned one. A test binary instantiates it
// with INSTANTIATE_TYPED_TEST_SUITE_P; a store is a type with `using db` (the store's class),
// `static std::string location(const zeltest::scratch_dir&)` (a new, empty place for one test)
// and `static std::unique_ptr<db> open(const std::string& location)`.
#pragma once

#include <gtest/gtest.h>

#include <cstdio>
#include <map>
#include <memory>
#include <string>

#include "stores/store_test_support.h"
#include "zelcapi/save_counts.h"
#include "zelcapi/state.h"

template <class Store>
class IncrementalSaveTest : public testing::Test {
 protected:
  using db_type = typename Store::db;
  using properties = zelcore::properties;
  static constexpr zelcapi::db_item_type db_item_job = zelcapi::db_item_job;
  static constexpr zelcapi::db_item_type db_item_node = zelcapi::db_item_node;

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
  static void save(db_type& db, const std::map<std::string, properties>& jobs) {
    db.begin_save();
    for (const auto& [id, record] : jobs) db.store_item(db_item_job, id, record);
    db.store_workflow_results({});
    db.store_workflow_sequence_number(++sequence_number);
  }
  static void expect_jobs(db_type& db, const std::map<std::string, properties>& jobs) {
    properties expected(false);
    for (const auto& [id, record] : jobs) expected.set_properties_value(id, record);
    expect_jobs(db, expected);
  }

  static void expect_counts(const zelcapi::save_counts& got, std::uint64_t written,
                            std::uint64_t unchanged, std::uint64_t removed) {
    EXPECT_EQ(got.written, written);
    EXPECT_EQ(got.unchanged, unchanged);
    EXPECT_EQ(got.removed, removed);
  }

  static void expect_jobs(db_type& db, const properties& jobs) {
    const auto loaded = db.load_items(db_item_job);
    EXPECT_TRUE(*loaded == jobs) << loaded->size() << " jobs loaded, " << jobs.size()
                                 << " expected";
  }

  static properties jobs(int count, int status = 1) {
    properties out(false);
    for (int n = 0; n < count; ++n)
      out.set_properties_value("job-" + std::to_string(n),
                               zeltest::job("job " + std::to_string(n), status));
    return out;
  }
  static properties job(const std::string& name, std::int64_t status) {
    return zeltest::job(name, status);
  }

  static inline std::uint64_t sequence_number = 0;
  zeltest::scratch_dir dir;
  std::string location = Store::location(dir);
  std::unique_ptr<db_type> db = Store::open(location);
};

TYPED_TEST_SUITE_P(IncrementalSaveTest);

TYPED_TEST_P(IncrementalSaveTest, FirstSaveWritesEveryRecord) {
  this->save(*this->db, this->jobs(500));
  this->expect_counts(this->db->last_save_counts(), 500, 0, 0);
  this->expect_jobs(*this->db, this->jobs(500));
}

TYPED_TEST_P(IncrementalSaveTest, SaveWithOnePercentChangedWritesOnlyThose) {
  typename TestFixture::properties records = this->jobs(10000);
  this->save(*this->db, records);
  for (int n = 0; n < 10000; n += 100)
    records.set_properties_value("job-" + std::to_string(n), this->job("renamed", 2));
  this->save(*this->db, records);
  this->expect_counts(this->db->last_save_counts(), 100, 9900, 0);
  this->expect_jobs(*this->db, records);
}

TYPED_TEST_P(IncrementalSaveTest, RecordsNoLongerHeldAreDeletedAndNewOnesWritten) {
  typename TestFixture::properties records = this->jobs(1000);
  this->save(*this->db, records);
  for (int n = 0; n < 10; ++n) records.erase("job-" + std::to_string(n * 37));
  for (int n = 0; n < 5; ++n)
    records.set_properties_value("new-" + std::to_string(n), this->job("new", 1));
  this->save(*this->db, records);
  this->expect_counts(this->db->last_save_counts(), 5, 990, 10);
  this->expect_jobs(*this->db, records);
}

TYPED_TEST_P(IncrementalSaveTest, EmptySaveDeletesEverything) {
  this->save(*this->db, this->jobs(50), this->jobs(3));
  this->save(*this->db, typename TestFixture::properties());
  this->expect_counts(this->db->last_save_counts(), 0, 0, 53);
  EXPECT_EQ(this->db->load_items(zelcapi::db_item_node)->size(), 0u);
  this->expect_jobs(*this->db, typename TestFixture::properties());
}

TYPED_TEST_P(IncrementalSaveTest, KindsAreComparedApartUnderTheSameIds) {
  this->save(*this->db, this->jobs(20), this->jobs(20));
  this->save(*this->db, this->jobs(20, 2), this->jobs(20));  // the jobs change, the nodes do not
  this->expect_counts(this->db->last_save_counts(), 20, 20, 0);
  this->expect_jobs(*this->db, this->jobs(20, 2));
  EXPECT_TRUE(*this->db->load_items(zelcapi::db_item_node) == this->jobs(20));
}

TYPED_TEST_P(IncrementalSaveTest, StoreOpenedOnWhatItHoldsWritesOnlyTheChanges) {
  typename TestFixture::properties records = this->jobs(300);
  this->save(*this->db, records);
  this->db.reset();
  this->db = TypeParam::open(this->location);
  records.set_properties_value("job-7", this->job("changed", 3));
  this->save(*this->db, records);
  this->expect_counts(this->db->last_save_counts(), 1, 299, 0);
  this->expect_jobs(*this->db, records);
}

TYPED_TEST_P(IncrementalSaveTest, SaveAfterAnAbandonedOneComparesWithTheLastCommittedSave) {
  const typename TestFixture::properties committed = this->jobs(100);
  this->save(*this->db, committed);
  // A save that changes records in place, then never commits.
  this->db->begin_save();
  for (const auto& [id, record] : this->jobs(100, 5))
    this->db->store_item(zelcapi::db_item_job, id, static_cast<const properties&>(*record));
  // The next save holds what was committed: nothing to write, since nothing of the abandoned one
  // was kept.
  this->save(*this->db, committed);
  this->expect_counts(this->db->last_save_counts(), 0, 100, 0);
  this->expect_jobs(*this->db, committed);
}

TYPED_TEST_P(IncrementalSaveTest, WritesOutsideASaveAreUndoneByTheNextSave) {
  const typename TestFixture::properties records = this->jobs(40);
  this->save(*this->db, records);
  this->db->store_item(zelcapi::db_item_job, "job-3", this->job("written outside", 9));
  this->db->remove_item(zelcapi::db_item_job, "job-4");
  this->db->store_item(zelcapi::db_item_job, "extra", this->job("extra", 1));
  this->save(*this->db, records);
  this->expect_counts(this->db->last_save_counts(), 2, 38, 1);
  this->expect_jobs(*this->db, records);
}

TYPED_TEST_P(IncrementalSaveTest, RemovalInsideASaveIsKeptAndTheNextSaveRereadsTheStore) {
  const typename TestFixture::properties records = this->jobs(30);
  this->save(*this->db, records);
  this->db->begin_save();
  for (const auto& [id, record] : records)
    this->db->store_item(zelcapi::db_item_job, id, static_cast<const properties&>(*record));
  this->db->remove_item(zelcapi::db_item_job, "job-1");
  this->db->store_workflow_results({});
  this->db->store_workflow_sequence_number(99);
  typename TestFixture::properties without = records;
  without.erase("job-1");
  this->expect_jobs(*this->db, without);
  this->save(*this->db, records);
  this->expect_counts(this->db->last_save_counts(), 1, 29, 0);
  this->expect_jobs(*this->db, records);
}

TYPED_TEST_P(IncrementalSaveTest, CommittedEntriesTakeFortyFourBytesARecord) {
  this->save(*this->db, this->jobs(20000));
  const double per_record = static_cast<double>(this->db->digest_memory_bytes()) / 20000;
  EXPECT_LE(per_record, 44.2) << per_record << " bytes a record";
  std::printf("committed entries: %.1f bytes a record\n", per_record);
}

// The records held as the state holds them, by id, each a tree of its own that a change
// detaches from what the last save passed to the store.
TYPED_TEST_P(IncrementalSaveTest, SaveAfterChangingSomeRecordsReadsAndWritesOnlyThose) {
  std::map<std::string, properties> records;
  for (const auto& [id, record] : this->jobs(2000))
    records.emplace(id, static_cast<const properties&>(*record));
  this->save(*this->db, records);
  this->expect_counts(this->db->last_save_counts(), 2000, 0, 0);
  this->save(*this->db, records);
  this->expect_counts(this->db->last_save_counts(), 0, 2000, 0);
  EXPECT_EQ(this->db->last_save_counts().digested, 0u);
  for (const std::size_t k : {1u, 37u, 400u}) {
    std::size_t changed = 0;
    for (auto& [id, record] : records) {
      if (changed == k) break;
      record.set_int_value("status", 100 + static_cast<std::int64_t>(k));
      ++changed;
    }
    this->save(*this->db, records);
    this->expect_counts(this->db->last_save_counts(), k, 2000 - k, 0);
    EXPECT_EQ(this->db->last_save_counts().digested, k) << k << " records changed";
    this->expect_jobs(*this->db, records);
  }
}

TYPED_TEST_P(IncrementalSaveTest, RecordChangedAndChangedBackIsSaved) {
  std::map<std::string, properties> records;
  for (const auto& [id, record] : this->jobs(50))
    records.emplace(id, static_cast<const properties&>(*record));
  const std::map<std::string, properties> first = records;
  this->save(*this->db, records);
  records["job-7"].set_string_value("name", "changed");
  this->save(*this->db, records);
  this->expect_counts(this->db->last_save_counts(), 1, 49, 0);
  // Back to the very tree that the first save wrote: its content is no longer what the store
  // holds under the id, so it is read, found changed and written.
  records["job-7"] = first.at("job-7");
  this->save(*this->db, records);
  this->expect_counts(this->db->last_save_counts(), 1, 49, 0);
  EXPECT_EQ(this->db->last_save_counts().digested, 1u);
  this->expect_jobs(*this->db, first);
  // Changed and changed back between two saves: read, found equal, not written.
  records["job-9"].set_string_value("name", "changed");
  records["job-9"].set_string_value("name", first.at("job-9").get_string_value("name"));
  this->save(*this->db, records);
  this->expect_counts(this->db->last_save_counts(), 0, 50, 0);
  EXPECT_EQ(this->db->last_save_counts().digested, 1u);
  this->expect_jobs(*this->db, first);
}

TYPED_TEST_P(IncrementalSaveTest, StoreReopenedComparesByDigestsUntilItHasSaved) {
  std::map<std::string, properties> records;
  for (const auto& [id, record] : this->jobs(300))
    records.emplace(id, static_cast<const properties&>(*record));
  this->save(*this->db, records);
  this->db.reset();
  this->db = TypeParam::open(this->location);
  // The very trees of the first save, but the reopened store knows only what it read back.
  this->save(*this->db, records);
  this->expect_counts(this->db->last_save_counts(), 0, 300, 0);
  EXPECT_EQ(this->db->last_save_counts().digested, 300u);
  this->save(*this->db, records);
  this->expect_counts(this->db->last_save_counts(), 0, 300, 0);
  EXPECT_EQ(this->db->last_save_counts().digested, 0u);
}

REGISTER_TYPED_TEST_SUITE_P(
    IncrementalSaveTest, FirstSaveWritesEveryRecord, SaveWithOnePercentChangedWritesOnlyThose,
    RecordsNoLongerHeldAreDeletedAndNewOnesWritten, EmptySaveDeletesEverything,
    KindsAreComparedApartUnderTheSameIds, StoreOpenedOnWhatItHoldsWritesOnlyTheChanges,
    SaveAfterAnAbandonedOneComparesWithTheLastCommittedSave,
    WritesOutsideASaveAreUndoneByTheNextSave, RemovalInsideASaveIsKeptAndTheNextSaveRereadsTheStore,
    CommittedEntriesTakeFortyFourBytesARecord, SaveAfterChangingSomeRecordsReadsAndWritesOnlyThose,
    RecordChangedAndChangedBackIsSaved, StoreReopenedComparesByDigestsUntilItHasSaved);
