// Everything of zelcore.
#pragma once

#include "zelcore/identifiers.h"
#include "zelcore/plugin_db.h"
#include "zelcore/properties.h"
#include "zelcore/report.h"
#include "zelcore/task.h"
