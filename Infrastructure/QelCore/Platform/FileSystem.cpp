// The file system as PathName needs it (see FileSystem.h for the porting decisions).
#include "Infrastructure/QelCore/Platform/FileSystem.h"

#include <cerrno>
#include <cstdio>
#include <dirent.h>
#include <fcntl.h>
#include <fnmatch.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>

namespace Qel::Core::Platform {

namespace {

// The filter as fnmatch reads it with FNM_NOESCAPE: only `*` and `?` stay wildcards, `[` becomes
// the bracket expression that matches itself. `*.*` matches every name, as it always did on the
// original platform.
std::string FnmatchPattern(const std::string& sPattern)
{
    if (sPattern == "*.*") return "*";
    std::string sResult;
    sResult.reserve(sPattern.size());
    for (char c : sPattern) {
        if (c == '[') sResult += "[[]";
        else sResult += c;
    }
    return sResult;
}

bool Exists(const std::string& sPath)
{
    struct stat st;
    return ::lstat(sPath.c_str(), &st) == 0 || errno != ENOENT;
}

} // namespace

PathStatus Stat(const std::string& sPath)
{
    PathStatus status;
    struct stat st;
    if (::stat(sPath.c_str(), &st) != 0) return status;
    if (S_ISREG(st.st_mode)) {
        status.eKind = PathKind::File;
        status.nSize = static_cast<std::uint64_t>(st.st_size);
    } else if (S_ISDIR(st.st_mode)) {
        status.eKind = PathKind::Directory;
    } else {
        status.eKind = PathKind::Other;
    }
    return status;
}

bool MakeDirectory(const std::string& sPath)
{
    return ::mkdir(sPath.c_str(), 0777) == 0;
}

bool RemoveDirectory(const std::string& sPath)
{
    return ::rmdir(sPath.c_str()) == 0;
}

bool RemoveFile(const std::string& sPath)
{
    return ::unlink(sPath.c_str()) == 0;
}

bool RenameNoReplace(const std::string& sFrom, const std::string& sTo)
{
    if (::renameat2(AT_FDCWD, sFrom.c_str(), AT_FDCWD, sTo.c_str(), RENAME_NOREPLACE) == 0) return true;
    if (errno != EINVAL && errno != ENOSYS) return false;

    // EINVAL also stands for moving a folder into itself; the fallbacks fail on that as well.
    struct stat st;
    if (::lstat(sFrom.c_str(), &st) != 0) return false;
    if (!S_ISDIR(st.st_mode)) {
        if (::link(sFrom.c_str(), sTo.c_str()) == 0) {
            if (::unlink(sFrom.c_str()) == 0) return true;
            ::unlink(sTo.c_str());
            return false;
        }
        if (errno == EEXIST) return false;
        // No hard links on this file system: the check below is all that is left.
    }
    if (Exists(sTo)) return false;
    return ::rename(sFrom.c_str(), sTo.c_str()) == 0;
}

bool ListDirectory(const std::string& sDir, const std::string& sPattern, std::vector<std::string>& vNames)
{
    DIR* pDir = ::opendir(sDir.c_str());
    if (pDir == nullptr) return false;
    const std::string sFnmatch = FnmatchPattern(sPattern);
    bool bOk = true;
    for (;;) {
        errno = 0;
        const dirent* pEntry = ::readdir(pDir);
        if (pEntry == nullptr) {
            bOk = errno == 0;
            break;
        }
        if (::fnmatch(sFnmatch.c_str(), pEntry->d_name, FNM_NOESCAPE) == 0) vNames.emplace_back(pEntry->d_name);
    }
    ::closedir(pDir);
    return bOk;
}

std::string CurrentDirectory()
{
    std::string sBuffer(256, '\0');
    for (;;) {
        if (::getcwd(sBuffer.data(), sBuffer.size()) != nullptr) {
            sBuffer.resize(std::char_traits<char>::length(sBuffer.c_str()));
            // getcwd names an unreachable folder "(unreachable)/..." on old kernels: not a path.
            if (sBuffer.empty() || sBuffer[0] != '/') return std::string();
            return sBuffer;
        }
        if (errno != ERANGE) return std::string();
        sBuffer.assign(sBuffer.size() * 2, '\0');
    }
}

} // namespace Qel::Core::Platform
