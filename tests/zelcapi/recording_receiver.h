// Test support: a state_notification_receiver that records every call as one line of text.
#pragma once

#include <string>
#include <vector>

#include "zelcapi/state.h"

namespace zeltest {

class recording_receiver : public zelcapi::state_notification_receiver {
 public:
  std::vector<std::string> calls;
  // When set, the call of that name raises after being recorded.
  std::string raise_in;

  void on_item_updated(zelcapi::state_item_type t, const std::string& id,
                       const zelcore::properties& p) override {
    record("on_item_updated", t, id, p.describe());
  }
  void on_item_set(zelcapi::state_item_type t, const std::string& id,
                   const zelcore::properties& p) override {
    record("on_item_set", t, id, p.describe());
  }
  void on_item_removing(zelcapi::state_item_type t, const std::string& id) override {
    record("on_item_removing", t, id);
  }
  void on_item_removed(zelcapi::state_item_type t, const std::string& id) override {
    record("on_item_removed", t, id);
  }
  void on_item_historizing(zelcapi::state_item_type t, const std::string& id) override {
    record("on_item_historizing", t, id);
  }
  void on_item_historized(zelcapi::state_item_type t, const std::string& id) override {
    record("on_item_historized", t, id);
  }
  void on_item_adding_to_history(zelcapi::state_item_type t, const std::string& id,
                                 const zelcore::properties& p) override {
    record("on_item_adding_to_history", t, id, p.describe());
  }
  void on_item_added_to_history(zelcapi::state_item_type t, const std::string& id,
                                const zelcore::properties& p) override {
    record("on_item_added_to_history", t, id, p.describe());
  }
  void on_item_erased_property_ref(zelcapi::state_item_type t, const std::string& id,
                                   const std::string& ref) override {
    record("on_item_erased_property_ref", t, id, ref);
  }
  void on_workflow_will_be_updated(const std::string& id, const zelcore::properties& u) override {
    record_workflow("on_workflow_will_be_updated", id, u.describe());
  }
  void on_workflow_was_updated(const std::string& id, const zelcore::properties& u) override {
    record_workflow("on_workflow_was_updated", id, u.describe());
  }
  void on_workflow_result_added(const std::string& id,
                                const zelcapi::workflow_result_info& r) override {
    record_workflow("on_workflow_result_added", id,
                    std::to_string(r.status) + "," + std::to_string(r.ht));
  }
  void on_workflow_result_removing(const std::string& id) override {
    record_workflow("on_workflow_result_removing", id);
  }
  void on_workflow_result_removed(const std::string& id) override {
    record_workflow("on_workflow_result_removed", id);
  }
  void on_historized_workflow_removed(const std::string& id) override {
    record_workflow("on_historized_workflow_removed", id);
  }

 private:
  void record(const char* name, zelcapi::state_item_type t, const std::string& id,
              const std::string& extra = std::string()) {
    add(std::string(name) + "(" + std::to_string(t) + "," + id +
        (extra.empty() ? "" : "," + extra) + ")");
  }
  void record_workflow(const char* name, const std::string& id,
                       const std::string& extra = std::string()) {
    add(std::string(name) + "(" + id + (extra.empty() ? "" : "," + extra) + ")");
  }
  void add(std::string line) {
    const bool raise = line.rfind(raise_in, 0) == 0 && !raise_in.empty();
    calls.push_back(std::move(line));
    if (raise) throw std::runtime_error("receiver failed");
  }
};

}  // namespace zeltest
