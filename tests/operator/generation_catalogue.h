// A catalogue of generations in a folder of its own, with texts for archives: whole unless they begin with "damaged".
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include "checksum.h"
#include "generation_store.h"

namespace test {

namespace fs = std::filesystem;

class GenerationCatalogue : public testing::Test {
protected:
    GenerationCatalogue()
    {
        std::string name = (fs::temp_directory_path() / "generations-XXXXXX").string();
        if (!mkdtemp(name.data())) {
            abort();
        }
        home = name;
    }
    ~GenerationCatalogue() override { fs::remove_all(home); }

    static std::string sum(const std::string &bytes)
    {
        engine::Checksum checksum;
        checksum.add(bytes);
        return checksum.text();
    }
    static engine::GenerationSource source(const std::string &bytes, int version = 0,
                                           const std::string &place = "slot:kesta_backup0")
    {
        return {place, engine::contents_of_bytes(bytes), sum(bytes), engine::Descriptor(), version};
    }
    engine::GenerationStore store() const
    {
        return engine::GenerationStore(home.string(), [](const engine::ArchiveContents &contents) {
            return contents.pieces()().rfind("damaged", 0) != 0;
        });
    }
    engine::KeepReport keep(engine::GenerationSource one, engine::GenerationLimits limits = {},
                            engine::VersionsInForce in_force = {0, 0}) const
    {
        std::vector<engine::GenerationSource> sources;
        sources.push_back(std::move(one));
        return store().keep(sources, {1000, 0, "root", "save", "why"}, limits, [&] { return in_force; });
    }
    std::vector<std::string> kept() const
    {
        std::vector<std::string> contents;
        for (const engine::Generation &generation : store().all()) {
            contents.push_back(read(archive_of(generation.sha256)));
        }
        return contents;
    }
    fs::path folder() const { return home / "generations"; }
    fs::path archive_of(const std::string &sha256) const { return folder() / (sha256 + ".tar.Z"); }
    fs::path entry_of(const std::string &sha256) const { return folder() / (sha256 + ".json"); }

    static std::string read(const fs::path &path)
    {
        std::ostringstream bytes;
        bytes << std::ifstream(path).rdbuf();
        return bytes.str();
    }
    static void write(const fs::path &path, const std::string &bytes) { std::ofstream(path) << bytes; }
    static struct stat status(const fs::path &path)
    {
        struct stat status {};
        EXPECT_EQ(lstat(path.c_str(), &status), 0) << path;
        return status;
    }

    fs::path home;
};

}  // namespace test
