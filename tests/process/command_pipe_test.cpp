// The pipe from a command of ours: it is let go of on every way out.
#include "command_pipe.h"

#include <fcntl.h>
#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>

#include <thread>

#include "library_test.h"

using namespace test;

class CommandPipe : public LibraryTest {};

TEST_F(CommandPipe, IsClosedOnce)
{
    kesta::PipePtr pipe("echo one; exit 3");
    ASSERT_TRUE(pipe);
    kesta::PipePtr::Line line;
    EXPECT_TRUE(pipe.read_line(line));
    EXPECT_STREQ(line.data(), "one");
    EXPECT_FALSE(pipe.read_line(line));
    EXPECT_EQ(WEXITSTATUS(pipe.close()), 3);
    EXPECT_EQ(pipe.close(), -1);
    EXPECT_EQ(p().open_pipes, 0);
}

// A thread that waits for a line is cancelled: the command is waited for, and nothing stays open.
TEST_F(CommandPipe, IsClosedByAThreadThatIsCancelledWithinIt)
{
    const std::string fifo = "/var/run/kesta_sys/tmp/line";
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    const int before = open_descriptors();
    std::thread reader([&fifo] {
        kesta::PipePtr pipe(("cat " + fifo).c_str());
        kesta::PipePtr::Line line;
        (void)pipe.read_line(line);
        ADD_FAILURE() << "no line ever came";
    });
    const int to_command = open(fifo.c_str(), O_WRONLY | O_CLOEXEC);  // it has begun
    ASSERT_GE(to_command, 0);
    ASSERT_EQ(pthread_cancel(reader.native_handle()), 0);
    close(to_command);
    reader.join();
    EXPECT_EQ(open_descriptors(), before);
    EXPECT_EQ(p().open_pipes, 0);
    EXPECT_EQ(unlink(fifo.c_str()), 0);
}
