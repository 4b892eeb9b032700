// tvx: from a table of records to a result, with one command. Stands beside the program, which it runs.
#include "tvx/commands.h"

int main(int argc, char** argv) { return tvx::run_command_line(argc, argv); }
