// The state connection, its handler, the replica it keeps and the SQLite stores.
#include <pybind11/stl.h>

#include "bindings.h"
#include "callbacks.h"
#include "handler_trampoline.h"
#include "tree.h"
#include "waits.h"
#include "zelcapi/sqlite_db.h"
#include "zelcapi/state_connection.h"

namespace zelpy {

namespace {

using zelnet::zelp::packet;

// A Python subclass of StateHandler. A method that the subclass does not define costs no
// conversion: the library's default runs. With ids_only, the calls carry ids and no records
// (None, or a workflow command cut to its "state-id"): for a handler that, until someone asks for
// the records, only needs to know what changed.
class py_state_handler : public handler_trampoline<zelcapi::state_handler, 13> {
 public:
  bool ids_only = false;
  // new_state gets None in place of the snapshot (as it does with ids_only).
  bool snapshot_as_none = false;

  bool state_item_updated(zelcapi::state_item_type type, const std::string& id,
                          const zelcore::properties& props) override {
    return item_call(item_updated, "item_updated", type, id, &props);
  }
  bool state_item_set(zelcapi::state_item_type type, const std::string& id,
                      const zelcore::properties& props) override {
    return item_call(item_set, "item_set", type, id, &props);
  }
  bool state_item_removed(zelcapi::state_item_type type, const std::string& id) override {
    return item_call(item_removed, "item_removed", type, id, nullptr);
  }
  bool state_item_historized(zelcapi::state_item_type type, const std::string& id) override {
    return item_call(item_historized, "item_historized", type, id, nullptr);
  }
  bool state_item_erased_property_ref(zelcapi::state_item_type type, const std::string& id,
                                      const std::string& ref) override {
    gil_for_callback gil;
    PyObject* f = find(item_erased_property_ref, "item_erased_property_ref");
    return f == nullptr || truth(methods::call(f, self(), type, id, ref));
  }
  bool state_workflow_result_added(const std::string& id,
                                   zelcapi::workflow_result_info result) override {
    gil_for_callback gil;
    PyObject* f = find(workflow_result_added, "workflow_result_added");
    return f == nullptr || truth(methods::call(f, self(), id, result.status, result.ht));
  }
  bool state_workflow_result_removed(const std::string& id) override {
    return id_call(workflow_result_removed, "workflow_result_removed", id);
  }
  bool state_workflow_added(const std::string& id, const zelcore::properties& workflow) override {
    gil_for_callback gil;
    PyObject* f = find(workflow_added, "workflow_added");
    if (f == nullptr) return true;
    if (ids_only) return truth(methods::call(f, self(), id, py::none()));
    return truth(methods::call(f, self(), id, to_python(workflow)));
  }
  bool state_workflow_removed(const std::string& id) override {
    return id_call(workflow_removed, "workflow_removed", id);
  }
  bool state_workflow_updated(const zelcore::properties& command) override {
    return command_call(workflow_updated, "workflow_updated", command);
  }
  bool state_pre_workflow_update(const zelcore::properties& command) override {
    return command_call(pre_workflow_update, "pre_workflow_update", command);
  }
  bool state_new_state(const zelcore::properties& state) override {
    return tree_call(new_state, "new_state", state, ids_only || snapshot_as_none);
  }
  bool history_request_reply(std::uint32_t request_id,
                             const zelcore::property_list& history) override {
    gil_for_callback gil;
    PyObject* f = find(history_reply, "history_reply");
    return f == nullptr || truth(methods::call(f, self(), request_id, to_python(&history)));
  }

 private:
  enum slot : std::size_t {
    item_updated = shared_slots,
    item_set,
    item_removed,
    item_historized,
    item_erased_property_ref,
    workflow_result_added,
    workflow_result_removed,
    workflow_added,
    workflow_removed,
    workflow_updated,
    pre_workflow_update,
    new_state,
    history_reply,
    slot_end
  };
  static_assert(slot_end == shared_slots + 13, "the trampoline's slot count");

  bool item_call(slot s, const char* name, zelcapi::state_item_type type, const std::string& id,
                 const zelcore::properties* props) {
    gil_for_callback gil;
    PyObject* f = find(s, name);
    if (f == nullptr) return true;
    if (props == nullptr) return truth(methods::call(f, self(), type, id));
    if (ids_only) return truth(methods::call(f, self(), type, id, py::none()));
    return truth(methods::call(f, self(), type, id, to_python(*props)));
  }
  bool id_call(slot s, const char* name, const std::string& id) {
    gil_for_callback gil;
    PyObject* f = find(s, name);
    return f == nullptr || truth(methods::call(f, self(), id));
  }
  // Calls the method with the tree, or with None when `as_none`.
  bool tree_call(slot s, const char* name, const zelcore::properties& tree, bool as_none) {
    gil_for_callback gil;
    PyObject* f = find(s, name);
    if (f == nullptr) return true;
    if (as_none) return truth(methods::call(f, self(), py::none()));
    return truth(methods::call(f, self(), to_python(tree)));
  }
  bool command_call(slot s, const char* name, const zelcore::properties& command) {
    if (!ids_only) return tree_call(s, name, command, false);
    gil_for_callback gil;
    PyObject* f = find(s, name);
    if (f == nullptr) return true;
    py::dict cut;
    cut["state-id"] = to_python(command.get_property("state-id").get());
    return truth(methods::call(f, self(), cut));
  }
};

// The handler as its Python subclass made it; StateHandler itself has no Python side.
py_state_handler& as_python_handler(zelcapi::state_handler& h) {
  auto* subclass = dynamic_cast<py_state_handler*>(&h);
  if (subclass == nullptr) throw py::type_error("only a subclass of StateHandler has _ids_only");
  return *subclass;
}

zelcapi::state_item_type item_type(int type) {
  if (type < 0 || type > static_cast<int>(zelcapi::state_item_task)) {
    throw py::value_error("item type " + std::to_string(type) + " is not 0 (client) to 6 (task)");
  }
  return static_cast<zelcapi::state_item_type>(type);
}

using state_connection = zelcapi::state_connection;

// The replica as Python holds it: through the Python object of its state connection, which it
// keeps alive, and whose user it is while one of its methods runs.
class replica {
 public:
  explicit replica(py::object owner)
      : owner_(std::move(owner)), connection_(owner_.cast<state_connection*>()) {}
  zelcapi::state& get() const { return *connection_->get_state_non_const(); }
  python_side& side() const { return side_of(*connection_); }

 private:
  py::object owner_;
  state_connection* connection_;
};

python_side& side_of(replica& r) { return r.side(); }

}  // namespace

void bind_state(py::module_& m) {
  py::class_<zelcapi::state_db>(m, "StateDB", "A store that a replica loads from and saves to.");
  py::class_<zelcapi::sqlite_state_db, zelcapi::state_db>(m, "SQLiteStateDB",
                                                          "The state store in one SQLite file.")
      .def(py::init<const std::string&>(), py::arg("path"))
      .def_property_readonly("path", &zelcapi::sqlite_state_db::path)
      .def(
          "last_save_counts",
          [](const zelcapi::sqlite_state_db& db) {
            zelcapi::save_counts counts;
            {
              // The saver may hold the store while it reports, which takes the GIL.
              py::gil_scoped_release unlocked;
              counts = db.last_save_counts();
            }
            py::dict out;
            out["written"] = counts.written;
            out["unchanged"] = counts.unchanged;
            out["removed"] = counts.removed;
            return out;
          },
          "What the last save did: records written (new or changed), unchanged, removed.");

  py::class_<zelcapi::state_handler, py_state_handler>(
      m, "StateHandler",
      "Subclass and define item_set, item_updated, item_removed, item_historized, "
      "item_erased_property_ref, workflow_result_added, workflow_result_removed, workflow_added, "
      "workflow_removed, workflow_updated, pre_workflow_update, new_state, history_reply, "
      "handle, status or disconnected.")
      .def(py::init<>())
      .def_property(
          "_ids_only", [](zelcapi::state_handler& h) { return as_python_handler(h).ids_only; },
          [](zelcapi::state_handler& h, bool on) { as_python_handler(h).ids_only = on; },
          "Calls carry ids without records (None; a workflow command cut to its \"state-id\").")
      .def_property(
          "_snapshot_as_none",
          [](zelcapi::state_handler& h) { return as_python_handler(h).snapshot_as_none; },
          [](zelcapi::state_handler& h, bool on) { as_python_handler(h).snapshot_as_none = on; },
          "new_state gets None in place of the snapshot.");

  py::class_<replica>(m, "State",
                      "The replica of a state connection; it keeps its connection alive.")
      .def("items", used(+[](replica& r, int type) {
             py::dict out;
             for (const auto& [id, record] : r.get().get_items(item_type(type))) {
               out[py::str(id)] = to_python(record);
             }
             return out;
           }),
           py::arg("type"), "The records of a kind, by id.")
      .def("item", used(+[](replica& r, int type, const std::string& id) {
             return to_python(r.get().get_item(item_type(type), id));
           }),
           py::arg("type"), py::arg("id"), "One record; raises ArgError when absent.")
      .def("has_item", used(+[](replica& r, int type, const std::string& id) {
             return r.get().has_item(item_type(type), id);
           }),
           py::arg("type"), py::arg("id"))
      .def("count",
           used(+[](replica& r, int type) { return r.get().get_items(item_type(type)).size(); }),
           py::arg("type"))
      .def("snapshot", used(+[](replica& r) {
             zelcore::properties out;
             r.get().get_state(out);
             return to_python(out);
           }),
           "The whole state as the master sends it.")
      .def("history", used(+[](replica& r) {
             zelcore::properties out;
             r.get().get_history(out);
             return to_python(out);
           }),
           "The history kept in memory, as a snapshot; UnspecifiedError without history.")
      .def("load", used(+[](replica& r, py::object db) {
             if (!db.is_none() && !py::isinstance<zelcapi::state_db>(db)) {
               throw py::type_error("load takes a StateDB or None");
             }
             zelcapi::state_db* store = db.is_none() ? nullptr : db.cast<zelcapi::state_db*>();
             wait_in_slices(&zelcapi::state::wait_for_saves);
             // The previous store goes once the replica no longer writes to it.
             const py::object previous = r.side().keep_store(db);
             py::gil_scoped_release unlocked;
             r.get().set_and_update_from_state_db(store);
           }),
           py::arg("db"),
           "Makes db the store (None: none) and loads the replica from it; the connection keeps "
           "db alive.")
      .def("save", used(+[](replica& r, bool wait) {
             zelcapi::state& s = r.get();
             if (!wait) {
               py::gil_scoped_release unlocked;
               s.save_state_to_db(false);
               return;
             }
             if (s.get_state_db() == nullptr) return;
             wait_in_slices(&zelcapi::state::wait_for_saves);
             {
               py::gil_scoped_release unlocked;
               s.start_save();
             }
             wait_in_slices(&zelcapi::state::wait_for_saves);
           }),
           py::arg("wait") = true,
           "Saves a copy of the replica to its store on the saver thread; with wait, after a "
           "save still writing, and returns when it is done.");

  py::class_<state_connection, zelcapi::connection, connection_holder<state_connection>>(
      m, "StateConnection", "A connection that keeps a replica of the cluster's state.")
      .def(py::init([](zelcapi::state_handler* h, std::uint32_t history_keep_time,
                       bool with_replica) -> state_connection* {
             state_connection* c = with_replica ? new python_connection<state_connection>(
                                                      h, history_keep_time, &no_plugins())
                                                : new python_connection<state_connection>(h);
             release_gil_while_blocking(*c);
             return c;
           }),
           py::arg("handler"), py::arg("history_keep_time") = 0, py::arg("replica") = true,
           py::keep_alive<1, 2>())
      .def_property_readonly(
          "state",
          [](py::object self) -> py::object {
            if (self.cast<state_connection&>().get_state() == nullptr) return py::none();
            return py::cast(replica(self));
          },
          "The replica, or None.")
      .def("request_new_state", used(&state_connection::request_new_state),
           "Asks for a snapshot; it arrives at new_state inside a later wait or step.")
      .def("request_new_state_sync", used(&state_connection::request_new_state_sync),
           "Asks for a snapshot and waits until the replica holds it.")
      .def("request_history",
           used(+[](state_connection& c, int type, std::uint32_t request_id,
                    const std::string& client_id, const std::string& state_id,
                    const std::string& submission_id) {
             const zelcapi::state_item_type kind = item_type(type);
             if (!client_id.empty()) {
               c.request_history_items_by_client_id(kind, client_id, request_id);
             } else if (!state_id.empty()) {
               c.request_history_items_by_state_id(kind, state_id, request_id);
             } else if (!submission_id.empty()) {
               c.request_history_items_by_submission_id(kind, submission_id, request_id);
             } else {
               c.request_history_items_by_type(kind, request_id);
             }
           }),
           py::arg("type"), py::arg("request_id"), py::arg("client_id") = "",
           py::arg("state_id") = "", py::arg("submission_id") = "",
           "Asks for history items; the answer reaches history_reply with request_id.");
}

}  // namespace zelpy
