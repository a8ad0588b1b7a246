#include "group_definition.h"

#include <libxml/parser.h>
#include <libxml/xpath.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>

#include "appliance_state.h"
#include "definition_limits.h"
#include "failure.h"
#include "kesta/paths.h"
#include "names.h"

namespace engine {
namespace {

const xmlChar *text_of(const std::string &text) { return reinterpret_cast<const xmlChar *>(text.c_str()); }

std::string attribute(xmlNode *node, const char *name)
{
    xmlChar *value = xmlGetProp(node, reinterpret_cast<const xmlChar *>(name));
    std::string text = value ? reinterpret_cast<const char *>(value) : "";
    xmlFree(value);
    return text;
}

}  // namespace

std::string definition_of(const std::string &group)
{
    return KESTA_GROUP_DIRECTORY + group + "/" KESTA_DEFINITION_NAME;
}

std::vector<std::string> defined_groups()
{
    std::vector<std::string> groups;
    std::error_code error;
    for (const auto &entry : std::filesystem::directory_iterator(KESTA_GROUP_DIRECTORY, error)) {
        const std::string name = entry.path().filename().string();
        if (access(definition_of(name).c_str(), F_OK) == 0) {
            groups.push_back(name);
        }
    }
    if (error && error != std::errc::no_such_file_or_directory) {
        throw Failure(Exit::platform, "file-failed",
                      KESTA_GROUP_DIRECTORY " could not be read: " + error.message() + ".",
                      "Check the folder and its rights.");
    }
    std::sort(groups.begin(), groups.end());
    return groups;
}

Definition read_definition(const std::string &group)
{
    check_group(group);
    const std::string path = definition_of(group);
    require_file(path, "A group has its define.xml there, the same on every controller.");
    require_moderate_definition(path);
    auto definition = std::make_unique<KESTA_BACKUP_FILE>();
    const int result = kestal_read_backupfile(group.c_str(), definition.get());
    if (result == KESTA_ERR_DEFINITION_GROUP) {
        throw Failure(Exit::no, "other-group", path + " is the definition of group '" + definition->groupname + "'.",
                      "Its id must be " + group + ", like the folder that it is in.");
    }
    if (result != KESTA_OK) {
        throw Failure(Exit::no, "bad-definition", path + " is refused.",
                      "See what is wrong: kestactl group check " + group);
    }
    return definition;
}

bool may_be_gone(const KESTA_BACKUP_FILE &definition) { return strcmp(definition.operation, "addremove") == 0; }

std::vector<Script> scripts_of(const std::string &group, const std::string &side, const std::string &kind)
{
    const std::unique_ptr<xmlDoc, decltype(&xmlFreeDoc)> document(xmlReadFile(definition_of(group).c_str(), nullptr,
                                                                              XML_PARSE_NONET | XML_PARSE_NOERROR),
                                                                  xmlFreeDoc);
    const std::unique_ptr<xmlXPathContext, decltype(&xmlXPathFreeContext)> context(xmlXPathNewContext(document.get()),
                                                                                   xmlXPathFreeContext);
    const std::string path = "/group/script/" + side + "/" + kind;
    const std::unique_ptr<xmlXPathObject, decltype(&xmlXPathFreeObject)> found(
        context ? xmlXPathEvalExpression(text_of(path), context.get()) : nullptr, xmlXPathFreeObject);
    if (!found) {
        throw Failure(Exit::platform, "bad-definition", definition_of(group) + " can't be read.",
                      "See what is wrong: kestactl group check " + group);
    }
    std::vector<Script> scripts;
    for (int i = 0; found->nodesetval && i < found->nodesetval->nodeNr; ++i) {
        xmlNode *node = found->nodesetval->nodeTab[i];
        const std::string command = attribute(node, "path");
        if (!command.empty()) {
            scripts.push_back({command, atoi(attribute(node, "order").c_str())});
        }
    }
    std::stable_sort(scripts.begin(), scripts.end(),
                     [](const Script &a, const Script &b) { return a.order < b.order; });
    return scripts;
}

}  // namespace engine
