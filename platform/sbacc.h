/* libsbacc: named files of the system backup area. Results below 0 are failures. */
#ifndef SBACC_H
#define SBACC_H

#ifdef __cplusplus
extern "C" {
#endif

/*
 * Opens a file. mode is "r" or "w". Returns 0 with a handle.
 * close_flag receives 1 if the file was closed properly by its last writer, 0 if not.
 */
int sbacc_open(const char *name, const char *mode, int *handle, int *close_flag);

/* Return the number of bytes transferred. */
int sbacc_read(void *buffer, unsigned int size, unsigned int offset, int handle);
int sbacc_write(const void *buffer, unsigned int size, unsigned int offset, int handle);

/* The recorded size in bytes, and recording it (0 or more: done). */
int sbacc_read_size(int handle);
int sbacc_write_size(unsigned int size, int handle);

/* Closes the handle; 0 = closed. What was written is visible, whole, from here on. */
int sbacc_close(int handle);

#ifdef __cplusplus
}
#endif

#endif
