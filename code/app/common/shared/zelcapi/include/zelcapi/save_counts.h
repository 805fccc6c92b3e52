// What the library's database stores (sqlite_state_db in zelcapi/sqlite_db.h, postgres_state_db
// in zelcapi/postgres_db.h) promise beyond the state_db interface, and the counts of their last
// save.
//
// - A save is one transaction: begin_save begins it (rolling back one left open), and
//   store_workflow_sequence_number deletes the records that the save did not hold, stores the
//   number and commits. A save abandoned part-way, cut by a crash or by a lost connection leaves
//   the previous complete save. A write that fails inside a save rolls the save back, and the
//   save's further writes raise until the next begin_save.
// - A save writes only the records that changed since the previous one: the store keeps 44 bytes
//   a record of what it committed (a digest, a copy of the tree it wrote, sharing its
//   content, and the order of the save's records, so that a record still holding that content is
//   skipped unread), read from the database by the first save and again after a save that failed
//   (last_save_counts, digest_memory_bytes).
// - Outside a save, store_item and remove_item write one record each, in their own transaction;
//   clear deletes everything in one.
// - Loads read through a second connection, so that a saver thread may write meanwhile, and see
//   the last committed save, never one in progress. The reads between begin_load and end_load
//   (a load of set_and_update_from_state_db) are one read transaction: they see one save whole
//   even when another connection commits the next one in their middle.
// - Errors raise zelbase::es::uspec with the database's own text; a stored record whose JSON
//   cannot be read raises it naming its table and id; a kind outside 0 to 7 raises es::arg.
#pragma once

#include <cstdint>

namespace zelcapi {

struct save_counts {
  std::uint64_t written = 0;    // records new or changed since the previous save
  std::uint64_t unchanged = 0;  // records the save held that were already stored as they are
  std::uint64_t removed = 0;    // stored records that the save no longer held
  // Records whose tree the save read to take its digest: the new ones, and those whose tree was
  // not the very one that the previous save committed (after a store was opened, every record).
  std::uint64_t digested = 0;
};

}  // namespace zelcapi
