#pragma once

// Found in this folder too, as trend_api.h is.
#include "exports/trend_labels.h"
