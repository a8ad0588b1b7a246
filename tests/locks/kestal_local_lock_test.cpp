#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <functional>

#include "library_test.h"

using namespace test;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

const std::string lock_folder = "/var/run/kesta_sys/tmp/";

// What a process of its own gives back as its exit code.
int in_process(const std::function<int()> &body)
{
    const pid_t pid = fork();
    if (pid == 0) {
        _exit(body());
    }
    int status = -1;
    EXPECT_EQ(waitpid(pid, &status, 0), pid);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// A process that holds the lock of a name until it is let go, or killed.
class Holder {
public:
    explicit Holder(std::string name)
    {
        int said[2];
        int told[2];
        EXPECT_EQ(pipe2(said, O_CLOEXEC), 0);
        EXPECT_EQ(pipe2(told, O_CLOEXEC), 0);
        pid_ = fork();
        if (pid_ == 0) {
            close(told[1]);
            int fd = -1;
            const char result = kestal_file_command_lock(&fd, name.data()) == 0 ? 'y' : 'n';
            char go;
            if (::write(said[1], &result, 1) != 1 || ::read(told[0], &go, 1) != 1) {
                _exit(1);
            }
            _exit(kestal_file_command_unlock(&fd) == 0 ? 0 : 1);
        }
        close(said[1]);
        close(told[0]);
        let_go_ = told[1];
        char result = 0;
        EXPECT_EQ(::read(said[0], &result, 1), 1);
        held_ = result == 'y';
        close(said[0]);
    }
    bool held() const { return held_; }
    void let_go()
    {
        EXPECT_EQ(::write(let_go_, "g", 1), 1);
        end();
    }
    void killed()
    {
        kill(pid_, SIGKILL);
        end();
    }

private:
    void end()
    {
        int status = -1;
        EXPECT_EQ(waitpid(pid_, &status, 0), pid_);
        close(let_go_);
    }

    pid_t pid_;
    int let_go_ = -1;
    bool held_ = false;
};

int try_lock(std::string name)
{
    int fd = -1;
    const int result = kestal_file_command_lock(&fd, name.data());
    if (result == 0) {
        EXPECT_EQ(kestal_file_command_unlock(&fd), 0);
    }
    return result;
}

}  // namespace

class LocalLock : public LibraryTest {
protected:
    int fd = 777;
    char name[8] = "backup";
};

TEST_F(LocalLock, DescriptorIsNoneOfTheStandardOnes)
{
    const pid_t child = fork();
    if (child == 0) {
        for (int number = 0; number < 3; ++number) {
            close(number);
        }
        int lock = -1;
        char wanted[] = "nightly";
        const bool held = kestal_file_command_lock(&lock, wanted) == 0;
        char line[64] = "";
        char command[] = "echo said";
        char *lines[] = {line, nullptr};
        const bool read = kestal_execute(command, lines) == 0;
        bool closed = true;
        for (int number = 0; number < 3; ++number) {
            closed = closed && fcntl(number, F_GETFD) == -1;
        }
        _exit((held ? 0 : 1) | (lock > 2 ? 0 : 2) | (read && std::string(line) == "said" ? 0 : 4) | (closed ? 0 : 8));
    }
    int status = -1;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
}

TEST_F(LocalLock, TakenAndGivenBack)
{
    EXPECT_EQ(kestal_file_command_lock(&fd, name), 0);
    EXPECT_GE(fd, 0);
    EXPECT_EQ(mode_of(lock_folder + name), 0666u);
    EXPECT_EQ(fcntl(fd, F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
    EXPECT_EQ(fcntl(fd, F_GETFL) & O_ACCMODE, O_WRONLY);
    const auto line = [](const std::string &text) {
        return Trace{5, "[kestal_local_command_lock] " + text, "../common/kestal_local_lock.cpp"};
    };
    EXPECT_THAT(p().traces, ElementsAre(line("Local command lock Start."),
                                        line("Lock File opened. f_name=" + lock_folder + "backup"),
                                        line("File(backup) Locked."), line("Local command lock End.")));
    p().traces.clear();
    EXPECT_EQ(kestal_file_command_unlock(&fd), 0);
    EXPECT_EQ(fcntl(fd, F_GETFD), -1) << "closed";
    EXPECT_TRUE(exists(lock_folder + name)) << "the file stays";
    EXPECT_THAT(p().texts(5), ElementsAre("[kestal_local_command_unlock] Local command unlock Start.",
                                          "[kestal_local_command_unlock] Lock File Unlocked.",
                                          "[kestal_local_command_unlock] File closed.",
                                          "[kestal_local_command_unlock] Local command lock. End."));
}

TEST_F(LocalLock, FileKeepsItsContents)
{
    write_file(lock_folder + name, "who knows");
    EXPECT_EQ(kestal_file_command_lock(&fd, name), 0);
    EXPECT_EQ(kestal_file_command_unlock(&fd), 0);
    EXPECT_EQ(read_file(lock_folder + name), "who knows");
}

TEST_F(LocalLock, AnotherProcessIsRefusedUntilTheHolderLetsGo)
{
    Holder holder(name);
    ASSERT_TRUE(holder.held());
    EXPECT_EQ(kestal_file_command_lock(&fd, name), -121);
    EXPECT_GE(fd, 0) << "the number stays, closed";
    EXPECT_EQ(fcntl(fd, F_GETFD), -1);
    EXPECT_TRUE(p().traced(1, "[kestal_local_command_lock] File Lock Error. result=-1"));
    EXPECT_EQ(try_lock("other"), 0) << "another name is free";
    holder.let_go();
    EXPECT_EQ(try_lock(name), 0);
}

TEST_F(LocalLock, DeathOfTheHolderFreesIt)
{
    Holder holder(name);
    ASSERT_TRUE(holder.held());
    EXPECT_EQ(try_lock(name), -121);
    holder.killed();
    EXPECT_EQ(try_lock(name), 0);
}

TEST_F(LocalLock, ProgramsThatAreStartedDoNotInheritIt)
{
    EXPECT_EQ(kestal_file_command_lock(&fd, name), 0);
    EXPECT_EQ(run_shell("test ! -e /proc/self/fd/" + std::to_string(fd)), 0);
    EXPECT_EQ(kestal_file_command_unlock(&fd), 0);
}

TEST_F(LocalLock, ArgumentsAreChecked)
{
    EXPECT_EQ(kestal_file_command_lock(nullptr, nullptr), -931);
    EXPECT_EQ(p().traces.back().text, "[kestal_local_command_lock] File Descriptor Error.");
    EXPECT_EQ(kestal_file_command_lock(&fd, nullptr), -931);
    EXPECT_EQ(p().traces.back().text, "[kestal_local_command_lock] FileName Error.");
    EXPECT_EQ(fd, 777) << "untouched";
    EXPECT_EQ(kestal_file_command_unlock(nullptr), -931);
    fd = -1;
    EXPECT_EQ(kestal_file_command_unlock(&fd), -931);
    EXPECT_EQ(p().traces.back().text, "[kestal_local_command_unlock] File Descriptor Error.");
    EXPECT_THAT(p().calls, IsEmpty());
}

TEST_F(LocalLock, NameThatDoesNotFitThePathIsRefused)
{
    std::string longest(255 - lock_folder.size(), 'n');
    EXPECT_EQ(kestal_file_command_lock(&fd, longest.data()), 0);
    EXPECT_EQ(kestal_file_command_unlock(&fd), 0);
    longest += 'n';
    EXPECT_EQ(kestal_file_command_lock(&fd, longest.data()), -931);
    EXPECT_EQ(fd, -1);
    EXPECT_EQ(p().traces.back().text, "[kestal_local_command_lock] FileName Error.");
}

TEST_F(LocalLock, MissingFolderIsTold)
{
    char missing[] = "no/such";
    EXPECT_EQ(kestal_file_command_lock(&fd, missing), -121);
    EXPECT_EQ(fd, -1);
    EXPECT_TRUE(
        p().traced(1, "[kestal_local_command_lock] File Open Error. f_name=" + lock_folder + "no/such errno=2"));
}

TEST_F(LocalLock, OnlyAPlainFileOfTheLockFolderIsUsed)
{
    write_file("/tmp/elsewhere", "not a lock");
    const mode_t before = mode_of("/tmp/elsewhere");
    EXPECT_EQ(symlink("/tmp/elsewhere", (lock_folder + "link").c_str()), 0);
    EXPECT_EQ(symlink("/tmp/not-there", (lock_folder + "dangling").c_str()), 0);
    EXPECT_EQ(mkfifo((lock_folder + "fifo").c_str(), 0666), 0);
    const int reader = ::open((lock_folder + "fifo").c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    EXPECT_EQ(mkdir((lock_folder + "folder").c_str(), 0755), 0);
    for (const char *wrong :
         {"link", "dangling", "fifo", "folder", "../../../../tmp/elsewhere", "../planted", "", ".", ".."}) {
        EXPECT_EQ(try_lock(wrong), -121) << wrong;
        EXPECT_EQ(p().texts(1).back().rfind("[kestal_local_command_lock] File Open Error. f_name=", 0), 0u);
    }
    close(reader);
    EXPECT_EQ(mode_of("/tmp/elsewhere"), before);
    EXPECT_FALSE(exists("/tmp/not-there"));
    EXPECT_FALSE(exists("/var/run/kesta_sys/planted"));
}

TEST_F(LocalLock, ModeThatCanNotBeSetIsOnlyTold)
{
    p().fail_kind("chmod");
    EXPECT_EQ(kestal_file_command_lock(&fd, name), 0);
    EXPECT_TRUE(p().traced(4, "[kestal_local_command_lock] PERMISSION no-set. f_name=" + lock_folder + name));
    EXPECT_EQ(mode_of(lock_folder + name), 0600u);
    EXPECT_EQ(kestal_file_command_unlock(&fd), 0);
}

TEST_F(LocalLock, UnlockThatFailsLeavesItOpen)
{
    EXPECT_EQ(kestal_file_command_lock(&fd, name), 0);
    p().fail_kind("lockf", 0, 1);
    EXPECT_EQ(kestal_file_command_unlock(&fd), -122);
    EXPECT_TRUE(p().traced(1, "[kestal_local_command_unlock] File Unlock Error. result=-1"));
    EXPECT_GE(fcntl(fd, F_GETFD), 0);
    EXPECT_EQ(in_process([this] { return try_lock(name) == -121 ? 0 : 1; }), 0) << "still held";
    EXPECT_EQ(kestal_file_command_unlock(&fd), 0);
}

TEST_F(LocalLock, CloseThatFailsIsTold)
{
    EXPECT_EQ(kestal_file_command_lock(&fd, name), 0);
    p().fail_kind("close", 0, 1);
    EXPECT_EQ(kestal_file_command_unlock(&fd), -123);
    EXPECT_TRUE(p().traced(1, "[kestal_local_command_unlock] File Close Error. result=-1"));
    EXPECT_EQ(fcntl(fd, F_GETFD), -1) << "closed all the same";
}

// ------------------------------------------------------------------------------ identifier files

class LockFile : public LibraryTest {
protected:
    const std::string path = "/tmp/identifier";
    char buffer[12] = "###########";
};

TEST_F(LockFile, WrittenAsOneLineAndReadBack)
{
    EXPECT_EQ(kestal_create_lock_file("1234567890", path.c_str()), 0);
    EXPECT_EQ(read_file(path), "1234567890\n");
    EXPECT_EQ(p().traces.front().text, "[kestal_create_lock_file] create_lock_file Start.");
    EXPECT_EQ(p().traces.back().text, "[kestal_create_lock_file] create_lock_file End.");
    EXPECT_EQ(kestal_read_lock_file(path.c_str(), buffer, 11), 0);
    EXPECT_STREQ(buffer, "1234567890");
    EXPECT_EQ(p().traces.back(),
              (Trace{5, "[kestal_read_lock_file] Read lock file End.", "../common/kestal_local_lock.cpp"}));
    EXPECT_TRUE(p().traced(5, "[kestal_read_lock_file] Read lock file Start."));
}

TEST_F(LockFile, ReplacesWhatWasThere)
{
    write_file(path, "a longer text than the next one\n");
    EXPECT_EQ(kestal_create_lock_file("7", path.c_str()), 0);
    EXPECT_EQ(read_file(path), "7\n");
}

TEST_F(LockFile, TenCharactersAreRead)
{
    const std::pair<const char *, const char *> cases[] = {{"12345678901\n", "1234567890"},
                                                           {"  42 43\n", "42"},
                                                           {"abc", "abc"},
                                                           {"\n\n9\n", "9"}};
    for (const auto &[text, expected] : cases) {
        write_file(path, text);
        EXPECT_EQ(kestal_read_lock_file(path.c_str(), buffer, 11), 0);
        EXPECT_STREQ(buffer, expected);
        EXPECT_EQ(buffer[11], '\0');
    }
}

TEST_F(LockFile, EmptyFileLeavesTheBufferAsItWas)
{
    write_file(path, "");
    EXPECT_EQ(kestal_read_lock_file(path.c_str(), buffer, 11), 0);
    EXPECT_STREQ(buffer, "###########");
}

TEST_F(LockFile, ArgumentsAreChecked)
{
    EXPECT_EQ(kestal_create_lock_file(nullptr, nullptr), -931);
    EXPECT_EQ(p().traces.back().text, "[kestal_create_lock_file] Argument Error.(lock_identifier=NULL).");
    EXPECT_EQ(kestal_create_lock_file("1", nullptr), -931);
    EXPECT_EQ(p().traces.back().text, "[kestal_create_lock_file] Argument Error.(lock_name=NULL).");
    EXPECT_EQ(kestal_read_lock_file(nullptr, nullptr, 0), -931);
    EXPECT_EQ(p().traces.back().text, "[kestal_read_lock_file] Argument Error.(lock_identifier=NULL).");
    EXPECT_EQ(kestal_read_lock_file(nullptr, buffer, 0), -931);
    EXPECT_EQ(p().traces.back().text, "[kestal_read_lock_file] Argument Error.(file_name=NULL).");
    for (const int size : {10, 0, -1}) {
        EXPECT_EQ(kestal_read_lock_file(path.c_str(), buffer, size), -1);
        EXPECT_EQ(p().traces.back().text,
                  "[kestal_read_lock_file] buffer size Error. buf_size=" + std::to_string(size));
    }
    EXPECT_THAT(p().calls, IsEmpty()) << "nothing was opened";
}

TEST_F(LockFile, FailuresAreTold)
{
    EXPECT_EQ(kestal_read_lock_file("/tmp/none", buffer, 11), -1);
    EXPECT_TRUE(p().traced(1, "[kestal_read_lock_file] Lock File(/tmp/none) Open Error. errno=2"));
    EXPECT_EQ(kestal_create_lock_file("1", "/none/x"), -1);
    EXPECT_TRUE(p().traced(1, "[kestal_create_lock_file] Lock File(/none/x) Open Error. errno=2"));
    p().fail_kind("alloc", 0, 1);
    EXPECT_EQ(kestal_create_lock_file("1", path.c_str()), -1);
    EXPECT_TRUE(p().traced(1, "[kestal_create_lock_file] Buffer Error."));
    p().fail_kind("write", 0, 1);
    p().fault_errno = 28;
    EXPECT_EQ(kestal_create_lock_file("12", path.c_str()), -1);
    EXPECT_TRUE(
        p().traced(1, "[kestal_create_lock_file] File Write Error lock_name=" + path + " len=3 result=-1 errno=28"));
}

TEST_F(LockFile, LinkIsNotWrittenThroughAndAFifoNotWaitedFor)
{
    write_file("/tmp/elsewhere", "mine");
    EXPECT_EQ(symlink("/tmp/elsewhere", "/tmp/planted"), 0);
    EXPECT_EQ(kestal_create_lock_file("42", "/tmp/planted"), -1);
    EXPECT_EQ(read_file("/tmp/elsewhere"), "mine");
    EXPECT_EQ(mkfifo("/tmp/fifo", 0600), 0);
    EXPECT_EQ(kestal_create_lock_file("42", "/tmp/fifo"), -1);
    EXPECT_EQ(kestal_read_lock_file("/tmp/fifo", buffer, 11), 0) << "nothing in it";
    EXPECT_STREQ(buffer, "###########");
    EXPECT_EQ(kestal_create_lock_file("42", "/dev/full"), -1);
    EXPECT_EQ(p().texts(1).back(),
              "[kestal_create_lock_file] File Write Error lock_name=/dev/full len=3 "
              "result=-1 errno=28");
    for (const char *made : {"/tmp/elsewhere", "/tmp/planted", "/tmp/fifo"}) {
        EXPECT_EQ(unlink(made), 0);
    }
}

TEST_F(LockFile, EveryFaultIsReported)
{
    sweep_faults([] { reset(); }, [this] { return kestal_create_lock_file("42", path.c_str()); },
                 [](int result, bool met) { EXPECT_EQ(result, met ? -1 : 0); });
}
