/*
 * libsbacc: named files of the system backup area. Results below 0 are failures, and only those: a positive
 * errno passes for a success, or for a number of bytes. Names have up to 31 characters, all of which count.
 */
#ifndef SBACC_H
#define SBACC_H

#ifdef __cplusplus
extern "C" {
#endif

/*
 * Opens a file. mode is "r" or "w". Returns 0 with a handle.
 * close_flag receives 1 if the file was closed properly by its last writer, 0 if not.
 *
 * "w" makes a file that is not there. What is there stays until something is written: the size of an
 * archive is recorded in a second opening, after the first close. A file that is not there can't be
 * opened with "r".
 */
int sbacc_open(const char *name, const char *mode, int *handle, int *close_flag);

/*
 * Return the number of bytes transferred, and never more than that. Archives are transferred in one call,
 * however large they are. Bytes go to their offset, and come from it; where the file ends, a read is
 * short. What is written takes the place of all that was there.
 */
int sbacc_read(void *buffer, unsigned int size, unsigned int offset, int handle);
int sbacc_write(const void *buffer, unsigned int size, unsigned int offset, int handle);

/*
 * The recorded size in bytes, 0 for a file without contents; and recording it (0 or more: done), in an opening
 * with "w" in which nothing is written: the contents stay as they are.
 */
int sbacc_read_size(int handle);
int sbacc_write_size(unsigned int size, int handle);

/* Closes the handle; 0 = closed. What was written is visible, whole, from here on. */
int sbacc_close(int handle);

#ifdef __cplusplus
}
#endif

#endif
