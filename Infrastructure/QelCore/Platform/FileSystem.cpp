// File-system queries and changes (see FileSystem.h for the decisions behind each).
#include "Infrastructure/QelCore/Platform/FileSystem.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <dirent.h>
#include <fcntl.h>
#include <fnmatch.h>
#include <sys/stat.h>
#include <unistd.h>

namespace Qel::Core::Platform {

PathKind StatPath(const std::string& path, std::uint64_t* size)
{
    if (size != nullptr) *size = 0;
    struct stat info;
    if (path.empty() || ::stat(path.c_str(), &info) != 0) return PathKind::eNONE;
    if (S_ISDIR(info.st_mode)) return PathKind::eDIRECTORY;
    if (!S_ISREG(info.st_mode)) return PathKind::eOTHER;
    if (size != nullptr) *size = static_cast<std::uint64_t>(info.st_size);
    return PathKind::eFILE;
}

bool MakeDirectory(const std::string& path)
{
    if (::mkdir(path.c_str(), 0777) == 0) return true;
    // Made by someone else in the meantime: there it is.
    return errno == EEXIST && StatPath(path) == PathKind::eDIRECTORY;
}

bool RemoveFile(const std::string& path)
{
    return ::unlink(path.c_str()) == 0;
}

bool RemoveDirectory(const std::string& path)
{
    return ::rmdir(path.c_str()) == 0;
}

bool RenameNoReplace(const std::string& from, const std::string& to)
{
    if (::renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), RENAME_NOREPLACE) == 0) return true;
    if (errno != EINVAL && errno != ENOSYS) return false;
    // The file system cannot rename without replacing.
    PathKind kind = StatPath(from);
    if (kind == PathKind::eDIRECTORY) {
        if (StatPath(to) != PathKind::eNONE) return false;
        return ::rename(from.c_str(), to.c_str()) == 0;
    }
    if (::link(from.c_str(), to.c_str()) != 0) return false; // fails when the target exists
    return ::unlink(from.c_str()) == 0;
}

bool ListDirectory(const std::string& folder, const std::string& pattern, std::vector<std::string>& names)
{
    DIR* directory = ::opendir(folder.empty() ? "." : folder.c_str());
    if (directory == nullptr) return false;
    std::string wanted = pattern.empty() || pattern == "*.*" ? "*" : pattern;
    while (struct dirent* entry = ::readdir(directory)) {
        if (::fnmatch(wanted.c_str(), entry->d_name, 0) == 0) names.emplace_back(entry->d_name);
    }
    ::closedir(directory);
    return true;
}

std::string CurrentDirectory()
{
    char* current = ::getcwd(nullptr, 0);
    if (current == nullptr) return std::string();
    std::string text(current);
    std::free(current);
    while (text.size() > 1 && text.back() == '/') text.pop_back();
    return text;
}

} // namespace Qel::Core::Platform
