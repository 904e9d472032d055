#pragma once

#include "command.h"

namespace trendlog {

// One per file of this folder.
command_t devices_command();
command_t params_command();
command_t periods_command();
command_t read_command();

}  // namespace trendlog
