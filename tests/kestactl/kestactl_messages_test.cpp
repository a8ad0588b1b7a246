// What an operator reads when something is in the way: the cause by its name, what was done all the same, and who is
// waited for.
#include <errno.h>
#include <signal.h>
#include <unistd.h>

#include "saved_group.h"

using namespace test;
using testing::HasSubstr;
using testing::Not;

namespace {

constexpr const char *area = "/opt/kesta_platform/shared/sysback";

// The area on a disk that is full, for as long as the controller's shell lives.
std::string on_a_full_disk(const std::string &command)
{
    return std::string("mkdir -p /tmp/full && mount -t tmpfs -o size=64k tmpfs /tmp/full && cp -a ") + area +
           "/. /tmp/full/ && { head -c 1M /dev/zero > /tmp/full/.fill; } 2>/dev/null; mount --bind /tmp/full " + area +
           " && " + command;
}

// As on a terminal: both outputs are one.
std::string on_a_terminal(const std::string &command)
{
    return "script -qec " + quoted(command) + " /dev/null < /dev/null";
}

}  // namespace

class KestactlMessages : public SavedGroup {};

TEST_F(KestactlMessages, FullAreaIsNamedAndWhatNvMemoryDid)
{
    const Ran full = on(0, on_a_full_disk("kestactl version set backup 3"));
    EXPECT_EQ(full.code, 4);
    EXPECT_THAT(full.err, HasSubstr("The system backup area is full (No space left on device)."));
    EXPECT_THAT(full.err, HasSubstr("NV memory went on alone, and has other values than the area of: backup-version"));
    EXPECT_THAT(full.err, HasSubstr("Make room there"));
    EXPECT_EQ(ctl(0, "nv read backup-version --from memory").out, "3\n");
    EXPECT_EQ(ctl(0, "nv verify").code, 1) << "as the message says";
}

TEST_F(KestactlMessages, FullAreaIsNamedInJson)
{
    const Ran full = on(0, on_a_full_disk("kestactl --json version set backup 3"));
    EXPECT_THAT(full.json().at("error").at("message").get<std::string>(), HasSubstr("No space left on device"));
}

TEST_F(KestactlMessages, SharedFileSystemIsNamed)
{
    fs::copy_file(KESTA_NO_WAIT_LIBRARY, host_path(0, "opt/libno_wait.so"));
    for (const auto &[call, place] : {std::pair{"nv_write", "NV memory"}, {"sb_open", "The system backup area"}}) {
        write_file(host_path(0, "opt/faults"), std::string(call) + " 1 on fail " + std::to_string(EREMOTE) + "\n");
        const Ran refused = on(0,
                               "LD_PRELOAD=/opt/libno_wait.so KESTA_PLATFORM_FAULT_FILE=/opt/faults "
                               "kestactl version set backup 3");
        EXPECT_EQ(refused.code, 4) << place;
        EXPECT_THAT(refused.err, HasSubstr(place + std::string(" was refused: other machines may share its file")));
        EXPECT_THAT(refused.err, HasSubstr("Keep it on a file system of this machine alone"));
    }
}

TEST_F(KestactlMessages, WhoIsNotRootIsToldSo)
{
    if (geteuid() != 0) {
        return;  // a lab of an ordinary user has nobody else to be
    }
    const std::string somebody = "LD_PRELOAD=/opt/libno_wait.so setpriv --reuid 54321 --regid 54321 --clear-groups ";
    fs::copy_file(KESTA_NO_WAIT_LIBRARY, host_path(0, "opt/libno_wait.so"));
    for (const char *verb : {"nv write group network", "nv read group", "lock check", "version set backup 3"}) {
        const Ran refused = on(0, somebody + "kestactl " + verb);
        EXPECT_EQ(refused.code, 4) << verb;
        EXPECT_THAT(refused.err, HasSubstr("Permission denied")) << verb;
        EXPECT_THAT(refused.err, HasSubstr("Run the command as root.")) << verb;
    }
    const Ran status = on(0, somebody + "kestactl status");
    EXPECT_EQ(status.code, 4);
    EXPECT_THAT(status.out, HasSubstr("Run the command as root."));
}

TEST_F(KestactlMessages, LockOfAProcessThatIsGoneIsSaidToBe)
{
    const Ran killed = on(0, "kestactl lock take --group network -- sh -c 'kill -KILL $PPID'; true");
    EXPECT_EQ(killed.code, 0);
    const Ran check = ctl(0, "lock check");
    EXPECT_EQ(check.code, 1);
    EXPECT_THAT(check.out, testing::ContainsRegex("its process [0-9]+ is gone"));
    EXPECT_THAT(check.out, Not(HasSubstr("looks alive")));
    const nlohmann::json lock = ctl(0, "--json lock check").json().at("result").at("locks").at(0);
    EXPECT_TRUE(lock.at("gone").get<bool>());
    EXPECT_FALSE(lock.at("looks_alive").get<bool>());
    const Ran refused = ctl(0, "lock take");
    EXPECT_EQ(refused.code, 3);
    EXPECT_THAT(refused.err, HasSubstr("Nobody will let go of it. Clear it: kestactl lock release "));
    // Another controller can't look: it is told of as before.
    EXPECT_THAT(ctl(1, "lock check").out, HasSubstr("it looks alive"));
    const std::string clear = lock.at("clear_with");
    EXPECT_EQ(on(0, clear).code, 0);
    EXPECT_EQ(ctl(0, "lock check").code, 0);
}

TEST_F(KestactlMessages, LockOfAProcessThatWorksLooksAlive)
{
    const Ran ran = on(0, "kestactl lock take -- kestactl lock check");
    EXPECT_THAT(ran.out + ran.err, HasSubstr("it looks alive, fresh until "));
    EXPECT_EQ(ctl(0, "lock check").code, 0);
}

// A lock that was taken for later, by a command that has ended, is held on purpose.
TEST_F(KestactlMessages, LockThatIsKeptBetweenCommandsIsNotGone)
{
    EXPECT_EQ(ctl(0, "lock take").code, 0);
    EXPECT_THAT(ctl(0, "lock check").out, HasSubstr("it looks alive"));
    EXPECT_EQ(ctl(0, "lock release --force").code, 0);
}

TEST_F(KestactlMessages, WaitingForTheInnerLockIsSaidOnTheTerminal)
{
    fs::copy_file(KESTA_FAST_CLOCK_LIBRARY, host_path(0, "opt/libfast_clock.so"));
    // A holder that died: cleared after 30 seconds, of a clock that each wait moves on.
    write_file(host_path(1, "opt/faults"), "nv_write 3 once kill\n");
    on(1, "KESTA_PLATFORM_FAULT_FILE=/opt/faults kestactl nv write group one; true");
    ASSERT_THAT(ctl(0, "status").out, HasSubstr("inner lock   held by CNT1"));
    const Ran waited = on(0, on_a_terminal("LD_PRELOAD=/opt/libfast_clock.so kestactl nv write group two"));
    EXPECT_EQ(waited.code, 0) << waited.out << waited.err;
    EXPECT_THAT(waited.out, testing::ContainsRegex("waiting for the inner lock of the NV image until [-0-9T:]+Z at "
                                                   "most: CNT1 .* holds it"));
    EXPECT_EQ(waited.out.find("waiting"), waited.out.rfind("waiting")) << "once";
}

TEST_F(KestactlMessages, WaitingForTheInnerLockIsNotSaidElsewhere)
{
    fs::copy_file(KESTA_FAST_CLOCK_LIBRARY, host_path(0, "opt/libfast_clock.so"));
    write_file(host_path(1, "opt/faults"), "nv_write 3 once kill\n");
    on(1, "KESTA_PLATFORM_FAULT_FILE=/opt/faults kestactl nv write group one; true");
    const Ran waited = on(0, "LD_PRELOAD=/opt/libfast_clock.so kestactl nv write group two");
    EXPECT_EQ(waited.code, 0);
    EXPECT_EQ(waited.err, "");
}

TEST_F(KestactlMessages, LongStepsShowTheirBytes)
{
    define("");
    const Ran saved = on(0, on_a_terminal("kestactl save network"));
    EXPECT_EQ(saved.code, 0) << saved.out;
    EXPECT_THAT(saved.out,
                testing::ContainsRegex("store it in slot kesta_backup0, and read it back \\([0-9]+ bytes\\)"));
    std::string bytes;
    std::istringstream lines(ctl(0, "--json accept").err);
    for (std::string line; std::getline(lines, line);) {
        const nlohmann::json event = nlohmann::json::parse(line);
        if (event.contains("bytes")) {
            bytes = std::to_string(event.at("bytes").get<int>());
        }
    }
    EXPECT_EQ(bytes, on(0, "printf %s $(stat -c %s /opt/kesta_sys/bakup/backup.tar.Z)").out);
}

TEST_F(KestactlMessages, BytesThatAreNoTextAreShownAsSuch)
{
    // Written past the checks of kestactl: the fields of the group and of the accept name.
    std::fstream image(dir / "shared/nv/region2.img", std::ios::in | std::ios::out | std::ios::binary);
    const std::string before = ctl(0, "nv read group").out;
    ASSERT_EQ(ctl(0, "nv write group MARKEDGROUP").code, 0);
    std::string whole((std::istreambuf_iterator<char>(image)), {});
    const std::size_t at = whole.find("MARKEDGROUP");
    ASSERT_NE(at, std::string::npos);
    image.clear();
    image.seekp(static_cast<std::streamoff>(at));
    image << "\x1b]0;title\x07\xff";
    image.close();
    for (const char *verb : {"status", "lock check", "verify", "nv read group", "nv dump --decoded"}) {
        for (const char *form : {"", "--json "}) {
            const Ran shown = ctl(0, form + std::string(verb));
            for (const char raw : {'\x1b', '\x07', '\xff'}) {
                EXPECT_EQ(shown.out.find(raw), std::string::npos) << form << verb;
            }
            EXPECT_EQ(shown.out.find("\\u001b"), std::string::npos) << form << verb;
            EXPECT_EQ(shown.out.find("\\ufffd"), std::string::npos) << form << verb;
        }
    }
    EXPECT_EQ(ctl(0, "--json status").json().at("result").at("group"), "\\x1b]0;title\\x07\\xff");
}

// What a killed command left is in both, by the same names; and what takes it away, takes it from both.
TEST_F(KestactlMessages, StatusAndVerifyAgreeOnLeftovers)
{
    define("");
    ASSERT_EQ(ctl(0, "save network").code, 0);
    EXPECT_THAT(ctl(0, "status").out, HasSubstr("leftovers    none\n"));
    const std::string folder = "/opt/kesta_sys/bakup/";
    for (const std::string left :
         {".save.tar.Z", ".restore.new", "backup.tar.Z.new", "accept.tar.Z.new", "tmp.tar.Z"}) {
        ASSERT_EQ(on(0, "head -c 100 " + flash_backup + " > " + folder + left).code, 0);
        const Ran status = ctl(0, "--json status");
        EXPECT_EQ(status.json().at("result").at("leftovers").dump(), "[\"" + folder + left + "\"]");
        EXPECT_THAT(ctl(0, "status").out, HasSubstr("leftovers    " + folder + left));
        const nlohmann::json verified = ctl(0, "--json verify").json();
        for (const nlohmann::json &row : verified.at("result").at("subjects")) {
            if (row.at("subject") == "leftovers") {
                ASSERT_EQ(row.at("places").size(), 1u) << row;
                EXPECT_EQ(row.at("places").at(0).at("place"), folder + left);
            }
        }
        EXPECT_EQ(ctl(0, "leftovers clear").code, 0);
        EXPECT_TRUE(ctl(0, "--json status").json().at("result").at("leftovers").empty());
        EXPECT_EQ(ctl(0, "verify").code, 0);
    }
}

// One sentence of what is missing, without a double negation.
TEST_F(KestactlMessages, NoWholeIdentityAnywhereIsSaidOnce)
{
    const Ran refused = ctl(0, "identity carry vpd-to-flash");
    EXPECT_EQ(refused.code, 1) << refused.out;
    EXPECT_THAT(refused.err, HasSubstr("Neither the board nor this controller holds a whole identity.\n"));
    EXPECT_THAT(refused.err, HasSubstr("Set one with 'kestactl identity set"));
}
