// Members of a cluster in memory, for programs that are run: it prints their endpoints, and ends with its input.
//   members_on_demand < FIFO
#include <stdio.h>
#include <unistd.h>

#include "member_double.h"

int main()
{
    test::StoreDouble store;
    test::MemberDouble first(store);
    test::MemberDouble second(store);
    printf("%s,%s\n", first.endpoint().c_str(), second.endpoint().c_str());
    (void)fflush(stdout);
    char byte = 0;
    while (read(STDIN_FILENO, &byte, 1) > 0) {
    }
    return 0;
}
