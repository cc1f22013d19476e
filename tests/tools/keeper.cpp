// Keeps one ordinary process alive in the test prefix for a whole test run.
// Wine ends every service shortly after its last ordinary process exits, so
// the daemon tests need this. It ends when it is killed.
#include <windows.h>

int main()
{
    for (;;)
        Sleep(INFINITE);
}
