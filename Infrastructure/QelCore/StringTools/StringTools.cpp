// Free functions on narrow and wide texts.
//
// Every function that exists in both widths is written once, as a template over the character
// type, and the exported functions are thin wrappers over it. What differs between the widths -
// the C runtime functions for character classes, case and numbers, and a few constant texts - is
// gathered in the traits class CharOps.
#include "Infrastructure/QelCore/StringTools.h"

#include <bit>
#include <cctype>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <cwchar>
#include <cwctype>
#include <functional>
#include <limits>

namespace Qel::Core::StringTools {

namespace {

template <class Ch> struct CharOps;

template <> struct CharOps<char>
{
    // The C functions take the byte as unsigned: a negative char would be read as EOF or worse.
    static bool IsSpace(char c) { return std::isspace(static_cast<unsigned char>(c)) != 0; }
    static char Upper(char c) { return static_cast<char>(std::toupper(static_cast<unsigned char>(c))); }
    static char Lower(char c) { return static_cast<char>(std::tolower(static_cast<unsigned char>(c))); }
    static double StrToD(const char* s, char** pEnd) { return std::strtod(s, pEnd); }
    static unsigned long StrToUL(const char* s, int nRadix) { return std::strtoul(s, nullptr, nRadix); }
    static int AToI(const char* s) { return std::atoi(s); }
    static long AToL(const char* s) { return std::atol(s); }
    static int Compare(const char* a, const char* b) { return std::strcmp(a, b); }

    static constexpr const char* sQNAN = "#QNAN";
    static constexpr const char* sINF = "#INF";
    static constexpr const char* sSNAN = "#SNAN";
    static constexpr const char* sNAN = "nan";
    static constexpr const char* sONE = "1";
    static constexpr const char* sT = "t";
    static constexpr const char* sTRUE = "true";
};

template <> struct CharOps<wchar_t>
{
    static bool IsSpace(wchar_t c) { return std::iswspace(static_cast<std::wint_t>(c)) != 0; }
    static wchar_t Upper(wchar_t c) { return static_cast<wchar_t>(std::towupper(static_cast<std::wint_t>(c))); }
    static wchar_t Lower(wchar_t c) { return static_cast<wchar_t>(std::towlower(static_cast<std::wint_t>(c))); }
    static double StrToD(const wchar_t* s, wchar_t** pEnd) { return std::wcstod(s, pEnd); }
    static unsigned long StrToUL(const wchar_t* s, int nRadix) { return std::wcstoul(s, nullptr, nRadix); }
    // There is no wide atoi; atoi is defined as strtol in base 10 cut down to int, and so is this.
    static int AToI(const wchar_t* s) { return static_cast<int>(std::wcstol(s, nullptr, 10)); }
    static long AToL(const wchar_t* s) { return std::wcstol(s, nullptr, 10); }
    static int Compare(const wchar_t* a, const wchar_t* b) { return std::wcscmp(a, b); }

    static constexpr const wchar_t* sQNAN = L"#QNAN";
    static constexpr const wchar_t* sINF = L"#INF";
    static constexpr const wchar_t* sSNAN = L"#SNAN";
    static constexpr const wchar_t* sNAN = L"nan";
    static constexpr const wchar_t* sONE = L"1";
    static constexpr const wchar_t* sT = L"t";
    static constexpr const wchar_t* sTRUE = L"true";
};

template <class Ch> using Str = std::basic_string<Ch>;

// ---- Split and Join ----

// Adds a part to the result: the strings that vParts already holds are overwritten first, so that
// a vector that is used again keeps the buffers of its strings.
template <class Ch>
void PutPart(std::vector<Str<Ch>>& vParts, std::size_t& nCount, const Str<Ch>& sText, std::size_t nPos,
             std::size_t nLength)
{
    if (nCount < vParts.size())
        vParts[nCount].assign(sText, nPos, nLength);
    else
        vParts.emplace_back(sText, nPos, nLength);
    ++nCount;
}

template <class Ch> void SplitInto(const Str<Ch>& sText, const Str<Ch>& sDelimiter, std::vector<Str<Ch>>& vParts)
{
    std::size_t nCount = 0;
    if (sDelimiter.empty()) {
        // An empty delimiter is never found: the whole text is the one part.
        PutPart(vParts, nCount, sText, 0, Str<Ch>::npos);
    } else {
        const std::size_t nDelimiter = sDelimiter.size();
        std::size_t nStart = 0;
        for (std::size_t nHit = sText.find(sDelimiter); nHit != Str<Ch>::npos; nHit = sText.find(sDelimiter, nStart)) {
            PutPart(vParts, nCount, sText, nStart, nHit - nStart);
            nStart = nHit + nDelimiter;
        }
        PutPart(vParts, nCount, sText, nStart, Str<Ch>::npos);
    }
    vParts.resize(nCount);
}

// True if p is one of the string objects that v holds.
template <class Ch> bool IsElementOf(const Str<Ch>* p, const std::vector<Str<Ch>>& v)
{
    // std::less orders any two pointers, also those into different objects.
    const std::less<const Str<Ch>*> before;
    return !v.empty() && !before(p, v.data()) && before(p, v.data() + v.size());
}

template <class Ch> int SplitImpl(const Str<Ch>& sText, const Str<Ch>& sDelimiter, std::vector<Str<Ch>>& vParts)
{
    if (IsElementOf(&sText, vParts) || IsElementOf(&sDelimiter, vParts)) {
        // The text or the delimiter is one of the parts that are about to be overwritten: split
        // into a vector of its own and swap that in.
        std::vector<Str<Ch>> vResult;
        SplitInto(sText, sDelimiter, vResult);
        vParts.swap(vResult);
    } else {
        SplitInto(sText, sDelimiter, vParts);
    }
    return static_cast<int>(vParts.size());
}

template <class Ch> Str<Ch> JoinImpl(const std::vector<Str<Ch>>& vParts, const Str<Ch>& sDelimiter)
{
    Str<Ch> sResult;
    if (vParts.empty()) return sResult;
    std::size_t nLength = sDelimiter.size() * (vParts.size() - 1);
    for (const Str<Ch>& sPart : vParts) nLength += sPart.size();
    sResult.reserve(nLength);
    sResult.append(vParts.front());
    for (std::size_t i = 1; i < vParts.size(); ++i) {
        sResult.append(sDelimiter);
        sResult.append(vParts[i]);
    }
    return sResult;
}

// ---- white space ----

// The first index in [nBegin, nEnd) that is not white space, or nEnd.
template <class Ch> std::size_t SkipSpaceForward(const Ch* p, std::size_t nBegin, std::size_t nEnd)
{
    while (nBegin < nEnd && CharOps<Ch>::IsSpace(p[nBegin])) ++nBegin;
    return nBegin;
}

// One past the last index in [nBegin, nEnd) that is not white space, or nBegin.
template <class Ch> std::size_t SkipSpaceBackward(const Ch* p, std::size_t nBegin, std::size_t nEnd)
{
    while (nEnd > nBegin && CharOps<Ch>::IsSpace(p[nEnd - 1])) --nEnd;
    return nEnd;
}

template <class Ch> Str<Ch> TrimStartImpl(const Str<Ch>& sText)
{
    const std::size_t nBegin = SkipSpaceForward(sText.data(), 0, sText.size());
    return sText.substr(nBegin);
}

template <class Ch> Str<Ch> TrimEndImpl(const Str<Ch>& sText)
{
    const std::size_t nEnd = SkipSpaceBackward(sText.data(), 0, sText.size());
    return sText.substr(0, nEnd);
}

template <class Ch> Str<Ch> TrimWSImpl(const Str<Ch>& sText)
{
    const std::size_t nBegin = SkipSpaceForward(sText.data(), 0, sText.size());
    const std::size_t nEnd = SkipSpaceBackward(sText.data(), nBegin, sText.size());
    return sText.substr(nBegin, nEnd - nBegin);
}

// Appends the piece [nBegin, nEnd) of p without its leading and trailing white space; the same as
// appending TrimWS of the piece, without the copy in between.
template <class Ch> void AppendTrimmed(Str<Ch>& sResult, const Ch* p, std::size_t nBegin, std::size_t nEnd)
{
    nBegin = SkipSpaceForward(p, nBegin, nEnd);
    nEnd = SkipSpaceBackward(p, nBegin, nEnd);
    sResult.append(p + nBegin, nEnd - nBegin);
}

// ---- LineBreaks ----

template <class Ch> Str<Ch> LineBreaksImpl(const Str<Ch>& sText, unsigned long long nWidthIn, Ch cBreak)
{
    const Ch* p = sText.data();
    const std::size_t nLength = sText.size();
    // A width of 0 counts as 1. A width beyond the text's length never cuts, so it may be capped
    // there, which also keeps nStart + nWidth clear of overflow.
    const std::size_t nWidth = nWidthIn == 0 ? 1 : (nWidthIn > nLength ? nLength : static_cast<std::size_t>(nWidthIn));

    Str<Ch> sResult;
    sResult.reserve(nLength);
    std::size_t nStart = 0;
    while (nLength - nStart > nWidth) {
        const std::size_t nCandidate = nStart + nWidth;
        // Backward from the candidate, down to but not including nStart, for white space.
        std::size_t nCut = nCandidate;
        while (nCut > nStart && !CharOps<Ch>::IsSpace(p[nCut])) --nCut;
        if (nCut == nStart) {
            // None within the width: the word overruns up to the next white space or the end.
            nCut = nCandidate;
            while (nCut < nLength && !CharOps<Ch>::IsSpace(p[nCut])) ++nCut;
        }
        // The whole run of white space at the cut goes, whatever kind it is.
        nCut = SkipSpaceForward(p, nCut, nLength);
        AppendTrimmed(sResult, p, nStart, nCut);
        if (nCut != nLength) sResult.push_back(cBreak);
        nStart = nCut;
    }
    AppendTrimmed(sResult, p, nStart, nLength);
    return sResult;
}

// ---- case ----

template <class Ch> Str<Ch> UpCaseImpl(const Str<Ch>& sText)
{
    Str<Ch> sResult(sText);
    for (Ch& c : sResult) c = CharOps<Ch>::Upper(c);
    return sResult;
}

template <class Ch> Str<Ch> DownCaseImpl(const Str<Ch>& sText)
{
    Str<Ch> sResult(sText);
    for (Ch& c : sResult) c = CharOps<Ch>::Lower(c);
    return sResult;
}

// ---- real numbers ----

// What the text after the number asks for.
enum class ESpecial
{
    eNumber,   // the number itself (times infinity already applied for "#INF")
    eQuietNaN, // "#QNAN" after 1 or -1, or "nan" after any other number
    eSignalNaN // "#SNAN" after 1 or -1
};

// Reads the number at the start of the text with strtod and looks at what follows it, to read
// the forms in which runtimes print special values ("1.#INF", "-1.#INF", "1.#QNAN", "1.#SNAN").
template <class Ch> double ParseReal(const Str<Ch>& sText, ESpecial& eSpecial)
{
    using Ops = CharOps<Ch>;
    eSpecial = ESpecial::eNumber;
    const Ch* pText = sText.c_str();
    Ch* pRest = nullptr;
    const double dNumber = Ops::StrToD(pText, &pRest);
    if (*pRest == Ch(0)) return dNumber;
    if (dNumber != 1.0 && dNumber != -1.0) {
        if (Ops::Compare(pRest, Ops::sNAN) == 0) eSpecial = ESpecial::eQuietNaN;
        return dNumber;
    }
    if (Ops::Compare(pRest, Ops::sQNAN) == 0)
        eSpecial = ESpecial::eQuietNaN;
    else if (Ops::Compare(pRest, Ops::sINF) == 0)
        return dNumber * std::numeric_limits<double>::infinity();
    else if (Ops::Compare(pRest, Ops::sSNAN) == 0)
        eSpecial = ESpecial::eSignalNaN;
    return dNumber;
}

// The NaNs are made from their bits: a conversion between double and float, or an arithmetic
// operation, might change the payload or the quiet bit.
constexpr std::uint64_t nDOUBLE_QNAN = 0x7FF8000000000000ULL;
constexpr std::uint64_t nDOUBLE_SNAN = 0x7FF8000000000001ULL;
constexpr std::uint32_t nFLOAT_QNAN = 0x7FC00000U;
constexpr std::uint32_t nFLOAT_SNAN = 0x7FC00001U;

template <class Ch> double ToDoubleImpl(const Str<Ch>& sText)
{
    ESpecial eSpecial;
    const double dNumber = ParseReal(sText, eSpecial);
    switch (eSpecial) {
    case ESpecial::eQuietNaN:
        return std::bit_cast<double>(nDOUBLE_QNAN);
    case ESpecial::eSignalNaN:
        return std::bit_cast<double>(nDOUBLE_SNAN);
    case ESpecial::eNumber:
        break;
    }
    return dNumber;
}

template <class Ch> float ToFloatImpl(const Str<Ch>& sText)
{
    ESpecial eSpecial;
    const double dNumber = ParseReal(sText, eSpecial);
    switch (eSpecial) {
    case ESpecial::eQuietNaN:
        return std::bit_cast<float>(nFLOAT_QNAN);
    case ESpecial::eSignalNaN:
        return std::bit_cast<float>(nFLOAT_SNAN);
    case ESpecial::eNumber:
        break;
    }
    return static_cast<float>(dNumber);
}

// ---- whole numbers ----

// strtoul of the text, cut down to the width of T. unsigned long is 64 bits on Linux, so the
// C function's own range check only ever applies at 64 bits; narrower results are the low bits.
template <class T, class Ch> T ToUnsigned(const Str<Ch>& sText, int nRadix)
{
    return static_cast<T>(CharOps<Ch>::StrToUL(sText.c_str(), nRadix));
}

template <class Ch> bool ToBoolImpl(const Str<Ch>& sText)
{
    using Ops = CharOps<Ch>;
    const Str<Ch> sLower = DownCaseImpl(sText);
    const Ch* p = sLower.c_str();
    return Ops::Compare(p, Ops::sONE) == 0 || Ops::Compare(p, Ops::sT) == 0 || Ops::Compare(p, Ops::sTRUE) == 0;
}

constexpr char cESCAPE = '\\';

} // namespace

// ---- exported narrow and wide functions ----

int Split(const std::string& sText, const std::string& sDelimiter, std::vector<std::string>& vParts)
{
    return SplitImpl(sText, sDelimiter, vParts);
}

int Split(const TUnicodeStr& sText, const TUnicodeStr& sDelimiter, std::vector<TUnicodeStr>& vParts)
{
    return SplitImpl(sText, sDelimiter, vParts);
}

std::string Join(const std::vector<std::string>& vParts, const std::string& sDelimiter)
{
    return JoinImpl(vParts, sDelimiter);
}

TUnicodeStr Join(const std::vector<TUnicodeStr>& vParts, const TUnicodeStr& sDelimiter)
{
    return JoinImpl(vParts, sDelimiter);
}

std::string LineBreaks(const std::string& sText, unsigned long long nWidth, char cBreak)
{
    return LineBreaksImpl(sText, nWidth, cBreak);
}

TUnicodeStr LineBreaks(const TUnicodeStr& sText, unsigned long long nWidth, wchar_t cBreak)
{
    return LineBreaksImpl(sText, nWidth, cBreak);
}

std::string TrimStart(const std::string& sText)
{
    return TrimStartImpl(sText);
}
std::string TrimEnd(const std::string& sText)
{
    return TrimEndImpl(sText);
}
std::string TrimWS(const std::string& sText)
{
    return TrimWSImpl(sText);
}
TUnicodeStr TrimStart(const TUnicodeStr& sText)
{
    return TrimStartImpl(sText);
}
TUnicodeStr TrimEnd(const TUnicodeStr& sText)
{
    return TrimEndImpl(sText);
}
TUnicodeStr TrimWS(const TUnicodeStr& sText)
{
    return TrimWSImpl(sText);
}

std::string UpCase(const std::string& sText)
{
    return UpCaseImpl(sText);
}
std::string DownCase(const std::string& sText)
{
    return DownCaseImpl(sText);
}
TUnicodeStr UpCase(const TUnicodeStr& sText)
{
    return UpCaseImpl(sText);
}
TUnicodeStr DownCase(const TUnicodeStr& sText)
{
    return DownCaseImpl(sText);
}

double ToDouble(const std::string& sText)
{
    return ToDoubleImpl(sText);
}
double ToDouble(const TUnicodeStr& sText)
{
    return ToDoubleImpl(sText);
}
float ToFloat(const std::string& sText)
{
    return ToFloatImpl(sText);
}
float ToFloat(const TUnicodeStr& sText)
{
    return ToFloatImpl(sText);
}

unsigned char ToByte(const std::string& sText, int nRadix)
{
    return ToUnsigned<unsigned char>(sText, nRadix);
}
unsigned short ToUnsignedShort(const std::string& sText, int nRadix)
{
    return ToUnsigned<unsigned short>(sText, nRadix);
}
unsigned int ToUnsignedInt(const std::string& sText, int nRadix)
{
    return ToUnsigned<unsigned int>(sText, nRadix);
}
unsigned long ToUnsignedLong(const std::string& sText, int nRadix)
{
    return ToUnsigned<unsigned long>(sText, nRadix);
}
unsigned char ToByte(const TUnicodeStr& sText, int nRadix)
{
    return ToUnsigned<unsigned char>(sText, nRadix);
}
unsigned short ToUnsignedShort(const TUnicodeStr& sText, int nRadix)
{
    return ToUnsigned<unsigned short>(sText, nRadix);
}
unsigned int ToUnsignedInt(const TUnicodeStr& sText, int nRadix)
{
    return ToUnsigned<unsigned int>(sText, nRadix);
}
unsigned long ToUnsignedLong(const TUnicodeStr& sText, int nRadix)
{
    return ToUnsigned<unsigned long>(sText, nRadix);
}

short ToShort(const std::string& sText)
{
    return static_cast<short>(CharOps<char>::AToI(sText.c_str()));
}
int ToInt(const std::string& sText)
{
    return CharOps<char>::AToI(sText.c_str());
}
long ToLong(const std::string& sText)
{
    return CharOps<char>::AToL(sText.c_str());
}
short ToShort(const TUnicodeStr& sText)
{
    return static_cast<short>(CharOps<wchar_t>::AToI(sText.c_str()));
}
int ToInt(const TUnicodeStr& sText)
{
    return CharOps<wchar_t>::AToI(sText.c_str());
}
long ToLong(const TUnicodeStr& sText)
{
    return CharOps<wchar_t>::AToL(sText.c_str());
}

bool ToBool(const std::string& sText)
{
    return ToBoolImpl(sText);
}
bool ToBool(const TUnicodeStr& sText)
{
    return ToBoolImpl(sText);
}

// ---- escaped lists (narrow only) ----

void Escape(std::string& sText, char cDelimiter)
{
    std::size_t nSpecial = 0;
    for (char c : sText)
        if (c == cESCAPE || c == cDelimiter) ++nSpecial;
    if (nSpecial == 0) return;
    std::string sResult;
    sResult.reserve(sText.size() + nSpecial);
    for (char c : sText) {
        if (c == cESCAPE || c == cDelimiter) sResult.push_back(cESCAPE);
        sResult.push_back(c);
    }
    sText.swap(sResult);
}

void UnEscape(std::string& sText, char /*cDelimiter*/)
{
    // Compacts in place: the write index never passes the read index.
    std::size_t nOut = 0;
    const std::size_t nLength = sText.size();
    for (std::size_t nIn = 0; nIn < nLength; ++nIn) {
        if (sText[nIn] == cESCAPE) {
            // The backslash goes; the character behind it, if any, is kept as it stands.
            if (++nIn == nLength) break;
        }
        sText[nOut++] = sText[nIn];
    }
    sText.resize(nOut);
}

void Array2Str(const std::vector<std::string>& vItems, char cDelimiter, std::string& sResult)
{
    sResult.clear();
    std::string sItem;
    for (std::size_t i = 0; i < vItems.size(); ++i) {
        if (i != 0) sResult.push_back(cDelimiter);
        sItem = vItems[i];
        Escape(sItem, cDelimiter);
        sResult.append(sItem);
    }
}

void Str2Array(const std::string& sText, char cDelimiter, std::vector<std::string>& vItems)
{
    // Gathered apart and swapped in at the end, as in Split, so that the text may lie in vItems.
    std::vector<std::string> vResult;
    if (!sText.empty()) {
        std::size_t nItemStart = 0;
        std::size_t nSearch = 0;
        for (;;) {
            const std::size_t nHit = sText.find(cDelimiter, nSearch);
            if (nHit == std::string::npos) {
                vResult.emplace_back(sText, nItemStart);
                UnEscape(vResult.back(), cDelimiter);
                break;
            }
            // The backslashes directly before the delimiter, within the current item. An odd
            // count means the last of them escapes the delimiter.
            std::size_t nBackslashes = 0;
            while (nHit - nBackslashes > nItemStart && sText[nHit - nBackslashes - 1] == cESCAPE) ++nBackslashes;
            if (nBackslashes % 2 == 0) {
                vResult.emplace_back(sText, nItemStart, nHit - nItemStart);
                UnEscape(vResult.back(), cDelimiter);
                nItemStart = nHit + 1;
            }
            nSearch = nHit + 1;
        }
    }
    vItems.swap(vResult);
}

} // namespace Qel::Core::StringTools
