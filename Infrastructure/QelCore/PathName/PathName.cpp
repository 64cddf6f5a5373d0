// PathName: the text logic of paths, and the file-system operations on top of the platform layer.
//
// Every query scans the text anew; nothing is cached. All index arithmetic stays within the text,
// so that any text whatsoever (empty, separators or colons alone, a character 0 inside) can be
// asked every question without harm.
#include "Infrastructure/QelCore/PathName.h"

#include "Infrastructure/QelCore/Error.h"
#include "Infrastructure/QelCore/Platform/FileSystem.h"
#include "Infrastructure/QelCore/StringTools.h"

#include <algorithm>
#include <cctype>
#include <string_view>

namespace Qel::Core {

namespace {

const char* const sLOGGER = "Qel.Core.PathName";

// The parameter tables of the two formats. PathName points at them, never owns them, so that a
// copy of a PathName copies the pointers as they are.
constexpr char sNT_VALID_CHARS[] = " _~!#%&()@`'^$.-";
constexpr char sUNIX_VALID_CHARS[] = " _~!#%&()@`'^$.\\-";
constexpr char sNT_SEPARATORS[] = "\\/";
constexpr char sUNIX_SEPARATORS[] = "/";
constexpr char sEXT_SEPARATOR[] = ".";
constexpr char sDRIVE_SEPARATOR[] = ":";
constexpr char sUNC_SEPARATOR[] = "\\";

constexpr std::size_t npos = std::string::npos;

// Whether `c` stands in the zero-terminated set; the character 0 never does. The sets are a few
// characters long: a plain loop beats a call of strchr.
inline bool InSet(char c, const char* pszSet)
{
    for (; *pszSet != '\0'; ++pszSet) {
        if (*pszSet == c) return true;
    }
    return false;
}

// Cuts a text into tokens as the C library's strtok does - leading delimiters skipped, a token
// ending at the next delimiter, which is consumed - with the delimiters chosen per call, but with
// its state in the object, so that any number of texts may be cut at the same time.
class Tokenizer
{
public:
    Tokenizer(const std::string& sText, std::size_t nStart) : m_sText(sText), m_nPos(nStart) {}

    // The next token, or false when only delimiters (or nothing) are left.
    bool Next(const char* pszDelimiters, std::string_view& token)
    {
        const std::size_t nSize = m_sText.size();
        while (m_nPos < nSize && InSet(m_sText[m_nPos], pszDelimiters)) ++m_nPos;
        if (m_nPos >= nSize) return false;
        const std::size_t nBegin = m_nPos;
        while (m_nPos < nSize && !InSet(m_sText[m_nPos], pszDelimiters)) ++m_nPos;
        token = std::string_view(m_sText).substr(nBegin, m_nPos - nBegin);
        if (m_nPos < nSize) ++m_nPos; // the delimiter that ended the token
        return true;
    }

private:
    const std::string& m_sText;
    std::size_t m_nPos;
};

} // namespace

// ---- construction and assignment ----

PathName::PathName(PathFormat eFormat) : PathName(std::string(), eFormat) {}

PathName::PathName(const char* pszPath, PathFormat eFormat) : PathName(std::string(pszPath ? pszPath : ""), eFormat)
{
}

PathName::PathName(const std::string& sPath, PathFormat eFormat)
    : m_sPath(sPath),
      m_pszValidChars(nullptr),
      m_pszSeparators(nullptr),
      m_cSeparator('/'),
      m_pszExtSeparator(nullptr),
      m_pszBaseSeparator(nullptr),
      m_nMaxLeafLength(0),
      m_nMaxExtLength(0),
      m_nMaxNameLength(0),
      m_nMaxBaseLength(0),
      m_iMaxDirs(0)
{
    InitParams(eFormat);
    InitSeparators();
}

PathName& PathName::operator=(const std::string& sPath)
{
    m_sPath = sPath;
    InitSeparators();
    return *this;
}

PathName& PathName::operator=(const char* pszPath)
{
    m_sPath = pszPath ? pszPath : "";
    InitSeparators();
    return *this;
}

void PathName::InitParams(PathFormat eFormat)
{
    if (eFormat == UNIX) SetUNIX();
    else SetNT();
}

void PathName::SetNT()
{
    m_pszValidChars = sNT_VALID_CHARS;
    m_pszSeparators = sNT_SEPARATORS;
    // Linux rule 2: a text without separator gets the slash, so that paths built by the library
    // are Linux paths.
    m_cSeparator = '/';
    m_pszExtSeparator = sEXT_SEPARATOR;
    m_pszBaseSeparator = sDRIVE_SEPARATOR;
    m_nMaxLeafLength = 256;
    m_nMaxExtLength = 256;
    m_nMaxNameLength = 260;
    m_nMaxBaseLength = 1;
    m_iMaxDirs = 0;
}

void PathName::SetUNIX()
{
    m_pszValidChars = sUNIX_VALID_CHARS;
    m_pszSeparators = sUNIX_SEPARATORS;
    m_cSeparator = '/';
    m_pszExtSeparator = sEXT_SEPARATOR;
    m_pszBaseSeparator = sDRIVE_SEPARATOR;
    m_nMaxLeafLength = 31;
    m_nMaxExtLength = 31;
    m_nMaxNameLength = 31;
    m_nMaxBaseLength = 31;
    m_iMaxDirs = 0;
}

bool PathName::InitSeparators()
{
    const bool bUNC = IsUNC();
    m_pszBaseSeparator = bUNC ? sUNC_SEPARATOR : sDRIVE_SEPARATOR;
    const std::size_t nFirst = m_sPath.find_first_of(m_pszSeparators, bUNC ? 2 : 0);
    if (nFirst == npos) return false;
    m_cSeparator = m_sPath[nFirst];
    return true;
}

bool PathName::IsPathSeparator(char c) const
{
    return InSet(c, m_pszSeparators);
}

// ---- scanning helpers ----

std::size_t PathName::LeafStart() const
{
    for (std::size_t i = m_sPath.size(); i > 0; --i) {
        if (IsPathSeparator(m_sPath[i - 1])) return i;
    }
    if (IsUNC()) {
        const std::size_t nLastBase = m_sPath.rfind(m_pszBaseSeparator[0]);
        return nLastBase == npos ? 0 : nLastBase + 1;
    }
    const std::size_t nColon = DriveColon();
    return nColon == npos ? 0 : nColon + 1;
}

std::size_t PathName::ExtDot(std::size_t nLeafStart) const
{
    // The dot must lie in the last component: behind the last separator (or base separator), so
    // that `C:\dir.d\file` has no extension and leaf and extension always end the text.
    const std::size_t nDot = m_sPath.rfind(m_pszExtSeparator[0]);
    if (nDot == npos || nDot < nLeafStart) return npos;
    return nDot;
}

// ---- questions on the text ----

bool PathName::IsUNC() const
{
    return m_sPath.size() >= 2 && m_sPath[0] == '\\' && m_sPath[1] == '\\';
}

std::size_t PathName::DriveColon() const
{
    if (m_pszSeparators == sUNIX_SEPARATORS) {
        // The UNIX format's base is a name of its own ("host:/x"): the text in front of a colon
        // in the first component.
        const std::size_t nColon = m_sPath.find(':');
        if (nColon == 0 || nColon == npos || m_sPath.find('/') < nColon) return npos;
        return nColon;
    }
    // NT: a drive letter.
    const bool bDrive = m_sPath.size() >= 2 && m_sPath[1] == ':' && std::isalpha(static_cast<unsigned char>(m_sPath[0])) != 0;
    return bDrive ? 1 : npos;
}

bool PathName::HasDrive() const
{
    return DriveColon() != npos;
}

std::size_t PathName::BaseSeparatorIndex() const
{
    if (IsUNC()) return m_sPath.find(m_pszBaseSeparator[0], 2);
    return DriveColon();
}

std::string PathName::GetBase() const
{
    const std::size_t nBase = BaseSeparatorIndex();
    return nBase == npos ? std::string() : m_sPath.substr(0, nBase);
}

std::string PathName::GetBranch() const
{
    const std::size_t nLastSeparator = m_sPath.find_last_of(m_pszSeparators);
    if (nLastSeparator == npos) return std::string();
    const std::size_t nBase = BaseSeparatorIndex();
    // A UNC branch starts at its base separator (a backslash), a drive's branch behind the colon.
    const std::size_t nStart = nBase == npos ? 0 : (IsUNC() ? nBase : nBase + 1);
    if (nLastSeparator < nStart) return std::string();
    return m_sPath.substr(nStart, nLastSeparator + 1 - nStart);
}

std::string PathName::GetBaseAndBranch() const
{
    // Up to and including the last separator; without one, the base and its separator (`F:` of
    // `F:name`). Both are the text in front of the leaf.
    return m_sPath.substr(0, LeafStart());
}

std::string PathName::GetLeaf() const
{
    const std::size_t nStart = LeafStart();
    const std::size_t nDot = ExtDot(nStart);
    return nDot == npos ? m_sPath.substr(nStart) : m_sPath.substr(nStart, nDot - nStart);
}

std::string PathName::GetExt() const
{
    const std::size_t nDot = ExtDot(LeafStart());
    return nDot == npos ? std::string() : m_sPath.substr(nDot + 1);
}

std::string PathName::GetLeafAndExt() const
{
    // The leaf, and the dot and the extension unless that is empty: the rest of the text behind
    // the leaf's start, without a trailing dot.
    const std::size_t nStart = LeafStart();
    const std::size_t nDot = ExtDot(nStart);
    if (nDot != npos && nDot + 1 == m_sPath.size()) return m_sPath.substr(nStart, nDot - nStart);
    return m_sPath.substr(nStart);
}

bool PathName::HasBase() const
{
    return IsUNC() || HasDrive();
}

bool PathName::HasBranch() const
{
    return m_sPath.find_first_of(m_pszSeparators) != npos;
}

bool PathName::HasExt() const
{
    const std::size_t nDot = ExtDot(LeafStart());
    return nDot != npos && nDot + 1 < m_sPath.size();
}

bool PathName::HasLeaf() const
{
    // GetLeafAndExt() is not empty: something stands behind the leaf's start other than one dot.
    const std::size_t nRest = m_sPath.size() - LeafStart();
    return nRest > 1 || (nRest == 1 && m_sPath.back() != m_pszExtSeparator[0]);
}

bool PathName::IsAbsolute() const
{
    if (m_sPath.empty()) return false;
    if (IsUNC()) return true;
    // Linux rule 1: the root of the file system.
    if (m_sPath[0] == '/') return true;
    if (IsPathSeparator(m_sPath[0])) return false;
    const std::size_t nColon = DriveColon();
    return nColon != npos && nColon + 1 < m_sPath.size() && IsPathSeparator(m_sPath[nColon + 1]);
}

bool PathName::IsRelative() const
{
    return !IsAbsolute();
}

bool PathName::IsValid() const
{
    const std::string& s = m_sPath;
    if (s.empty()) return false;
    // A character 0 would end the text for every C function that gets it.
    if (s.find('\0') != npos) return false;

    const bool bUNC = IsUNC();
    const std::size_t nStart = bUNC ? 2 : 0;
    const char szBase[2] = {m_pszBaseSeparator[0], '\0'};
    // Linux: a colon is an ordinary character of a name behind the first component
    // ("/data/12:30/"); in the first component only a drive's colon may stand, so that `:.txt`
    // and `ab:c` stay invalid as they are on Windows.
    const std::size_t nFirstSeparator = s.find_first_of(m_pszSeparators, nStart);
    const std::size_t nDriveColon = DriveColon();
    for (std::size_t i = s.find(':'); i != npos; i = s.find(':', i + 1)) {
        const bool bDriveColon = i == nDriveColon;
        if (!bDriveColon && (nFirstSeparator == npos || i < nFirstSeparator)) return false;
    }
    auto isValidChar = [this](char c) {
        return c == ':' || std::isalnum(static_cast<unsigned char>(c)) != 0 || InSet(c, m_pszValidChars);
    };

    Tokenizer tokens(s, nStart);
    std::string_view token;
    if (bUNC ? s.find(szBase[0], nStart) != npos : HasDrive()) {
        // A text of nothing but base separators (":", or `\\` followed by backslashes alone) has
        // no base in front of them: invalid.
        if (!tokens.Next(szBase, token)) return false;
        if (!bUNC && token.size() > m_nMaxBaseLength) return false;
        // From index nStart of the token on, so the first two characters of a UNC server name
        // are not looked at.
        for (std::size_t i = nStart; i < token.size(); ++i) {
            if (!isValidChar(token[i])) return false;
        }
        // The component directly behind the base is read and not checked, nor counted.
        tokens.Next(m_pszSeparators, token);
    }

    for (std::size_t i = nStart; i + 1 < s.size(); ++i) {
        if (IsPathSeparator(s[i]) && IsPathSeparator(s[i + 1])) return false;
    }

    std::int64_t nCount = 0;
    while (tokens.Next(m_pszSeparators, token)) {
        if (m_iMaxDirs != 0 && nCount > m_iMaxDirs) return false;
        const std::size_t nDot = token.rfind(m_pszExtSeparator[0]);
        if (nDot != std::string_view::npos) {
            if (nDot > m_nMaxLeafLength) return false;
            if (token.size() > nDot + m_nMaxExtLength + 2) return false;
            if (token.size() > m_nMaxNameLength) return false;
        } else if (token.size() > m_nMaxLeafLength) {
            return false;
        }
        for (char c : token) {
            if (!isValidChar(c)) return false;
        }
        ++nCount;
    }
    return true;
}

// ---- changes of parts ----

PathName& PathName::operator+=(const std::string& sPath)
{
    return *this += sPath.c_str();
}

PathName& PathName::operator+=(const char* aPath)
{
    if (aPath == nullptr || *aPath == '\0') return *this;
    // A copy: the argument may point into this very text, which the steps below change.
    const std::string sArgument(aPath);
    if (m_sPath.empty()) {
        *this = sArgument;
        return *this;
    }
    if (HasExt()) {
        QEL_RAISE_HANDLEABLE_ERROR(LogicError("Cannot append to a PathName that is a file name: " + m_sPath),
                                   sLOGGER);
    }
    const PathName argument(sArgument, NT);
    if (argument.HasBase()) QEL_RAISE_HANDLEABLE_ERROR(InvalidParameter("aPath", sArgument), sLOGGER);
    ForceAsDir();
    const std::size_t nSkip = argument.IsPathSeparator(sArgument[0]) ? 1 : 0;
    m_sPath.append(sArgument, nSkip, npos);
    return *this;
}

void PathName::SetBase(const std::string& sBase)
{
    const std::string sBranch = GetBranch();
    const std::string sLeafAndExt = GetLeafAndExt();
    std::string sNew;
    if (!sBase.empty()) {
        sNew = sBase;
        const bool bUNCBase = sNew.size() >= 2 && sNew[0] == '\\' && sNew[1] == '\\';
        if (bUNCBase) {
            // The backslash that ends a UNC base is the branch's first character.
            if (sNew.size() > 2 && sNew.back() == '\\') sNew.pop_back();
        } else if (sNew.back() != ':') {
            sNew += ':';
        }
    }
    if (sBranch.empty()) sNew += m_cSeparator;
    else sNew += sBranch;
    sNew += sLeafAndExt;
    m_sPath = sNew;
    InitSeparators();
}

void PathName::SetBranch(const std::string& sBranch)
{
    const std::string sLeafAndExt = GetLeafAndExt();
    std::string sNew;
    if (HasBase()) {
        sNew = GetBase();
        // A UNC branch begins with the base separator itself (see GetBranch): a branch that
        // begins with a separator takes its place, so that SetBranch(GetBranch()) changes nothing.
        if (!(IsUNC() && !sBranch.empty() && IsPathSeparator(sBranch[0]))) sNew += m_pszBaseSeparator;
    }
    sNew += sBranch;
    // Nothing at all in front of the leaf (an empty branch and no base): no separator either, the
    // path just loses its branch. Any other text ends in a separator.
    if (!sNew.empty() && !IsPathSeparator(sNew.back())) sNew += m_cSeparator;
    sNew += sLeafAndExt;
    m_sPath = sNew;
}

void PathName::AddBranch(const std::string& sBranch)
{
    std::string sNew = GetBranch();
    if (!sNew.empty() && !IsPathSeparator(sNew.back())) sNew += m_cSeparator;
    sNew += sBranch;
    SetBranch(sNew);
}

void PathName::SetBaseAndBranch(const std::string& sBaseAndBranch)
{
    std::string sNew = sBaseAndBranch;
    if (!sNew.empty() && !IsPathSeparator(sNew.back())) sNew += m_cSeparator;
    sNew += GetLeafAndExt();
    m_sPath = sNew;
    InitSeparators();
}

void PathName::SetLeaf(const std::string& sLeaf)
{
    // `name.ext` sets the leaf `name`; a dot at index 0 (`.hidden`) does not cut.
    const std::size_t nDot = sLeaf.rfind(m_pszExtSeparator[0]);
    const std::string sNewLeaf = (nDot != npos && nDot != 0) ? sLeaf.substr(0, nDot) : sLeaf;
    std::string sNew = GetBaseAndBranch() + sNewLeaf;
    const std::string sExt = GetExt();
    if (!sExt.empty()) {
        sNew += m_pszExtSeparator;
        sNew += sExt;
    }
    m_sPath = sNew;
}

void PathName::SetExt(const std::string& sExt)
{
    std::string sNew = GetBaseAndBranch() + GetLeaf();
    if (!sExt.empty()) {
        if (sExt[0] != m_pszExtSeparator[0]) sNew += m_pszExtSeparator;
        sNew += sExt;
    }
    m_sPath = sNew;
}

void PathName::SetLeafAndExt(const std::string& sLeafAndExt)
{
    m_sPath = GetBaseAndBranch() + sLeafAndExt;
}

void PathName::ForceAsDir()
{
    if (!m_sPath.empty() && !IsPathSeparator(m_sPath.back())) m_sPath += m_cSeparator;
}

bool PathName::ForceAbsolute()
{
    if (m_sPath.empty()) return false;
    if (IsUNC()) return true;
    if (HasForeignBase()) return false;

    // Components of the result; `.` is dropped, `..` takes the last one back (not above the root).
    std::vector<std::string_view> vParts;
    auto add = [&vParts](std::string_view part) {
        if (part.empty() || part == ".") return;
        if (part == "..") {
            if (!vParts.empty()) vParts.pop_back();
            return;
        }
        vParts.push_back(part);
    };

    // A text that starts with a separator of either kind starts at the root; any other follows
    // the current folder. (The original platform took a leading backslash as the root of the
    // current drive; Linux has one root.)
    std::string sCurrent;
    if (!IsPathSeparator(m_sPath[0]) && m_sPath[0] != '/') {
        sCurrent = Platform::CurrentDirectory();
        if (sCurrent.empty()) return false;
        std::size_t nBegin = 0;
        for (std::size_t i = 0; i <= sCurrent.size(); ++i) {
            if (i == sCurrent.size() || sCurrent[i] == '/') {
                add(std::string_view(sCurrent).substr(nBegin, i - nBegin));
                nBegin = i + 1;
            }
        }
    }
    std::size_t nBegin = 0;
    std::string_view sLast;
    for (std::size_t i = 0; i <= m_sPath.size(); ++i) {
        if (i == m_sPath.size() || IsPathSeparator(m_sPath[i]) || m_sPath[i] == '/') {
            sLast = std::string_view(m_sPath).substr(nBegin, i - nBegin);
            add(sLast);
            nBegin = i + 1;
        }
    }

    std::string sNew;
    for (std::string_view part : vParts) {
        sNew += '/';
        sNew += part;
    }
    // A text that ends in a separator, `.` or `..` names a folder, and keeps saying so.
    if (sNew.empty() || sLast.empty() || sLast == "." || sLast == "..") sNew += '/';
    m_sPath = sNew;
    return true;
}

void PathName::ForceRelative(const std::string& sRelativeTo)
{
    if (sRelativeTo.empty()) {
        if (HasBase()) SetBase(std::string());
        return;
    }
    PathName folder(sRelativeTo, NT);
    if (folder.IsRelative()) {
        folder.ForceAbsolute();
        ForceAbsolute();
    }
    const std::string& sPrefix = folder.m_sPath;
    if (sPrefix.size() > m_sPath.size()) return;
    for (std::size_t i = 0; i < sPrefix.size(); ++i) {
        if (std::toupper(static_cast<unsigned char>(sPrefix[i])) != std::toupper(static_cast<unsigned char>(m_sPath[i])))
            return;
    }
    m_sPath.erase(0, sPrefix.size());
    // Linux rule 1: a leading separator of either kind goes, or the rest would name the root.
    if (!m_sPath.empty() && (m_sPath[0] == '\\' || m_sPath[0] == '/')) m_sPath.erase(0, 1);
}

std::string PathName::UniformBranch() const
{
    std::string sBranch = GetBranch();
    std::replace_if(sBranch.begin(), sBranch.end(), [this](char c) { return IsPathSeparator(c); }, m_cSeparator);
    return sBranch;
}

bool PathName::UpDir()
{
    if (!HasBranch()) return false;
    const std::string sSeparator(1, m_cSeparator);
    std::vector<std::string> vPieces;
    if (StringTools::Split(UniformBranch(), sSeparator, vPieces) == 0) return false;
    // The empty piece behind the branch's trailing separator.
    if (vPieces.back().empty()) vPieces.pop_back();
    // Nothing but the root (or an empty branch): there is no folder above.
    if (std::all_of(vPieces.begin(), vPieces.end(), [](const std::string& s) { return s.empty(); })) return false;
    // The last directory.
    vPieces.pop_back();
    std::string sBranch = StringTools::Join(vPieces, sSeparator);
    if (!vPieces.empty() && sBranch.empty()) sBranch = sSeparator; // the root piece alone

    SetLeafAndExt(std::string());
    if (sBranch.empty()) {
        // No directory left: the base alone (`C:` of `C:dir\f.txt`), or the empty text.
        m_sPath = HasBase() ? GetBase() + m_pszBaseSeparator : std::string();
        return true;
    }
    SetBranch(sBranch);
    ForceAsDir();
    return true;
}

// ---- the file system ----

bool PathName::HasForeignBase() const
{
    if (IsUNC()) return true;
    return HasDrive();
}

std::string PathName::FileSystemText(bool bStripTrailingSeparator) const
{
    std::string sText = m_sPath;
    if (bStripTrailingSeparator && sText.size() > 1 && IsPathSeparator(sText.back())) sText.pop_back();
    // Linux rule 3: in the NT format the backslash separates directories, for Linux the slash.
    if (IsPathSeparator('\\')) std::replace(sText.begin(), sText.end(), '\\', '/');
    return sText;
}

bool PathName::Exists() const
{
    if (m_sPath.empty() || HasForeignBase()) return false;
    const Platform::PathStatus status = Platform::Stat(FileSystemText(true));
    return status.eKind == (HasLeaf() ? Platform::PathKind::File : Platform::PathKind::Directory);
}

bool PathName::IsDir() const
{
    if (m_sPath.empty() || HasForeignBase()) return false;
    return Platform::Stat(FileSystemText(true)).eKind == Platform::PathKind::Directory;
}

std::uint64_t PathName::GetLength() const
{
    if (m_sPath.empty() || HasForeignBase()) return 0;
    const Platform::PathStatus status = Platform::Stat(FileSystemText(true));
    return status.eKind == Platform::PathKind::File ? status.nSize : 0;
}

bool PathName::CreateBranch() const
{
    if (HasForeignBase()) return false;
    const std::string sBranch = GetBranch();
    // Each separator of the branch but a leading one ends a folder to make. Without a base, the
    // folder's path is the branch up to that separator.
    std::size_t nPos = 0;
    for (;;) {
        std::size_t nNext = npos;
        for (std::size_t i = nPos + 1; i < sBranch.size(); ++i) {
            if (IsPathSeparator(sBranch[i])) {
                nNext = i;
                break;
            }
        }
        if (nNext == npos) return true;
        std::string sFolder = sBranch.substr(0, nNext);
        if (IsPathSeparator('\\')) std::replace(sFolder.begin(), sFolder.end(), '\\', '/');
        if (Platform::Stat(sFolder).eKind != Platform::PathKind::Directory && !Platform::MakeDirectory(sFolder))
            return false;
        nPos = nNext;
    }
}

bool PathName::Delete()
{
    if (HasForeignBase()) return false;
    if (!Exists()) return true;
    const std::string sText = FileSystemText(true);
    return IsDir() ? Platform::RemoveDirectory(sText) : Platform::RemoveFile(sText);
}

bool PathName::Delete(const std::string& sFile)
{
    if (sFile.empty() || HasForeignBase() || !IsDir()) return false;
    std::string sText = m_sPath;
    if (!IsPathSeparator(sText.back())) sText += m_cSeparator;
    sText += sFile;
    if (IsPathSeparator('\\')) std::replace(sText.begin(), sText.end(), '\\', '/');
    return Platform::RemoveFile(sText);
}

bool PathName::Rename(const std::string& sNewName)
{
    if (HasForeignBase() || !Exists()) return false;
    // The target keeps this path's format.
    PathName target(*this);
    target = std::string();
    std::string sSource;
    if (IsDir()) {
        // The last directory of the branch gets the new name.
        const std::string sSeparator(1, m_cSeparator);
        std::vector<std::string> vPieces;
        StringTools::Split(UniformBranch(), sSeparator, vPieces);
        if (vPieces.size() < 2 || !vPieces.back().empty()) return false;
        vPieces.pop_back();
        if (vPieces.back().empty()) return false; // the root
        vPieces.back() = sNewName;
        target.SetBase(GetBase());
        target.SetBranch(StringTools::Join(vPieces, sSeparator));
        PathName source(*this);
        source = GetBaseAndBranch();
        sSource = source.FileSystemText(true);
    } else {
        target = GetBaseAndBranch();
        target.ForceAsDir();
        target += sNewName;
        sSource = FileSystemText(true);
    }
    if (target.HasForeignBase() || target.Exists()) return false;
    if (!Platform::RenameNoReplace(sSource, target.FileSystemText(true))) return false;
    *this = target;
    return true;
}

bool PathName::ReadDirectory(std::vector<std::string>& vNames, std::string sFilter) const
{
    if (HasForeignBase()) return false;
    // The text, a slash and the filter; the filter is the last component. (An empty text lists
    // the root, as it listed the root of the current drive on the original platform.)
    std::string sFull = m_sPath + "/" + sFilter;
    if (IsPathSeparator('\\')) std::replace(sFull.begin(), sFull.end(), '\\', '/');
    const std::size_t nSlash = sFull.rfind('/');
    std::string sFolder = sFull.substr(0, nSlash);
    if (sFolder.empty()) sFolder = "/";
    // A missing folder gives false: on the original platform its listing failed with "path not
    // found"; "file not found" meant that no name matched, which here is a listing of no names.
    return Platform::ListDirectory(sFolder, sFull.substr(nSlash + 1), vNames);
}

} // namespace Qel::Core
