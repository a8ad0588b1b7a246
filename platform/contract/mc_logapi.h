/* libmc_logapi: the trace log of the platform. */
#ifndef MC_LOGAPI_H
#define MC_LOGAPI_H

#ifdef __cplusplus
extern "C" {
#endif

/*
 * Writes one trace line.
 *
 * file, line  where the trace stands in the source
 * level       1 error, 2 abnormal but handled, 3 notable event, 4 detail, 5 progress
 * format      printf-style text, one line of any length; the log keeps 1024 characters of it or more
 *
 * Never fails its caller and leaves errno as it was.
 */
__attribute__((format(printf, 4, 5))) void MC_OutTrace(const char *file, int line, int level, const char *format, ...);

/* Returns the part of a source path that is worth printing, its file name: a pointer into path. */
const char *MC_FilePathDel(const char *path);

#ifdef __cplusplus
}
#endif

#endif
