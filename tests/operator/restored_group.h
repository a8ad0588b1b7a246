// A group of three files, an archive of it, and how often that is unpacked while it is restored.
#pragma once

#include <gmock/gmock.h>
#include <kesta/kesta.h>

#include <string>

#include "placed_files.h"

class RestoredGroup : public testing::Test {
protected:
    static constexpr const char *path = "/opt/kesta_sys/bakup/.save.tar.Z";

    RestoredGroup();

    // What is changed in the very moment in which it is compared is not known: the clock of files has to go on.
    static void let_files_settle();

    void pack();  // the files as they are
    void take(const engine::ArchiveContents &contents);
    void choose() { files = engine::choose_files(archive, definition, paths); }
    const engine::FileChanges &compare();
    void restore();

    KESTA_BACKUP_FILE definition{};
    engine::GroupPaths paths;
    engine::Archive archive;
    engine::RestoredFiles files;
    engine::FileChanges changes;
    int times_read = 0;
};
