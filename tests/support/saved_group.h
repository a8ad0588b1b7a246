// A group of files on CNT0 of a lab, with what saves and restores it.
#pragma once

#include <string>

#include "lab_fixture.h"

namespace test {

inline const std::string flash_backup = "/opt/kesta_sys/bakup/backup.tar.Z";
inline const std::string flash_accept = "/opt/kesta_sys/bakup/accept.tar.Z";
inline const std::string log_file = "/opt/scripts.log";

// One script of a definition, and one that leaves a word in the log.
inline std::string script_line(const std::string &kind, const std::string &command, int order)
{
    return "<" + kind + " path=\"" + command + "\" order=\"" + std::to_string(order) + "\"/>";
}
inline std::string note(const std::string &word) { return "echo " + word + " >> " + log_file; }

class SavedGroup : public LabTest {
protected:
    SavedGroup()
    {
        set_slots();
        write_file(host_path(0, "etc/app/one"), "one\n");
        write_file(host_path(0, "etc/app/more/two"), "two\n");
    }

    static inline const std::string two_paths = "<file path=\"/etc/app/one\"/><file path=\"/etc/app/more\"/>";

    void define(const std::string &backup_scripts, const std::string &files = two_paths,
                const std::string &restore_scripts = "", const std::string &operation = "update") const
    {
        write_file(host_path(0, "etc/kesta_sys/network/define.xml"),
                   "<?xml version=\"1.0\"?>\n<group id=\"network\" operation=\"" + operation +
                       "\" type=\"files\"><setinfo>" + files + "</setinfo><script><backup reboot=\"0\">" +
                       backup_scripts + "</backup><restore reboot=\"0\">" + restore_scripts +
                       "</restore></script></group>\n");
    }
    std::string slot(const std::string &name) const { return read_file(dir / "shared/sysback" / name); }
    int number(const std::string &block) const { return std::stoi(ctl(0, "nv read " + block).out); }
    void expect_refusal(const Ran &run, int code, const std::string &text) const
    {
        EXPECT_EQ(run.code, code) << run.out << run.err;
        EXPECT_THAT(run.err, testing::AllOf(testing::HasSubstr("kestactl: "), testing::HasSubstr(text)));
        EXPECT_EQ(ctl(0, "lock check").code, 0) << "no lock is left";
    }
};

}  // namespace test
