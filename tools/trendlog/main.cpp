#include "commands/commands.h"

using namespace trendlog;

int main(int argc, char** argv)
{
    const commands_t commands = {
        info_command(),    devices_command(), params_command(), periods_command(),
        read_command(),    plot_command(),    latest_command(), extremes_command(),
        explain_command(), export_command(),  check_command(),
    };
    return run_program(commands, argc, argv);
}
