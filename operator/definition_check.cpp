#include "definition_check.h"

#include <kesta/kesta.h>
#include <libxml/parser.h>
#include <libxml/tree.h>

#include <algorithm>
#include <initializer_list>
#include <map>
#include <memory>
#include <optional>
#include <string_view>

#include "definition_limits.h"
#include "file_properties.h"
#include "group_paths.h"

namespace engine {
namespace {

using Names = std::initializer_list<std::string_view>;

constexpr std::size_t longest_id = KESTA_GROUP_NAME_SIZE - 1;
constexpr std::size_t longest_path = KESTA_DEFINITION_PATH_SIZE - 1;
constexpr std::size_t longest_script = KESTA_DEFINITION_SCRIPT_SIZE - 1;
constexpr std::size_t longest_owner = 31;
constexpr std::size_t longest_mode = 7;

const std::string no_shell_word = "has a blank or another character that a shell would act on";

std::string text_of(const xmlChar *text) { return reinterpret_cast<const char *>(text); }

// Elements of no namespace count, as the library looks for them.
bool is_plain(const xmlNode *node) { return node->type == XML_ELEMENT_NODE && !node->ns; }

std::string quoted(const std::string &name) { return "<" + name + ">"; }

class Checker {
public:
    explicit Checker(CheckedDefinition &result) : result_(result) {}

    void check_root(xmlNodePtr root)
    {
        if (!is_plain(root) || text_of(root->name) != "group") {
            error(root, "the root element must be <group>");
            return;
        }
        const std::optional<std::string> id = attribute(root, "id");
        if (!id) {
            error(root, "<group> needs an id");
        } else if (id->size() > longest_id) {
            error(root, "the id has " + length(*id) + " characters, at most 15 are allowed");
        }
        result_.id = id.value_or("");
        for (const char *name : {"operation", "type"}) {
            const std::string value = attribute(root, name).value_or("");
            if (value.size() > longest_id) {
                note(root, std::string(name) + " has more than 15 characters, and is ignored");
            }
        }
        check_attributes(root, {"id", "operation", "type"});
        const auto children = sort_children(root, {"setinfo", "script"});
        check_count(root, children, "setinfo", 1, 1);
        check_count(root, children, "script", 0, 1);
        for (xmlNodePtr setinfo : children.at("setinfo")) {
            check_setinfo(setinfo);
        }
        for (xmlNodePtr script : children.at("script")) {
            check_scripts(script);
        }
    }

    void error(const xmlNode *node, const std::string &text) { add(node, true, text); }

private:
    using Children = std::map<std::string, std::vector<xmlNodePtr>>;

    void note(const xmlNode *node, const std::string &text) { add(node, false, text); }

    void add(const xmlNode *node, bool is_error, const std::string &text)
    {
        result_.findings.push_back({xmlGetLineNo(node), is_error, text});
    }

    static std::string length(const std::string &text) { return std::to_string(text.size()); }

    static std::optional<std::string> attribute(xmlNodePtr node, const char *name)
    {
        const std::unique_ptr<xmlChar, void (*)(void *)> value(xmlGetProp(node,
                                                                          reinterpret_cast<const xmlChar *>(name)),
                                                               xmlFree);
        return value ? std::optional<std::string>(text_of(value.get())) : std::nullopt;
    }

    // The children by name; others are told of, since they may be misspelt.
    Children sort_children(xmlNodePtr node, const Names &known)
    {
        Children children;
        for (const std::string_view name : known) {
            children[std::string(name)];
        }
        for (xmlNodePtr child = node->children; child; child = child->next) {
            if (child->type != XML_ELEMENT_NODE) {
                continue;
            }
            const std::string name = text_of(child->name);
            if (is_plain(child) && children.contains(name)) {
                children[name].push_back(child);
            } else {
                note(child, quoted(name) + " in " + quoted(text_of(node->name)) + " is ignored");
            }
        }
        return children;
    }

    void check_attributes(xmlNodePtr node, const Names &known)
    {
        for (xmlAttrPtr attribute = node->properties; attribute; attribute = attribute->next) {
            const std::string name = text_of(attribute->name);
            if (std::find(known.begin(), known.end(), name) == known.end()) {
                note(node, "attribute " + name + " of " + quoted(text_of(node->name)) + " is ignored");
            }
        }
    }

    void check_count(xmlNodePtr node, const Children &children, const std::string &name, std::size_t least,
                     std::size_t most)
    {
        const std::vector<xmlNodePtr> &found = children.at(name);
        if (found.size() < least) {
            error(node, quoted(text_of(node->name)) + " needs " + quoted(name));
        }
        if (found.size() > most) {
            error(found[most], "there are " + std::to_string(found.size()) + " " + quoted(name) + ", at most " +
                                   std::to_string(most) + " are allowed");
        }
    }

    void check_path(xmlNodePtr node, std::size_t longest, bool may_have_wildcard)
    {
        const std::string element = quoted(text_of(node->name));
        const std::optional<std::string> path = attribute(node, "path");
        if (!path) {
            error(node, element + " needs a path");
            return;
        }
        if (path->size() > longest) {
            error(node, "the path of " + element + " has " + length(*path) + " characters, at most " +
                            std::to_string(longest) + " are allowed");
        }
        if (!may_have_wildcard && path->find('*') != std::string::npos) {
            error(node, "the path of " + element + " must not contain *");
        }
    }

    void check_integer(xmlNodePtr node, const char *name)
    {
        const std::optional<std::string> value = attribute(node, name);
        if (value && (value->empty() || value->find_first_not_of("0123456789") != std::string::npos)) {
            note(node, std::string(name) + "=\"" + *value + "\" is no number, and counts as 0");
        }
    }

    void check_setinfo(xmlNodePtr setinfo)
    {
        check_attributes(setinfo, {});
        const Children children = sort_children(setinfo, {"file"});
        check_count(setinfo, children, "file", 1, KESTA_DEFINITION_FILES);
        for (xmlNodePtr file : children.at("file")) {
            check_file(file);
        }
    }

    void check_file(xmlNodePtr file)
    {
        check_path(file, longest_path, true);
        const std::string path = attribute(file, "path").value_or("");
        if (const std::string fault = fault_of_path(path); !path.empty() && !fault.empty()) {
            note(file, "the path of <file> " + fault);
        }
        if (attribute(file, "path").value_or("-").empty()) {
            note(file, "an empty path ends the list: this file and those behind it are left alone");
        }
        for (const char *flag : {"cntmode", "rbmode", "distribution", "diffreboot"}) {
            check_integer(file, flag);
        }
        check_attributes(file, {"path", "cntmode", "rbmode", "distribution", "diffreboot"});
        const Children children = sort_children(file, {"link", "permission"});
        check_count(file, children, "link", 0, KESTA_DEFINITION_LINKS);
        check_count(file, children, "permission", 0, 1);
        if (!children.at("link").empty() && kesta_is_shell_word(path.c_str()) == 0) {
            error(file, "the path of <file>, which has a <link>, " + no_shell_word);
        }
        for (xmlNodePtr link : children.at("link")) {
            check_path(link, longest_path, false);
            if (kesta_is_shell_word(attribute(link, "path").value_or("").c_str()) == 0) {
                error(link, "the path of <link> " + no_shell_word);
            }
            check_attributes(link, {"path"});
        }
        for (xmlNodePtr permission : children.at("permission")) {
            check_permission(permission);
        }
    }

    void check_permission(xmlNodePtr permission)
    {
        struct Property {
            const char *name;
            std::size_t limit;
            std::string (*fault_of)(const std::string &);
            bool anywhere;  // else another controller may take it
        };
        const Property properties[] = {{"userid", longest_owner, fault_of_user, false},
                                       {"groupid", longest_owner, fault_of_group, false},
                                       {"mode", longest_mode, fault_of_mode, true}};
        int usable = 0;
        for (const Property &property : properties) {
            const std::string name = property.name;
            const std::optional<std::string> value = attribute(permission, property.name);
            if (value && value->size() > property.limit) {
                note(permission,
                     name + " has more than " + std::to_string(property.limit) + " characters, and is ignored");
            } else if (value && !value->empty() && !property.fault_of(*value).empty()) {
                add(permission, property.anywhere, name + "=\"" + *value + "\" " + property.fault_of(*value));
            }
            usable += value && value->size() <= property.limit;
        }
        if (usable == 0) {
            error(permission,
                  "<permission> needs a userid (at most 31 characters), a groupid (31) or "
                  "a mode (7)");
        }
        check_attributes(permission, {"userid", "groupid", "mode"});
    }

    void check_scripts(xmlNodePtr script)
    {
        check_attributes(script, {});
        const Children children = sort_children(script, {"backup", "restore"});
        for (const char *name : {"backup", "restore"}) {
            check_count(script, children, name, 0, 1);
            for (xmlNodePtr side : children.at(name)) {
                check_side(side);
            }
        }
    }

    void check_side(xmlNodePtr side)
    {
        check_integer(side, "reboot");
        check_attributes(side, {"reboot"});
        const Children children = sort_children(side, {"pre-script", "post-script", "re-post-script"});
        for (const std::string kind : {"pre-script", "post-script", "re-post-script"}) {
            check_count(side, children, kind, 0, KESTA_DEFINITION_SCRIPTS);
            for (xmlNodePtr script : children.at(kind)) {
                check_path(script, longest_script, false);
                check_integer(script, "order");
                check_attributes(script, {"path", "order"});
            }
        }
    }

    CheckedDefinition &result_;
};

std::string one_line(std::string text)
{
    while (!text.empty() && text.back() == '\n') {
        text.pop_back();
    }
    return text;
}

void keep_error(void *context, xmlErrorPtr error)
{
    auto *result = static_cast<CheckedDefinition *>(context);
    const bool is_error = error->level >= XML_ERR_ERROR;
    result->findings.push_back({error->line, is_error, one_line(error->message ? error->message : "no XML")});
}

}  // namespace

bool CheckedDefinition::accepted() const
{
    return std::none_of(findings.begin(), findings.end(), [](const Finding &finding) { return finding.error; });
}

CheckedDefinition check_definition(const std::string &path)
{
    require_moderate_definition(path);
    CheckedDefinition result;
    xmlSetStructuredErrorFunc(&result, keep_error);
    const std::unique_ptr<xmlDoc, void (*)(xmlDocPtr)> doc(xmlReadFile(path.c_str(), nullptr, XML_PARSE_NONET),
                                                           xmlFreeDoc);
    xmlSetStructuredErrorFunc(nullptr, nullptr);
    const xmlNodePtr root = doc ? xmlDocGetRootElement(doc.get()) : nullptr;
    if (root) {
        Checker(result).check_root(root);
    } else if (result.accepted()) {
        result.findings.push_back({1, true, "there is no root element"});
    }
    std::stable_sort(result.findings.begin(), result.findings.end(),
                     [](const Finding &a, const Finding &b) { return a.line < b.line; });
    return result;
}

}  // namespace engine
