// Path helpers, createDirectory and deleteFile.
#include <errno.h>
#include <limits.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>

#include <cstring>
#include <string>

#include "zelkit3/filesystem.h"

namespace zelkit3 {

std::string FileSystemUtils::addSlashToPath(const char* path) {
  std::string folder(path);
  if (folder.empty()) return folder;
  const char last = folder.back();
  if (last != '/' && last != '\\') folder += '/';
  return folder;
}

bool FileSystemUtils::createDirectory(const char* path) {
  if (path == nullptr || path[0] == '\0') return false;
  const std::string text(path);
  // A leading slash names the root, which is never made.
  size_t search = text[0] == '/' ? 1 : 0;
  for (;;) {
    const size_t separator = text.find_first_of("/\\", search);
    if (separator == std::string::npos) return true;
    // Private by default: callers widen the mode if they need to.
    if (mkdir(text.substr(0, separator).c_str(), 0700) != 0 && errno != EEXIST) return false;
    search = separator + 1;
  }
}

bool FileSystemUtils::deleteDirectory(const char* path, int* errorCode) {
  return PosixDeleteDirectory(path, errorCode);
}

bool FileSystemUtils::deleteFile(const char* path, int* errorCode) {
  if (unlink(path) == 0) return true;
  if (errno == ENOENT || errno == ENOTDIR) return true;  // nothing there to delete
  *errorCode = errno;
  return false;
}

std::string FileSystemUtils::getFileFromFilePath(const char* path) {
  if (path == nullptr) return std::string();
  std::string full = getFullPath(path);
  if (full.empty()) return full;
  return full.substr(full.rfind('/') + 1);
}

std::string FileSystemUtils::getFolderFromFilePath(const char* path) {
  if (path == nullptr) return std::string();
  const char* slash = std::strrchr(path, '/');
  if (slash == nullptr) return std::string();
  return std::string(path, slash);
}

std::string FileSystemUtils::getFullPath(const char* path) {
  if (path == nullptr) return std::string();
  // realpath writes at most PATH_MAX bytes, 4096 on Linux.
  char buffer[PATH_MAX];
  if (realpath(path, buffer) == nullptr) return std::string();
  return std::string(buffer);
}

}  // namespace zelkit3
