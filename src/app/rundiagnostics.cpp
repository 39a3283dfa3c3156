#include "app/rundiagnostics.h"

int RunDiagnostics(int argc, const char *const *argv)
{
    (void)argc;
    (void)argv;
    return -1;
}
