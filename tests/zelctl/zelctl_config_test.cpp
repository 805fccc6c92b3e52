// zelctl --config FILE: flags come from the file as well as the command line, the command line
// wins, and a key that no flag takes, a value that no flag accepts or a file that cannot be read
// is a usage error whose line never repeats a value of the file.
#include <gtest/gtest.h>

#include <sys/stat.h>

#include "zelcapi/sqlite_db.h"
#include "zelctl_test_support.h"

using namespace zelctl_test;

namespace {

class ZelctlConfig : public cluster_test {
 protected:
  // A configuration file in the test's directory.
  std::string config(const std::string& text) {
    const std::string path = dir_.file("zelctl.conf");
    std::ofstream(path) << text;
    return path;
  }
  std::string connection(std::uint16_t port) {
    return "host = 127.0.0.1\nport = " + std::to_string(port) +
           "\nuser = demo\npassword-file = " + dir_.file("pw") + "\ntimeout = 5\n";
  }
};

TEST_F(ZelctlConfig, StateTakesTheConnectionAndItsOwnFlagsFromTheFile) {
  const std::string path = config(connection(sim_.port(2)) + "[state]\nkind = jobs\n");
  const result r = run({"--config", path, "state"});
  ASSERT_EQ(r.code, 0) << r.err;
  ASSERT_FALSE(master()["jobs"].empty());
  EXPECT_EQ(nlohmann::json::parse(r.out), master()["jobs"]);
}

TEST_F(ZelctlConfig, TheCommandLineWinsOverTheFile) {
  // The file names a port where no cluster listens, and another kind.
  const std::string path = config(connection(1) + "[state]\nkind = jobs\n");
  const result r =
      run({"--config", path, "--port", std::to_string(sim_.port(1)), "state", "--kind", "nodes"});
  ASSERT_EQ(r.code, 0) << r.err;
  EXPECT_EQ(nlohmann::json::parse(r.out), master()["nodes"]);
}

TEST_F(ZelctlConfig, MirrorRunsFromTheFile) {
  const std::string db = dir_.file("mirror.sqlite");
  const std::string path = config(connection(sim_.port(1)) + "[mirror]\ndb = " + db +
                                  "\nduration = 1\nsave-interval = 0.2\njson = true\n");
  const result r = run({"--config", path, "mirror"});
  ASSERT_EQ(r.code, 0) << r.err;
  const auto summary = nlohmann::json::parse(r.out.substr(r.out.rfind("\n{") + 1));
  EXPECT_EQ(summary["file"], db);
  EXPECT_GE(summary["saves"].get<int>(), 1);
  zelcapi::sqlite_options read_only;
  read_only.read_only = true;
  zelcapi::sqlite_state_db file(db, read_only);
  EXPECT_EQ(zelctl::to_json(*file.load_items(zelcapi::db_item_job)), master()["jobs"]);
}

TEST_F(ZelctlConfig, TheInstalledExampleIsAcceptedAsItStands) {
  // Its cluster and user are placeholders: the command line puts the test's in their place.
  const std::string example = std::string(PACKAGING_DIR) + "/systemd/zelctl.conf";
  const result r =
      run({"--config", example, "--port", std::to_string(sim_.port(1)), "--host", "127.0.0.1",
           "--user", "demo", "--password-file", dir_.file("pw"), "state", "--count"});
  ASSERT_EQ(r.code, 0) << r.err;
  EXPECT_NE(r.out.find("jobs"), std::string::npos) << r.out;
}

TEST_F(ZelctlConfig, AnUnknownKeyIsAUsageErrorThatHidesItsValue) {
  const std::string path =
      config(connection(sim_.port(1)) + "[mirror]\ndb = x.sqlite\npasword = hunter2-secret\n");
  const result r = run({"--config", path, "mirror"});
  EXPECT_EQ(r.code, 1);
  expect_one_line(r.err);
  EXPECT_NE(r.err.find("unknown key 'mirror.pasword'"), std::string::npos) << r.err;
  EXPECT_EQ(r.err.find("hunter2"), std::string::npos) << r.err;
  EXPECT_EQ(r.out, "");
  // A global flag has no place in a subcommand's section, nor a section without a subcommand.
  EXPECT_EQ(run({"--config", config("[mirror]\nhost = 127.0.0.1\n"), "status"}).code, 1);
  EXPECT_EQ(run({"--config", config("[nosuch]\nhost = 127.0.0.1\n"), "status"}).code, 1);
}

TEST_F(ZelctlConfig, AValueThatNoFlagAcceptsIsNotRepeated) {
  const result r = run({"--config", config("timeout = 98765\n"), "status"});
  EXPECT_EQ(r.code, 1);
  expect_one_line(r.err);
  EXPECT_NE(r.err.find("--timeout"), std::string::npos) << r.err;
  EXPECT_EQ(r.err.find("98765"), std::string::npos) << r.err;
}

TEST_F(ZelctlConfig, AFileThatCannotBeReadIsAUsageError) {
  const result missing = run({"--config", dir_.file("absent.conf"), "status"});
  EXPECT_EQ(missing.code, 1);
  expect_one_line(missing.err);
  EXPECT_NE(missing.err.find("cannot read --config"), std::string::npos) << missing.err;
  EXPECT_EQ(run({"--config", dir_.path, "status"}).code, 1);
  if (::geteuid() != 0) {  // root reads a file of mode 0
    const std::string path = config(connection(sim_.port(1)));
    ASSERT_EQ(::chmod(path.c_str(), 0), 0);
    const result closed = run({"--config", path, "status"});
    EXPECT_EQ(closed.code, 1);
    EXPECT_NE(closed.err.find("Permission denied"), std::string::npos) << closed.err;
  }
}

}  // namespace
