#include "app/rundiagnostics.h"
#include "app/supportfolder.h"
#include "platform/appidentity.h"

int main(int argc, char **argv)
{
    const int status = RunDiagnostics(argc, argv);
    if (status >= 0)
        return status;
    HLConfigureApplicationIdentity();
    SupportFolder::prepare();
    // The application shell is not part of this build yet: after preparing its folder, starting the
    // application opens nothing and ends.
    return 0;
}
