#include "app/rundiagnostics.h"

int main(int argc, char **argv)
{
    const int status = RunDiagnostics(argc, argv);
    if (status >= 0)
        return status;
    // The application shell does not exist yet: starting the application opens nothing.
    return 0;
}
