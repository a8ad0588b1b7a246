// Files that are replaced whole, and survive a power cut once the call has returned.
#pragma once

namespace platform {

// Puts a finished temporary file in the place of path: flushes it, renames it, flushes the folder.
// The temporary file is gone afterwards in any case. Returns 0 or a negative errno.
int publish_file(int fd, const char *temporary, const char *path);

// Creates a temporary file beside path. Its name begins with a dot, and goes into temporary
// (path_size bytes). Returns its descriptor, or a negative errno.
int create_beside(const char *path, char *temporary, unsigned size);

// Replaces path by the text. Returns 0 or a negative errno.
int replace_file(const char *path, const char *text, unsigned length);

// Flushes the folder that holds path. Returns 0 or a negative errno.
int flush_folder_of(const char *path);

// Writes all bytes. Returns 0 or a negative errno.
int write_all(int fd, const void *data, unsigned long size, long offset);

}  // namespace platform
