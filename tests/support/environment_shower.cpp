// Shows the environment that the library's commands get.
#include <stdlib.h>

#include "command_environment.h"

int main()
{
    kesta::settle_command_environment();
    return system("echo \"$PATH $TAR_OPTIONS $BASH_ENV $LANG\"");
}
