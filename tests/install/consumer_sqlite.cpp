// Uses the installed SQLite store: one record saved into a scratch file and loaded back.
#include <stdlib.h>
#include <zelcapi/sqlite_db.h>

#include <cstdio>
#include <string>

int main() {
  char dir[] = "/tmp/zelcapi-consumer-XXXXXX";
  if (!mkdtemp(dir)) return 1;
  const std::string path = std::string(dir) + "/mirror.db";
  bool ok = false;
  {
    zelcapi::sqlite_state_db db(path);
    db.begin_save();
    db.store_item(zelcapi::db_item_job, "j1", zelcore::properties{{"a", zelcore::make_int(1)}});
    db.store_workflow_results({});
    db.store_workflow_sequence_number(1);
    ok = db.load_items(zelcapi::db_item_job)->get_properties_value("j1").get_int_value("a") == 1;
  }
  for (const char* suffix : {"", "-wal", "-shm"}) std::remove((path + suffix).c_str());
  std::remove(dir);
  std::puts(ok ? "sqlite consumer ok" : "sqlite consumer FAILED");
  return ok ? 0 : 1;
}
