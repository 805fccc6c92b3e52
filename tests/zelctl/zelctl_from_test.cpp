// zelctl state and history with --from: what a mirror saved and historized, read back without a
// cluster, as the same JSON the cluster's answers give; and the errors of a missing or foreign
// file.
#include <gtest/gtest.h>

#include <fstream>

#include "json_output.h"
#include "zelcapi/sqlite_db.h"
#include "zelctl_test_support.h"

using namespace zelctl_test;

namespace {

// A mirror of the simulated cluster that ran for a while, shared by the tests of this file.
class ZelctlFrom : public testing::Test {
 protected:
  static void SetUpTestSuite() {
    dir = new temp_dir;
    db = dir->file("mirror.sqlite");
    mirror_run = new result(run({"--simulate", "--rate", "400", "mirror", "--db", db, "--duration",
                                 "2.5", "--save-interval", "0.5", "--json"}));
  }
  static void TearDownTestSuite() {
    delete mirror_run;
    delete dir;
  }

  static nlohmann::json history_in_file(zelcapi::db_item_type type) {
    zelcapi::sqlite_options read_only;
    read_only.read_only = true;
    zelcapi::sqlite_history_db file(db, read_only);
    return zelctl::to_json(*file.load_items(type));
  }

  static inline temp_dir* dir = nullptr;
  static inline std::string db;
  static inline result* mirror_run = nullptr;
};

}  // namespace

TEST_F(ZelctlFrom, StateFromTheMirrorIsItsLastSave) {
  ASSERT_EQ(mirror_run->code, 0) << mirror_run->err;
  const result r = run({"state", "--from", db});
  ASSERT_EQ(r.code, 0) << r.err;
  const nlohmann::json state = nlohmann::json::parse(r.out);
  zelcapi::sqlite_options read_only;
  read_only.read_only = true;
  zelcapi::sqlite_state_db file(db, read_only);
  EXPECT_EQ(state["jobs"], zelctl::to_json(*file.load_items(zelcapi::db_item_job)));
  EXPECT_EQ(state["nodes"], zelctl::to_json(*file.load_items(zelcapi::db_item_node)));
  EXPECT_EQ(state["workflow-seq-nr"], file.load_workflow_sequence_number());

  const auto summary =
      nlohmann::json::parse(mirror_run->out.substr(mirror_run->out.find("\n{") + 1));
  EXPECT_EQ(summary["items"]["jobs"], state["jobs"].size());
  const result counted = run({"state", "--from", db, "--count", "--kind", "jobs"});
  ASSERT_EQ(counted.code, 0) << counted.err;
  EXPECT_EQ(nlohmann::json::parse(counted.out)["jobs"], state["jobs"].size());
}

TEST_F(ZelctlFrom, LaterSavesOfTheMirrorWriteOnlyWhatChanged) {
  ASSERT_EQ(mirror_run->code, 0) << mirror_run->err;
  const auto summary =
      nlohmann::json::parse(mirror_run->out.substr(mirror_run->out.find("\n{") + 1));
  ASSERT_GE(summary["saves"].get<int>(), 2) << mirror_run->out;
  EXPECT_LT(summary["last-save-written"].get<std::uint64_t>(),
            summary["last-save-records"].get<std::uint64_t>())
      << mirror_run->out;
  EXPECT_NE(mirror_run->out.find(" written) in "), std::string::npos) << mirror_run->out;
}

TEST_F(ZelctlFrom, HistoryFromTheMirrorListsWhatItHistorized) {
  ASSERT_EQ(mirror_run->code, 0) << mirror_run->err;
  const nlohmann::json stored = history_in_file(zelcapi::db_item_job);
  ASSERT_FALSE(stored.empty());
  const result all = run({"history", "--from", db, "--kind", "jobs"});
  ASSERT_EQ(all.code, 0) << all.err;
  const nlohmann::json listed = nlohmann::json::parse(all.out);
  ASSERT_TRUE(listed.is_array());
  ASSERT_EQ(listed.size(), stored.size());
  std::size_t n = 0;
  for (const auto& [id, record] : stored.items()) EXPECT_EQ(listed[n++], record) << id;

  const std::string first_id = stored.begin().key();
  const result one = run({"history", "--from", db, "--kind", "jobs", "--state-id", first_id});
  ASSERT_EQ(one.code, 0) << one.err;
  EXPECT_EQ(nlohmann::json::parse(one.out), nlohmann::json::array({stored[first_id]}));

  const std::string client = stored[first_id]["client-id"];
  const result of_client = run({"history", "--from", db, "--kind", "jobs", "--client-id", client});
  ASSERT_EQ(of_client.code, 0) << of_client.err;
  const nlohmann::json selected = nlohmann::json::parse(of_client.out);
  ASSERT_FALSE(selected.empty());
  std::size_t expected = 0;
  for (const auto& record : stored) expected += record["client-id"] == client;
  EXPECT_EQ(selected.size(), expected);
  for (const auto& record : selected) EXPECT_EQ(record["client-id"], client);
}

TEST(ZelctlFromErrors, MissingFileIsOneLineAndExitThree) {
  temp_dir dir;
  for (const auto& args :
       {std::vector<std::string>{"state", "--from", dir.file("none.db")},
        std::vector<std::string>{"history", "--kind", "jobs", "--from", dir.file("none.db")}}) {
    const result r = run(args);
    EXPECT_EQ(r.code, 3);
    EXPECT_EQ(r.err, "zelctl: no mirror at --from '" + dir.file("none.db") + "': no such file\n");
  }
}

TEST(ZelctlFromErrors, FileThatIsNotAMirrorIsRefused) {
  temp_dir dir;
  std::ofstream(dir.file("text.db")) << "not a database at all, just some text\n";
  const result r = run({"state", "--from", dir.file("text.db")});
  EXPECT_EQ(r.code, 3);
  EXPECT_EQ(lines_of(r.err).size(), 1u) << r.err;
  EXPECT_EQ(r.err.rfind("zelctl: cannot open --from '" + dir.file("text.db") + "': ", 0), 0u)
      << r.err;
}

TEST(ZelctlFromErrors, MirrorWithoutASaveYetIsSaidSo) {
  temp_dir dir;
  { zelcapi::sqlite_state_db create(dir.file("empty.db")); }
  const result r = run({"state", "--from", dir.file("empty.db")});
  EXPECT_EQ(r.code, 3);
  EXPECT_EQ(r.err,
            "zelctl: the mirror at --from '" + dir.file("empty.db") + "' holds no save yet\n");
}

namespace {

// That nothing the run wrote holds `secret`.
void expect_never_said(const result& r, const std::string& secret) {
  EXPECT_EQ(r.out.find(secret), std::string::npos) << r.out;
  EXPECT_EQ(r.err.find(secret), std::string::npos) << r.err;
}

}  // namespace

TEST(ZelctlFromErrors, MalformedConnectionStringIsLibpqsMessageAndExitOneWithoutThePassword) {
  const std::string db = "hots=db.example dbname=cluster password=Hunter2xyzzy";
  for (const auto& args : {std::vector<std::string>{"state", "--count", "--from", db},
                           std::vector<std::string>{"history", "--kind", "jobs", "--from", db}}) {
    const result r = run(args);
    EXPECT_EQ(r.code, 1) << r.err;
    expect_one_line(r.err);
    EXPECT_NE(r.err.find("invalid connection option \"hots\""), std::string::npos) << r.err;
    expect_never_said(r, "Hunter2xyzzy");
  }
}

TEST(ZelctlFromErrors, MalformedUriWithAPasswordIsNotRepeated) {
  const result r = run({"state", "--from", "postgresql://someone:Hunter2xyzzy@[::1/cluster"});
  EXPECT_EQ(r.code, 1) << r.err;
  expect_one_line(r.err);
  EXPECT_NE(r.err.find("IPv6"), std::string::npos) << r.err;
  expect_never_said(r, "Hunter2xyzzy");
}

TEST(ZelctlFromErrors, MistypedSchemeIsRefusedWithoutThePasswordAndMakesNoFile) {
  temp_dir dir;
  const std::string db = "postgresq://someone:Hunter2xyzzy@/cluster?host=/tmp";
  const std::string said =
      ": \"postgresq://\" names no store: a PostgreSQL database is \"postgresql://...\" or "
      "\"postgres://...\", an SQLite file a path (written \"./...\" when it holds \"://\")\n";
  for (const auto& args :
       {std::vector<std::string>{"--simulate", "mirror", "--db", db, "--duration", "1"},
        std::vector<std::string>{"state", "--count", "--from", db},
        std::vector<std::string>{"serve", "--from", db}}) {
    const result r = run_in(dir.path, args);
    EXPECT_EQ(r.code, 1) << r.out << r.err;
    EXPECT_EQ(r.err, "zelctl: " + std::string(args[1] == "mirror" ? "--db" : "--from") + said);
    expect_never_said(r, "Hunter2xyzzy");
  }
  EXPECT_FALSE(std::ifstream(dir.file("postgresq:")).good()) << "a directory named by the scheme";
}

TEST(ZelctlFromErrors, MalformedConnectionStringMakesNoFileOfItsName) {
  temp_dir dir;
  const std::string db = "dbname=cluster hots=db.example";
  const result r = run_in(dir.path, {"--simulate", "mirror", "--db", db, "--duration", "1"});
  EXPECT_EQ(r.code, 1) << r.out << r.err;
  expect_one_line(r.err);
  EXPECT_NE(r.err.find("invalid connection option \"hots\""), std::string::npos) << r.err;
  EXPECT_FALSE(std::ifstream(dir.file(db)).good()) << "an SQLite file named after the string";
}

TEST(ZelctlFromErrors, PathThatDoesNotBeginWithAKeywordIsAFile) {
  temp_dir dir;
  // "./" keeps a file name with "=" from looking like key=value pairs.
  const result r = run_in(dir.path, {"state", "--from", "./dbname=cluster.sqlite"});
  EXPECT_EQ(r.code, 3) << r.err;
  EXPECT_EQ(r.err, "zelctl: no mirror at --from './dbname=cluster.sqlite': no such file\n");
  const result made = run_in(dir.path, {"--simulate", "mirror", "--db", "./dbname=cluster.sqlite",
                                        "--duration", "0.5", "--save-interval", "0.2"});
  EXPECT_EQ(made.code, 0) << made.err;
  EXPECT_TRUE(std::ifstream(dir.file("dbname=cluster.sqlite")).good());
}
