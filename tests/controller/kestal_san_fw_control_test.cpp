#include "library_test.h"

using namespace test;
using testing::ElementsAre;
using testing::IsEmpty;

class MasterCheck : public LibraryTest {};

TEST_F(MasterCheck, TellsTheMasterFromTheOthers)
{
    p().master = 2;
    EXPECT_EQ(kestal_master_cnt_check(2), 0);
    EXPECT_EQ(kestal_master_cnt_check(0), 1);
    EXPECT_EQ(kestal_master_cnt_check(3), 1);
    EXPECT_THAT(p().texts(5), ElementsAre("[master_cnt_check] START", "[master_cnt_check] END ret=0",
                                          "[master_cnt_check] START", "[master_cnt_check] END ret=1",
                                          "[master_cnt_check] START", "[master_cnt_check] END ret=1"));
}

TEST_F(MasterCheck, UnknownMasterMatchesNobody)
{
    p().master = 255;
    for (int n = 0; n < 4; ++n) {
        EXPECT_EQ(kestal_master_cnt_check(n), 1);
    }
}

TEST_F(MasterCheck, BadNumbersAreRefusedWithoutAsking)
{
    EXPECT_EQ(kestal_master_cnt_check(4), -931);
    EXPECT_EQ(kestal_master_cnt_check(-1), -931);
    EXPECT_THAT(p().texts(1), ElementsAre("[master_cnt_check] Argument ERROR(cnt_num=4)",
                                          "[master_cnt_check] Argument ERROR(cnt_num=-1)"));
    EXPECT_THAT(p().calls, IsEmpty());
}

TEST_F(MasterCheck, PlatformFailure)
{
    p().fail_kind("vrb_info");
    EXPECT_EQ(kestal_master_cnt_check(1), -1);
    EXPECT_THAT(p().texts(1), ElementsAre("[master_cnt_check] Get Master CNT Number ERROR result=[-3] "
                                          "func_name=[ask] s_errno=[5]"));
}

class CntStatus : public LibraryTest {
protected:
    void set(int controller, std::uint8_t cont, std::uint8_t card)
    {
        p().cont_sts[controller] = cont;
        p().card_sts[controller] = card;
    }
};

TEST_F(CntStatus, HighBitsAreTheStatusAndTheCardRefinesOne)
{
    const struct {
        std::uint8_t cont, card;
        int status;
    } cases[] = {{0x13, 4, 4}, {0x13, 3, 1}, {0x13, 2, 2},  {0x13, 0, 1},   {0x20, 4, 2},
                 {0x20, 3, 2}, {0x05, 4, 0}, {0xf0, 2, 15}, {0x10, 0xff, 1}};
    for (const auto &c : cases) {
        set(1, c.cont, c.card);
        EXPECT_EQ(kestal_san_fw_get_cntstatus(1, 1), c.status) << int{c.cont} << "/" << int{c.card};
        EXPECT_EQ(kestal_san_fw_get_cntstatus_ex(1, 1), c.status);
    }
}

TEST_F(CntStatus, DetailLineNeedsAStatusAndTheFlag)
{
    set(0, 0x13, 4);
    kestal_san_fw_get_cntstatus(1, 0);
    EXPECT_THAT(p().texts(3), ElementsAre("[san_fw_get_cntstatus] CNT[0] cnt_status=4 hd_status=4"));
    EXPECT_THAT(p().texts(5), ElementsAre("[san_fw_get_cntstatus] START", "[san_fw_get_cntstatus] END status=4"));
    p().traces.clear();
    kestal_san_fw_get_cntstatus(0, 0);
    kestal_san_fw_get_cntstatus(2, 0);
    set(0, 0x05, 4);
    kestal_san_fw_get_cntstatus(1, 0);
    EXPECT_THAT(p().texts(3), IsEmpty());
}

TEST_F(CntStatus, PlainFormKnowsTwoControllersAndTheExtendedFour)
{
    for (int n = 0; n < 4; ++n) {
        set(n, static_cast<std::uint8_t>((n + 2) << 4), 0);
    }
    EXPECT_EQ(kestal_san_fw_get_cntstatus(1, 0), 2);
    EXPECT_EQ(kestal_san_fw_get_cntstatus(1, 1), 3);
    EXPECT_EQ(kestal_san_fw_get_cntstatus_ex(1, 2), 4);
    EXPECT_EQ(kestal_san_fw_get_cntstatus_ex(1, 3), 5);
    p().traces.clear();
    for (const int other : {2, 3, 4, -1}) {
        EXPECT_EQ(kestal_san_fw_get_cntstatus(1, other), 0);
    }
    for (const int other : {4, -1}) {
        EXPECT_EQ(kestal_san_fw_get_cntstatus_ex(1, other), 0);
    }
    EXPECT_THAT(p().texts(3), IsEmpty());
}

TEST_F(CntStatus, FirmwareFailure)
{
    p().fail_kind("status");
    EXPECT_EQ(kestal_san_fw_get_cntstatus(1, 0), -1);
    EXPECT_EQ(kestal_san_fw_get_cntstatus_ex(1, 0), -1);
    EXPECT_THAT(p().texts(1), ElementsAre("[san_fw_get_cntstatus] Get State Err. rtn=-5",
                                          "[san_fw_get_cntstatus] Get State Err. rtn=-5"));
    EXPECT_THAT(p().calls, ElementsAre("status", "status_ex"));
}
