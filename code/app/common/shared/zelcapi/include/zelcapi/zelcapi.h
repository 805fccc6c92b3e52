// The whole public API of zelcapi.
#pragma once

#include "zelcapi/connection.h"
#include "zelcapi/memory_db.h"
#include "zelcapi/state.h"
#include "zelcapi/workflow_manager.h"
