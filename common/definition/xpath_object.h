// What libxml2 hands out, and how it is asked.
#pragma once

#include <libxml/parser.h>
#include <libxml/xmlerror.h>
#include <libxml/xpath.h>

#include "ownership.h"

namespace kesta {

// While this lives, libxml2 prints nothing: whether a definition can be read is told by results and
// traces. A handler of the program's own is put back after it.
class QuietXml {
public:
    QuietXml()
        : handler_(xmlStructuredError),
          context_(xmlStructuredErrorContext),
          printer_(xmlGenericError),
          printer_context_(xmlGenericErrorContext)
    {
        xmlSetStructuredErrorFunc(nullptr, drop);
        xmlSetGenericErrorFunc(nullptr, drop_text);
    }
    ~QuietXml()
    {
        xmlSetStructuredErrorFunc(context_, handler_);
        xmlSetGenericErrorFunc(printer_context_, printer_);
    }
    QuietXml(const QuietXml &) = delete;
    QuietXml &operator=(const QuietXml &) = delete;

private:
    static void drop(void *, xmlErrorPtr) {}
    static void drop_text(void *, const char *, ...) {}

    xmlStructuredErrorFunc handler_;
    void *context_;
    xmlGenericErrorFunc printer_;
    void *printer_context_;
};

// The nodes that an expression found, in document order.
class XPathObject {
public:
    XPathObject(const char *expression, xmlXPathContextPtr context)
        : object_(xmlXPathEvalExpression(reinterpret_cast<const xmlChar *>(expression), context))
    {
    }
    ~XPathObject()
    {
        if (object_) {
            xmlXPathFreeObject(object_);
        }
    }
    XPathObject(const XPathObject &) = delete;
    XPathObject &operator=(const XPathObject &) = delete;

    explicit operator bool() const { return object_ != nullptr; }
    int count() const
    {
        const bool has_nodes = object_->type == XPATH_NODESET && object_->nodesetval;
        return has_nodes ? object_->nodesetval->nodeNr : 0;
    }
    xmlNodePtr node(int index) const { return object_->nodesetval->nodeTab[index]; }

private:
    xmlXPathObjectPtr object_;
};

// An element of no namespace, as the expressions find it. Text, comments and instructions are none.
inline bool is_element(const xmlNode *node, const char *name)
{
    return node->type == XML_ELEMENT_NODE && !node->ns &&
           xmlStrcmp(node->name, reinterpret_cast<const xmlChar *>(name)) == 0;
}

// A document in use: document, context and record of a reader's call.
template <typename Record>
bool usable(xmlDocPtr *doc, xmlXPathContextPtr *context, Record *record)
{
    return doc && *doc && context && *context && record;
}

}  // namespace kesta
