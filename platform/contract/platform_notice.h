/* What a platform has to say to its operator: optional, an export of libsanfwctl that is looked up by its name. */
#ifndef PLATFORM_NOTICE_H
#define PLATFORM_NOTICE_H

#ifdef __cplusplus
extern "C" {
#endif

/*
 * Fills text (size bytes, ended by a NUL) with one line, for example when a certificate ends. Returns 1; 0 if there
 * is nothing to say. It asks nobody outside of this machine, and does not wait.
 */
int kesta_platform_notice(char *text, unsigned int size);

#ifdef __cplusplus
}
#endif

#endif
