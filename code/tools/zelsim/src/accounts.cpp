// The accounts file of the simulated cluster: its users and administrators.
#include <fstream>
#include <sstream>

#include "zelbase/exceptions.h"
#include "zelbase/strings.h"
#include "zelsim/cluster.h"

namespace zelsim {

namespace {
constexpr const char* source_file = "code\\tools\\zelsim\\src\\accounts";
}  // namespace

void read_accounts_file(const std::string& path, options& o) {
  std::ifstream in(path);
  if (!in) zelbase::es::arg::raise(source_file, __LINE__, "cannot read '" + path + "'");
  std::string line;
  for (unsigned number = 1; std::getline(in, line); ++number) {
    const std::string text = line.substr(0, line.find('#'));
    std::istringstream words(text);
    std::string kind, name, password, extra;
    if (!(words >> kind)) continue;
    words >> name >> password;
    if ((kind != "user" && kind != "admin") || name.empty() || password.empty() ||
        (words >> extra)) {
      zelbase::es::arg::raise(
          source_file, __LINE__,
          zelbase::string_with_format("%s:%u: expected 'user|admin NAME PASSWORD'", path.c_str(),
                                      number));
    }
    (kind == "user" ? o.users : o.admins)[name] = password;
  }
}

}  // namespace zelsim
