// Process entry: the debug level, then exactly one sub-command.
#include "cli/dispatch.h"

int main(int argc, char** argv)
{
    readDebugLevel();
    return dispatch(argc, argv);
}
