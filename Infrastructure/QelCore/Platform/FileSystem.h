// The file-system queries and changes of path names.
//
// Porting decisions taken here:
// - Paths are POSIX paths ("/" separates); the callers turn "\" into "/" first.
// - A file is removed with unlink, a folder with rmdir: neither removes the other kind.
// - A rename never replaces an existing target (renameat2 with RENAME_NOREPLACE; where the file
//   system cannot do that, a hard link and an unlink for files, and a check before the rename for
//   folders).
// - A listing matches names with fnmatch ("*", "?", "[...]"); "*.*" matches every name, as it does
//   on the original platform. A listing of a missing folder fails; a folder with no matching name
//   is an empty listing.
// - Folders are made with mode 0777, less the process's umask.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace Qel::Core::Platform {

enum class PathKind { eNONE, eFILE, eDIRECTORY, eOTHER };

// What the path names (links followed), and the size of a regular file.
PathKind StatPath(const std::string& path, std::uint64_t* size = nullptr);
bool MakeDirectory(const std::string& path);
bool RemoveFile(const std::string& path);
bool RemoveDirectory(const std::string& path);
bool RenameNoReplace(const std::string& from, const std::string& to);
// Appends the names in the folder that match the pattern; false when the folder cannot be read.
bool ListDirectory(const std::string& folder, const std::string& pattern, std::vector<std::string>& names);
// The current folder, without a trailing "/"; empty when it cannot be had.
std::string CurrentDirectory();

} // namespace Qel::Core::Platform
