// PathName: the library's value type for file-system paths.
//
// A path is one text. Its four parts are found by scanning the text on demand: the base (a drive
// letter such as "C", or a UNC server such as "\\server"), the branch (the directories), the leaf
// (the file name without extension) and the extension. Each change of a part rebuilds the text.
// Two formats fix the separators and limits: NT (the default: "\" and "/" separate, 260-character
// names) and UNIX ("/" separates, 31-character names).
//
// On Linux the NT format follows three more rules:
//  1. A path whose first character is "/" is absolute (the POSIX root), in either format; and
//     ForceRelative strips a leading separator of either kind.
//  2. When the text holds no separator, the preferred separator (the one that operations insert)
//     is "/"; a text that holds one keeps the first that it holds. So paths built by the library
//     use "/", and "D:\x" with ForceAsDir is still "D:\x\".
//  3. File-system operations turn "\" into "/". A path with a drive letter or a UNC base has no
//     meaning on Linux: its file-system operations fail (false, or 0), and never create a folder
//     named "C:".
// Files are removed with unlink (a folder is never removed in their place), Rename never
// replaces an existing target, and ForceAbsolute is lexical: the current folder and the text,
// with "." and ".." collapsed and links not resolved.
//
// File-system operations block on the file system, never raise and report by their result
// alone. Only operator+= raises (a typed error), and Rename through it. A PathName has no lock:
// distinct objects may be used on distinct threads.
#pragma once

#include "Infrastructure/QelCore/QelCoreExport.h"

#include <cstdint>
#include <string>
#include <vector>

namespace Qel::Core {

enum PathFormat : std::int32_t { NT = 0, UNIX = 1 };

class QEL_CORE_API PathName
{
public:
    PathName(PathFormat format = NT);
    PathName(const std::string& path, PathFormat format = NT);
    PathName(const char* path, PathFormat format = NT);
    PathName(const PathName& other) = default;
    PathName& operator=(const PathName& other) = default;
    // Replace the text; the format's parameters stay.
    PathName& operator=(const std::string& path);
    PathName& operator=(const char* path);

    operator const std::string&() const { return m_sPath; }
    operator const char*() const { return m_sPath.c_str(); }
    // Exact comparison of the text: case counts.
    bool operator==(const std::string& path) const { return m_sPath == path; }
    bool operator!=(const std::string& path) const { return m_sPath != path; }

    // Appends a relative path, with a separator between. An empty path takes the argument as it
    // is. Raises LogicError when this path is a file name (it has an extension) and
    // InvalidParameter when the argument has a base (logger "Qel.Core.PathName"); when an in-place
    // handler takes the error, the append goes on.
    PathName& operator+=(const std::string& path);
    PathName& operator+=(const char* aPath);

    // ---- the parts (text only) ----

    std::string GetBase() const;
    std::string GetBranch() const;
    std::string GetBaseAndBranch() const;
    std::string GetLeaf() const;
    std::string GetExt() const; // without the dot
    std::string GetLeafAndExt() const;
    bool HasBase() const;
    bool HasBranch() const;
    bool HasExt() const;
    bool HasLeaf() const;
    bool IsUNC() const;
    bool IsAbsolute() const;
    bool IsRelative() const { return !IsAbsolute(); }
    // A syntax check of the text against the format's characters and limits; knows no file system.
    bool IsValid() const;

    // ---- the file system ----

    // A path with a leaf names a regular file, one without (a trailing separator) a folder.
    bool Exists() const;
    bool IsDir() const;
    // Size of a regular file; 0 for a folder and for what does not exist.
    std::uint64_t GetLength() const;
    // Creates the folders of the branch (not the leaf); what it made stays when it fails.
    bool CreateBranch() const;

    // ---- changes of parts ----

    void SetBase(const std::string& base);
    void SetBranch(const std::string& branch);
    void AddBranch(const std::string& branch);
    void SetBaseAndBranch(const std::string& baseAndBranch);
    void SetLeaf(const std::string& leaf);
    void SetExt(const std::string& ext);
    void SetLeafAndExt(const std::string& leafAndExt);
    // Appends the preferred separator unless the text is empty or ends in a separator.
    void ForceAsDir();
    // Makes the path absolute against the current folder (see above). A UNC path stays as it is
    // (true); a path with a drive letter cannot be made absolute here (false, unchanged).
    bool ForceAbsolute();
    // Makes the path relative to the folder given: with an empty folder, drops the base (and on
    // Linux a leading "/"). Folder names compare without regard to case.
    void ForceRelative(const std::string& relativeTo);
    // Goes up to the parent of the path's folder: "a/b/c.txt" and "a/b/" become "a/", "/a/"
    // becomes "/". False, and nothing changes, when the branch has no folder to leave.
    bool UpDir();

    // ---- file-system changes ----

    // Removes the file, or the folder if the path names one (it must be empty). True also when
    // nothing exists under the path.
    bool Delete();
    // Removes the file `name` in the folder that this path names.
    bool Delete(const std::string& name);
    // Gives the last component a new name (a name, not a path); never replaces an existing
    // target. On success this path names the renamed file or folder.
    bool Rename(const std::string& newName);
    // Appends the names in the folder that match the filter ("*" and "?" wildcards), "." and ".."
    // included, in the order the system gives. False when the folder cannot be read.
    bool ReadDirectory(std::vector<std::string>& names, std::string filter) const;

protected:
    bool IsPathSeparator(char c) const;

private:
    void InitParams(PathFormat format);
    bool InitSeparators();
    void SetNT();
    void SetUNIX();
    // Index helpers on the text.
    std::size_t FindBaseSeparator() const;
    std::size_t LastSeparator() const;
    std::size_t LeafStart() const;
    bool EndsInSeparator(const std::string& text) const;
    // The text for the file system: "/" for "\", without a trailing separator; false for a path
    // with a base, which has no meaning here.
    bool FileSystemText(std::string& text, bool stripTrailingSeparator) const;

    std::string m_sPath;
    const char* m_pszValidChars;
    const char* m_pszSeparators;
    char m_cSeparator;
    const char* m_pszExtSeparator;
    const char* m_pszBaseSeparator;
    std::uint64_t m_nMaxLeafLength;
    std::uint64_t m_nMaxExtLength;
    std::uint64_t m_nMaxNameLength;
    std::uint64_t m_nMaxBaseLength;
    std::int32_t m_iMaxDirs;
};

// Replaces "$(CommonDataPath)" or "$(commondatapath)", and "$(UserDataPath)" or
// "$(userdatapath)", at the start of a configuration value by System's common and user data
// paths. Any other text, and a macro further in, comes back unchanged; nothing is added at the
// seam.
QEL_CORE_API std::string ExpandPathMacros(const std::string& s);

} // namespace Qel::Core
