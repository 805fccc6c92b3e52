// Reports and debug prints as logging records. A sink runs on the thread that reports: the
// caller's, or the saver's, or a caller's inside a call that let the GIL go; it takes the GIL
// for the record (a no-op where the thread holds it).
#include "reports.h"

#include <string>

#include "callbacks.h"
#include "zelbase/severity.h"
#include "zelcore/report.h"

namespace zelpy {

namespace {

// logging.getLogger("zelcapi"), kept for the life of the process: reports may come from the
// saver thread up to the interpreter's end.
py::object* the_logger = nullptr;

// logging's level of a severity (0 most urgent; Python has no notice level).
int level_of(zelbase::severity s) {
  if (s <= zelbase::severity_critical) return 50;  // CRITICAL
  if (s == zelbase::severity_error) return 40;     // ERROR
  if (s == zelbase::severity_warning) return 30;   // WARNING
  if (s <= zelbase::severity_info) return 20;      // INFO (notice, info)
  return 10;                                       // DEBUG
}

bool interpreter_running() {
#if PY_VERSION_HEX >= 0x030D0000
  return Py_IsInitialized() != 0 && Py_IsFinalizing() == 0;
#else
  return Py_IsInitialized() != 0 && _Py_IsFinalizing() == 0;
#endif
}

// One record on the logger, if the logger takes its level: a report's (with its source file and
// line, kind and severity) or a debug print's (`report` null; kind and severity None). What
// logging raises is printed as unraisable: a report never fails the library's call.
void log(int level, const std::string& category, const std::string& message,
         const zelcore::report_record* report) {
  // Past the interpreter's end nothing can be logged (the exit restores the standard error
  // lines; only a record already on its way is lost).
  if (!interpreter_running()) return;
  gil_for_callback gil;
  try {
    const py::object& logger = *the_logger;
    if (!logger.attr("isEnabledFor")(level).cast<bool>()) return;
    py::dict extra;
    extra["category"] = category;
    extra["kind"] = report != nullptr ? py::object(py::int_(report->record_kind)) : py::none();
    extra["severity"] =
        report != nullptr ? py::object(py::int_(report->record_severity)) : py::none();
    const py::object record = logger.attr("makeRecord")(
        logger.attr("name"), level, report != nullptr ? report->file : std::string(),
        report != nullptr ? report->line : 0u, message, py::tuple(), py::none(), py::none(), extra);
    logger.attr("handle")(record);
  } catch (py::error_already_set& e) {
    e.discard_as_unraisable("logging a zelcapi report");
  }
}

void to_logging() {
  zelcore::set_report_sink([](const zelcore::report_record& r) {
    log(level_of(r.record_severity), r.category, r.message, &r);
  });
  zelcore::ds::set_print_sink([](const std::string& category, const std::string& text) {
    log(10, category, text, nullptr);
  });
}

void to_stderr() {
  zelcore::set_report_sink({});
  zelcore::ds::set_print_sink({});
}

}  // namespace

void bind_reports(py::module_& m) {
  the_logger = new py::object(py::module_::import("logging").attr("getLogger")("zelcapi"));
  m.def("reports_to_logging", &to_logging,
        "Sends the library's report lines and debug prints to the logger \"zelcapi\" (as on "
        "import).");
  m.def("reports_to_stderr", &to_stderr,
        "Sends them back to the library's own standard error lines (reports of warning and "
        "above; no debug prints).");
  to_logging();
  py::module_::import("atexit").attr("register")(py::cpp_function(&to_stderr));
}

}  // namespace zelpy
