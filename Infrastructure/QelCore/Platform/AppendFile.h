// Files that several processes append to: the default log's entries file and its companions.
//
// Porting decisions taken here:
// - Linux has no share modes: every open file is shared. Shared append is a descriptor opened
//   with O_APPEND, and each entry goes out in one write(2), so that the entries of several
//   processes never tear or interleave and a crash costs at most the entry in flight (a short
//   write, which a regular file gives only when the disk is full, is continued).
// - New files get the mode 0666 and new folders 0777, both narrowed by the process's umask.
// - Renaming replaces the target atomically (rename(2)); a file that another process holds open
//   is renamed all the same, so a writer asks with IsFileAt whether its open file is still the
//   one at the path (device and inode) and opens the path again if not.
// - A document written once (CreateFileWithText) is created exclusively: of two processes that
//   try at once, one writes it and the other finds it there.
#pragma once

#include "Infrastructure/QelCore/QelCoreExport.h"

#include <cstddef>
#include <cstdint>
#include <string>

namespace Qel::Core::Platform {

// A file opened for appending. None of the calls throws; each blocks on the file system only.
class QEL_CORE_API AppendFile
{
public:
    AppendFile() = default;
    AppendFile(const AppendFile&) = delete;
    AppendFile& operator=(const AppendFile&) = delete;
    ~AppendFile();

    // Opens (creating) the file for appending; false when it cannot be opened.
    bool Open(const std::string& path);
    bool IsOpen() const { return m_iFile >= 0; }
    void Close();
    // A write(2) that stays within one page of the file is not cut short by a signal that kills
    // the process; one that crosses a page boundary may end at the boundary.
    static constexpr std::size_t sATOMIC_WRITE = 4096;
    // Appends the bytes with one write(2); false when they could not all be written.
    bool Write(const char* data, std::size_t size);
    // The length of the open file; false when it cannot be asked.
    bool Size(std::uint64_t& size) const;
    // The length of the open file and whether it has lost its last name (removed); one fstat.
    bool Status(std::uint64_t& size, bool& removed) const;
    // Whether `path` names the very file that is open (same device and inode).
    bool IsFileAt(const std::string& path) const;
    // Cuts the open file to length 0.
    bool Truncate();

private:
    int m_iFile = -1;
};

// Renames `from` to `to`, replacing what is at `to`.
QEL_CORE_API bool RenameReplacing(const std::string& from, const std::string& to);
// Copies the file `from` to `to`, replacing what is at `to`.
QEL_CORE_API bool CopyFileReplacing(const std::string& from, const std::string& to);

enum class CreateResult
{
    Created,
    Exists,
    Failed
};
// Creates the file with the text unless something is at the path already.
QEL_CORE_API CreateResult CreateFileWithText(const std::string& path, const std::string& text);

} // namespace Qel::Core::Platform
