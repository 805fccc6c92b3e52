// Test support for the stores: a scratch directory per test, random trees with every property
// kind and arbitrary bytes in strings and keys, and small builders of records.
#pragma once

#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <random>
#include <string>

#include "zelcapi/state.h"
#include "zelcore/properties.h"

namespace zeltest {

// A fresh directory, removed with its content at the end of the scope.
class scratch_dir {
 public:
  scratch_dir() {
    std::string pattern = (std::filesystem::temp_directory_path() / "zelstore-XXXXXX").string();
    if (!mkdtemp(pattern.data())) ADD_FAILURE() << "mkdtemp failed";
    path_ = pattern;
  }
  ~scratch_dir() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  scratch_dir(const scratch_dir&) = delete;
  scratch_dir& operator=(const scratch_dir&) = delete;

  std::string file(const std::string& name) const { return (path_ / name).string(); }

 private:
  std::filesystem::path path_;
};

// Trees of every property kind whose strings and keys are random bytes (often not UTF-8, with
// NUL bytes, quotes, backslashes and keys beginning with "~").
class random_bytes_trees {
 public:
  explicit random_bytes_trees(unsigned seed) : random_(seed) {}

  std::size_t below(std::size_t n) {
    return std::uniform_int_distribution<std::size_t>(0, n - 1)(random_);
  }

  std::string bytes() {
    static const char* const tricky[] = {"~", "~x", "~o", "\"", "\\", "\xc3\xa9", "\xff"};
    std::string out;
    if (below(4) == 0) out += tricky[below(7)];
    for (std::size_t n = below(12); n > 0; --n) {
      if (below(3) == 0)
        out += static_cast<char>(below(256));
      else
        out += static_cast<char>('a' + below(26));
    }
    return out;
  }

  zelcore::property_ptr value(int depth) {
    switch (below(depth > 0 ? 6 : 4)) {
      case 0: {
        const std::int64_t extremes[] = {INT64_MIN, INT64_MAX, 0, -1};
        return zelcore::make_int(below(2) ? extremes[below(4)]
                                          : static_cast<std::int64_t>(random_()));
      }
      case 1: return zelcore::make_bool(below(2) == 1);
      case 2:
      case 3: return zelcore::make_string(bytes());
      case 4: {
        zelbase::ptr_refcount<zelcore::property_list> list(new zelcore::property_list);
        for (std::size_t n = below(4); n > 0; --n) list->push_back(value(depth - 1));
        return list;
      }
      default: return zelcore::property_ptr(new zelcore::properties(tree(depth - 1)));
    }
  }

  zelcore::properties tree(int depth) {
    zelcore::properties out(false);
    for (std::size_t n = below(6); n > 0; --n) out[bytes()] = value(depth);
    return out;
  }

 private:
  std::mt19937 random_;
};

// A job record of the usual kinds of fields.
inline zelcore::properties job(const std::string& name, std::int64_t status) {
  zelcore::properties p(false);
  p.set_string_value("name", name);
  p.set_int_value("status", status);
  p.set_bool_value("killed", status == 4);
  p.set_properties_value("progress", zelcore::properties{{"done", zelcore::make_int(status)}});
  return p;
}

// `count` jobs "j0", "j1", ... of the given status, each with `padding` bytes of text.
inline zelcore::properties jobs(int count, int status, std::size_t padding = 0) {
  zelcore::properties out(false);
  for (int n = 0; n < count; ++n) {
    zelcore::properties record = job("job " + std::to_string(n), status);
    record.set_string_value("padding", std::string(padding, 'p'));
    out.set_properties_value("j" + std::to_string(n), record);
  }
  return out;
}

// A whole save of the jobs, one workflow result and the sequence number.
inline void save_jobs(zelcapi::state_db& db, const zelcore::properties& records,
                      std::uint64_t sequence_number) {
  db.begin_save();
  for (const auto& [id, record] : records)
    db.store_item(zelcapi::db_item_job, id, static_cast<const zelcore::properties&>(*record));
  db.store_workflow_results({{"WOFL-1", zelcapi::workflow_result_info(2u, 3u)}});
  db.store_workflow_sequence_number(sequence_number);
}

// That the store holds that save.
inline void expect_saved(zelcapi::state_db& db, const zelcore::properties& records,
                         std::uint64_t sequence_number) {
  const auto loaded = db.load_items(zelcapi::db_item_job);
  EXPECT_TRUE(*loaded == records) << loaded->size() << " records instead of " << records.size();
  EXPECT_EQ(db.load_workflow_sequence_number(), sequence_number);
  EXPECT_EQ(db.load_workflow_results()->size(), 1u);
}

}  // namespace zeltest
