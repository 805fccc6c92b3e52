// The rows of a save written on a thread of their own: order, batches, errors and discarding.
#include <gtest/gtest.h>

#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "save_pipeline.h"

using zelcapi::store_detail::save_pipeline;

namespace {

// The rows a pipeline wrote, as "kind/id=text", and a writer that fails at a chosen row.
struct written_rows {
  std::mutex lock;
  std::vector<std::string> rows;
  std::thread::id writer_thread;
  std::size_t fail_at = SIZE_MAX;

  save_pipeline::row_writer writer() {
    return [this](std::size_t kind, std::string_view id, std::string_view text) {
      std::lock_guard<std::mutex> hold(lock);
      writer_thread = std::this_thread::get_id();
      if (rows.size() == fail_at) throw std::runtime_error("refused " + std::string(id));
      rows.push_back(std::to_string(kind) + "/" + std::string(id) + "=" + std::string(text));
    };
  }
  std::vector<std::string> taken() {
    std::lock_guard<std::mutex> hold(lock);
    return rows;
  }
};

void add(save_pipeline& p, std::size_t kind, const std::string& id, const std::string& text) {
  zelbase::encoder_network& out = p.begin_row(kind, id);
  out.write(text.data(), text.size());
  p.end_row();
}

// Rows of about 1 KiB, and how many of them fill a batch.
std::string row_text(int n) { return std::to_string(n) + std::string(1000, 'x'); }
constexpr int rows_per_batch = static_cast<int>(save_pipeline::batch_bytes / 1000);

}  // namespace

TEST(SavePipeline, RowsAreWrittenInOrderOnAnotherThreadByTheDrain) {
  written_rows out;
  save_pipeline p(out.writer());
  add(p, 5, "JOB-1", "{\"a\":1}");
  add(p, 2, "", "{}");
  add(p, 7, "WOFL-9", "");
  EXPECT_TRUE(out.taken().empty());  // a batch that is not full waits for the drain
  p.drain();
  EXPECT_EQ(out.taken(), (std::vector<std::string>{"5/JOB-1={\"a\":1}", "2/={}", "7/WOFL-9="}));
  EXPECT_NE(out.writer_thread, std::this_thread::get_id());
}

TEST(SavePipeline, FullBatchesAreWrittenWhileTheNextOneFills) {
  written_rows out;
  save_pipeline p(out.writer());
  const int rows = 5 * rows_per_batch;
  for (int n = 0; n < rows; ++n) add(p, 0, "r" + std::to_string(n), row_text(n));
  p.wait();
  const std::size_t before_drain = out.taken().size();
  EXPECT_GT(before_drain, 0u);
  EXPECT_LT(before_drain, static_cast<std::size_t>(rows));
  p.drain();
  const std::vector<std::string> written = out.taken();
  ASSERT_EQ(written.size(), static_cast<std::size_t>(rows));
  for (int n = 0; n < rows; ++n)
    ASSERT_EQ(written[n], "0/r" + std::to_string(n) + "=" + row_text(n)) << n;
}

TEST(SavePipeline, AFailedWriteIsRaisedByALaterRowAndStopsTheRowsAfterIt) {
  written_rows out;
  const int failing = rows_per_batch + rows_per_batch / 2;  // in the second batch
  out.fail_at = static_cast<std::size_t>(failing);
  save_pipeline p(out.writer());
  std::string raised;
  int given = 0;
  const int rows = 20 * rows_per_batch;
  try {
    for (; given < rows; ++given) add(p, 0, "r" + std::to_string(given), row_text(given));
  } catch (const std::runtime_error& e) {
    raised = e.what();
  }
  EXPECT_EQ(raised, "refused r" + std::to_string(failing));
  EXPECT_LT(given, rows);  // raised while the save went on, not at its end
  p.wait();
  EXPECT_EQ(out.taken().size(), static_cast<std::size_t>(failing));
  p.discard();
  // After the discard the pipeline writes again, from the next row on.
  out.fail_at = SIZE_MAX;
  add(p, 1, "again", "{}");
  p.drain();
  EXPECT_EQ(out.taken().back(), "1/again={}");
  EXPECT_EQ(out.taken().size(), static_cast<std::size_t>(failing) + 1);
}

TEST(SavePipeline, AnErrorOfTheLastBatchIsRaisedByTheDrainOnce) {
  written_rows out;
  out.fail_at = 0;
  save_pipeline p(out.writer());
  add(p, 0, "only", "{}");
  EXPECT_THROW(p.drain(), std::runtime_error);
  EXPECT_NO_THROW(p.drain());
  EXPECT_TRUE(out.taken().empty());
}

TEST(SavePipeline, DiscardDropsRowsNotWrittenAndARowLeftUnended) {
  written_rows out;
  save_pipeline p(out.writer());
  add(p, 0, "dropped", "{}");
  p.discard();
  zelbase::encoder_network& half = p.begin_row(0, "unended");
  half.write("{\"cut", 5);  // its encoding raised before end_row
  add(p, 3, "kept", "{}");
  p.drain();
  EXPECT_EQ(out.taken(), (std::vector<std::string>{"3/kept={}"}));
}

TEST(SavePipeline, DiscardWithABatchInFlightReturnsWhenTheThreadStopped) {
  written_rows out;
  save_pipeline p(out.writer());
  // About one and a half batches: the first in flight, the rest filling.
  const int rows = rows_per_batch + rows_per_batch / 2;
  for (int n = 0; n < rows; ++n) add(p, 0, "r" + std::to_string(n), row_text(n));
  p.discard();
  const std::size_t written = out.taken().size();
  EXPECT_LT(written, static_cast<std::size_t>(rows));
  for (std::size_t n = 0; n < written; ++n)
    ASSERT_EQ(out.taken()[n], "0/r" + std::to_string(n) + "=" + row_text(static_cast<int>(n)));
  p.drain();
  EXPECT_EQ(out.taken().size(), written);
}
