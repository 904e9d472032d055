#include "commands/commands.h"

using namespace trendlog;

int main(int argc, char** argv)
{
    const commands_t commands = {
        devices_command(),
        params_command(),
        periods_command(),  //
        read_command(),
    };
    return run_program(commands, argc, argv);
}
