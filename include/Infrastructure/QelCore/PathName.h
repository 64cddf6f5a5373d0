// PathName: the library's value type for file-system paths.
//
// A PathName keeps a path as one text and answers, by scanning that text on demand, what its four
// parts are: the base (drive letter or UNC server), the branch (the directories), the leaf (the
// file name without extension) and the extension. Nothing is cached: every query scans the text,
// every change of a part rebuilds it. For `\\server\share\dir\file.txt1` and `C:\dir\file1.txt`:
//
//   part     UNC path           drive path
//   base     \\server           C             (the drive's colon is not part of it)
//   branch   \share\dir\        \dir\         (up to and including the last separator)
//   leaf     file               file1
//   ext      txt1               txt           (without the dot)
//
// Two formats exist, chosen once at construction: NT (the default; both slashes separate
// directories) and UNIX (only the slash separates; the backslash is an ordinary character).
// A path is UNC when its first two characters are backslashes, in either format; its base then
// ends at a backslash instead of a colon.
//
// Linux rules. On Linux the NT format keeps its text logic and gains exactly three rules:
//  1. A path whose first character is `/` is absolute: it starts at the root of the file system
//     (IsAbsolute, in both formats). ForceRelative strips a leading separator of either kind,
//     not only the backslash, from what remains behind the folder it was made relative to.
//  2. When the text holds no separator, the preferred separator (the one that operations insert)
//     is `/`; a text that holds one keeps the first that it holds. So paths built by the library
//     use `/`, and `D:\x` followed by ForceAsDir gives `D:\x\`. Assigning a text without any
//     separator keeps the preferred separator the object had before.
//  3. File-system operations turn `\` into `/` (NT format only: in the UNIX format the backslash
//     is part of a name). A path with a drive letter or a UNC base has no meaning on Linux: every
//     file-system operation on it fails (false, or 0 for GetLength), so no folder named `C:` is
//     ever created. A path has a drive letter when a letter and a colon are its first two
//     characters (`C:\x`, `C:x`, `a:b`). Every other colon is an ordinary character of a name,
//     as it is for the file system: `/data/logs:2024/run/`, `/tmp/12:30.log`, `12:30/` have no
//     base. IsValid takes such a colon behind the first component (`/data/12:30/`); in the first
//     component it stays invalid as on Windows (`:.txt`, `ab:c`). (The UNIX format keeps its
//     longer base: the text in front of a colon in the first component, `host:/x`.)
// Further, on Linux: Delete removes a file with unlink and so never removes a folder in its
// place; Rename never replaces an existing target; ForceAbsolute is lexical (the current folder
// followed by the text, `.` and `..` collapsed, symbolic links not resolved).
//
// File-system operations (Exists, IsDir, GetLength, CreateBranch, Delete, Rename, ReadDirectory,
// ForceAbsolute for the current folder) block on the file system, never raise and write no log
// entry; they report by their result alone and give no reason. Only operator+= raises (and
// Rename through it).
//
// Thread safety: no lock. Distinct objects may be used from distinct threads, and one object may
// be read from several threads while nobody changes it. The parameter tables are constant.
#pragma once

#include "Infrastructure/QelCore/QelCoreExport.h"

#include <cstdint>
#include <string>
#include <vector>

namespace Qel::Core {

// The format of a path; chosen at construction, it decides separators, valid characters and
// length limits.
enum PathFormat
{
    NT = 0,
    UNIX = 1
};

class QEL_CORE_API PathName
{
public:
    // ---- construction and assignment ----

    // Take the text, load the format's parameters and find the separators of the text.
    explicit PathName(PathFormat eFormat = NT);
    PathName(const std::string& sPath, PathFormat eFormat = NT);
    PathName(const char* pszPath, PathFormat eFormat = NT);
    // Copies every field, the format's parameters included.
    PathName(const PathName& other) = default;
    PathName& operator=(const PathName& other) = default;

    // Replace the text and find its separators; the format's parameters stay. A null pointer is
    // taken as the empty text.
    PathName& operator=(const std::string& sPath);
    PathName& operator=(const char* pszPath);

    // The text.
    operator const std::string&() const { return m_sPath; }
    operator const char*() const { return m_sPath.c_str(); }

    // Exact comparison of the text; case counts. The `const char*` forms spare a comparison with
    // a literal the choice between the string form and a comparison of pointers.
    bool operator==(const std::string& sOther) const { return m_sPath == sOther; }
    bool operator!=(const std::string& sOther) const { return m_sPath != sOther; }
    bool operator==(const char* pszOther) const { return m_sPath == (pszOther ? pszOther : ""); }
    bool operator!=(const char* pszOther) const { return !(*this == pszOther); }

    // Appends a relative path:
    //  1. a null or empty argument does nothing;
    //  2. an empty path takes the argument as by assignment, and that is all;
    //  3. a path with an extension raises LogicError "Cannot append to a PathName that is a file
    //     name: <path>" under the logger "Qel.Core.PathName";
    //  4. an argument with a base (read as an NT path) raises InvalidParameter for "aPath" with
    //     the argument, under the same logger;
    //  5. ForceAsDir, then the argument without one leading separator is appended.
    // An in-place error handler may take either error; the append then goes on with its next step.
    PathName& operator+=(const std::string& sPath);
    PathName& operator+=(const char* aPath);

    // ---- questions on the text (no file system) ----

    // Text before the first base separator (searched from index 2 for UNC): `\\server` or `C`;
    // empty if there is none, so also for `\\server` alone.
    std::string GetBase() const;
    // From the base separator (UNC) or from behind it (drive) up to and including the last
    // separator; empty without a separator or when that would be empty.
    std::string GetBranch() const;
    // Everything in front of leaf and extension: the text up to and including the last
    // separator, or without any separator the base and its separator (`F:`).
    std::string GetBaseAndBranch() const;
    // Behind the last separator (or the last base separator) up to the last dot of the last
    // component: `.txt` has the empty leaf.
    std::string GetLeaf() const;
    // Behind the last dot of the last component, without the dot; empty without such a dot.
    std::string GetExt() const;
    // The leaf, and a dot and the extension unless that is empty: `file.` gives `file`.
    std::string GetLeafAndExt() const;

    // True for every UNC path; otherwise when the text holds a base separator.
    bool HasBase() const;
    // True when the text holds a separator.
    bool HasBranch() const;
    bool HasExt() const;
    bool HasLeaf() const;
    // At least two characters long, both of the first two backslashes.
    bool IsUNC() const;
    // False for the empty text; true for UNC and (Linux rule 1) for a text that starts with `/`;
    // false for any other text that starts with a separator and for one without a base separator;
    // otherwise true when a separator stands behind the first base separator (`C:\Test`, not
    // `C:Test`).
    bool IsAbsolute() const;
    bool IsRelative() const;
    // Syntax check of the text, without the file system: components of valid characters
    // (letters, digits and the format's punctuation) within the format's length limits, no two
    // separators next to each other, at most one drive colon. Reentrant.
    bool IsValid() const;

    // ---- questions to the file system (block on it, never raise) ----

    // The path as the file system takes it (slashes as separators, no trailing separator), for
    // opening the file it names.
    std::string ToFileSystemPath() const { return FileSystemText(true); }
    // False for the empty text. With one trailing separator removed: a path with a leaf exists
    // when it names a regular file, one without a leaf (`dir/`, `dir/.`) when it names a
    // directory. So a directory written without its trailing separator does not exist here.
    bool Exists() const;
    // With one trailing separator removed, true when the path names a directory; false for the
    // empty text.
    bool IsDir() const;
    // Size of the regular file that the path names (one trailing separator removed); 0 for the
    // empty text, a directory, anything else, or what does not exist.
    std::uint64_t GetLength() const;
    // Creates the directories of the branch that are missing, one by one from the top; the leaf
    // is not touched. False when one cannot be made; those made so far stay.
    bool CreateBranch() const;

    // ---- changes of parts (each rebuilds the text) ----

    // Replaces the base; the form of the new base decides its separator (two leading
    // backslashes: UNC, else a drive that gets its colon). `d` and `d:` are the same argument;
    // an empty argument removes base and colon. Finds the separators of the new text.
    void SetBase(const std::string& sBase);
    // Replaces the branch: the base and its separator, the argument, the preferred separator
    // unless that ends in one, the leaf and extension. A leading separator is the caller's:
    // the branch `dir` on `C:\x\f.txt` gives `C:dir\f.txt`. An empty argument on a path without
    // base removes the branch (`a/f.txt` becomes `f.txt`) and adds no separator. On a UNC path
    // an argument that starts with a separator takes the place of the base separator (as
    // GetBranch gives it), so that SetBranch(GetBranch()) leaves every path as it is.
    void SetBranch(const std::string& sBranch);
    // Appends directories to the branch (the preferred separator between them).
    void AddBranch(const std::string& sBranch);
    // Replaces everything in front of leaf and extension; the preferred separator follows a
    // non-empty argument unless it ends in a separator. Finds the separators of the new text.
    void SetBaseAndBranch(const std::string& sBaseAndBranch);
    // Replaces the leaf and keeps the extension; `name.ext` sets the leaf `name`, an argument
    // that begins with its only dot (`.hidden`) or holds none is taken whole.
    void SetLeaf(const std::string& sLeaf);
    // Replaces the extension, with or without its dot; an empty argument removes it with its dot.
    void SetExt(const std::string& sExt);
    // Replaces everything behind the last separator.
    void SetLeafAndExt(const std::string& sLeafAndExt);
    // Appends the preferred separator unless the text is empty or ends in a separator.
    void ForceAsDir();
    // Lexical (Linux): the current folder followed by the text, `.` and `..` collapsed, symbolic
    // links not resolved, every separator written as `/`. A text that ends in a separator, `.` or
    // `..` names a folder and ends in `/` afterwards, so `./` gives the current folder with a
    // trailing `/`. A text that starts with a separator of either kind starts at the root. A UNC path stays as it is
    // (true); a path with a drive letter has no meaning on Linux and stays as it is (false); the
    // empty text gives false, as does a current folder that cannot be read.
    bool ForceAbsolute();
    // Makes the path relative to the folder `sRelativeTo`. With an empty argument only the base
    // is removed (`c:\temp\test.txt` becomes `\temp\test.txt`). Otherwise a relative argument is
    // made absolute, and so is this path; if the argument's text (compared letter by letter
    // without regard to case) begins this text, it is removed, and then one leading separator of
    // either kind. Without a match the path stays as it is (absolute, if made so).
    void ForceRelative(const std::string& sRelativeTo);
    // Goes up one folder: the leaf and extension go away and so does the last directory of the
    // branch, so `/usr/lib/libc.so` becomes `/usr/` and `/usr/` becomes `/`. Purely textual:
    // `..` counts as a directory like any other. The remaining branch is written in the preferred
    // separator (a branch that mixes the two slashes comes out in one) and ends in it. Going up
    // from a single relative directory leaves no branch: `dir/f.txt` gives the empty text (the
    // current folder), `C:dir\f.txt` gives `C:`. False, with the text unchanged, for a path
    // without branch and for a branch that holds nothing but the root (`/`, `C:\`, `\\server\`).
    bool UpDir();

    // ---- changes to the file system (block on it, never raise) ----

    // True when the path does not exist (see Exists). Otherwise removes the directory (rmdir,
    // only when empty) or the file (unlink, never a folder); true on success.
    bool Delete();
    // Removes the file `sFile` in the folder that this path names; false unless this path is a
    // directory and the argument is not empty. This path is not changed.
    bool Delete(const std::string& sFile);
    // Gives the file, or the last directory of the branch of a directory path, the name
    // `sNewName` (a name, not a path); a renamed directory path comes out with its branch written
    // in the preferred separator. False when the path does not exist or the target does;
    // an existing target is never replaced. On success this path takes the target over.
    bool Rename(const std::string& sNewName);
    // Appends to `vNames` (not cleared) the names in the folder that this path names that match
    // `sFilter`, in the order the system gives, `.` and `..` included when they match. Only `*`
    // and `?` are wildcards, and `*.*` matches every name; matching is case-sensitive, as Linux
    // names are. True when the folder could be listed; false when it cannot be opened, a missing
    // folder included.
    bool ReadDirectory(std::vector<std::string>& vNames, std::string sFilter) const;

protected:
    // False for the character 0; otherwise whether the character separates directories in
    // this path's format.
    bool IsPathSeparator(char c) const;

private:
    void InitParams(PathFormat eFormat);
    // Sets the base separator for the text's form (backslash for UNC, colon otherwise) and makes
    // the text's first separator (behind the UNC prefix) the preferred one; false when the text
    // holds none, the preferred separator then stays as it was.
    bool InitSeparators();
    void SetNT();
    void SetUNIX();

    // Index where the leaf starts: behind the last separator, else behind the base separator,
    // else 0.
    std::size_t LeafStart() const;
    // Index of the dot in front of the extension, or npos; the leaf starts at `nLeafStart`.
    std::size_t ExtDot(std::size_t nLeafStart) const;
    // True for a drive-letter or UNC path, which the file-system operations refuse (rule 3).
    bool HasForeignBase() const;
    // Index of the colon that ends a drive (NT: a letter and a colon as the first two
    // characters) or the UNIX format's base (a colon in the first component), else npos.
    std::size_t DriveColon() const;
    bool HasDrive() const;
    // Index of the base separator: the drive's colon, the backslash that ends a UNC server, or
    // npos for a path without base.
    std::size_t BaseSeparatorIndex() const;
    // The branch with each of its separators written as the preferred one, so that splitting it
    // at the preferred separator gives its directories also when the text mixes the two slashes.
    std::string UniformBranch() const;
    // The text as the file system takes it: one trailing separator removed if asked (unless it
    // is the whole text), and in the NT format every backslash turned into a slash.
    std::string FileSystemText(bool bStripTrailingSeparator) const;

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

// Turns the two path macros of configuration values into real paths. Only at index 0 of the
// argument, in exactly these spellings: "$(CommonDataPath)" or "$(commondatapath)" become the
// folder shared by all users (System::GetCommonDataPath()), "$(UserDataPath)" or
// "$(userdatapath)" the per-user folder (System::GetUserDataPath()); the common macro is tried
// first. The rest of the argument follows as it stands, with no separator added or removed at
// the seam. Any other text, and a macro at a later index, comes back unchanged.
QEL_CORE_API std::string ExpandPathMacros(const std::string& s);

} // namespace Qel::Core
