// The core task.
#include "zelcore/task.h"

namespace zelcore {

task::~task() = default;

}  // namespace zelcore
