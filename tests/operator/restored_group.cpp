#include "restored_group.h"

#include <string.h>
#include <time.h>

#include <filesystem>

#include "archive_limits.h"
#include "environment_archive.h"
#include "private_root.h"
#include "test_platform.h"

using namespace engine;
namespace fs = std::filesystem;

RestoredGroup::RestoredGroup() : paths{(strcpy(definition.setfile[0].pathname, "/etc/app"), definition)}
{
    test::reset();
    test::clear_appliance_folders();
    fs::remove(archive_limits_file);
    fs::remove_all("/etc/app");
    fs::create_directories("/etc/app/more");
    for (const char *name : {"/etc/app/one", "/etc/app/two", "/etc/app/more/three"}) {
        test::write_file(name, std::string(300000, name[9]));
    }
    strcpy(definition.groupname, "network");
    archive.name = "It";
    pack();
}

void RestoredGroup::let_files_settle()
{
    timespec begin{};
    timespec now{};
    clock_gettime(CLOCK_REALTIME_COARSE, &begin);
    do {
        clock_gettime(CLOCK_REALTIME_COARSE, &now);
    } while (now.tv_sec == begin.tv_sec && now.tv_nsec == begin.tv_nsec);
}

void RestoredGroup::pack()
{
    make_archive(definition, path, [] {});
    take(contents_of_path(path));
    let_files_settle();
}

void RestoredGroup::take(const ArchiveContents &contents)
{
    archive.contents = contents;
    archive.contents.pieces = [this, pieces = contents.pieces] {
        ++times_read;
        return pieces();
    };
}

const FileChanges &RestoredGroup::compare() { return changes = compare_files(archive, files, GroupPlaces(paths)); }

void RestoredGroup::restore()
{
    stage_files(archive, files, changes, GroupPlaces(paths));
    place_files(files, changes, GroupPlaces(paths));
}
