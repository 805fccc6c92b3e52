// Helpers shared by the workflow library's tests: decoding and encoding in one call, and the
// check that a call raises es::arg with an exact text.
#pragma once

#include <gtest/gtest.h>

#include <string>

#include "zelbase/exceptions.h"
#include "zelworkflow/workflow_info.h"

namespace zeltest {

inline zelworkflow::workflow_info decoded(const zelcore::properties& encoded) {
  zelworkflow::workflow_info wf;
  wf.decode_workflow_info(encoded, zelcore::plugin_db());
  return wf;
}

inline zelcore::properties encoded(const zelworkflow::workflow_info& wf) {
  zelcore::properties out;
  wf.encode_workflow_info(out);
  return out;
}

inline zelcore::properties encoded(const zelworkflow::task_info& task) {
  zelcore::properties out;
  task.encode_task_info(out);
  return out;
}

// Runs `f`, expecting es::arg with exactly `text`.
template <class F>
void expect_arg(F f, const std::string& text) {
  try {
    f();
    ADD_FAILURE() << "no es::arg raised; expected: " << text;
  } catch (const zelbase::es::arg& e) {
    EXPECT_EQ(std::string(e.what()), text);
  }
}

// As expect_arg, and checks that the workflow is unchanged afterwards.
template <class F>
void expect_arg_unchanged(const zelworkflow::workflow_info& wf, F f, const std::string& text) {
  const zelcore::properties before = encoded(wf);
  expect_arg(f, text);
  EXPECT_TRUE(encoded(wf) == before) << "the workflow changed";
}

}  // namespace zeltest
