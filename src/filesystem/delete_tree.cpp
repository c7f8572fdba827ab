// The recursive delete: file status, unlink, rmdir and the walk of a tree.

// 64-bit inode numbers and sizes on i386 too: without this, lstat and
// readdir_r fail with EOVERFLOW on file systems with large inode numbers.
// Nothing of struct stat or dirent crosses this file's interface.
#ifndef _FILE_OFFSET_BITS
#define _FILE_OFFSET_BITS 64
#endif

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>

#include <cstring>
#include <string>

#include "zelkit3/filesystem.h"

namespace zelkit3 {

namespace {

const int kDirectoryOpenFlags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;

bool isDotEntry(const char* name) {
  return name[0] == '.' && (name[1] == '\0' || (name[1] == '.' && name[2] == '\0'));
}

// Deletes everything in the directory open at dirFd, which this function
// takes over and closes. folder is the directory's path with its final
// separator, as addSlashToPath makes it; it is used to read the status of each
// entry and is given back unchanged.
//
// Entries are classified by their full path, but deleted and opened relative
// to their parent's descriptor, and a directory is opened with O_NOFOLLOW: a
// link swapped in for a directory during the walk fails the open (ENOTDIR)
// instead of leading the walk out of the tree. One descriptor and one dirent
// are held per level.
bool emptyDirectory(int dirFd, std::string& folder, int* errorCode) {
  DIR* dir = fdopendir(dirFd);
  if (dir == nullptr) {
    *errorCode = errno;
    close(dirFd);
    return false;
  }
  const size_t base = folder.size();
  bool ok = true;
  for (;;) {
    struct dirent entry;
    struct dirent* next = nullptr;
    // readdir_r is deprecated in favour of readdir, but its result is what
    // the contract stores at every read; entry lives on this level's stack.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
    const int readResult = readdir_r(dir, &entry, &next);
#pragma GCC diagnostic pop
    *errorCode = readResult;
    if (readResult != 0) {
      ok = false;
      break;
    }
    if (next == nullptr) break;
    const char* name = entry.d_name;
    if (isDotEntry(name)) continue;

    // Fast path: an entry that the directory itself reports as a non-directory
    // is unlinked without reading its status first. Any doubt (a type that is
    // unknown, a failed unlink, a full path too long for lstat or a folder
    // that does not end in '/') takes the full path below, so the outcome is
    // the same as with the status read first; it saves one lstat per file.
    if (entry.d_type != DT_DIR && entry.d_type != DT_UNKNOWN && folder[base - 1] == '/' &&
        base + std::strlen(name) < PATH_MAX && unlinkat(dirfd(dir), name, 0) == 0) {
      continue;
    }
    folder.resize(base);
    folder += name;
    const FileStatus status = getFileStatus(folder.c_str(), errorCode);
    if (status == FILE_STATUS_FILE) {
      if (unlinkat(dirfd(dir), name, 0) != 0) {
        *errorCode = errno;
        ok = false;
      }
    } else if (status == FILE_STATUS_DIRECTORY) {
      const int childFd = openat(dirfd(dir), name, kDirectoryOpenFlags);
      if (childFd < 0) {
        *errorCode = errno;
        ok = false;
      } else {
        // The child's own folder, by addSlashToPath's rule.
        const char last = folder.back();
        if (last != '/' && last != '\\') folder += '/';
        ok = emptyDirectory(childFd, folder, errorCode);
        if (ok && unlinkat(dirfd(dir), name, AT_REMOVEDIR) != 0) {
          *errorCode = errno;
          ok = false;
        }
      }
    }
    // NOT_FOUND and ERROR: the entry vanished or cannot be read; passed over,
    // so that the final rmdir reports the folder as not empty.
    if (!ok) break;
  }
  closedir(dir);
  folder.resize(base);
  return ok;
}

}  // namespace

FileStatus getFileStatus(const char* path, int* errorCode) {
  struct stat info;
  if (lstat(path, &info) == 0) {
    return S_ISDIR(info.st_mode) ? FILE_STATUS_DIRECTORY : FILE_STATUS_FILE;
  }
  if (errno == ENOENT || errno == ENOTDIR) return FILE_STATUS_NOT_FOUND;
  *errorCode = errno;
  return FILE_STATUS_ERROR;
}

bool deleteFileInternal(const char* path, int* errorCode) {
  if (unlink(path) == 0) return true;
  *errorCode = errno;
  return false;
}

bool deleteDirectoryInternal(const char* path, int* errorCode) {
  if (rmdir(path) == 0) return true;
  *errorCode = errno;
  return false;
}

bool deleteDirectoryInternalR(const char* path, FileStatus status, int* errorCode) {
  if (status == FILE_STATUS_FILE) return deleteFileInternal(path, errorCode);
  if (status != FILE_STATUS_DIRECTORY) return true;
  // path itself is opened without following a final link; a path that ends
  // in a separator is resolved like any other folder path.
  const int dirFd = open(path, kDirectoryOpenFlags);
  if (dirFd < 0) {
    *errorCode = errno;
    return false;
  }
  std::string folder = FileSystemUtils::addSlashToPath(path);
  if (!emptyDirectory(dirFd, folder, errorCode)) return false;
  return deleteDirectoryInternal(path, errorCode);
}

bool PosixDeleteDirectory(const char* path, int* errorCode) {
  const FileStatus status = getFileStatus(path, errorCode);
  if (status == FILE_STATUS_ERROR) return false;
  return deleteDirectoryInternalR(path, status, errorCode);
}

}  // namespace zelkit3
