// Reading a definition and applying it, beside the bare calls that they need.
#include <benchmark/benchmark.h>
#include <kesta/kesta.h>
#include <libxml/parser.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <memory>
#include <string>

namespace {

namespace fs = std::filesystem;

const std::string path = "/etc/kesta_sys/bench/define.xml";
constexpr int files = 64;
constexpr int links = 8;

// So many files with so many links each.
void write_definition(int file_count, int link_count)
{
    fs::create_directories(fs::path(path).parent_path());
    std::ofstream file(path);
    file << "<?xml version='1.0'?>\n<group id='bench'>\n<setinfo>\n";
    for (int i = 0; i < file_count; ++i) {
        const std::string number = std::to_string(i);
        file << "<file path='/etc/bench/file" << number << "' cntmode='1' rbmode='0'>\n";
        for (int j = 0; j < link_count; ++j) {
            file << "<link path='/etc/bench/link" << number << "." << j << "'/>\n";
        }
        file << "<permission userid='root' groupid='root' mode='644'/>\n</file>\n";
    }
    file << "</setinfo>\n</group>\n";
}

void library_read_definition(benchmark::State &state)
{
    write_definition(static_cast<int>(state.range(0)), static_cast<int>(state.range(1)));
    kestal_init_xml();
    const auto record = std::make_unique<KESTA_BACKUP_FILE>();
    for (auto _ : state) {
        if (kestal_read_backupfile("bench", record.get()) != KESTA_OK) {
            state.SkipWithError("it can't be read: run this on a controller of a lab");
            break;
        }
    }
}
BENCHMARK(library_read_definition)->Args({files, links})->Args({1, 0});

void raw_parse_definition(benchmark::State &state)
{
    write_definition(static_cast<int>(state.range(0)), static_cast<int>(state.range(1)));
    for (auto _ : state) {
        xmlDocPtr doc = xmlParseFile(path.c_str());
        if (!doc) {
            state.SkipWithError("it can't be parsed");
            break;
        }
        xmlFreeDoc(doc);
    }
}
BENCHMARK(raw_parse_definition)->Args({files, links})->Args({1, 0});

// 64 files with one link each.
std::unique_ptr<KESTA_BACKUP_FILE> make_files()
{
    auto record = std::make_unique<KESTA_BACKUP_FILE>();
    fs::create_directories("/opt/bench");
    for (int i = 0; i < files; ++i) {
        KESTA_BACKUP_FILE_PATH &file = record->setfile[i];
        snprintf(file.pathname, sizeof(file.pathname), "/opt/bench/file%d", i);
        snprintf(file.linkpath[0], sizeof(file.linkpath[0]), "/opt/bench/link%d", i);
        snprintf(file.owner, sizeof(file.owner), "0");
        snprintf(file.group, sizeof(file.group), "0");
        snprintf(file.filemode, sizeof(file.filemode), "644");
        std::ofstream(file.pathname) << "x";
        fs::remove(file.linkpath[0]);
        fs::create_symlink(file.pathname, file.linkpath[0]);
    }
    return record;
}

void library_apply(benchmark::State &state)
{
    const auto record = make_files();
    for (auto _ : state) {
        if (kestal_change_fileprop(record.get(), 0) != KESTA_OK) {
            state.SkipWithError("it can't be applied");
            break;
        }
    }
}
BENCHMARK(library_apply)->UseRealTime()->Unit(benchmark::kMillisecond);

bool apply_bare(const KESTA_BACKUP_FILE_PATH &file)
{
    struct stat status;
    char command[1024];
    snprintf(command, sizeof(command), "rm %s; ln -s %s %s > /dev/null 2>&1", file.linkpath[0], file.pathname,
             file.linkpath[0]);
    return stat(file.pathname, &status) == 0 && system(command) == 0 &&
           chown(file.pathname, 0, static_cast<gid_t>(-1)) == 0 &&
           chown(file.pathname, static_cast<uid_t>(-1), 0) == 0 && chmod(file.pathname, 0644) == 0;
}

void raw_apply(benchmark::State &state)
{
    const auto record = make_files();
    for (auto _ : state) {
        for (const KESTA_BACKUP_FILE_PATH &file : record->setfile) {
            if (!apply_bare(file)) {
                state.SkipWithError("a call failed");
                break;
            }
        }
    }
}
BENCHMARK(raw_apply)->UseRealTime()->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
