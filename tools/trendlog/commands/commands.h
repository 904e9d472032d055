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

// These change the log.
command_t backup_command();
command_t checkpoint_command();
command_t clear_command();
command_t device_add_command();
command_t device_remove_command();
command_t device_rename_command();
command_t import_command();
command_t init_command();
command_t param_add_command();
command_t param_remove_command();
command_t param_set_command();
command_t period_add_command();
command_t period_remove_command();
command_t period_set_command();
command_t rebuild_command();
command_t record_command();
command_t salvage_command();
command_t unit_command();
command_t upgrade_command();
command_t vacuum_command();

}  // namespace trendlog
