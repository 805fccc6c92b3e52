// The whole public API of zelcapi.
#pragma once

#include "zelcapi/connection.h"
#include "zelcapi/state.h"
#include "zelcapi/state_connection.h"
#include "zelcapi/workflow_manager.h"
