// The zelcapi module: the library's connection, state connection, replica and SQLite stores for
// Python. Blocking calls release the GIL and see signals; callbacks hold it; the library's
// reports go to logging.
#include "bindings.h"
#include "enums.h"
#include "errors.h"
#include "reports.h"
#include "tree.h"

PYBIND11_MODULE(_zelcapi, m) {
  m.doc() = "Client of the cluster job and workflow system (the zelcapi C++ library).";
  zelpy::bind_enums(m);
  zelpy::bind_errors(m);
  zelpy::bind_tree(m);
  zelpy::bind_connection(m);
  zelpy::bind_state(m);
  zelpy::bind_work(m);
  zelpy::bind_reports(m);
}
