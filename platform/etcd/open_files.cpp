// A number has the place of its file, and how often the place was used: so an old number is not taken for another
// file's.
#include "open_files.h"

#include <errno.h>

namespace etcd {
namespace {

constexpr int place_mask = 0xff;
constexpr int generation_step = 0x100;
constexpr int generations = 0x3fffff;

}  // namespace

int OpenFiles::add(std::unique_ptr<BackupReader> reader, std::unique_ptr<BackupWriter> writer)
{
    for (std::size_t place = 0; place < files_.size(); ++place) {
        OpenFile &file = files_[place];
        if (!file.used) {
            file.used = true;
            file.reader = std::move(reader);
            file.writer = std::move(writer);
            file.generation = file.generation % generations + 1;
            return file.generation * generation_step + static_cast<int>(place);
        }
    }
    return -EMFILE;
}

OpenFile *OpenFiles::find(int handle)
{
    const int place = handle & place_mask;
    if (handle < 0 || place >= most) {
        return nullptr;
    }
    OpenFile &file = files_[static_cast<std::size_t>(place)];
    return file.used && file.generation == handle / generation_step ? &file : nullptr;
}

void OpenFiles::remove(OpenFile &file)
{
    file.reader.reset();
    file.writer.reset();
    file.used = false;
}

}  // namespace etcd
