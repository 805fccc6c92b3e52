// The plugin database: an opaque handle through which the workflow model may look up task
// kinds. The client library never looks inside it; it only passes it on.
#pragma once

#include "zelcore/export.h"

namespace zelcore {

class ZELCORE_EXPORT plugin_db {
 public:
  plugin_db();
  virtual ~plugin_db();
};

}  // namespace zelcore
