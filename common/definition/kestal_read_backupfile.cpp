#include <errno.h>
#include <stdio.h>
#include <string.h>

#include "definition_reader.h"
#include "formed_text.h"
#include "kesta/backup_definition.h"
#include "kesta/paths.h"
#include "opened_file.h"
#include "storage_places.h"
#include "trace.h"
#include "xpath_object.h"

namespace {

constexpr const char *definition_file = "/" KESTA_DEFINITION_NAME;

static_assert(sizeof(KESTA_BACKUP_FILE_PATH) == 2416);
static_assert(sizeof(KESTA_BACKUP_FILE_SCRIPT_SUB) == 1552);
static_assert(sizeof(KESTA_BACKUP_FILE_SCRIPT) == 12424);
static_assert(sizeof(KESTA_BACKUP_FILE) == 64 + 64 * 2416 + 12424);
static_assert(offsetof(KESTA_BACKUP_FILE_PATH, owner) == 2304);
static_assert(offsetof(KESTA_BACKUP_FILE_PATH, cntmode) == 2400);

// While this lives, no external entity, no external subset and no validation is asked for, whatever
// the program has set for its own documents: nothing is fetched for a definition.
class NothingFetched {
public:
    NothingFetched()
        : substitute_(xmlSubstituteEntitiesDefault(0)),
          load_subset_(xmlLoadExtDtdDefaultValue),
          validate_(xmlDoValidityCheckingDefaultValue)
    {
        xmlLoadExtDtdDefaultValue = 0;
        xmlDoValidityCheckingDefaultValue = 0;
    }
    ~NothingFetched()
    {
        xmlSubstituteEntitiesDefault(substitute_);
        xmlLoadExtDtdDefaultValue = load_subset_;
        xmlDoValidityCheckingDefaultValue = validate_;
    }
    NothingFetched(const NothingFetched &) = delete;
    NothingFetched &operator=(const NothingFetched &) = delete;

private:
    int substitute_;
    int load_subset_;
    int validate_;
};

// libxml2 takes "-" for its standard input, and an address for something to fetch; a FIFO it would wait for.
bool names_local_file(const char *file)
{
    return strcmp(file, "-") != 0 && !strstr(file, "://") && !kesta::may_wait(file);
}

xmlDocPtr parse(const char *file)
{
    const NothingFetched nothing;
    const kesta::StandardDescriptorsTaken taken;
    return names_local_file(file) ? xmlParseFile(file) : nullptr;
}

// A definition that is open: its document and context.
class OpenDefinition {
public:
    OpenDefinition() = default;
    ~OpenDefinition()
    {
        if (doc) {
            xmlFreeDoc(doc);
        }
        if (context) {
            xmlXPathFreeContext(context);
        }
    }
    OpenDefinition(const OpenDefinition &) = delete;
    OpenDefinition &operator=(const OpenDefinition &) = delete;

    xmlDocPtr doc = nullptr;
    xmlXPathContextPtr context = nullptr;
};

int read_definition(char *path, KESTA_BACKUP_FILE *record)
{
    const kesta::CancelOff off;
    OpenDefinition definition;
    int rtn = kestal_start_xml_parse(path, record, &definition.doc, &definition.context);
    if (rtn != KESTA_OK) {
        TRACE(1, "XML Parse Not Start.rtn=%d", rtn);
        return KESTA_ERR_DEFINITION_FILE;
    }
    rtn = kestal_execute_xml_parse(&definition.doc, &definition.context, record);
    if (rtn != KESTA_OK) {
        TRACE(1, "XML Parse Error.rtn=%d", rtn);
        return KESTA_ERR_DEFINITION_FILE;
    }
    rtn = kestal_end_xml_parse(&definition.doc, &definition.context);
    if (rtn != KESTA_OK) {
        TRACE(1, "XML Parse Not End.rtn=%d", rtn);
        return KESTA_ERR_DEFINITION_FILE;
    }
    return KESTA_OK;
}

bool can_be_opened(const char *path)
{
    const kesta::FilePtr file(kesta::open_stream(path));
    if (!file) {
        SYSTEM_FAILURE(error, 1, "[kestal_read_backupfile] BackFile Nothing. errno=%d", error);
    }
    return static_cast<bool>(file);
}

}  // namespace

int kestal_init_xml(void)
{
    xmlInitParser();
    return KESTA_OK;
}

int kestal_term_xml(void)
{
    xmlCleanupParser();
    return KESTA_OK;
}

int kestal_start_xml_parse(char *file, KESTA_BACKUP_FILE *record, xmlDocPtr *doc, xmlXPathContextPtr *context)
{
    if (!file || !record) {
        FAILURE(ARGUMENT, 0, 1, "[start_xml_parse] Backup File Struct ERROR");
        return KESTA_ERR_ARGUMENT;
    }
    if (!doc || !context) {
        FAILURE(ARGUMENT, 0, 1, "Argument ERROR");
        return KESTA_ERR_ARGUMENT;
    }
    const kesta::CancelOff off;
    const kesta::QuietXml quiet;
    *doc = nullptr;
    *doc = parse(file);
    if (!*doc) {
        FAILURE(CONTENT, 0, 1, "[start_xml_parse] xmlParseFile ERROR");
        return KESTA_ERR_DEFINITION_FILE;
    }
    *context = nullptr;
    *context = xmlXPathNewContext(*doc);
    if (!*context) {
        FAILURE(CONTENT, 0, 1, "[start_xml_parse] xmlXPathNewContext ERROR");
        xmlFreeDoc(*doc);
        *doc = nullptr;
        return KESTA_ERR_DEFINITION_FILE;
    }
    return KESTA_OK;
}

int kestal_execute_xml_parse(xmlDocPtr *doc, xmlXPathContextPtr *context, KESTA_BACKUP_FILE *record)
{
    if (!kesta::usable(doc, context, record)) {
        FAILURE(ARGUMENT, 0, 1, "Argument ERROR");
        return KESTA_ERR_ARGUMENT;
    }
    int rtn = kestal_xml_get_group(doc, context, record);
    if (rtn != KESTA_OK) {
        TRACE(1, "[execute_xml_parse] Get <group> ERRORrtn=%d", rtn);
        return KESTA_ERR_DEFINITION;
    }
    rtn = kestal_xml_get_setinfo(doc, context, record);
    if (rtn != KESTA_OK) {
        TRACE(1, "[execute_xml_parse] Get <setinfo> ERRORrtn=%d", rtn);
        return KESTA_ERR_DEFINITION;
    }
    rtn = kestal_xml_get_script(doc, context, record);
    if (rtn != KESTA_OK) {
        TRACE(1, "[execute_xml_parse] Get <script> ERRORrtn=%d", rtn);
        return KESTA_ERR_DEFINITION;
    }
    return KESTA_OK;
}

int kestal_end_xml_parse(xmlDocPtr *doc, xmlXPathContextPtr *context)
{
    if (!doc || !*doc || !context || !*context) {
        FAILURE(ARGUMENT, 0, 1, "[end_xml_parse] Argument ERROR");
        return KESTA_ERR_ARGUMENT;
    }
    xmlXPathFreeContext(*context);
    xmlFreeDoc(*doc);
    *context = nullptr;
    *doc = nullptr;
    return KESTA_OK;
}

int kestal_xml_get_group(xmlDocPtr *doc, xmlXPathContextPtr *context, KESTA_BACKUP_FILE *record)
{
    if (!kesta::usable(doc, context, record)) {
        FAILURE(ARGUMENT, 0, 1, "Argument ERROR");
        return KESTA_ERR_ARGUMENT;
    }
    const kesta::CancelOff off;
    const kesta::QuietXml quiet;
    const kesta::Expression path = kesta::expression_of("/%s", kesta::group_element);
    const kesta::XPathObject found(path.data(), *context);
    if (!found) {
        FAILURE(CONTENT, 0, 1, "[xml_get_group] xmlXPathEvalExpression(%s) ERROR", path.data());
        return KESTA_ERR_DEFINITION;
    }
    if (found.count() != 1) {
        FAILURE(CONTENT, 0, 1, "[xml_get_group] NodeNum ERROR nodenum=%d", found.count());
        return KESTA_ERR_DEFINITION;
    }
    const xmlNodePtr group = found.node(0);
    int rtn = kesta::read_text(group, "id", record->groupname);
    if (rtn != KESTA_OK) {
        TRACE(1, "[xml_get_group] GetNode(id) ERROR rtn=%d", rtn);
        return KESTA_ERR_DEFINITION;
    }
    rtn = kesta::read_text(group, "operation", record->operation);
    if (rtn != KESTA_OK) {
        TRACE(5, "GetNode(operation) Nothing. rtn=%d", rtn);
    }
    rtn = kesta::read_text(group, "type", record->type);
    if (rtn != KESTA_OK) {
        TRACE(5, "GetNode(type) Nothing. rtn=%d", rtn);
    }
    return KESTA_OK;
}

int kestal_read_backupfile(const char *group, KESTA_BACKUP_FILE *record)
{
    if (!group) {
        FAILURE(ARGUMENT, 0, 1, "[kestal_read_backupfile] Argument Check Error [gname].");
        return KESTA_ERR_ARGUMENT;
    }
    if (!record) {
        FAILURE(ARGUMENT, 0, 1, "[kestal_read_backupfile] Argument Check Error [bkfile].");
        return KESTA_ERR_ARGUMENT;
    }
    kesta::Path path{};
    if (strlen(KESTA_GROUP_DIRECTORY) + strlen(group) + strlen(definition_file) >= path.size()) {
        FAILURE(ARGUMENT, 0, 1, "[kestal_read_backupfile] Argument Check Error [gname].");
        return KESTA_ERR_ARGUMENT;
    }
    memset(record, 0, sizeof(*record));
    (void)kesta::form(path, "%s%s%s", KESTA_GROUP_DIRECTORY, group, definition_file);
    if (!can_be_opened(path.data())) {
        return KESTA_ERR_DEFINITION_FILE;
    }
    if (const int rtn = read_definition(path.data(), record); rtn != KESTA_OK) {
        return rtn;
    }
    if (strcmp(group, record->groupname) != 0) {
        FAILURE(CONTENT, 0, 1, "[kestal_read_backupfile] GroupName Irrigal(%s,%s).", group, record->groupname);
        return KESTA_ERR_DEFINITION_GROUP;
    }
    TRACE(5, "BackUp Ini File Access Succeed.");
    return KESTA_OK;
}
