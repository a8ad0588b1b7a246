// Any file in the place of define.xml.
#include <kesta/kesta.h>
#include <string.h>

#include <memory>

#include "input_file.h"

using fuzz::require;

namespace {

template <size_t Size>
void require_text(const char (&field)[Size])
{
    require(strnlen(field, Size) < Size, "a text without its end");
}

void require_valid(const KESTA_BACKUP_FILE &record)
{
    require_text(record.groupname);
    require_text(record.operation);
    require_text(record.type);
    for (const KESTA_BACKUP_FILE_PATH &file : record.setfile) {
        require_text(file.pathname);
        require_text(file.owner);
        require_text(file.group);
        require_text(file.filemode);
        for (const auto &link : file.linkpath) {
            require_text(link);
            require(!strchr(link, '*'), "a wild-card in a link");
        }
    }
    for (const auto *side : {record.script.back_script, record.script.restore_script}) {
        for (int i = 0; i < KESTA_DEFINITION_SCRIPTS; ++i) {
            require_text(side[i].pre_script);
            require_text(side[i].post_script);
            require_text(side[i].re_post_script);
            require(side[i].pre_order == 0, "pre_order is never filled");
        }
    }
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static const auto record = std::make_unique<KESTA_BACKUP_FILE>();
    memset(static_cast<void *>(record.get()), 0, sizeof(*record));
    char *path = fuzz::use_input(data, size);
    xmlDocPtr doc = nullptr;
    xmlXPathContextPtr context = nullptr;
    if (kestal_start_xml_parse(path, record.get(), &doc, &context) != KESTA_OK) {
        require(!doc && !context, "something is left open");
        return 0;
    }
    if (kestal_execute_xml_parse(&doc, &context, record.get()) == KESTA_OK) {
        require_valid(*record);
        require(record->setfile[0].filler[0] == 0, "a filler was written");
    }
    require(kestal_end_xml_parse(&doc, &context) == KESTA_OK, "it can't be closed");
    return 0;
}
