// The schema that is shipped, and the reader, over the same files.
#include <libxml/relaxng.h>
#include <libxml/xmlerror.h>

#include <filesystem>
#include <memory>

#include "library_test.h"

using namespace test;

namespace {

namespace fs = std::filesystem;

void ignore(void *, xmlErrorPtr) {}

// Whether the schema accepts a file.
class Schema {
public:
    Schema()
    {
        xmlSetStructuredErrorFunc(nullptr, ignore);
        xmlRelaxNGParserCtxtPtr parser = xmlRelaxNGNewParserCtxt(KESTA_SCHEMA);
        schema_ = xmlRelaxNGParse(parser);
        xmlRelaxNGFreeParserCtxt(parser);
        EXPECT_NE(schema_, nullptr) << KESTA_SCHEMA;
    }
    ~Schema()
    {
        xmlRelaxNGFree(schema_);
        xmlSetStructuredErrorFunc(nullptr, nullptr);
    }
    bool accepts(const fs::path &file) const
    {
        xmlDocPtr doc = xmlParseFile(file.c_str());
        if (!doc) {
            return false;
        }
        xmlRelaxNGValidCtxtPtr context = xmlRelaxNGNewValidCtxt(schema_);
        const bool valid = xmlRelaxNGValidateDoc(context, doc) == 0;
        xmlRelaxNGFreeValidCtxt(context);
        xmlFreeDoc(doc);
        return valid;
    }

private:
    xmlRelaxNGPtr schema_;
};

int read_by_library(const fs::path &file)
{
    const auto record = std::make_unique<KESTA_BACKUP_FILE>();
    write_file("/etc/kesta_sys/network/define.xml", read_file(file));
    return kestal_read_backupfile("network", record.get());
}

// Files whose names begin so are refused for what a schema can't say.
bool is_beyond_schema(const fs::path &file) { return file.filename().string().rfind("beyond-the-schema-", 0) == 0; }

}  // namespace

class DefinitionSchema : public LibraryTest {};

TEST_F(DefinitionSchema, AgreesWithTheReaderOverTheCorpus)
{
    run_shell("mkdir -p /etc/kesta_sys/network");
    const Schema schema;
    int files = 0;
    for (const bool accepted : {true, false}) {
        const fs::path folder = fs::path(KESTA_CORPUS) / (accepted ? "accepted" : "refused");
        for (const auto &entry : fs::directory_iterator(folder)) {
            ++files;
            EXPECT_EQ(read_by_library(entry.path()) == 0, accepted) << entry.path();
            EXPECT_EQ(schema.accepts(entry.path()), accepted || is_beyond_schema(entry.path())) << entry.path();
        }
    }
    EXPECT_GT(files, 60);
}

TEST_F(DefinitionSchema, ExampleGroupIsAccepted) { EXPECT_TRUE(Schema().accepts(KESTA_EXAMPLE "/define.xml")); }
