// Uses the installed PostgreSQL store without a server: the store's error for a server that
// cannot be reached names it and keeps the password out.
#include <zelcapi/postgres_db.h>

#include <cstdio>
#include <string>

int main() {
  bool ok = false;
  try {
    zelcapi::postgres_state_db db("postgresql://mirror:s3cret@/mirror?host=/nonexistent");
  } catch (const std::exception& e) {
    const std::string text = e.what();
    ok = text.find("PostgreSQL store 'host=/nonexistent dbname=mirror user=mirror'") !=
             std::string::npos &&
         text.find("s3cret") == std::string::npos;
  }
  std::puts(ok ? "postgres consumer ok" : "postgres consumer FAILED");
  return ok ? 0 : 1;
}
