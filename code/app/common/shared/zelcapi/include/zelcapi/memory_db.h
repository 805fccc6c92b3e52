// In-memory implementations of the persistence interfaces: memory_state_db keeps the last
// complete save of a state, memory_history_db keeps historized records with their time.
//
// Threading: every operation takes the store's own lock, so a saver thread may write while
// other threads load. Loads of memory_state_db see the last complete save, never one in progress.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <map>
#include <mutex>
#include <set>
#include <string>

#include "zelcapi/export.h"
#include "zelcapi/state.h"

namespace zelcapi {

// The kind as an index 0 to 7, for stores that keep a table per kind; raises zelbase::es::arg
// "<store> does not have item type <n>" for a kind outside 0 to 7.
ZELCAPI_EXPORT std::size_t db_item_index(db_item_type type, const char* store);

// A state_db in memory. A save (begin_save, store_item..., store_workflow_results,
// store_workflow_sequence_number) replaces the previous save at its last call, whole or not at
// all: a save abandoned part-way, or followed by another begin_save, leaves the previous one.
// Outside a save, store_item and remove_item change the last complete save record by record.
// Every operation that takes a kind raises zelbase::es::arg for a kind outside 0 to 7.
class ZELCAPI_EXPORT memory_state_db final : public state_db {
 public:
  memory_state_db();
  ~memory_state_db() override;
  memory_state_db(const memory_state_db&) = delete;
  memory_state_db& operator=(const memory_state_db&) = delete;

  // Also drops a save in progress.
  void clear() override;
  // Shares the records with the store.
  properties_cptr load_items(db_item_type type) override;
  properties_cptr load_workflow_results() override;
  std::uint64_t load_workflow_sequence_number() override;
  // Into the save in progress; outside a save, into the last complete save.
  void store_item(db_item_type type, const std::string& id,
                  const zelcore::properties& record) override;
  // From the save in progress; outside a save, from the last complete save.
  void remove_item(db_item_type type, const std::string& id) override;
  void store_workflow_results(const workflow_result_map& results) override;
  void store_workflow_sequence_number(std::uint64_t sequence_number) override;
  bool load_item(db_item_type type, const std::string& id, zelcore::properties& out) override;
  // True once a save has completed or a sequence number was stored (until clear).
  bool has_saved_state() override;
  void begin_save() override;

 private:
  struct contents {
    std::array<zelcore::properties, 8> items;
    zelcore::properties results;
    std::uint64_t sequence_number = 0;
  };
  contents& _target();

  std::mutex lock_;
  contents saved_;
  contents pending_;
  bool saving_ = false;
  bool has_saved_ = false;
};

// A history_db in memory. Each record keeps the time it was stored (zelbase::time_in_seconds).
// Every operation that takes a kind raises zelbase::es::arg for a kind outside 0 to 7.
class ZELCAPI_EXPORT memory_history_db final : public history_db {
 public:
  memory_history_db();
  ~memory_history_db() override;
  memory_history_db(const memory_history_db&) = delete;
  memory_history_db& operator=(const memory_history_db&) = delete;

  properties_cptr load_items(db_item_type type) override;
  bool load_item(db_item_type type, const std::string& id, zelcore::properties& out) override;
  void store_item(db_item_type type, const std::string& id,
                  const zelcore::properties& record) override;
  void remove_item(db_item_type type, const std::string& id) override;
  void remove_items(db_item_type type) override;
  void remove_items(db_item_type type, const std::set<std::string>& ids) override;
  std::uint64_t count_items(db_item_type type) override;
  std::uint32_t get_historize_time(db_item_type type, const std::string& id) override;
  void remove_items_historized_until(std::uint32_t time) override;
  properties_cptr load_items_where(db_item_type type, const std::string& key,
                                   const std::string& value) override;
  void clear() override;
  // Each call is applied at once, so a batch needs nothing more.
  void begin_batch() override;
  void end_batch() override;

 private:
  struct entry {
    zelcore::properties record;
    std::uint32_t time = 0;
  };
  using kind_map = std::map<std::string, entry>;
  kind_map& _kind(db_item_type type);

  std::mutex lock_;
  std::array<kind_map, 8> kinds_;
};

}  // namespace zelcapi
