// zelctl's command line, status and login: help on every level, bad flags (exit 1, one line),
// the cluster's status as a table and as JSON, logins that succeed, are redirected or are
// refused (exit 2 with the result code's text), and a password that never shows.
#include <gtest/gtest.h>

#include "zelctl_test_support.h"

using namespace zelctl_test;

namespace {

class ZelctlConnect : public ::testing::Test {
 protected:
  void SetUp() override {
    sim_.start();
    std::ofstream(dir_.file("pw")) << "demo\n";
    std::ofstream(dir_.file("bad")) << "not-the-password\n";
    std::ofstream(dir_.file("rootpw")) << "rootpw\n";
  }
  std::string pw() const { return dir_.file("pw"); }

  temp_dir dir_;
  zelsim::cluster sim_{cluster_options()};
};

TEST(ZelctlCommandLine, HelpOnEveryLevelExitsZero) {
  for (const std::vector<std::string>& args : {std::vector<std::string>{"--help"},
                                               {"status", "--help"},
                                               {"login", "--help"},
                                               {"state", "--help"},
                                               {"watch", "--help"},
                                               {"history", "--help"},
                                               {"mirror", "--help"}}) {
    const result r = run(args);
    EXPECT_EQ(r.code, 0) << args[0];
    EXPECT_NE(r.out.find("--"), std::string::npos) << r.out;
  }
}

TEST(ZelctlCommandLine, BadFlagsExitOneWithOneLine) {
  for (const std::vector<std::string>& args :
       {std::vector<std::string>{},
        {"frobnicate"},
        {"status", "--bogus"},
        {"--timeout", "0", "status"},
        {"state", "--kind", "spaceships"},
        {"state", "--id", "J1"},
        {"mirror"},
        {"history", "--kind", "jobs", "--state-id", "a", "--client-id", "b"},
        {"watch", "--count", "-3"}}) {
    const result r = run(args);
    EXPECT_EQ(r.code, 1) << (args.empty() ? "" : args[0]) << ": " << r.err;
    expect_one_line(r.err);
    EXPECT_EQ(r.err.rfind("zelctl: ", 0), 0u) << r.err;
  }
}

TEST(ZelctlCommandLine, AnUnknownFlagIsNamedEvenWithoutASubcommand) {
  EXPECT_EQ(run({"--bogus"}).err,
            "zelctl: The following argument was not expected: --bogus (see zelctl --help)\n");
  EXPECT_EQ(run({"--bogus", "--other"}).err,
            "zelctl: The following arguments were not expected: --bogus --other (see zelctl "
            "--help)\n");
  EXPECT_EQ(run({"--simulate"}).err, "zelctl: A subcommand is required (see zelctl --help)\n");
}

TEST(ZelctlCommandLine, AnErrorAfterASubcommandPointsToThatSubcommandsHelp) {
  EXPECT_EQ(
      run({"submit", "--bogus"}).err,
      "zelctl: The following argument was not expected: --bogus (see zelctl submit --help)\n");
  EXPECT_EQ(run({"cancel"}).err, "zelctl: ids is required (see zelctl cancel --help)\n");
}

TEST_F(ZelctlConnect, StatusPrintsMasterAndNodesAsJson) {
  const result r = run(at(sim_, pw(), 2) + std::vector<std::string>{"status", "--json"});
  ASSERT_EQ(r.code, 0) << r.err;
  const auto status = nlohmann::json::parse(r.out);
  EXPECT_EQ(status["master"], sim_.node_id(1));
  ASSERT_EQ(status["nodes"].size(), 3u);
  for (std::size_t n = 1; n <= 3; ++n) {
    const auto& node = status["nodes"][n - 1];
    EXPECT_EQ(node["id"], sim_.node_id(n));
    EXPECT_EQ(node["host"], "127.0.0.1");
    EXPECT_EQ(node["port"], std::to_string(sim_.port(n)));
    EXPECT_EQ(node["master"], n == 1);
  }
}

TEST_F(ZelctlConnect, StatusPrintsATableWithTheMasterMarked) {
  const result r = run(at(sim_, pw()) + std::vector<std::string>{"status"});
  ASSERT_EQ(r.code, 0) << r.err;
  const auto lines = lines_of(r.out);
  ASSERT_EQ(lines.size(), 5u) << r.out;
  EXPECT_EQ(lines[0], "master: " + sim_.node_id(1));
  EXPECT_NE(lines[2].find(std::to_string(sim_.port(1))), std::string::npos);
  EXPECT_NE(lines[2].find("master"), std::string::npos);
  EXPECT_EQ(lines[3].find("master"), std::string::npos);
}

TEST_F(ZelctlConnect, NoClusterOnThePortExitsTwoWithTheResultText) {
  const std::string port = std::to_string(sim_.port(3));
  sim_.stop();
  const result r = run({"--port", port, "--timeout", "2", "status"});
  EXPECT_EQ(r.code, 2);
  expect_one_line(r.err);
  EXPECT_NE(r.err.find("Connection Failed"), std::string::npos) << r.err;
}

TEST_F(ZelctlConnect, LoginThroughAnotherNodeNamesTheMaster) {
  const result r = run(at(sim_, pw(), 3) + std::vector<std::string>{"login", "--json"});
  ASSERT_EQ(r.code, 0) << r.err;
  const auto login = nlohmann::json::parse(r.out);
  EXPECT_EQ(login["master"], sim_.node_id(1));
  EXPECT_EQ(login["master-port"], std::to_string(sim_.port(1)));
  EXPECT_EQ(login["redirected"], true);
  EXPECT_EQ(login["user"], "demo");
  const result text = run(at(sim_, pw(), 1) + std::vector<std::string>{"login"});
  ASSERT_EQ(text.code, 0) << text.err;
  EXPECT_EQ(text.out, "user login of 'demo' OK; master is " + sim_.node_id(1) +
                          " at 127.0.0.1:" + std::to_string(sim_.port(1)) + "\n");
}

TEST_F(ZelctlConnect, WrongPasswordExitsTwoWithAccessDeniedAndNeverPrintsIt) {
  const result r = run(at(sim_, dir_.file("bad"), 2) + std::vector<std::string>{"login"});
  EXPECT_EQ(r.code, 2);
  expect_one_line(r.err);
  EXPECT_NE(r.err.find("Access Denied"), std::string::npos) << r.err;
  EXPECT_EQ((r.out + r.err).find("not-the-password"), std::string::npos);
}

TEST_F(ZelctlConnect, UnknownUserExitsTwoWithNoSuchUser) {
  const result r = run({"--port", std::to_string(sim_.port(1)), "--user", "mallory",
                        "--password-file", dir_.file("bad"), "login"});
  EXPECT_EQ(r.code, 2);
  expect_one_line(r.err);
  EXPECT_NE(r.err.find("No such user"), std::string::npos) << r.err;
}

TEST_F(ZelctlConnect, PasswordFromStandardInputIsNotEchoed) {
  const result r =
      run({"--port", std::to_string(sim_.port(1)), "--user", "demo", "login"}, "demo\n");
  ASSERT_EQ(r.code, 0) << r.err;
  EXPECT_EQ((r.out + r.err).find("demo\n"), std::string::npos);
  EXPECT_EQ(run({"--port", std::to_string(sim_.port(1)), "--user", "demo", "login"}, "").code, 1);
}

TEST_F(ZelctlConnect, AdminLoginFindsTheMasterAndChecksTheAdminAccount) {
  const std::vector<std::string> root{"--port", std::to_string(sim_.port(2)), "--user", "root",
                                      "--password-file"};
  const result ok =
      run(root + std::vector<std::string>{dir_.file("rootpw"), "login", "--admin", "--json"});
  ASSERT_EQ(ok.code, 0) << ok.err;
  const auto login = nlohmann::json::parse(ok.out);
  EXPECT_EQ(login["admin"], true);
  EXPECT_EQ(login["master"], sim_.node_id(1));
  const result refused = run(root + std::vector<std::string>{pw(), "login", "--admin"});
  EXPECT_EQ(refused.code, 2);
  EXPECT_NE(refused.err.find("Access Denied"), std::string::npos) << refused.err;
}

}  // namespace
