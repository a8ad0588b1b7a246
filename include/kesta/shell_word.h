/*
 * Texts that become words of a shell command line. Several functions of the library run the command lines of
 * the appliance, in which a text of the caller's is one word: a group, a path, an identity value. They refuse
 * with KESTA_ERR_ARGUMENT what is none by this rule, before anything is done; callers can ask first.
 */
#ifndef KESTA_SHELL_WORD_H
#define KESTA_SHELL_WORD_H

#include <string.h>

#include "kesta/base.h"

KESTA_BEGIN_DECLS

/*
 * Whether a text is one word to the shell, with nothing in it that the shell would act on: letters, digits,
 * characters beyond ASCII, and . _ : + - = / @ , % ^, and # and ~ anywhere but at the beginning (there the
 * one begins a comment, and the other a home folder).
 *
 * text  may be null, which stands for a word that is left out
 *
 * Returns 1 or 0; 1 for null and for an empty text.
 */
static inline int kesta_is_shell_word(const char *text)
{
    static const char plain[] =
        "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789"
        "._:+-=/@,%^#~";
    const char *at;
    if (!text) {
        return 1;
    }
    if (*text == '#' || *text == '~') {
        return 0;
    }
    for (at = text; *at != '\0'; ++at) {
        if ((unsigned char)*at < 0x80 && !strchr(plain, *at)) {
            return 0;
        }
    }
    return 1;
}

KESTA_END_DECLS

#endif
