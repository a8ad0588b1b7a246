/*
 * Scripts that change files on another controller, step by step as the maintenance user. The library
 * writes them; the caller runs them with /bin/sh. A step that doesn't end within about 15 seconds is
 * killed, and its number is the script's exit code; how a step ended is not looked at.
 */
#ifndef KESTA_REMOTE_SCRIPTS_H
#define KESTA_REMOTE_SCRIPTS_H

#include "kesta/base.h"
#include "kesta/paths.h" /* KESTA_SAMEFILE_SCRIPT, KESTA_TARZ_SCRIPT */

KESTA_BEGIN_DECLS

/*
 * Writes KESTA_SAMEFILE_SCRIPT: it brings files of this controller to the same paths of another one.
 *
 * cnt       the other controller
 * files, n  absolute paths; n is the index of the last one, so that there are n + 1
 *
 * The script's exit codes: 1 touch, 2 first chown, 3 + i copy of files[i], 6 second chown, 7 chmod. With
 * four files and more they overlap.
 *
 * Returns 0; KESTA_ERR (the script could not be written whole, or a step is longer than 511
 * characters); KESTA_ERR_ARGUMENT (a null list, or a name that is null or no
 * shell word, see shell_word.h).
 */
KESTA_API int kestal_make_rsh_samefilename_script(int cnt, char **files, int n);

/*
 * Writes KESTA_TARZ_SCRIPT: it copies another controller's accept.tar.Z over its backup.tar.Z. Exit
 * codes: 1 first chown, 2 copy, 3 second chown.
 *
 * Returns 0 or KESTA_ERR.
 */
KESTA_API int kestal_make_rsh_tarz_script(int cnt);

KESTA_END_DECLS

#endif
