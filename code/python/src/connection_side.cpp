// The thread that uses a connection and the objects it keeps for the library.
#include "connection_side.h"

#include "zelcapi/state_connection.h"

namespace zelpy {

python_side::~python_side() {
  if (!store_) return;
  py::gil_scoped_acquire gil;
  store_ = py::object();
}

python_side::use::use(python_side& side) : side_(side) {
  std::lock_guard<std::mutex> hold(side_.lock_);
  const std::thread::id me = std::this_thread::get_id();
  if (side_.depth_ != 0 && side_.user_ != me) throw connection_busy();
  side_.user_ = me;
  ++side_.depth_;
}

python_side::use::~use() {
  std::lock_guard<std::mutex> hold(side_.lock_);
  --side_.depth_;
}

py::object python_side::keep_store(py::object store) {
  std::swap(store_, store);
  return store;
}

zelcapi::work_client& python_side::work(zelcapi::connection& c) {
  if (!work_) {
    auto* state_link = dynamic_cast<zelcapi::state_connection*>(&c);
    work_ = state_link ? std::make_unique<zelcapi::work_client>(*state_link, no_plugins())
                       : std::make_unique<zelcapi::work_client>(c, no_plugins());
  }
  return *work_;
}

const zelcore::plugin_db& no_plugins() {
  static const zelcore::plugin_db plugins;
  return plugins;
}

python_side& side_of(zelcapi::connection& c) { return dynamic_cast<python_side&>(c); }

}  // namespace zelpy
