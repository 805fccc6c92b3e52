// Work descriptions shared by the tests of zelctl validate and zelctl submit, which check and
// report them alike: one with five errors (and the check that all five were printed at their
// places), and a template.
#pragma once

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/child_process.h"

namespace zeltest {

inline const char* const five_errors = R"(name: render
tasks:
  - name: fetch
    command: fetch.sh
    cpus: 2
    max-attempts: 0
  - name: render
    cores: four
  - name: publish
    command: publish.sh
    after: [rendr]
)";

// A template whose first task takes the in-values ("frames" has no default) and produces an
// out-value for the second.
inline const char* const render_template = R"(name: render
template: true
inputs:
  frames: {kind: string}
  quality: {kind: int, default: 2}
tasks:
  - name: render
    command: render --frames "$frames" --quality "$quality"
    run-ms: 100
    outputs: {images: /renders/sh010}
  - name: encode
    command: encode /renders/sh010
    after: render
    inputs: []
    run-ms: 100
)";

// The five errors of `five_errors` (or the same description in JSON) at their places in `file`:
// one line each on stdout, the count on stderr, exit 4.
inline void expect_five_errors(const run_result& r, const std::string& file,
                               const std::vector<std::string>& places) {
  const std::vector<std::string> errors{
      "/tasks/0/cpus: unknown key 'cpus' (did you mean 'cores'?)",
      "/tasks/0/max-attempts: 0 is outside 1 to 1000",
      "/tasks/1/command: 'command' is missing",
      "/tasks/1/cores: expected an int, got a string ('four')",
      "/tasks/2/after/0: no task is named 'rendr' (did you mean 'render'?)",
  };
  ASSERT_EQ(places.size(), errors.size());
  std::vector<std::string> expected;
  for (std::size_t i = 0; i < errors.size(); ++i) {
    expected.push_back(file + ":" + places[i] + ": " + errors[i]);
  }
  EXPECT_EQ(r.code, 4);
  EXPECT_EQ(lines_of(r.out), expected);
  EXPECT_EQ(r.err, "zelctl: " + file + ": 5 errors\n");
}

}  // namespace zeltest
