// A client of the installed Asio adapter: a connect to a port where nothing listens ends with
// "Connection Failed" inside io_context::run(), and run() returns once nothing is left to do.
#include <zelcapi/asio_attachment.h>
#include <zelcapi/zelcapi.h>

#include <cstdio>

int main() {
  zelcore::set_report_threshold(zelbase::severity_error);
  boost::asio::io_context io;
  zelcapi::connection c;
  zelcapi::asio_attachment attached(io, c);
  zelcapi::result_code result = zelcapi::connection_ok;
  c.connect_async("127.0.0.1", "1", 5, [&result](zelcapi::result_code r) { result = r; });
  io.run();
  std::printf("asio consumer: %s\n", zelcapi::result_code_c_str(result));
  return result == zelcapi::connection_failed ? 0 : 1;
}
