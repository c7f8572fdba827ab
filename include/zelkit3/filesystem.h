// zelkit3/filesystem.h - path helpers and the deletion of files and trees.
//
// Stateless helpers on narrow POSIX paths in the system's encoding. Text
// results are std::string values that the caller owns. Separators are not
// treated alike: createDirectory splits at '/' and '\\', addSlashToPath
// accepts either as a final separator but adds '/', and the two path
// splitters split at '/' only.
//
// Failure is told by a bool or an empty result. The delete family also stores
// an errno value through errorCode, which must not be null and is written
// without a test; a success leaves it as it was (except where a directory is
// read, see deleteDirectoryInternalR), so it means something only after false.
//
// Every function may be called from any thread: there is no shared state and
// the working directory is never changed. Nothing protects a tree against
// changes by others while it is deleted; the results are then those listed at
// deleteDirectoryInternalR, and the walk never leaves the tree it was given.
#ifndef ZELKIT3_FILESYSTEM_H
#define ZELKIT3_FILESYSTEM_H

#include <string>

#include "zelkit3/export.h"

namespace zelkit3 {

// The classification of a path by lstat: a link is never followed.
enum FileStatus {
  FILE_STATUS_ERROR = 0,      // the status could not be read; the error was stored
  FILE_STATUS_FILE = 1,       // anything but a directory, a link to a directory included
  FILE_STATUS_DIRECTORY = 2,  // a directory, not a link to one
  FILE_STATUS_NOT_FOUND = 3   // nothing is there
};

class ZK3_API FileSystemUtils {
 public:
  // path with a final separator: unchanged if it ends in '/' or '\\', else
  // with '/' appended; an empty path stays empty. path must not be null.
  static std::string addSlashToPath(const char* path);

  // Makes every folder named in front of a '/' or '\\' of path, in order,
  // with mode 0700; the last name is made only if a separator follows it.
  // True if all those folders exist now; false for a null or empty path or at
  // the first mkdir that fails other than with EEXIST (folders made stay).
  static bool createDirectory(const char* path);

  // Deletes path and, if it is a directory, everything in it, depth first;
  // a symbolic link is removed, never followed. True if the path is gone
  // (also if it never existed); otherwise false with errno in *errorCode.
  static bool deleteDirectory(const char* path, int* errorCode);

  // unlink(path). True on success and when nothing is there (ENOENT,
  // ENOTDIR: errorCode untouched); otherwise false with errno in *errorCode.
  static bool deleteFile(const char* path, int* errorCode);

  // The last name of getFullPath(path): for a link, its target's name. Empty
  // for a null path, a path that does not resolve, and the root folder.
  static std::string getFileFromFilePath(const char* path);

  // The text in front of the last '/' of path; empty for a null path or one
  // without a slash. Pure text: the file need not exist.
  static std::string getFolderFromFilePath(const char* path);

  // realpath of path: absolute, without dot entries or links. Empty if it
  // fails (the path must exist and resolve within 4096 bytes) or path is null.
  static std::string getFullPath(const char* path);
};

// lstat(path): FILE_STATUS_DIRECTORY or FILE_STATUS_FILE; NOT_FOUND for ENOENT
// and ENOTDIR (errorCode untouched); on any other failure FILE_STATUS_ERROR
// with errno in *errorCode.
ZK3_API FileStatus getFileStatus(const char* path, int* errorCode);

// unlink(path): true on success; any failure, ENOENT included, stores errno
// and gives false.
ZK3_API bool deleteFileInternal(const char* path, int* errorCode);

// rmdir(path): true on success; any failure stores errno and gives false.
ZK3_API bool deleteDirectoryInternal(const char* path, int* errorCode);

// Deletes path, whose lstat status the caller gives. FILE_STATUS_FILE:
// deleteFileInternal. NOT_FOUND or ERROR: true at once (a child that vanished
// or whose status cannot be read is passed over). DIRECTORY: each entry is
// classified with getFileStatus on its full path and deleted in turn, in the
// order the directory delivers them; then the directory itself is removed.
// Each read of the directory stores its result (0 for a good read) in
// *errorCode. The walk stops at the first failure; what is deleted stays so.
// Failures: the folder cannot be opened (errno of the open; ENOTDIR if a link
// took the place of a directory, which is never followed), a read fails (the
// read's error), an unlink fails (its errno), or the final rmdir fails, e.g.
// ENOTEMPTY for a child passed over or an entry added during the walk.
ZK3_API bool deleteDirectoryInternalR(const char* path, FileStatus status, int* errorCode);

// getFileStatus(path), then deleteDirectoryInternalR with that status.
// FILE_STATUS_ERROR gives false. A missing path gives true; a file or link is
// deleted as such.
ZK3_API bool PosixDeleteDirectory(const char* path, int* errorCode);

}  // namespace zelkit3

#endif  // ZELKIT3_FILESYSTEM_H
