// Members of a cluster in memory, for programs that are run: it prints their endpoints, and ends with its input.
//   members_on_demand < FIFO
#include <poll.h>
#include <stdio.h>

#include "member_double.h"

int main()
{
    test::StoreDouble store;
    test::MemberDouble first(store);
    test::MemberDouble second(store);
    printf("%s,%s\n", first.endpoint().c_str(), second.endpoint().c_str());
    (void)fflush(stdout);
    pollfd input{STDIN_FILENO, POLLIN, 0};
    while (poll(&input, 1, 1000) == 0) {
        store.forget_history();
    }
    return 0;
}
