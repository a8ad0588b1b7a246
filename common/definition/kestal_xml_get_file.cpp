#include "definition_reader.h"
#include "kesta/backup_definition.h"
#include "trace.h"
#include "xpath_object.h"

namespace {

using kesta::read_integer;
using kesta::read_text;

constexpr int one_permission = 1;
constexpr int permission_attributes = 3;

// The entry of one file element, as its children fill it.
class FileEntry {
public:
    FileEntry(xmlNodePtr node, KESTA_BACKUP_FILE_PATH &entry) : node_(node), entry_(entry) {}

    int read()
    {
        const int rtn = read_text(node_, "path", entry_.pathname);
        if (rtn != KESTA_OK) {
            TRACE(1, "[xml_get_file] GetNode(Path) ERROR rtn=%d", rtn);
            return KESTA_ERR_DEFINITION;
        }
        // Flags that are absent, or no numbers, stay 0.
        (void)read_integer(node_, "cntmode", entry_.cntmode);
        (void)read_integer(node_, "rbmode", entry_.rbmode);
        (void)read_integer(node_, "distribution", entry_.distribution);
        (void)read_integer(node_, "diffreboot", entry_.diffreboot);
        return read_children();
    }

private:
    int read_children()
    {
        for (xmlNodePtr child = node_->children; child; child = child->next) {
            int rtn = KESTA_OK;
            if (kesta::is_element(child, kesta::link_element)) {
                rtn = read_link(child);
            } else if (kesta::is_element(child, kesta::permission_element)) {
                rtn = read_permission(child);
            }
            if (rtn != KESTA_OK) {
                return rtn;
            }
        }
        return KESTA_OK;
    }

    int read_link(xmlNodePtr link)
    {
        if (links_ == KESTA_DEFINITION_LINKS) {
            FAILURE(CONTENT, 0, 1, "[xml_get_file] GetNode(Path) LinkMax.");
            return KESTA_ERR_DEFINITION;
        }
        int rtn = read_text(link, "path", entry_.linkpath[links_]);
        if (rtn != KESTA_OK) {
            TRACE(1, "[xml_get_file] GetNode(Path) ERROR rtn=%d", rtn);
            return KESTA_ERR_DEFINITION;
        }
        int found = KESTA_OFF;
        rtn = kestal_check_wildcard(&found, entry_.linkpath[links_]);
        if (rtn != KESTA_OK) {
            TRACE(1, "[xml_get_file] Check wild-card ERROR rtn=%d", rtn);
            return KESTA_ERR;
        }
        if (found != KESTA_OFF) {
            FAILURE(CONTENT, 0, 1, "[xml_get_file] Error:The wild-card is included in the link path.");
            return KESTA_ERR_DEFINITION;
        }
        ++links_;
        return KESTA_OK;
    }

    int read_permission(xmlNodePtr permission)
    {
        TRACE(5, "[xml_get_file] There is <permission>.");
        if (permissions_ == one_permission) {
            FAILURE(CONTENT, 0, 1, "[xml_get_file] GetNode(Path) PermissionMax.");
            return KESTA_ERR_DEFINITION;
        }
        int failed = 0;
        failed += read_text(permission, "userid", entry_.owner) != KESTA_OK;
        failed += read_text(permission, "groupid", entry_.group) != KESTA_OK;
        failed += read_text(permission, "mode", entry_.filemode) != KESTA_OK;
        if (failed == permission_attributes) {
            FAILURE(CONTENT, 0, 1, "[xml_get_file] Permission Option ERROR");
            return KESTA_ERR_DEFINITION;
        }
        ++permissions_;
        return KESTA_OK;
    }

    xmlNodePtr node_;
    KESTA_BACKUP_FILE_PATH &entry_;
    int links_ = 0;
    int permissions_ = 0;
};

}  // namespace

int kestal_xml_get_setinfo(xmlDocPtr *doc, xmlXPathContextPtr *context, KESTA_BACKUP_FILE *record)
{
    if (!kesta::usable(doc, context, record)) {
        FAILURE(ARGUMENT, 0, 1, "Argument ERROR");
        return KESTA_ERR_ARGUMENT;
    }
    const kesta::CancelOff off;
    const kesta::QuietXml quiet;
    {
        const kesta::Expression path = kesta::expression_of("/%s/%s", kesta::group_element, kesta::setinfo_element);
        const kesta::XPathObject found(path.data(), *context);
        if (!found) {
            FAILURE(CONTENT, 0, 1, "[xml_get_setinfo] xmlXPathEvalExpression(%s) ERROR", path.data());
            return KESTA_ERR_DEFINITION;
        }
        if (found.count() != 1) {
            FAILURE(CONTENT, 0, 1, "[xml_get_setinfo] NodeNum ERROR nodenum=%d", found.count());
            return KESTA_ERR_DEFINITION;
        }
    }
    const int rtn = kestal_xml_get_file(doc, context, record);
    if (rtn != KESTA_OK) {
        TRACE(1, "[xml_get_setinfo] kestal_xml_get_file ERROR rtn=%d", rtn);
        return KESTA_ERR_DEFINITION;
    }
    return KESTA_OK;
}

int kestal_xml_get_file(xmlDocPtr *doc, xmlXPathContextPtr *context, KESTA_BACKUP_FILE *record)
{
    if (!kesta::usable(doc, context, record)) {
        FAILURE(ARGUMENT, 0, 1, "Argument ERROR");
        return KESTA_ERR_ARGUMENT;
    }
    const kesta::CancelOff off;
    const kesta::QuietXml quiet;
    const kesta::Expression path =
        kesta::expression_of("/%s/%s/%s", kesta::group_element, kesta::setinfo_element, kesta::file_element);
    const kesta::XPathObject found(path.data(), *context);
    if (!found) {
        FAILURE(CONTENT, 0, 1, "[xml_get_file] xmlXPathEvalExpression(%s) ERROR", path.data());
        return KESTA_ERR_DEFINITION;
    }
    if (found.count() < 1) {
        FAILURE(CONTENT, 0, 1, "[xml_get_file] NodeNum ERROR nodenum=%d", found.count());
        return KESTA_ERR_DEFINITION;
    }
    for (int i = 0; i < found.count(); ++i) {
        if (i == KESTA_DEFINITION_FILES) {
            FAILURE(CONTENT, 0, 1, "[xml_get_file] GetNode(Path) FileMax.");
            return KESTA_ERR_DEFINITION;
        }
        const int rtn = FileEntry(found.node(i), record->setfile[i]).read();
        if (rtn != KESTA_OK) {
            return rtn;
        }
    }
    TRACE(5, "[xml_get_file] END");
    return KESTA_OK;
}
