#include "appliance_state.h"

#include <kesta/kesta.h>
#include <string.h>
#include <sys/stat.h>

#include <cerrno>

#include "cause_words.h"
#include "causes.h"
#include "failure.h"
#include "inner_lock_holders.h"
#include "printable.h"

namespace engine {
namespace {

bool memory_only = false;

constexpr int not_asked = 1;  // the library leaves the result alone where it doesn't use the area

int read_through(const Block &block, From from, BlockValue &value)
{
    void *data = value.bytes.data();
    switch (from) {
    case From::memory:
        value.place = "NV memory";
        return kestal_non_volatile_rw_memory(block.id, KESTA_BLOCK_READ, data, block.size);
    case From::sysback:
        value.place = "system backup area";
        return kestal_non_volatile_rw_sysback(block.id, KESTA_FILE_READ, data, block.size);
    case From::both:
        break;
    }
    int sysback = not_asked;
    const int result = kestal_non_volatile_rw_func(block.id, KESTA_BLOCK_READ, data, block.size, &sysback);
    value.place = sysback == KESTA_OK ? "system backup area" : "NV memory";
    return result;
}

void check_place(const Block &block, From from)
{
    if (from == From::sysback && !block.mirrored) {
        throw Failure(Exit::usage, "not-mirrored", "Block " + block.name + " has no file in the system backup area.",
                      "Read it from NV memory: leave out --from sysback.");
    }
    if (from == From::memory && !block.in_memory) {
        throw Failure(Exit::usage, "not-in-memory", "Block " + block.name + " has no place in NV memory.",
                      "It lives in the system backup area only: leave out --from memory.");
    }
}

}  // namespace

BlockValue read_block(const Block &block, From from)
{
    check_place(block, from);
    BlockValue value;
    value.bytes.assign(block.size, '\0');
    const int result = read_through(block, from, value);
    const bool nowhere = !block.in_memory && value.place == "NV memory";
    if (result != KESTA_OK || nowhere) {
        fail_call("read-failed",
                  "Block " + block.name + " could not be read from " +
                      (from == From::both ? "any place" : "the " + value.place) + ".",
                  "Look at the traces (--trace 1) for the failed call, and check the disk and "
                  "the storage firmware.");
    }
    return value;
}

void under_inner_lock(std::string_view not_done, const std::function<std::string()> &act)
{
    const int number = learn_own_number();
    if (kestal_cntl_innerlock(number) != KESTA_OK) {
        fail_call("lock-failed", not_done, "The inner lock could not be taken: look at --trace 1.");
    }
    std::string done;
    std::optional<Failure> failure;
    try {
        done = act();
    } catch (const Failure &met) {
        failure = met;
    }
    const int released = kestal_reset_mycnt_innerlock_main(number, 0);
    if (failure) {
        throw *failure;
    }
    if (released != KESTA_OK) {
        fail_call("unlock-failed", done + ", but the inner lock was not released.",
                  "The next waiter clears it after 30 seconds; check NV memory with --trace 1.");
    }
}

void write_block(const Block &block, std::vector<char> bytes)
{
    const std::string name = "Block " + block.name;
    under_inner_lock(name + " was not written.", [&] {
        ask_both_places();
        if (kestal_non_volatile_rw_func(block.id, KESTA_BLOCK_WRITE, bytes.data(), static_cast<unsigned>(bytes.size()),
                                        nullptr) != KESTA_OK) {
            fail_call("write-failed", name + " was not written to every place it lives in.",
                      "Look at --trace 1 for the place that failed. If the system backup area is "
                      "gone, --memory-only writes NV memory alone.");
        }
        return name + " was written";
    });
}

std::string field_text(const std::vector<char> &bytes) { return {bytes.data(), strnlen(bytes.data(), bytes.size())}; }

std::string accept_slot()
{
    // As the library does: NV memory first, if it holds a slot name.
    const Block &block = find_block("accept-name");
    const std::string in_memory = field_text(read_block(block, From::memory).bytes);
    return is_slot(in_memory) ? in_memory : plain_text(field_text(read_block(block, From::both).bytes));
}

std::string backup_slot() { return plain_text(field_text(read_block(find_block("backup-name"), From::both).bytes)); }

int learn_own_number()
{
    const int number = kestal_get_cnt_num_from_cpinfo(KESTA_CPINFO_OWN_NUMBER_NO_FILE);
    if (number < 0) {
        fail_call("own-number-unknown", "This controller's own number could not be had from /usr/sbin/cpinfo -i.",
                  "Run that command by hand: it must print 0, 1, 2 or 3.");
    }
    return number;
}

void require_writable()
{
    const int mode = kestal_get_cnt_num_from_cpinfo(KESTA_CPINFO_BOOT_MODE);
    if (mode < 0) {
        fail_call("boot-mode-unknown", "The boot mode could not be had from /usr/sbin/cpinfo -b.",
                  "Run that command by hand: it must print normal, suspend or initconf.");
    }
    if (mode == KESTA_BOOT_SUSPEND) {
        throw Failure(Exit::no, "suspended",
                      "This controller is in Suspend boot mode, in which nothing may be written.",
                      "Boot it in Normal mode, or run the command on another controller.");
    }
}

void use_both_places()
{
    memory_only = false;
    kestal_rw_set_boot_mode(KESTA_RWMODE_BOTH);
}

void use_memory_only()
{
    memory_only = true;
    kestal_rw_set_boot_mode(KESTA_RWMODE_MEMORY);
}

void ask_both_places()
{
    if (!memory_only) {
        kestal_rw_set_boot_mode(KESTA_RWMODE_BOTH);
    }
}

void fail_call(std::string_view code, std::string_view message, std::string_view hint)
{
    const std::string told(message);
    if (inner_lock_was_held()) {
        const std::string holders = inner_lock_text();
        throw Failure(Exit::locked, "inner-lock-held",
                      told + " The inner lock of the NV image stayed held" +
                          (holders.empty() ? "." : " by " + holders + "."),
                      "Another controller or process is using the image: 'kestactl status' shows "
                      "whose slot is set. A holder that died is cleared by itself after 30 "
                      "seconds; then run the command again.");
    }
    const CauseWords cause = cause_in_words();
    throw Failure(Exit::platform, code, cause.why.empty() ? told : told + " " + cause.why,
                  cause.hint.empty() ? hint : cause.hint);
}

std::string require_slot(const std::string &name, std::string_view which)
{
    if (!is_slot(name)) {
        throw Failure(
            Exit::no, "no-slot-name",
            "No " + std::string(which) + " slot is in force: the stored name is '" + name + "'.",
            "'kestactl verify' tells by the archives which slot is which, and gives the command that names them.");
    }
    return name;
}

void require_file(const std::string &path, std::string_view hint)
{
    struct stat status;
    if (stat(path.c_str(), &status) != 0) {
        const int error = errno;
        throw Failure(error == ENOENT ? Exit::no : Exit::platform, "no-file",
                      "There is no usable " + path + ": " + strerror(error) + ".", hint);
    }
    if (!S_ISREG(status.st_mode)) {
        throw Failure(Exit::platform, "no-file", path + " is not a file.", hint);
    }
}

}  // namespace engine
