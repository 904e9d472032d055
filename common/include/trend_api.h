#pragma once

// Lets the headers of this folder find this one beside them, as they do where all are installed.
#include "exports/trend_api.h"
