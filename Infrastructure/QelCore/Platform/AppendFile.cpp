// Shared append files (see AppendFile.h).
#include "Infrastructure/QelCore/Platform/AppendFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

namespace Qel::Core::Platform {
namespace {

// Writes all bytes, continuing after a signal or a short count.
bool WriteAll(int file, const char* data, std::size_t size)
{
    while (size > 0) {
        ssize_t written = ::write(file, data, size);
        if (written < 0) {
            if (errno == EINTR) continue;
            return false;
        }
        if (written == 0) return false;
        data += written;
        size -= static_cast<std::size_t>(written);
    }
    return true;
}

} // namespace

AppendFile::~AppendFile()
{
    Close();
}

bool AppendFile::Open(const std::string& path)
{
    Close();
    int file;
    do {
        file = ::open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0666);
    } while (file < 0 && errno == EINTR);
    if (file < 0) return false;
    m_iFile = file;
    return true;
}

void AppendFile::Close()
{
    if (m_iFile < 0) return;
    ::close(m_iFile);
    m_iFile = -1;
}

bool AppendFile::Write(const char* data, std::size_t size)
{
    if (m_iFile < 0) return false;
    return WriteAll(m_iFile, data, size);
}

bool AppendFile::Size(std::uint64_t& size) const
{
    struct stat status;
    if (m_iFile < 0 || ::fstat(m_iFile, &status) != 0) return false;
    size = static_cast<std::uint64_t>(status.st_size);
    return true;
}

bool AppendFile::Status(std::uint64_t& size, bool& removed) const
{
    struct stat status;
    if (m_iFile < 0 || ::fstat(m_iFile, &status) != 0) return false;
    size = static_cast<std::uint64_t>(status.st_size);
    removed = status.st_nlink == 0;
    return true;
}

bool AppendFile::IsFileAt(const std::string& path) const
{
    struct stat open;
    struct stat named;
    if (m_iFile < 0 || ::fstat(m_iFile, &open) != 0) return false;
    if (::stat(path.c_str(), &named) != 0) return false;
    return open.st_dev == named.st_dev && open.st_ino == named.st_ino;
}

bool AppendFile::Truncate()
{
    if (m_iFile < 0) return false;
    int result;
    do {
        result = ::ftruncate(m_iFile, 0);
    } while (result != 0 && errno == EINTR);
    return result == 0;
}

bool RenameReplacing(const std::string& from, const std::string& to)
{
    return ::rename(from.c_str(), to.c_str()) == 0;
}

bool CopyFileReplacing(const std::string& from, const std::string& to)
{
    int source = ::open(from.c_str(), O_RDONLY | O_CLOEXEC);
    if (source < 0) return false;
    int target = ::open(to.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
    if (target < 0) {
        ::close(source);
        return false;
    }
    bool good = true;
    char buffer[65536];
    for (;;) {
        ssize_t got = ::read(source, buffer, sizeof buffer);
        if (got < 0 && errno == EINTR) continue;
        if (got < 0) {
            good = false;
            break;
        }
        if (got == 0) break;
        if (!WriteAll(target, buffer, static_cast<std::size_t>(got))) {
            good = false;
            break;
        }
    }
    ::close(source);
    if (::close(target) != 0) good = false;
    return good;
}

CreateResult CreateFileWithText(const std::string& path, const std::string& text)
{
    int file;
    do {
        file = ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
    } while (file < 0 && errno == EINTR);
    if (file < 0) return errno == EEXIST ? CreateResult::Exists : CreateResult::Failed;
    bool good = WriteAll(file, text.data(), text.size());
    if (::close(file) != 0) good = false;
    return good ? CreateResult::Created : CreateResult::Failed;
}

} // namespace Qel::Core::Platform
