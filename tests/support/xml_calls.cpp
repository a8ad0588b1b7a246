// What libxml2 hands to the library: counted, and able to fail.
#include <libxml/parser.h>
#include <libxml/xpath.h>

#include "test_platform.h"

using test::Platform;
using test::platform;

namespace {

bool fails(const char *kind)
{
    Platform &p = platform();
    return p.kind_faults.contains(kind) && p.meets_fault(kind, kind);
}

template <typename Object>
Object *counted(Object *object)
{
    platform().open_xml_objects += object != nullptr;
    return object;
}

}  // namespace

extern "C" {

xmlDocPtr __real_xmlParseFile(const char *file);
xmlDocPtr __wrap_xmlParseFile(const char *file)
{
    return fails("xml_parse") ? nullptr : counted(__real_xmlParseFile(file));
}

void __real_xmlFreeDoc(xmlDocPtr doc);
void __wrap_xmlFreeDoc(xmlDocPtr doc)
{
    platform().open_xml_objects -= doc != nullptr;
    __real_xmlFreeDoc(doc);
}

xmlXPathContextPtr __real_xmlXPathNewContext(xmlDocPtr doc);
xmlXPathContextPtr __wrap_xmlXPathNewContext(xmlDocPtr doc)
{
    return fails("xml_context") ? nullptr : counted(__real_xmlXPathNewContext(doc));
}

void __real_xmlXPathFreeContext(xmlXPathContextPtr context);
void __wrap_xmlXPathFreeContext(xmlXPathContextPtr context)
{
    platform().open_xml_objects -= context != nullptr;
    __real_xmlXPathFreeContext(context);
}

xmlXPathObjectPtr __real_xmlXPathEvalExpression(const xmlChar *expression, xmlXPathContextPtr context);
xmlXPathObjectPtr __wrap_xmlXPathEvalExpression(const xmlChar *expression, xmlXPathContextPtr context)
{
    return fails("xml_eval") ? nullptr : counted(__real_xmlXPathEvalExpression(expression, context));
}

void __real_xmlXPathFreeObject(xmlXPathObjectPtr object);
void __wrap_xmlXPathFreeObject(xmlXPathObjectPtr object)
{
    platform().open_xml_objects -= object != nullptr;
    __real_xmlXPathFreeObject(object);
}
}
