// The whole public API of zelcapi, and every platform declaration that its contracts name:
// a client includes this one header and needs no other.
#pragma once

#include "zelcapi/connection.h"
#include "zelcapi/description.h"
#include "zelcapi/memory_db.h"
#include "zelcapi/state.h"
#include "zelcapi/state_connection.h"
#include "zelcapi/work_client.h"
#include "zelcapi/workflow_manager.h"

// What the client API raises (zelbase::es::base and its kinds), the wall clock that history
// and remove times read (zelbase::set_time_clock), reference counting and workflow paths.
#include "zelbase/exceptions.h"
#include "zelbase/paths.h"
#include "zelbase/refcount.h"
#include "zelbase/severity.h"
#include "zelbase/time.h"
// The property tree of every record and message, the report and debug-print sinks
// (zelcore::set_report_sink, zelcore::ds::set_print_sink), identifiers and the plugin database.
#include "zelcore/identifiers.h"
#include "zelcore/plugin_db.h"
#include "zelcore/properties.h"
#include "zelcore/report.h"
#include "zelcore/task.h"
// Packets and the I/O controller that a connection is.
#include "zelnet/ioctrl.h"
#include "zelnet/packet.h"
// The workflow model: workflows, their tasks and a plugin database of task kinds.
#include "zelworkflow/task_info.h"
#include "zelworkflow/task_kind_db.h"
#include "zelworkflow/workflow_info.h"
