#include "commands/commands.h"

using namespace trendlog;

int main(int argc, char** argv)
{
    const commands_t commands = {
        info_command(),       devices_command(),       params_command(),
        periods_command(),    read_command(),          plot_command(),
        latest_command(),     extremes_command(),      explain_command(),
        export_command(),     check_command(),         init_command(),
        period_add_command(), period_set_command(),    period_remove_command(),
        device_add_command(), device_rename_command(), device_remove_command(),
        param_add_command(),  param_set_command(),     param_remove_command(),
        unit_command(),       clear_command(),         rebuild_command(),
        import_command(),     record_command(),        backup_command(),
        vacuum_command(),     checkpoint_command(),    upgrade_command(),
        salvage_command(),
    };
    return run_program(commands, argc, argv);
}
