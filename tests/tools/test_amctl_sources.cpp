// The tool's code (everything but main) compiled into the test program, so the tests drive
// amctl_main in-process: the same code paths, also where the tool binary cannot be executed.
#include "../../tools/amctl_args.cpp"
#include "../../tools/amctl_commands.cpp"
#include "../../tools/amctl_main.cpp"
#include "../../tools/amctl_message.cpp"
#include "../../tools/amctl_tools.cpp"
