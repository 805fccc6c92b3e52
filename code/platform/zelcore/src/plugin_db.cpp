// The plugin database handle.
#include "zelcore/plugin_db.h"

namespace zelcore {

plugin_db::plugin_db() = default;
plugin_db::~plugin_db() = default;

}  // namespace zelcore
