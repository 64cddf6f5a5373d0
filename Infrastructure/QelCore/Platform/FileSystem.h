// The file system as PathName needs it: what a path names and how big it is, making and removing
// folders, removing files, renaming without replacing, listing a folder, the current folder.
//
// Paths here are Linux paths (separators `/`); PathName turns its own text into one first.
// None of these functions throws; each reports by its result alone and gives no reason.
//
// Porting decisions taken here:
// - What a path names is asked with stat, which follows symbolic links, as the original
//   platform's stat did for its links: a link to a folder is a folder, a link to a file a file.
// - Files are removed with unlink, which never removes a folder (the original's remove did not
//   either); folders with rmdir, which removes only empty ones.
// - Renaming never replaces an existing target (the original platform's rename refused to):
//   renameat2 with RENAME_NOREPLACE; where the file system does not know the flag (EINVAL) or the
//   kernel lacks the call (ENOSYS), a file is moved by link and unlink (link refuses an existing
//   target atomically), and a folder, or a file on a file system without hard links, is renamed
//   after a check that the target does not exist (not atomic there, the best that is left).
// - A folder is listed with opendir and readdir, in the order the system gives, "." and ".."
//   included. Only `*` and `?` are wildcards of a filter, as on the original platform: `[` and `\`
//   stand for themselves, and the filter `*.*` matches every name, also one without a dot.
//   Matching is case-sensitive, as Linux names are.
// - New folders get the mode 0777, narrowed by the process's umask.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace Qel::Core::Platform {

enum class PathKind
{
    None,      // nothing there, or it cannot be asked (no permission on a folder on the way)
    File,      // a regular file
    Directory, // a folder
    Other      // a device, a pipe, a socket
};

struct PathStatus
{
    PathKind eKind = PathKind::None;
    std::uint64_t nSize = 0; // bytes of a regular file, else 0
};

// What the path names (links followed) and, for a regular file, its size.
PathStatus Stat(const std::string& sPath);

// Makes one folder; its parent must exist. False also when something exists under the name.
bool MakeDirectory(const std::string& sPath);

// Removes an empty folder.
bool RemoveDirectory(const std::string& sPath);

// Removes a file (unlink); never a folder.
bool RemoveFile(const std::string& sPath);

// Renames (moves) `sFrom` to `sTo` unless something exists under `sTo`.
bool RenameNoReplace(const std::string& sFrom, const std::string& sTo);

// Appends to `vNames` the names in the folder `sDir` that match `sPattern` (see above). False when
// the folder cannot be opened (missing, no folder, no permission) or reading it fails; names read
// before a failure stay appended.
bool ListDirectory(const std::string& sDir, const std::string& sPattern, std::vector<std::string>& vNames);

// The process's current folder (getcwd), without a trailing separator unless it is the root;
// empty if it cannot be read (removed, or not reachable).
std::string CurrentDirectory();

} // namespace Qel::Core::Platform
