// Everything of zelbase.
#pragma once

#include "zelbase/encoder_network.h"
#include "zelbase/exceptions.h"
#include "zelbase/file.h"
#include "zelbase/paths.h"
#include "zelbase/refcount.h"
#include "zelbase/severity.h"
#include "zelbase/strings.h"
#include "zelbase/sync.h"
#include "zelbase/time.h"
