// Files of a tree that others may write in: opened without following a link, and only what is a plain file.
#include "plain_file.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "kesta/area_files.h"
#include "kesta/backup_definition.h"
#include "kesta/backup_flows.h"
#include "kesta/identity.h"
#include "kesta/remote_scripts.h"
#include "kesta/versions.h"
#include "library_test.h"
#include "opened_file.h"

using namespace test;

class PlainFile : public LibraryTest {
protected:
    PlainFile()
    {
        EXPECT_EQ(run_shell("rm -rf " + folder + " && mkdir -p " + folder + "/a && printf old > " + folder + "/a/file"),
                  0);
    }
    ~PlainFile() override { EXPECT_EQ(run_shell("rm -rf " + folder), 0); }

    // The descriptor, or the negative error number; a descriptor is closed.
    int result_of(const char *path, int flags) const
    {
        const int before = open_descriptors();
        errno = 0;
        const int fd = kesta::open_plain_below(folder.c_str(), path, flags, 0600);
        const int result = fd < 0 ? -errno : fd;
        if (fd >= 0) {
            close(fd);
        }
        EXPECT_EQ(open_descriptors(), before) << path;
        return result;
    }

    const std::string folder = "/var/run/kesta_sys/tmp/plain";
};

TEST_F(PlainFile, IsOpenedAndEmptiedWhereItIsAskedFor)
{
    EXPECT_GT(result_of("/a//file", O_RDONLY), 2);
    EXPECT_EQ(read_file(folder + "/a/file"), "old");
    EXPECT_GT(result_of("a/file", O_WRONLY | O_TRUNC), 2);
    EXPECT_EQ(read_file(folder + "/a/file"), "");
    EXPECT_GT(result_of("a/new", O_WRONLY | O_CREAT), 2);
}

TEST_F(PlainFile, IsLeftAsItIsIfItCanNotBeEmptied)
{
    EXPECT_EQ(result_of("a/file", O_RDONLY | O_TRUNC), -EINVAL) << "a file that is only read is not emptied";
    EXPECT_EQ(read_file(folder + "/a/file"), "old");
}

TEST_F(PlainFile, IsNoFolderFifoOrLink)
{
    const std::string make =
        "cd " + folder + " && ln -s file a/link && ln a/file a/second && mkfifo a/fifo && ln -s a b";
    ASSERT_EQ(run_shell(make), 0);
    EXPECT_EQ(result_of("a", O_RDONLY), -EINVAL);
    EXPECT_EQ(result_of("a/fifo", O_RDONLY), -EINVAL) << "and nobody waits for its writer";
    EXPECT_EQ(result_of("a/link", O_RDONLY), -ELOOP);
    EXPECT_EQ(result_of("a/second", O_RDONLY), -EMLINK);
    EXPECT_EQ(result_of("b/new", O_WRONLY | O_CREAT), -ENOTDIR);
    EXPECT_EQ(result_of("none/file", O_RDONLY), -ENOENT);
    EXPECT_EQ(read_file(folder + "/a/file"), "old");
}

TEST_F(PlainFile, StreamOfADescriptorThatCanNotBeReadIsNone)
{
    const int before = open_descriptors();
    const int fd = kesta::open_plain_below(folder.c_str(), "a/file", O_WRONLY, 0600);
    ASSERT_GE(fd, 0);
    errno = 0;
    EXPECT_EQ(kesta::stream_of(fd), nullptr);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(open_descriptors(), before) << "the descriptor is closed";
    EXPECT_EQ(kesta::stream_of(-1), nullptr);
}

// Nobody waits at what is planted at a fixed path: each call ends as where the file can't be opened.
class PlantedFile : public LibraryTest {
protected:
    void plant(const std::string &path)
    {
        EXPECT_EQ(run_shell("rm -rf " + path + " && mkdir -p $(dirname " + path + ") && mkfifo " + path), 0);
        planted_.push_back(path);
    }
    ~PlantedFile() override
    {
        for (const std::string &path : planted_) {
            EXPECT_EQ(run_shell("rm -rf " + path), 0);
        }
    }
    bool refused(const std::string &text) const { return p().traced(1, text + " errno=22"); }
    // A FIFO that nobody reads can't be opened for writing at all.
    bool refused_to_write(const std::string &text) const { return p().traced(1, text + " errno=6"); }

private:
    std::vector<std::string> planted_;
};

TEST_F(PlantedFile, OfTheVersionIsNeitherReadNorWritten)
{
    plant("/etc/kesta_sys/version");
    int version = 7;
    EXPECT_EQ(kestal_read_flash_version_file(&version, KESTA_FLASH_VERSION), -1);
    EXPECT_TRUE(refused("[read_flash_version_file] flash_version_file=/etc/kesta_sys/version Open ERROR"));
    EXPECT_EQ(kestal_set_flash_version_file(3, KESTA_FLASH_VERSION), -1);
    EXPECT_TRUE(
        refused_to_write("[set_flash_version_file] Flash flash_version_file=/etc/kesta_sys/version Open ERROR"));
    EXPECT_EQ(version, 7);
}

TEST_F(PlantedFile, OfTheIdentityIsNeitherReadNorWritten)
{
    plant("/etc/kesta_sys/wwn");
    plant("/etc/cp_guid");
    char wwn[KESTA_WWN_LENGTH + 1];
    char guid[KESTA_GUID_TEXT_LENGTH + 1];
    EXPECT_EQ(kestal_read_flash_wwn(wwn), -1);
    EXPECT_TRUE(refused("[kestal_read_flash_wwn] Flash wwn File(/etc/kesta_sys/wwn) Open Error."));
    EXPECT_EQ(kestal_set_flash_wwn("0123456789abcdef"), -1);
    EXPECT_TRUE(refused_to_write("[kestal_set_flash_wwn] Flash wwn File(/etc/kesta_sys/wwn) Open Error."));
    EXPECT_EQ(kestal_read_flash_guid(guid), -1);
    EXPECT_TRUE(refused("[kestal_read_flash_guid] Flash guid File(/etc/cp_guid) Open Error."));
}

TEST_F(PlantedFile, OfAScriptIsNotWrittenInto)
{
    plant(KESTA_TARZ_SCRIPT);
    EXPECT_EQ(kestal_make_rsh_tarz_script(1), -1);
    EXPECT_TRUE(refused("[make_rsh_tarz_script] File(" KESTA_TARZ_SCRIPT ") Open Failed."));
}

TEST_F(PlantedFile, OfADefinitionIsNotRead)
{
    plant("/etc/kesta_sys/network/define.xml");
    auto record = std::make_unique<KESTA_BACKUP_FILE>();
    EXPECT_EQ(kestal_read_backupfile("network", record.get()), -211);
    EXPECT_TRUE(refused("[kestal_read_backupfile] BackFile Nothing."));
    char path[] = "/etc/kesta_sys/network/define.xml";
    xmlDocPtr doc = nullptr;
    xmlXPathContextPtr context = nullptr;
    EXPECT_EQ(kestal_start_xml_parse(path, record.get(), &doc, &context), -211);
    EXPECT_TRUE(p().traced(1, "[start_xml_parse] xmlParseFile ERROR"));
}

TEST_F(PlantedFile, OfAnArchiveOrAListIsNotRead)
{
    const std::string archive = "/opt/kesta_sys/bakup/backup.tar.Z";
    plant(archive);
    unsigned int size = 7;
    EXPECT_EQ(kestal_get_file_size(archive.c_str(), &size), -931);
    EXPECT_TRUE(refused("[get_file_size] File open Error f_name =" + archive));
    EXPECT_EQ(size, 7u);
    char names[KESTA_GROUP_NAME_SIZE];
    int codes[1];
    EXPECT_EQ(kestal_get_groupname_from_file(names, codes, archive.c_str()), -1);
    EXPECT_TRUE(refused("[get_allgroupname] File open Error f_name =" + archive + ","));
}

TEST_F(PlantedFile, IsNoSourceOfACopyAndGivesWayToOne)
{
    p().run_system = true;
    const std::string flash = "/opt/kesta_sys/bakup/backup.tar.Z";
    const std::string cache = "/tmp/kesta_sys/tmp/backup.tar.Z";
    plant(flash);
    EXPECT_EQ(kestal_cntbackup2tmp("network", 0), -1);
    EXPECT_TRUE(p().traced(1, "[kestal_cntbackup2tmp] Script(Flash->Tmp) Exe Error rtn=1"));
    EXPECT_TRUE(p().system_commands.empty()) << "cp would wait for a writer";
    EXPECT_EQ(run_shell("rm " + flash + "; echo saved > " + flash), 0);
    plant(cache);
    EXPECT_EQ(kestal_cntbackup2tmp("network", 0), 0);
    EXPECT_EQ(read_file(cache), "saved\n");
}

TEST_F(PlantedFile, IsWaitedForNeitherWithItsOtherEndNorWithoutAndWhatDoesNotWaitIsOpened)
{
    const std::string folder = "/var/run/kesta_sys/tmp/planted";
    ASSERT_EQ(run_shell(
                  "rm -rf " + folder + " && mkdir -p " + folder + " && cd " + folder +
                  " && mkfifo fifo && ln -s fifo way && ln -s /dev/zero device && echo text > file && ln -s file link"),
              0);
    const auto result_of = [&](const char *name, int flags) {
        const kesta::UniqueFd file(kesta::open_at_once((folder + "/" + name).c_str(), flags));
        return file ? 0 : errno;
    };
    EXPECT_EQ(result_of("fifo", O_WRONLY), ENXIO);
    {
        const kesta::UniqueFd other_end(open((folder + "/fifo").c_str(), O_RDWR | O_CLOEXEC));
        EXPECT_EQ(result_of("fifo", O_WRONLY), EINVAL) << "nothing is written to a stranger";
    }
    for (const int flags : {O_RDONLY, O_RDWR}) {
        EXPECT_EQ(result_of("fifo", flags), EINVAL);
        EXPECT_EQ(result_of("way", flags), EINVAL);
        EXPECT_EQ(result_of("device", flags), 0);
        EXPECT_EQ(result_of("link", flags), 0);
        EXPECT_EQ(result_of("none", flags), ENOENT);
    }
    errno = 0;
    EXPECT_EQ(kesta::open_stream((folder + "/way").c_str()), nullptr);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(run_shell("rm -r " + folder), 0);
}
