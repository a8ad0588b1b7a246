#include <errno.h>
#include <string.h>

#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "library_test.h"

using namespace test;

namespace {

struct Operation {
    const char *name;
    std::function<int()> call;
};

// Operations that reach all four platform libraries, files, commands and locks.
std::vector<Operation> operations()
{
    return {
        {"set_version",
         [] {
             return kestal_set_version(KESTA_VER_AREA_BACKUP, 1, 4);
         }},
        {"read_version",
         [] {
             return kestal_read_version(KESTA_VER_AREA_BACKUP, 1, 1) < 0 ? -1 : 0;
         }},
        {"innerlock",
         [] {
             const int result = kestal_cntl_innerlock(0);
             return result != 0 ? result : kestal_reset_mycnt_innerlock_main(0, 0);
         }},
        {"backup_rw",
         [] {
             char bytes[] = "bytes";
             void *data = bytes;
             unsigned size = sizeof(bytes);
             return kestal_backup_rw("kesta_verback", KESTA_FILE_WRITE, &data, &size);
         }},
        {"set_flash_version_file",
         [] {
             return kestal_set_flash_version_file(4, KESTA_FLASH_VERSION);
         }},
        {"cntbackup2backup",
         [] {
             return kestal_cntbackup2backup();
         }},
    };
}

class LastCause : public LibraryTest {
protected:
    void SetUp() override
    {
        LibraryTest::SetUp();
        kesta_clear_cause();
    }
};

}  // namespace

TEST_F(LastCause, NothingHasFailedYet)
{
    ASSERT_NE(kesta_last_cause(), nullptr);
    EXPECT_EQ(kesta_last_cause()->kind, KESTA_CAUSE_NONE);
    EXPECT_EQ(kesta_last_cause()->number, 0);
    EXPECT_STREQ(kesta_last_cause()->function, "");
    EXPECT_STREQ(kesta_last_cause()->text, "");
}

TEST_F(LastCause, FullSystemBackupAreaIsKnownToWhoSetAVersion)
{
    p().sysback["kesta_verback"] = {std::string(4, '\0')};
    p().fault_errno = ENOSPC;
    p().fail_kind("sb_write");
    EXPECT_EQ(kestal_set_version(KESTA_VER_AREA_BACKUP, 1, 4), KESTA_ERR);
    const KESTA_CAUSE *cause = kesta_last_cause();
    EXPECT_EQ(cause->kind, KESTA_CAUSE_PLATFORM);
    EXPECT_EQ(cause->number, -ENOSPC);
    EXPECT_STREQ(cause->function, "kestal_backup_rw");
    EXPECT_TRUE(p().traced(1, cause->text)) << cause->text;
}

TEST_F(LastCause, WrongArgumentIsOne)
{
    EXPECT_EQ(kestal_cntl_innerlock(7), KESTA_ERR_ARGUMENT);
    EXPECT_EQ(kesta_last_cause()->kind, KESTA_CAUSE_ARGUMENT);
    EXPECT_EQ(kesta_last_cause()->number, 0);
    EXPECT_STREQ(kesta_last_cause()->text, "[kestal_cntl_innerlock] InnerLock Control Error.(cntno=7)");
}

TEST_F(LastCause, SystemCallsGiveTheirErrno)
{
    p().fault_errno = EROFS;
    p().fail_kind("open");
    EXPECT_EQ(kestal_set_flash_version_file(4, KESTA_FLASH_VERSION), KESTA_ERR);
    EXPECT_EQ(kesta_last_cause()->kind, KESTA_CAUSE_SYSTEM);
    EXPECT_EQ(kesta_last_cause()->number, EROFS);
    EXPECT_STREQ(kesta_last_cause()->function, "kestal_flash_version_file");
}

TEST_F(LastCause, SuccessLeavesItAlone)
{
    EXPECT_EQ(kestal_cntl_innerlock(7), KESTA_ERR_ARGUMENT);
    EXPECT_EQ(kestal_isdigit("12"), KESTA_OK);
    EXPECT_EQ(kesta_last_cause()->kind, KESTA_CAUSE_ARGUMENT);
    kesta_clear_cause();
    EXPECT_EQ(kesta_last_cause()->kind, KESTA_CAUSE_NONE);
}

TEST_F(LastCause, EachThreadHasItsOwn)
{
    EXPECT_EQ(kestal_cntl_innerlock(7), KESTA_ERR_ARGUMENT);
    std::thread([] {
        EXPECT_EQ(kesta_last_cause()->kind, KESTA_CAUSE_NONE);
        EXPECT_EQ(kestal_isdigit("1x"), KESTA_ERR);
        EXPECT_EQ(kesta_last_cause()->kind, KESTA_CAUSE_CONTENT);
    }).join();
    EXPECT_EQ(kesta_last_cause()->kind, KESTA_CAUSE_ARGUMENT);
}

TEST_F(LastCause, LongTextsAreCutAndEnded)
{
    const std::string digits(2000, '1');
    EXPECT_EQ(kestal_isdigit((digits + "x").c_str()), KESTA_ERR);
    EXPECT_EQ(strlen(kesta_last_cause()->text), static_cast<std::size_t>(KESTA_CAUSE_TEXT_SIZE - 1));
}

TEST_F(LastCause, ErrnoStaysAsItWas)
{
    errno = EXDEV;
    kesta_clear_cause();
    (void)kesta_last_cause();
    EXPECT_EQ(errno, EXDEV);
}

// Whatever call of the platform or the system fails, alone or with all that follow: who gets no success has a cause,
// and its text is a trace that was written.
TEST_F(LastCause, EveryFailureHasOne)
{
    for (const Operation &operation : operations()) {
        for (const bool from_then_on : {false, true}) {
            for (long n = 1;; ++n) {
                reset();
                p().fail_at = n;
                p().fail_from_then_on = from_then_on;
                kesta_clear_cause();
                const int result = operation.call();
                if (result != KESTA_OK) {
                    const KESTA_CAUSE *cause = kesta_last_cause();
                    EXPECT_NE(cause->kind, KESTA_CAUSE_NONE)
                        << operation.name << ", call " << n << ", traced: " << testing::PrintToString(p().texts(1));
                    EXPECT_TRUE(p().traced(1, cause->text) || p().traced(2, cause->text)) << cause->text;
                }
                if (!p().fault_met) {
                    break;
                }
                ASSERT_LT(n, 2000);
            }
        }
    }
}
