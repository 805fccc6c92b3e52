// Separator paths and workflow identifiers, with the round trips that wpaths rely on.
#include <gtest/gtest.h>

#include "zelbase/paths.h"

using namespace zelbase;

TEST(Paths, FrontAndBackOfSeveralElements) {
  EXPECT_EQ(path_front("a>b>c", '>'), "a");
  EXPECT_EQ(path_back("a>b>c", '>'), "c");
  EXPECT_EQ(path_front("single", '>'), "single");
  EXPECT_EQ(path_back("single", '>'), "single");
  EXPECT_EQ(path_front("a/b", '/'), "a");
  EXPECT_EQ(path_back("", '>'), "");
}

TEST(Paths, PopFrontRemovesTheFirstElementInPlace) {
  std::string p = "a>b>c";
  EXPECT_EQ(path_pop_front(p, '>'), "b>c");
  EXPECT_EQ(p, "b>c");
  path_pop_front(p, '>');
  EXPECT_EQ(p, "c");
  path_pop_front(p, '>');
  EXPECT_EQ(p, "");
}

TEST(Paths, AppendedJoinsWithTheSeparator) {
  EXPECT_EQ(path_appended("a", "b", '>'), "a>b");
  EXPECT_EQ(path_appended("a>b", "c", '>'), "a>b>c");
  EXPECT_EQ(path_appended("", "b", '>'), "b");
}

TEST(Paths, AnySeparatorWorksTheSameWay) {
  std::string p = path_appended(path_appended("x", "y", '.'), "z", '.');
  EXPECT_EQ(p, "x.y.z");
  EXPECT_EQ(path_front(p, '.'), "x");
  EXPECT_EQ(path_back(p, '.'), "z");
  EXPECT_EQ(path_pop_front(p, '.'), "y.z");
  // Other separators are ordinary characters.
  EXPECT_EQ(path_front("a>b.c", '.'), "a>b");
  EXPECT_EQ(path_back("a>b.c", '>'), "b.c");
  // Empty elements are kept.
  EXPECT_EQ(path_front(">b", '>'), "");
  EXPECT_EQ(path_back("a>", '>'), "");
}

TEST(WorkflowIds, SchemeAndUris) {
  EXPECT_EQ(workflow_new(), "workflow");
  EXPECT_EQ(uri_new_scheme_specific("workflow", "WOFL-1>t1"), "workflow:WOFL-1>t1");
  EXPECT_EQ(workflow_new_id(workflow_new(), "WOFL-1"), "workflow:WOFL-1");
}

TEST(WorkflowIds, WorkflowIdAcceptsAUriAndAPlainStateId) {
  EXPECT_EQ(workflow_id("workflow:WOFL-abc"), "WOFL-abc");
  EXPECT_EQ(workflow_id("WOFL-abc"), "WOFL-abc");
  EXPECT_EQ(workflow_id("workflow:"), "");
  EXPECT_EQ(workflow_id("workflowX:a"), "workflowX:a");
}

TEST(WorkflowIds, WpathRoundTrip) {
  const std::string wpath =
      uri_new_scheme_specific(workflow_new(), path_appended("WOFL-1", "t1", '>'));
  EXPECT_EQ(workflow_id(path_front(wpath, '>')), "WOFL-1");
  EXPECT_EQ(path_back(wpath, '>'), "t1");
  const std::string longer = path_appended(wpath, "in", '>');
  EXPECT_EQ(workflow_id(path_front(longer, '>')), "WOFL-1");
  EXPECT_EQ(path_back(longer, '>'), "in");
  std::string in_node = longer;
  EXPECT_EQ(path_pop_front(in_node, '>'), "t1>in");
}
