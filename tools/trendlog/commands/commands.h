#pragma once

#include "command.h"

namespace trendlog {

// One per file of this folder.
command_t check_command();
command_t devices_command();
command_t explain_command();
command_t export_command();
command_t extremes_command();
command_t info_command();
command_t latest_command();
command_t params_command();
command_t periods_command();
command_t plot_command();
command_t read_command();

}  // namespace trendlog
