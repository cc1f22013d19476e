// tzdevice: the command tool and, under the service manager, the daemon.
#include "frontend/frontend.h"

int main(int argc, char **argv)
{
    return EntryMain(argc, argv);
}
