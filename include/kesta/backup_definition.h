/*
 * The definition of a backup group: which files it has, what they must look like, and which scripts
 * are run around a backup and a restore. It is read from /etc/kesta_sys/GROUP/define.xml;
 * docs/definitions.md describes that file.
 */
#ifndef KESTA_BACKUP_DEFINITION_H
#define KESTA_BACKUP_DEFINITION_H

#include <stdint.h>

#include "kesta/base.h"
#include "kesta/nv_image.h"

KESTA_BEGIN_DECLS

/*
 * libxml2's types, for those who go through a document themselves. No header here needs libxml2's; who calls
 * libxml2, or links the static library, needs libxml2-dev.
 */
typedef struct _xmlDoc xmlDoc;
typedef xmlDoc *xmlDocPtr;
typedef struct _xmlNode xmlNode;
typedef xmlNode *xmlNodePtr;
typedef struct _xmlXPathContext xmlXPathContext;
typedef xmlXPathContext *xmlXPathContextPtr;

#define KESTA_DEFINITION_FILES 64
#define KESTA_DEFINITION_LINKS 8
#define KESTA_DEFINITION_SCRIPTS 4
#define KESTA_DEFINITION_PATH_SIZE 256
#define KESTA_DEFINITION_SCRIPT_SIZE 512

/* One file of a group. All texts end in NUL. */
typedef struct {
    char pathname[KESTA_DEFINITION_PATH_SIZE]; /* absolute path; empty: the list ends before it */
    char linkpath[KESTA_DEFINITION_LINKS][KESTA_DEFINITION_PATH_SIZE]; /* links that point to it */
    char owner[32];                                                    /* user name or number; empty: leave it */
    char group[32];                                                    /* group name or number; empty: leave it */
    char filemode[8];                                                  /* digits; empty: leave it */
    char filler[24];
    int32_t cntmode;
    int32_t rbmode;
    int32_t distribution;
    int32_t diffreboot;
} KESTA_BACKUP_FILE_PATH;

/* The i-th script of each kind. */
typedef struct {
    char pre_script[KESTA_DEFINITION_SCRIPT_SIZE];
    char post_script[KESTA_DEFINITION_SCRIPT_SIZE];
    char re_post_script[KESTA_DEFINITION_SCRIPT_SIZE];
    int32_t pre_order;  /* never filled: 0 */
    int32_t post_order; /* of the post-script, or of the pre-script: whichever comes later */
    int32_t re_post_order;
    int32_t filler;
} KESTA_BACKUP_FILE_SCRIPT_SUB;

typedef struct {
    KESTA_BACKUP_FILE_SCRIPT_SUB back_script[KESTA_DEFINITION_SCRIPTS];
    int32_t back_reboot;
    KESTA_BACKUP_FILE_SCRIPT_SUB restore_script[KESTA_DEFINITION_SCRIPTS];
    int32_t restore_reboot;
} KESTA_BACKUP_FILE_SCRIPT;

/* One definition: about 160 KB. */
typedef struct {
    char groupname[KESTA_GROUP_NAME_SIZE];
    char operation[16];
    char type[16];
    char filler[16];
    KESTA_BACKUP_FILE_PATH setfile[KESTA_DEFINITION_FILES];
    KESTA_BACKUP_FILE_SCRIPT script;
} KESTA_BACKUP_FILE;

/* Start and end the XML library, once each in a process, outside concurrent reading. Return 0. */
KESTA_API int kestal_init_xml(void);
KESTA_API int kestal_term_xml(void);

/*
 * Reads the definition of a group. Nothing is fetched for it: no network, no external entity.
 *
 * record  cleared first; on failure it holds what was read so far
 *
 * Returns 0; KESTA_ERR_DEFINITION_FILE (no such file, no XML, or wrong contents);
 * KESTA_ERR_DEFINITION_GROUP (it names another group); KESTA_ERR_ARGUMENT (null, or a name that makes
 * a path of more than 255 characters).
 */
KESTA_API int kestal_read_backupfile(const char *group, KESTA_BACKUP_FILE *record);

/*
 * Its steps. start: parses a local file; the caller gives document and context back with end, which
 * frees both. execute: fills the record. They return 0, KESTA_ERR_DEFINITION_FILE,
 * KESTA_ERR_DEFINITION (wrong contents) or KESTA_ERR_ARGUMENT.
 */
KESTA_API int kestal_start_xml_parse(char *file, KESTA_BACKUP_FILE *record, xmlDocPtr *doc,
                                     xmlXPathContextPtr *context);
KESTA_API int kestal_execute_xml_parse(xmlDocPtr *doc, xmlXPathContextPtr *context, KESTA_BACKUP_FILE *record);
KESTA_API int kestal_end_xml_parse(xmlDocPtr *doc, xmlXPathContextPtr *context);

/*
 * Parts of execute: the root element, the one setinfo, its files, the scripts, and the scripts of one
 * side (nodekind 1 backup, 2 restore). They return 0, KESTA_ERR_DEFINITION or KESTA_ERR_ARGUMENT.
 */
KESTA_API int kestal_xml_get_group(xmlDocPtr *doc, xmlXPathContextPtr *context, KESTA_BACKUP_FILE *record);
KESTA_API int kestal_xml_get_setinfo(xmlDocPtr *doc, xmlXPathContextPtr *context, KESTA_BACKUP_FILE *record);
KESTA_API int kestal_xml_get_file(xmlDocPtr *doc, xmlXPathContextPtr *context, KESTA_BACKUP_FILE *record);
KESTA_API int kestal_xml_get_script(xmlDocPtr *doc, xmlXPathContextPtr *context, KESTA_BACKUP_FILE *record);
KESTA_API int kestal_xml_get_com_in_script(int nodekind, xmlDocPtr *doc, xmlXPathContextPtr *context,
                                           KESTA_BACKUP_FILE *record);

/*
 * Reads one attribute.
 *
 * destination, buflen  a text of at most buflen - 1 characters, or 4 bytes for an integer
 * copytype             0 text, 1 integer (decimal digits only)
 *
 * Returns 0; KESTA_ERR_DEFINITION (there is none); KESTA_ERR (too long, or no number; the destination
 * is as it was); KESTA_ERR_ARGUMENT.
 */
KESTA_API int kestal_xml_get_property(xmlNodePtr *node, const char *name, char *destination, int buflen, int copytype);

/* Sets *check_result to 1 if the text contains "*", else 0. Returns 0 or KESTA_ERR_ARGUMENT (null). */
KESTA_API int kestal_check_wildcard(int *check_result, const char *check_string);

/*
 * Puts links, owners, groups and modes of the files of a definition in order, file by file; the first
 * failure ends it, and nothing is undone.
 *
 * cntno  0..3; checked, and of no other effect
 *
 * Returns 0; KESTA_ERR (a file is missing, unless the operation is "addremove"; a link command failed,
 * or would have to contain a path that is no shell word, see shell_word.h; owner, group or mode could not be set);
 * KESTA_ERR_ARGUMENT.
 */
KESTA_API int kestal_change_fileprop(KESTA_BACKUP_FILE *definition, int cntno);

/*
 * Set owner, group or mode of a file; links are followed. A name that begins with digits is taken as a
 * number. A mode is 1 to 777 read as decimal, and applied as octal.
 *
 * Return 0; KESTA_ERR_FILE_PROPERTY (the system call failed); KESTA_ERR_ARGUMENT (null, unknown name,
 * mode out of range); KESTA_ERR (the mode is no number).
 */
KESTA_API int kestal_change_owner(char *file, const char *owner);
KESTA_API int kestal_change_group(char *file, const char *group);
KESTA_API int kestal_change_filemode(char *file, const char *mode);

KESTA_END_DECLS

#endif
