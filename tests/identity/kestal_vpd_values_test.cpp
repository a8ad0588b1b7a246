#include <string.h>

#include "library_test.h"

using namespace test;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

const std::string wwn_command = "/usr/sbin/eeprom cp_wwn | cut -d '=' -f2";
const std::string serialno_command = "/usr/sbin/eeprom cp_serial_number | cut -d '=' -f2";
const std::string model_command = "/usr/sbin/eeprom MODEL | cut -d '=' -f2";
const std::string read_command = "/opt/kesta_sys/sbin/env_vpdctl -r 2> /dev/null";

const std::string guid_text = "0123abcd-4567-89ab-cdef-0123456789ab";
const std::string guid_bytes = "\x01\x23\xab\xcd\x45\x67\x89\xab\xcd\xef\x01\x23\x45\x67\x89\xab";

}  // namespace

class Identity : public LibraryTest {
protected:
    char wwn[18] = "#################";
    char serialno[18] = "#################";
    char guid[38] = "#####################################";
};

// ------------------------------------------------------------------------------------ eeprom

TEST_F(Identity, WwnAndSerialNumberFromTheEeprom)
{
    p().commands[wwn_command] = {"5000000012345678\n", 0};
    p().commands[serialno_command] = {"SN1\n", 0};
    EXPECT_EQ(kestal_get_wwn_by_eeprom(wwn), 0);
    EXPECT_STREQ(wwn, "5000000012345678#") << "the 17th byte is not written";
    EXPECT_EQ(p().traces.front().text, "[kestal_get_wwn_by_eeprom] START");
    EXPECT_EQ(p().traces.back(), (Trace{5,
                                        "[kestal_get_wwn_by_eeprom] END wwn=[5000000012345678] "
                                        "ret=[0]",
                                        "../common/kestal_vpd_values.cpp"}));
    EXPECT_EQ(kestal_get_serialno_by_eeprom(serialno), 0);
    EXPECT_EQ(std::string(serialno, 17), std::string("SN1") + std::string(13, '\0') + "#");
    EXPECT_EQ(p().traces.back().text, "[kestal_get_serialno_by_eeprom] END serialnumber=[SN1] ret=[0]");
}

TEST_F(Identity, EepromThatFailsIsTold)
{
    p().commands[wwn_command] = {"", 256};
    p().commands[serialno_command] = {"", 256};
    EXPECT_EQ(kestal_get_wwn_by_eeprom(wwn), -241);
    EXPECT_STREQ(wwn, "#################");
    EXPECT_TRUE(p().traced(1, "[get_cnt_num_from_cpinfo] Failed to get wwn. ret=-241"))
        << "with another function's tag";
    EXPECT_EQ(kestal_get_serialno_by_eeprom(serialno), -241);
    EXPECT_TRUE(p().traced(1, "[kestal_get_serialno_by_eeprom] Failed to get serialnumber. ret=-241"));
    EXPECT_EQ(kestal_get_wwn_by_eeprom(nullptr), -931);
    EXPECT_EQ(kestal_get_serialno_by_eeprom(nullptr), -931);
}

TEST_F(Identity, ModelFromTheEeprom)
{
    char model[64] = "";
    p().commands[model_command] = {"KX-4\n", 0};
    EXPECT_EQ(kestal_get_model_by_eeprom(model), 0);
    EXPECT_STREQ(model, "KX-4");
    EXPECT_EQ(p().traces.back().text, "[kestal_get_model_by_eeprom] END p_model=[KX-4] ret=[0]");
    EXPECT_EQ(kestal_get_model_by_eeprom(nullptr), 0) << "nothing is read";
    EXPECT_EQ(p().traces.back().text, "[kestal_get_model_by_eeprom] END p_model=[NULL] ret=[0]");
    p().commands[model_command] = {"", 3 << 8};
    EXPECT_EQ(kestal_get_model_by_eeprom(model), 3);
    EXPECT_TRUE(p().traced(1, "[kestal_get_model_by_eeprom] kestal_execute(" + model_command + ") error. ret=3"));
}

// ------------------------------------------------------------------------------------ VPD tool

TEST_F(Identity, VpdToolPrintsThreeLines)
{
    memset(wwn, 0, sizeof(wwn));
    memset(serialno, 0, sizeof(serialno));
    memset(guid, 0, sizeof(guid));
    p().commands[read_command] = {"WWN\nSERIAL\n" + guid_text + "\n", 0};
    EXPECT_EQ(kestal_get_vpn_info(wwn, serialno, guid), 0);
    EXPECT_STREQ(wwn, "WWN");
    EXPECT_STREQ(serialno, "SERIAL");
    EXPECT_STREQ(guid, guid_text.c_str());
    EXPECT_EQ(p().traces.back(), (Trace{3,
                                        "[kestal_get_vpn_info] END p_wwn=[WWN] p_serialno=[SERIAL] "
                                        "p_guid=[" +
                                            guid_text + "] ret=[0]",
                                        "../common/kestal_vpd_values.cpp"}));
}

TEST_F(Identity, NullBufferEndsTheReading)
{
    p().commands[read_command] = {"WWN\nSERIAL\nGUID\n", 0};
    EXPECT_EQ(kestal_get_vpn_info(nullptr, serialno, guid), 0);
    EXPECT_EQ(serialno[0], '#');
    EXPECT_EQ(kestal_get_vpn_info(wwn, nullptr, guid), 0);
    EXPECT_STREQ(wwn, "WWN");
    EXPECT_EQ(guid[0], '#');
    EXPECT_EQ(p().count("p_serialno=[NULL]"), 1);
}

TEST_F(Identity, LongLinesStayInTheirBuffers)
{
    p().commands[read_command] = {std::string(60, 'w') + "\n" + std::string(60, 's') + "\n" + std::string(60, 'g') +
                                      "\n",
                                  0};
    EXPECT_EQ(kestal_get_vpn_info(wwn, serialno, guid), 0);
    EXPECT_EQ(wwn, std::string(16, 'w'));
    EXPECT_EQ(guid, std::string(36, 'g'));
}

TEST_F(Identity, VpdToolThatFailsIsTold)
{
    p().commands[read_command] = {"WWN\n", 0};
    EXPECT_EQ(kestal_get_vpn_info(wwn, serialno, guid), -1) << "too few lines";
    EXPECT_TRUE(p().traced(1, "[kestal_get_vpn_info] kestal_execute(" + read_command + ") error. ret=-1"));
    EXPECT_EQ(serialno[0], '#') << "as it was";
    p().commands[read_command] = {"", 7 << 8};
    EXPECT_EQ(kestal_get_vpn_info(wwn, serialno, guid), 7);
}

TEST_F(Identity, VpdToolGetsWhatIsGiven)
{
    const std::string all = "/opt/kesta_sys/sbin/env_vpdctl -w WWN -s SERIAL -g GUID > /dev/null 2>&1";
    p().commands[all] = {"", 0};
    EXPECT_EQ(kestal_set_vpn_info("WWN", "SERIAL", "GUID"), 0);
    EXPECT_THAT(p().calls_of("popen"), ElementsAre("popen " + all));
    const std::string serial = "/opt/kesta_sys/sbin/env_vpdctl -s SERIAL > /dev/null 2>&1";
    p().commands[serial] = {"", 5 << 8};
    EXPECT_EQ(kestal_set_vpn_info(nullptr, "SERIAL", nullptr), 5);
    EXPECT_TRUE(p().traced(1, "[kestal_set_vpn_info] kestal_execute(" + serial + ") error. ret=5"));
    EXPECT_EQ(p().traces.back(), (Trace{3,
                                        "[kestal_set_vpn_info] END p_wwn=[NULL] p_serialno=[SERIAL] p_guid=[NULL] "
                                        "ret=[5]",
                                        "../common/kestal_vpd_values.cpp"}));
    const std::string none = "/opt/kesta_sys/sbin/env_vpdctl > /dev/null 2>&1";
    p().commands[none] = {"", 0};
    EXPECT_EQ(kestal_set_vpn_info(nullptr, nullptr, nullptr), 0);
}

TEST_F(Identity, CommandThatDoesNotFitIsRefused)
{
    const std::size_t room = 511 - strlen("/opt/kesta_sys/sbin/env_vpdctl -w  > /dev/null 2>&1");
    const std::string longest(room, 'w');
    p().commands["/opt/kesta_sys/sbin/env_vpdctl -w " + longest + " > /dev/null 2>&1"] = {"", 0};
    EXPECT_EQ(kestal_set_vpn_info(longest.c_str(), nullptr, nullptr), 0);
    p().calls.clear();
    EXPECT_EQ(kestal_set_vpn_info((longest + "w").c_str(), nullptr, nullptr), -931);
    EXPECT_THAT(p().calls, IsEmpty());
}

// ------------------------------------------------------------------------------------ flash

TEST_F(Identity, FlashWwn)
{
    EXPECT_EQ(kestal_set_flash_wwn("5000000012345678"), 0);
    EXPECT_EQ(read_file("/etc/kesta_sys/wwn"), "5000000012345678\n");
    EXPECT_EQ(p().traces.front().text, "[kestal_set_flash_wwn] set Flash wwn Start.");
    EXPECT_EQ(p().traces.back().text, "[kestal_set_flash_wwn] set Flash wwn End. ret=0");
    EXPECT_EQ(kestal_read_flash_wwn(wwn), 0);
    EXPECT_STREQ(wwn, "5000000012345678") << "its newline is left unread";
    EXPECT_EQ(p().traces.back().text, "[kestal_read_flash_wwn] Read Flash wwn End. wwn=5000000012345678");
    write_file("/etc/kesta_sys/wwn", "short\nmore\n");
    EXPECT_EQ(kestal_read_flash_wwn(wwn), 0);
    EXPECT_STREQ(wwn, "short\n") << "a newline within the 16 characters is kept";
    EXPECT_EQ(wwn[16], '\0');
}

TEST_F(Identity, FlashGuid)
{
    write_file("/etc/cp_guid", guid_text + "\n");
    EXPECT_EQ(kestal_read_flash_guid(guid), 0);
    EXPECT_EQ(guid, guid_text);
    EXPECT_EQ(p().traces.back().text, "[kestal_read_flash_guid] End. guid=" + guid_text);
    run_shell("rm /etc/cp_guid");
}

TEST_F(Identity, MissingFlashFilesAreEmptyValues)
{
    EXPECT_EQ(kestal_read_flash_wwn(wwn), 0);
    EXPECT_EQ(std::string(wwn, 17), std::string(16, '\0') + "#");
    EXPECT_TRUE(p().traced(4, "[kestal_read_flash_wwn]  Flash wwn=''."));
    EXPECT_EQ(kestal_read_flash_guid(guid), 0);
    EXPECT_EQ(std::string(guid, 37), std::string(36, '\0') + "#");
    EXPECT_TRUE(p().traced(4, "[kestal_read_flash_guid]  Flash guid=''."));
}

TEST_F(Identity, FlashFilesThatCanNotBeReadAreTold)
{
    EXPECT_EQ(kestal_read_flash_wwn(nullptr), -931);
    EXPECT_EQ(p().traces.back().text, "[kestal_read_flash_wwn] Argument Error.(wwn=NULL).");
    EXPECT_EQ(kestal_set_flash_wwn(nullptr), -931);
    EXPECT_EQ(p().traces.back().text, "[kestal_set_flash_wwn] Argument Error.(wwn=NULL).");
    EXPECT_EQ(kestal_read_flash_guid(nullptr), -931);
    EXPECT_EQ(p().traces.back().text, "[kestal_read_flash_guid] Argument Error.(guid=NULL).");
    write_file("/etc/kesta_sys/wwn", "");
    write_file("/etc/cp_guid", "");
    EXPECT_EQ(kestal_read_flash_wwn(wwn), -1);
    EXPECT_TRUE(p().traced(1, "[kestal_read_flash_wwn] Flash wwn File(/etc/kesta_sys/wwn) Read Error. errno=0"));
    EXPECT_EQ(kestal_read_flash_guid(guid), -1);
    EXPECT_TRUE(p().traced(1, "[kestal_read_flash_guid] Flash guid File(/etc/cp_guid) Read Error. errno=0"));
    p().fail_kind("fopen", 0, 1);
    p().fault_errno = 13;
    EXPECT_EQ(kestal_read_flash_wwn(wwn), -1);
    EXPECT_TRUE(p().traced(1, "[kestal_read_flash_wwn] Flash wwn File(/etc/kesta_sys/wwn) Open Error. errno=13"));
    run_shell("ln -sfn cp_guid /etc/cp_guid");  // leads to itself
    EXPECT_EQ(kestal_read_flash_guid(guid), -1);
    EXPECT_TRUE(p().traced(1, "[kestal_read_flash_guid] Flash guid File(/etc/cp_guid) Open Error. errno=40"));
    p().fail_kind("open", 0, 1);
    EXPECT_EQ(kestal_set_flash_wwn("x"), -1);
    EXPECT_TRUE(p().traced(1, "[kestal_set_flash_wwn] Flash wwn File(/etc/kesta_sys/wwn) Open Error. errno=13"));
    p().fail_kind("alloc", 0, 1);
    EXPECT_EQ(kestal_set_flash_wwn("x"), -1);
    EXPECT_TRUE(p().traced(1, "[kestal_set_flash_wwn] Buffer Error."));
    p().fail_kind("write", 0, 1);
    p().fault_errno = 28;
    EXPECT_EQ(kestal_set_flash_wwn("xyz"), -1);
    EXPECT_TRUE(p().traced(1,
                           "[kestal_set_flash_wwn] File Write Error f_name=/etc/kesta_sys/wwn "
                           "len=4 result=-1 errno=28"));
    run_shell("rm /etc/cp_guid");
}

// ------------------------------------------------------------------------------------ GUIDs

TEST_F(Identity, GuidFromTextToBytesAndBack)
{
    char bytes[16];
    EXPECT_EQ(kestal_guid_str2bin("0123ABCD-4567-89ab-cdef-0123456789AB", bytes), 0);
    EXPECT_EQ(std::string(bytes, 16), guid_bytes);
    EXPECT_EQ(p().traces.front().text,
              "[kestal_guid_str2bin] START. "
              "guid_str=[0123ABCD-4567-89ab-cdef-0123456789AB]");
    EXPECT_EQ(p().traces.back(), (Trace{3,
                                        "[kestal_guid_str2bin] END. "
                                        "guid_str=[0123ABCD-4567-89ab-cdef-0123456789AB] ret=[0]",
                                        "../common/kestal_vpd_ctrl.cpp"}));
    p().traces.clear();
    strcpy(guid, "before");
    EXPECT_EQ(kestal_guid_bin2str(bytes, guid), 0);
    EXPECT_EQ(guid, guid_text) << "in lower case";
    EXPECT_EQ(p().traces.front().text, "[kestal_guid_bin2str] START. guid_str=[before]");
    EXPECT_EQ(p().traces.back().text, "[kestal_guid_bin2str] END. guid_str=[" + guid_text + "] ret=[0]");
}

TEST_F(Identity, BufferOfAnythingIsPrintedWithinItsSize)
{
    EXPECT_EQ(kestal_guid_bin2str(guid_bytes.data(), guid), 0);
    EXPECT_EQ(p().traces.front().text, "[kestal_guid_bin2str] START. guid_str=[" + std::string(36, '#') + "]");
}

TEST_F(Identity, WhatIsNoGuidIsRefusedWithItsFirstBadPlace)
{
    const std::pair<std::string, std::string> cases[] = {
        {guid_text.substr(1), "guid_str length error. guid_str_len=35"},
        {guid_text + "0", "guid_str length error. guid_str_len=37"},
        {"", "guid_str length error. guid_str_len=0"},
        {"0123abcd_4567-89ab-cdef-0123456789ab", "guid_str format error. point=8"},
        {"0123abcd-4567-89ab-cdef00123456789ab", "guid_str format error. point=23"},
        {"g123abcd-4567-89ab-cdef-0123456789ab", "guid_str isxdigit() error. point=0"},
        {"0123abcd-4567-89ab-cdef-0123456789a-", "guid_str isxdigit() error. point=35"},
        {"0123abcd-4567-89ab-cdef-01234567\xc3\xa9"
         "ab",
         "guid_str isxdigit() error. point=32"}};
    for (const auto &[text, line] : cases) {
        char bytes[16];
        memset(bytes, '#', sizeof(bytes));
        p().traces.clear();
        EXPECT_EQ(kestal_guid_str2bin(text.c_str(), bytes), -1) << text;
        EXPECT_THAT(p().texts(1), ElementsAre("[kestal_guid_str2bin] " + line));
        EXPECT_TRUE(p().traced(3, "[kestal_guid_str2bin] END. guid_str=[" + text + "] ret=[-1]"));
        EXPECT_EQ(std::string(bytes, 16), std::string(16, '#')) << "not written";
    }
    EXPECT_EQ(kestal_guid_str2bin(nullptr, nullptr), -931);
    EXPECT_EQ(kestal_guid_bin2str(nullptr, nullptr), -931);
}
