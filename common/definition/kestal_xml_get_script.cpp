#include <errno.h>

#include <array>

#include "definition_reader.h"
#include "kesta/backup_definition.h"
#include "trace.h"
#include "xpath_object.h"

namespace {

using Slot = KESTA_BACKUP_FILE_SCRIPT_SUB;

constexpr int backup_side = 1;
constexpr int restore_side = 2;

// What belongs to a side of the scripts.
struct Side {
    const char *element;
    Slot *slots;
    std::int32_t *reboot;
};

// A kind of script: where it goes, and how the traces call it.
struct Kind {
    const char *element;
    const char *title;           // in "... Max." and "... ERROR"
    const char *wildcard_title;  // in the text about wild-cards
    char (Slot::*path)[KESTA_DEFINITION_SCRIPT_SIZE];
    std::int32_t Slot::*order;            // receives the order
    std::int32_t Slot::*order_if_absent;  // is set to 0 where there is no order
};

// The order of a pre-script goes to the order of the post-script: kept so, programs rely on it.
constexpr std::array<Kind, 3> kinds{{
    {"pre-script", "Pre-Script", "pre-script", &Slot::pre_script, &Slot::post_order, &Slot::pre_order},
    {"post-script", "Post-Script", "post-script", &Slot::post_script, &Slot::post_order, &Slot::post_order},
    {"re-post-script", "Re-Post-Script", "Re-Post-script", &Slot::re_post_script, &Slot::re_post_order,
     &Slot::re_post_order},
}};

int read_path(xmlNodePtr node, const Kind &kind, Slot &slot)
{
    char(&path)[KESTA_DEFINITION_SCRIPT_SIZE] = slot.*kind.path;
    int rtn = kesta::read_text(node, "path", path);
    if (rtn != KESTA_OK) {
        TRACE(1, "[xml_get_com_in_script] GetNode(Path) %s ERROR rtn=%d", kind.title, rtn);
        return KESTA_ERR_DEFINITION;
    }
    int found = KESTA_OFF;
    rtn = kestal_check_wildcard(&found, path);
    if (rtn != KESTA_OK) {
        TRACE(1, "[xml_get_com_in_script] Check wild-card ERROR rtn=%d", rtn);
        return KESTA_ERR;
    }
    if (found != KESTA_OFF) {
        FAILURE(CONTENT, 0, 1, "[xml_get_com_in_script] Error:The wild-card is included in the %s path.",
                kind.wildcard_title);
        return KESTA_ERR_DEFINITION;
    }
    return KESTA_OK;
}

int read_script(xmlNodePtr node, const Kind &kind, int &count, Slot *slots)
{
    if (count == KESTA_DEFINITION_SCRIPTS) {
        FAILURE(CONTENT, 0, 1, "[xml_get_com_in_script] GetNode(Path) %s Max. rtn=%d", kind.title, KESTA_OK);
        return KESTA_ERR_DEFINITION;
    }
    Slot &slot = slots[count];
    if (const int rtn = read_path(node, kind, slot); rtn != KESTA_OK) {
        return rtn;
    }
    if (kesta::read_integer(node, "order", slot.*kind.order) != KESTA_OK) {
        slot.*kind.order_if_absent = 0;
    }
    ++count;
    return KESTA_OK;
}

int read_scripts(xmlNodePtr element, const Side &side)
{
    std::array<int, kinds.size()> counts{};
    for (xmlNodePtr child = element->children; child; child = child->next) {
        for (std::size_t i = 0; i < kinds.size(); ++i) {
            if (!kesta::is_element(child, kinds[i].element)) {
                continue;
            }
            if (const int rtn = read_script(child, kinds[i], counts[i], side.slots); rtn != KESTA_OK) {
                return rtn;
            }
        }
    }
    return KESTA_OK;
}

int read_side(const Side &side, xmlXPathContextPtr context)
{
    const kesta::Expression path =
        kesta::expression_of("/%s/%s/%s", kesta::group_element, kesta::script_element, side.element);
    TRACE(5, "[xml_get_com_in_script] path = %s", path.data());
    errno = 0;
    const kesta::XPathObject found(path.data(), context);
    if (!found) {
        const int error = errno;
        TRACE(5, "[xml_get_com_in_script] xmlXPathEvalExpression(%s) Nothing. errno=%d", path.data(), error);
        return KESTA_OK;
    }
    if (found.count() > 1) {
        FAILURE(CONTENT, 0, 1, "[xml_get_com_in_script] NodeNum ERROR nodenum=%d", found.count());
        return KESTA_ERR_DEFINITION;
    }
    if (found.count() == 0) {
        return KESTA_OK;
    }
    const int rtn = kesta::read_integer(found.node(0), "reboot", *side.reboot);
    if (rtn != KESTA_OK) {
        TRACE(5, "[xml_get_com_in_script] GetNode(back_reboot) Nothing. rtn=%d", rtn);
    }
    return read_scripts(found.node(0), side);
}

// Returns how many script elements there are, or -911.
int count_script_elements(xmlXPathContextPtr context, int &count)
{
    const kesta::Expression path = kesta::expression_of("/%s/%s", kesta::group_element, kesta::script_element);
    const kesta::XPathObject found(path.data(), context);
    if (!found) {
        FAILURE(CONTENT, 0, 1, "[xml_get_script] xmlXPathEvalExpression(%s) ERROR", path.data());
        return KESTA_ERR_DEFINITION;
    }
    count = found.count();
    if (count > 1) {
        FAILURE(CONTENT, 0, 1, "[xml_get_script] NodeNum ERROR nodenum=%d", count);
        return KESTA_ERR_DEFINITION;
    }
    return KESTA_OK;
}

}  // namespace

int kestal_xml_get_script(xmlDocPtr *doc, xmlXPathContextPtr *context, KESTA_BACKUP_FILE *record)
{
    if (!kesta::usable(doc, context, record)) {
        FAILURE(ARGUMENT, 0, 1, "Argument ERROR");
        return KESTA_ERR_ARGUMENT;
    }
    const kesta::CancelOff off;
    const kesta::QuietXml quiet;
    int count = 0;
    int rtn = count_script_elements(*context, count);
    if (rtn != KESTA_OK) {
        return rtn;
    }
    if (count == 0) {
        TRACE(5, "[xml_get_script] NodeNum=0");
        return KESTA_OK;
    }
    rtn = kestal_xml_get_com_in_script(backup_side, doc, context, record);
    if (rtn != KESTA_OK) {
        TRACE(1, "[xml_get_script] kestal_xml_get_backup ERROR rtn=%d", rtn);
        return KESTA_ERR_DEFINITION;
    }
    rtn = kestal_xml_get_com_in_script(restore_side, doc, context, record);
    if (rtn != KESTA_OK) {
        TRACE(1, "[xml_get_script] kestal_xml_get_restore ERROR rtn=%d", rtn);
        return KESTA_ERR_DEFINITION;
    }
    return KESTA_OK;
}

int kestal_xml_get_com_in_script(int nodekind, xmlDocPtr *doc, xmlXPathContextPtr *context, KESTA_BACKUP_FILE *record)
{
    if (!kesta::usable(doc, context, record)) {
        FAILURE(ARGUMENT, 0, 1, "Argument ERROR");
        return KESTA_ERR_ARGUMENT;
    }
    const kesta::CancelOff off;
    const kesta::QuietXml quiet;
    KESTA_BACKUP_FILE_SCRIPT &script = record->script;
    switch (nodekind) {
    case backup_side:
        return read_side({kesta::backup_element, script.back_script, &script.back_reboot}, *context);
    case restore_side:
        return read_side({kesta::restore_element, script.restore_script, &script.restore_reboot}, *context);
    default:
        FAILURE(ARGUMENT, 0, 1, "[xml_get_com_in_script] NodeKind Argument ERROR nodekind=%d", nodekind);
        return KESTA_ERR_ARGUMENT;
    }
}
