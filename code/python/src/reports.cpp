// Reports and debug prints as logging records. A sink runs on the thread that reports: the
// caller's, or the saver's, or a caller's inside a call that let the GIL go; it takes the GIL
// for the record (a no-op where the thread holds it).
#include "reports.h"

#include <condition_variable>
#include <mutex>
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

// The interpreter's exit: from then on a thread that reports must not wait for the GIL, since
// finalization ends such a thread by unwinding it, which a report cannot let pass. The records
// already on their way end first: the exit waits for them with the GIL released.
struct exit_gate {
  std::mutex lock;
  std::condition_variable ended;
  bool exiting = false;
  int on_their_way = 0;
};
// Never destroyed: a saver thread may still report while the process ends.
exit_gate& gate = *new exit_gate;

// Admits one record (false once the interpreter exits) and counts it while it lives.
class admitted_record {
 public:
  admitted_record() {
    std::lock_guard<std::mutex> hold(gate.lock);
    admitted_ = !gate.exiting;
    if (admitted_) ++gate.on_their_way;
  }
  ~admitted_record() {
    if (!admitted_) return;
    std::lock_guard<std::mutex> hold(gate.lock);
    if (--gate.on_their_way == 0) gate.ended.notify_all();
  }
  admitted_record(const admitted_record&) = delete;
  admitted_record& operator=(const admitted_record&) = delete;
  explicit operator bool() const { return admitted_; }

 private:
  bool admitted_ = false;
};

// One record on the logger, if the logger takes its level: a report's (with its source file and
// line, kind and severity) or a debug print's (`report` null; kind and severity None). What
// logging raises is printed as unraisable: a report never fails the library's call.
void log(int level, const std::string& category, const std::string& message,
         const zelcore::report_record* report) {
  const admitted_record admitted;
  if (!admitted) return;
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

// At the interpreter's exit (called with the GIL): the standard error lines are back, and the
// records on their way get the GIL to end before the interpreter finalizes.
void at_exit() {
  {
    std::lock_guard<std::mutex> hold(gate.lock);
    gate.exiting = true;
  }
  to_stderr();
  py::gil_scoped_release unlocked;
  std::unique_lock<std::mutex> hold(gate.lock);
  gate.ended.wait(hold, [] { return gate.on_their_way == 0; });
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
  py::module_::import("atexit").attr("register")(py::cpp_function(&at_exit));
}

}  // namespace zelpy
