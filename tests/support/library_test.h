// A test of the library over the test platform: a fresh appliance, and nothing left open at the end.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <kesta/kesta.h>

#include "private_root.h"
#include "test_platform.h"

namespace test {

// Offsets in the NV image that the tests look at.
inline constexpr std::size_t nv_group = 56;
inline constexpr std::size_t nv_backup_name = 72;
inline constexpr std::size_t nv_accept_name = 104;
inline constexpr std::size_t nv_lock0 = 200;
inline constexpr std::size_t nv_numbering_version = 296;
inline constexpr std::size_t nv_backup_version = 300;
inline constexpr std::size_t nv_accept_version = 304;
inline constexpr std::size_t nv_version0 = 312;
inline constexpr std::size_t nv_status0 = 316;
inline constexpr std::size_t nv_slot0 = 600;

inline constexpr std::size_t nv_lock(int controller) { return nv_lock0 + 24 * static_cast<std::size_t>(controller); }

inline constexpr std::size_t nv_slot(int controller) { return nv_slot0 + 16 * static_cast<std::size_t>(controller); }

class LibraryTest : public testing::Test {
protected:
    LibraryTest()
    {
        reset();
        clear_appliance_folders();
        descriptors_ = open_descriptors();
    }

    ~LibraryTest() override
    {
        EXPECT_EQ(p().open_handles, 0);
        EXPECT_EQ(p().open_pipes, 0);
        EXPECT_EQ(p().open_xml_objects, 0);
        EXPECT_EQ(open_descriptors(), descriptors_);
    }

    static Platform &p() { return platform(); }

    static void use_slots(const std::string &backup = "kesta_backup0", const std::string &accept = "kesta_backup1")
    {
        p().set_text(nv_backup_name, backup, 32);
        p().set_text(nv_accept_name, accept, 32);
        p().sysback["kesta_sysback"] = {std::string(backup).append(32 - backup.size(), '\0')};
        p().sysback["kesta_sysacpt"] = {std::string(accept).append(32 - accept.size(), '\0')};
    }

    // The inner lock is free: no controller's slot is set.
    static bool inner_lock_is_free()
    {
        for (int i = 0; i < 4; ++i) {
            if (p().int_at(nv_slot(i)) != 0) {
                return false;
            }
        }
        return true;
    }

private:
    int descriptors_;
};

// Runs a call with the Nth fallible call failing, for N = 1, 2, ... until a run meets no fault:
// once each, then with everything from the Nth on failing. prepare() makes the state anew; check()
// looks at it, and gets the result and whether a fault was met.
template <typename Prepare, typename Call, typename Check>
void sweep_faults(Prepare prepare, Call call, Check check)
{
    for (const bool from_then_on : {false, true}) {
        for (long n = 1;; ++n) {
            ASSERT_LT(n, 2000) << "the sweep finds no end";
            SCOPED_TRACE("fault " + std::to_string(n) + (from_then_on ? " and on" : " once"));
            prepare();
            platform().fail_at = n;
            platform().fail_from_then_on = from_then_on;
            const int result = call();
            platform().fail_at = 0;
            const bool met = platform().fault_met;
            EXPECT_EQ(platform().open_handles, 0);
            EXPECT_EQ(platform().open_pipes, 0);
            check(result, met);
            if (!met) {
                break;
            }
        }
    }
}

}  // namespace test
