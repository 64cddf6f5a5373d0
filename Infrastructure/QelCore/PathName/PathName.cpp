// PathName: parts found by scanning the text, changes that rebuild it, a syntax check, and the
// file-system operations the library needs.
#include "Infrastructure/QelCore/PathName.h"

#include "Infrastructure/QelCore/Error.h"
#include "Infrastructure/QelCore/Platform/FileSystem.h"
#include "Infrastructure/QelCore/StringTools.h"

#include <cctype>
#include <cstring>

namespace Qel::Core {
namespace {

const char* const sNT_VALID_CHARS = " _~!#%&()@`'^$.-";
const char* const sUNIX_VALID_CHARS = " _~!#%&()@`'^$.\\-";
const char* const sNT_SEPARATORS = "\\/";
const char* const sUNIX_SEPARATORS = "/";
const char* const sEXT_SEPARATOR = ".";
const char* const sDRIVE_SEPARATOR = ":";
const char* const sUNC_SEPARATOR = "\\";
const char* const sLOGGER = "Qel.Core.PathName";

bool Contains(const char* set, char c)
{
    return c != '\0' && std::strchr(set, c) != nullptr;
}

// A tokeniser with the behaviour of the C library's strtok (leading delimiters are skipped, a
// token ends at the next delimiter, which is consumed), with its state in the object.
class Tokens
{
public:
    Tokens(const std::string& text, std::size_t start) : m_Text(text), m_Position(start) {}
    bool Next(const char* delimiters, std::string& token)
    {
        while (m_Position < m_Text.size() && Contains(delimiters, m_Text[m_Position])) ++m_Position;
        if (m_Position >= m_Text.size()) return false;
        std::size_t end = m_Position;
        while (end < m_Text.size() && !Contains(delimiters, m_Text[end])) ++end;
        token = m_Text.substr(m_Position, end - m_Position);
        m_Position = end < m_Text.size() ? end + 1 : end;
        return true;
    }

private:
    const std::string& m_Text;
    std::size_t m_Position;
};

// Narrow text is UTF-8: the bytes of a non-ASCII character count as letters of a name.
bool IsNameCharacter(char c, const char* validChars)
{
    unsigned char byte = static_cast<unsigned char>(c);
    return byte >= 0x80 || std::isalnum(byte) || Contains(validChars, c);
}

// "/" for every "\".
std::string Slashed(std::string text)
{
    for (char& c : text)
        if (c == '\\') c = '/';
    return text;
}

// Collapses "." and ".." of an absolute POSIX path; keeps a trailing "/".
std::string Collapse(const std::string& path)
{
    std::vector<std::string> kept;
    std::size_t position = 0;
    while (position <= path.size()) {
        std::size_t end = path.find('/', position);
        if (end == std::string::npos) end = path.size();
        std::string part = path.substr(position, end - position);
        if (part == "..") {
            if (!kept.empty()) kept.pop_back();
        } else if (!part.empty() && part != ".") {
            kept.push_back(part);
        }
        position = end + 1;
    }
    std::string result;
    for (const std::string& part : kept) result += "/" + part;
    if (result.empty()) return "/";
    std::size_t last = path.find_last_not_of('/');
    bool trailing = !path.empty() && path.back() == '/';
    // "x/." and "x/.." name a folder too.
    if (last != std::string::npos) {
        std::size_t lastStart = path.rfind('/', last);
        std::string lastPart = path.substr(lastStart == std::string::npos ? 0 : lastStart + 1, last - lastStart);
        trailing |= lastPart == "." || lastPart == "..";
    }
    return trailing ? result + "/" : result;
}

} // namespace

// ---- construction ----

PathName::PathName(PathFormat format) : PathName(std::string(), format) {}

PathName::PathName(const char* path, PathFormat format) : PathName(std::string(path != nullptr ? path : ""), format) {}

PathName::PathName(const std::string& path, PathFormat format) : m_sPath(path)
{
    InitParams(format);
    InitSeparators();
}

PathName& PathName::operator=(const std::string& path)
{
    m_sPath = path;
    InitSeparators();
    return *this;
}

PathName& PathName::operator=(const char* path)
{
    return *this = std::string(path != nullptr ? path : "");
}

void PathName::InitParams(PathFormat format)
{
    if (format == UNIX) SetUNIX();
    else SetNT();
}

void PathName::SetNT()
{
    m_pszValidChars = sNT_VALID_CHARS;
    m_pszSeparators = sNT_SEPARATORS;
    m_cSeparator = '/'; // Linux: a text without a separator gets "/"
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
    bool unc = IsUNC();
    m_pszBaseSeparator = unc ? sUNC_SEPARATOR : sDRIVE_SEPARATOR;
    std::size_t found = m_sPath.find_first_of(m_pszSeparators, unc ? 2 : 0);
    if (found == std::string::npos) return false;
    m_cSeparator = m_sPath[found];
    return true;
}

bool PathName::IsPathSeparator(char c) const
{
    return Contains(m_pszSeparators, c);
}

// ---- scanning helpers ----

std::size_t PathName::FindBaseSeparator() const
{
    return m_sPath.find(m_pszBaseSeparator[0], IsUNC() ? 2 : 0);
}

std::size_t PathName::LastSeparator() const
{
    return m_sPath.find_last_of(m_pszSeparators);
}

std::size_t PathName::LeafStart() const
{
    std::size_t separator = LastSeparator();
    if (separator != std::string::npos) return separator + 1;
    std::size_t base = m_sPath.rfind(m_pszBaseSeparator[0]);
    return base == std::string::npos ? 0 : base + 1;
}

bool PathName::EndsInSeparator(const std::string& text) const
{
    return !text.empty() && IsPathSeparator(text.back());
}

// ---- the parts ----

bool PathName::IsUNC() const
{
    return m_sPath.size() >= 2 && m_sPath[0] == '\\' && m_sPath[1] == '\\';
}

std::string PathName::GetBase() const
{
    std::size_t base = FindBaseSeparator();
    return base == std::string::npos ? std::string() : m_sPath.substr(0, base);
}

std::string PathName::GetBranch() const
{
    std::size_t base = FindBaseSeparator();
    std::size_t start = base == std::string::npos ? 0 : (IsUNC() ? base : base + 1);
    std::size_t last = LastSeparator();
    if (last == std::string::npos || last < start) return std::string();
    return m_sPath.substr(start, last - start + 1);
}

std::string PathName::GetBaseAndBranch() const
{
    std::size_t last = LastSeparator();
    if (last != std::string::npos) return m_sPath.substr(0, last + 1);
    std::size_t base = FindBaseSeparator();
    return base == std::string::npos ? std::string() : m_sPath.substr(0, base + 1);
}

std::string PathName::GetLeaf() const
{
    std::size_t start = LeafStart();
    std::size_t dot = m_sPath.rfind(m_pszExtSeparator[0]);
    std::size_t end = dot == std::string::npos || dot < start ? m_sPath.size() : dot;
    return m_sPath.substr(start, end - start);
}

std::string PathName::GetExt() const
{
    std::size_t dot = m_sPath.rfind(m_pszExtSeparator[0]);
    if (dot == std::string::npos || dot < LeafStart()) return std::string();
    return m_sPath.substr(dot + 1);
}

std::string PathName::GetLeafAndExt() const
{
    std::string ext = GetExt();
    return ext.empty() ? GetLeaf() : GetLeaf() + m_pszExtSeparator + ext;
}

bool PathName::HasBase() const
{
    return IsUNC() || m_sPath.find(m_pszBaseSeparator[0]) != std::string::npos;
}

bool PathName::HasBranch() const
{
    return LastSeparator() != std::string::npos;
}

bool PathName::HasExt() const
{
    return !GetExt().empty();
}

bool PathName::HasLeaf() const
{
    return !GetLeafAndExt().empty();
}

bool PathName::IsAbsolute() const
{
    if (m_sPath.empty()) return false;
    if (IsUNC()) return true;
    if (m_sPath[0] == '/') return true; // the POSIX root
    if (IsPathSeparator(m_sPath[0])) return false;
    std::size_t base = m_sPath.find(m_pszBaseSeparator[0]);
    if (base == std::string::npos) return false;
    return base + 1 < m_sPath.size() && IsPathSeparator(m_sPath[base + 1]);
}

bool PathName::IsValid() const
{
    if (m_sPath.empty()) return false;
    const std::string& text = m_sPath;
    bool unc = IsUNC();
    std::size_t start = unc ? 2 : 0;
    Tokens tokens(text, start);
    std::string token;

    std::size_t base = text.find(m_pszBaseSeparator[0], start);
    if (base != std::string::npos) {
        if (!unc && text.find(':') != text.rfind(':')) return false;
        // A text of nothing but base separators has no base to check: it is no path.
        if (!tokens.Next(m_pszBaseSeparator, token)) return false;
        if (!unc && token.size() > m_nMaxBaseLength) return false;
        for (std::size_t i = start; i < token.size(); ++i)
            if (!IsNameCharacter(token[i], m_pszValidChars)) return false;
        // The component right behind the base is read and passes unchecked.
        tokens.Next(m_pszSeparators, token);
    }
    for (std::size_t i = start; i + 1 < text.size(); ++i)
        if (IsPathSeparator(text[i]) && IsPathSeparator(text[i + 1])) return false;

    std::int64_t count = 0;
    while (tokens.Next(m_pszSeparators, token)) {
        if (m_iMaxDirs != 0 && count > m_iMaxDirs) return false;
        std::size_t dot = token.rfind(m_pszExtSeparator[0]);
        if (dot != std::string::npos) {
            if (dot > m_nMaxLeafLength) return false;
            if (token.size() > dot + m_nMaxExtLength + 2) return false;
            if (token.size() > m_nMaxNameLength) return false;
        } else if (token.size() > m_nMaxLeafLength) {
            return false;
        }
        for (char c : token)
            if (!IsNameCharacter(c, m_pszValidChars)) return false;
        ++count;
    }
    return true;
}

// ---- changes of parts ----

void PathName::SetBase(const std::string& base)
{
    std::string text;
    if (!base.empty()) {
        bool uncBase = base.size() >= 2 && base[0] == '\\' && base[1] == '\\';
        text = base;
        if (uncBase) {
            if (text.size() > 2 && text.back() == '\\') text.pop_back();
        } else if (text.back() != ':') {
            text += ':';
        }
    }
    std::string branch = GetBranch();
    text += branch.empty() ? std::string(1, m_cSeparator) : branch;
    text += GetLeafAndExt();
    m_sPath = text;
    InitSeparators();
}

void PathName::SetBranch(const std::string& branch)
{
    std::string text;
    std::size_t base = FindBaseSeparator();
    if (base != std::string::npos) text = m_sPath.substr(0, base) + m_pszBaseSeparator;
    text += branch;
    // With neither base nor branch there is no folder to separate from the leaf.
    if (!text.empty() && !EndsInSeparator(text)) text += m_cSeparator;
    m_sPath = text + GetLeafAndExt();
}

void PathName::AddBranch(const std::string& branch)
{
    std::string text = GetBranch();
    if (!text.empty() && !EndsInSeparator(text)) text += m_cSeparator;
    SetBranch(text + branch);
}

void PathName::SetBaseAndBranch(const std::string& baseAndBranch)
{
    std::string text = baseAndBranch;
    if (!text.empty() && !EndsInSeparator(text)) text += m_cSeparator;
    m_sPath = text + GetLeafAndExt();
    InitSeparators();
}

void PathName::SetLeaf(const std::string& leaf)
{
    std::string name = leaf;
    std::size_t dot = name.rfind(m_pszExtSeparator[0]);
    if (dot != std::string::npos && dot != 0) name.resize(dot);
    std::string ext = GetExt();
    m_sPath = GetBaseAndBranch() + name + (ext.empty() ? std::string() : m_pszExtSeparator + ext);
}

void PathName::SetExt(const std::string& ext)
{
    std::string text = GetBaseAndBranch() + GetLeaf();
    if (!ext.empty()) text += ext[0] == m_pszExtSeparator[0] ? ext : m_pszExtSeparator + ext;
    m_sPath = text;
}

void PathName::SetLeafAndExt(const std::string& leafAndExt)
{
    m_sPath = GetBaseAndBranch() + leafAndExt;
}

void PathName::ForceAsDir()
{
    if (!m_sPath.empty() && !IsPathSeparator(m_sPath.back())) m_sPath += m_cSeparator;
}

bool PathName::ForceAbsolute()
{
    if (IsUNC()) return true;
    if (m_sPath.empty() || FindBaseSeparator() != std::string::npos) return false;
    std::string text = Slashed(m_sPath);
    if (text[0] != '/') {
        std::string current = Platform::CurrentDirectory();
        if (current.empty()) return false;
        text = current + "/" + text;
    }
    m_sPath = Collapse(text);
    // The absolute form is a POSIX path: its separator is the preferred one from now on.
    InitSeparators();
    return true;
}

void PathName::ForceRelative(const std::string& relativeTo)
{
    if (relativeTo.empty()) {
        if (HasBase()) SetBase(std::string());
        else if (!m_sPath.empty() && m_sPath[0] == '/') m_sPath.erase(0, 1);
        return;
    }
    PathName folder(relativeTo, NT);
    if (folder.IsRelative()) folder.ForceAbsolute();
    if (IsRelative()) ForceAbsolute();
    const std::string& prefix = folder.m_sPath;
    if (prefix.size() > m_sPath.size()) return;
    for (std::size_t i = 0; i < prefix.size(); ++i)
        if (std::toupper(static_cast<unsigned char>(prefix[i])) != std::toupper(static_cast<unsigned char>(m_sPath[i])))
            return; // no match: the path stays absolute
    std::string rest = m_sPath.substr(prefix.size());
    if (!rest.empty() && (rest[0] == '\\' || rest[0] == '/')) rest.erase(0, 1);
    m_sPath = rest;
}

bool PathName::UpDir()
{
    if (!HasBranch()) return false;
    std::vector<std::string> pieces;
    if (StringTools::Split(GetBranch(), std::string(1, m_cSeparator), pieces) == 0) return false;
    // The piece behind the trailing separator, then the last folder.
    if (!pieces.empty() && pieces.back().empty()) pieces.pop_back();
    if (pieces.empty()) return false;
    pieces.pop_back();
    std::string branch;
    if (pieces.size() == 1 && pieces[0].empty()) branch = std::string(1, m_cSeparator); // the root
    else if (pieces.empty()) {
        if (FindBaseSeparator() == std::string::npos) return false; // no folder left to name
    } else {
        branch = StringTools::Join(pieces, std::string(1, m_cSeparator));
    }
    SetLeafAndExt(std::string());
    SetBranch(branch);
    ForceAsDir();
    return true;
}

PathName& PathName::operator+=(const std::string& path)
{
    return *this += path.c_str();
}

PathName& PathName::operator+=(const char* aPath)
{
    if (aPath == nullptr || *aPath == '\0') return *this;
    if (m_sPath.empty()) return *this = aPath;
    if (HasExt())
        QEL_RAISE_HANDLEABLE_ERROR(LogicError("Cannot append to a PathName that is a file name: " + m_sPath), sLOGGER);
    PathName argument(aPath, NT);
    if (argument.HasBase()) QEL_RAISE_HANDLEABLE_ERROR(InvalidParameter("aPath", std::string(aPath)), sLOGGER);
    ForceAsDir();
    const char* rest = aPath;
    if (argument.IsPathSeparator(*rest)) ++rest;
    m_sPath += rest;
    return *this;
}

// ---- the file system ----

bool PathName::FileSystemText(std::string& text, bool stripTrailingSeparator) const
{
    if (m_sPath.empty() || IsUNC() || FindBaseSeparator() != std::string::npos) return false;
    text = m_sPath;
    if (stripTrailingSeparator && text.size() > 1 && IsPathSeparator(text.back())) text.pop_back();
    text = Slashed(text);
    return true;
}

bool PathName::Exists() const
{
    std::string text;
    if (!FileSystemText(text, true)) return false;
    Platform::PathKind kind = Platform::StatPath(text);
    return HasLeaf() ? kind == Platform::PathKind::eFILE : kind == Platform::PathKind::eDIRECTORY;
}

bool PathName::IsDir() const
{
    std::string text;
    return FileSystemText(text, true) && Platform::StatPath(text) == Platform::PathKind::eDIRECTORY;
}

std::uint64_t PathName::GetLength() const
{
    std::string text;
    std::uint64_t size = 0;
    if (!FileSystemText(text, true)) return 0;
    return Platform::StatPath(text, &size) == Platform::PathKind::eFILE ? size : 0;
}

bool PathName::CreateBranch() const
{
    std::string text;
    if (!FileSystemText(text, false)) return false;
    std::string branch = Slashed(GetBranch());
    std::size_t position = 0;
    for (;;) {
        std::size_t next = branch.find('/', position + 1);
        if (next == std::string::npos) return true;
        std::string folder = branch.substr(0, next);
        if (!folder.empty() && Platform::StatPath(folder) != Platform::PathKind::eDIRECTORY &&
            !Platform::MakeDirectory(folder))
            return false;
        position = next;
    }
}

bool PathName::Delete()
{
    if (!Exists()) return true;
    std::string text;
    if (!FileSystemText(text, true)) return false;
    if (Platform::StatPath(text) == Platform::PathKind::eDIRECTORY) return Platform::RemoveDirectory(text);
    return Platform::RemoveFile(text);
}

bool PathName::Delete(const std::string& name)
{
    if (name.empty() || !IsDir()) return false;
    std::string text = m_sPath;
    if (!EndsInSeparator(text)) text += m_cSeparator;
    return Platform::RemoveFile(Slashed(text + name));
}

bool PathName::Rename(const std::string& newName)
{
    if (!Exists()) return false;
    PathName target(NT);
    if (IsDir()) {
        std::vector<std::string> pieces;
        StringTools::Split(GetBranch(), std::string(1, m_cSeparator), pieces);
        if (!pieces.empty() && pieces.back().empty()) pieces.pop_back();
        if (pieces.empty() || pieces.back().empty()) return false; // the root has no name
        pieces.back() = newName;
        target.SetBase(GetBase());
        target.SetBranch(StringTools::Join(pieces, std::string(1, m_cSeparator)));
    } else {
        target = GetBaseAndBranch();
        target.ForceAsDir();
        target += newName;
    }
    if (target.Exists()) return false;
    std::string from, to;
    if (!FileSystemText(from, true) || !target.FileSystemText(to, true)) return false;
    if (!Platform::RenameNoReplace(from, to)) return false;
    *this = target;
    return true;
}

bool PathName::ReadDirectory(std::vector<std::string>& names, std::string filter) const
{
    std::string text;
    if (!FileSystemText(text, true)) return false;
    // The filter may hold folders of its own: "sub/*.txt".
    std::string full = text + "/" + Slashed(filter);
    std::size_t slash = full.rfind('/');
    return Platform::ListDirectory(full.substr(0, slash), full.substr(slash + 1), names);
}

} // namespace Qel::Core
