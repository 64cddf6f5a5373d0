// Free functions on narrow texts (std::string, UTF-8) and wide texts (TUnicodeStr).
//
// The functions keep no state. Each function that exists for both widths behaves the same on
// both; the wide twin uses the wide functions of the C runtime (iswspace, towupper, towlower,
// wcstod, wcstoul, wcstol, wcscmp) where the narrow one uses isspace, toupper, tolower, strtod,
// strtoul, atoi, atol and strcmp. Character classes and case follow the current C locale.
#pragma once

#include "Infrastructure/QelCore/QelCoreExport.h"

#include <string>
#include <vector>

namespace Qel::Core {

// The library's wide text: UTF-32 code points in wchar_t on Linux.
using TUnicodeStr = std::wstring;

namespace StringTools {

// ---- splitting and joining ----

// Cuts `sText` at each occurrence of the whole text `sDelimiter`, searching left to right, and
// puts the parts into `vParts` (which is cleared first). Empty parts are kept: a delimiter at the
// start, two adjacent delimiters or a delimiter at the end each give an empty part. A text without
// the delimiter, the empty text included, gives one part. Returns the number of parts.
// The delimiter must not be empty; an empty delimiter is taken as "never found", so the whole text
// comes back as the only part.
QEL_CORE_API int Split(const std::string& sText, const std::string& sDelimiter, std::vector<std::string>& vParts);
QEL_CORE_API int Split(const TUnicodeStr& sText, const TUnicodeStr& sDelimiter, std::vector<TUnicodeStr>& vParts);

// The parts with `sDelimiter` between them; no parts give the empty text. Undoes Split with the
// same delimiter.
QEL_CORE_API std::string Join(const std::vector<std::string>& vParts, const std::string& sDelimiter = std::string());
QEL_CORE_API TUnicodeStr Join(const std::vector<TUnicodeStr>& vParts, const TUnicodeStr& sDelimiter = TUnicodeStr());

// ---- line breaking ----

// Breaks `sText` into lines of about `nWidth` characters at white space, with `cBreak` between the
// lines. A width of 0 counts as 1. A line is cut at the last white space within the width; a word
// longer than the width stays whole and its line overruns. The run of white space at a cut
// (spaces, tabs, carriage returns and newlines alike) is replaced by `cBreak`; white space never
// stays at the edge of a line, and a line break of the text inside a piece that fits stays as is.
QEL_CORE_API std::string LineBreaks(const std::string& sText, unsigned long long nWidth, char cBreak = '\n');
QEL_CORE_API TUnicodeStr LineBreaks(const TUnicodeStr& sText, unsigned long long nWidth, wchar_t cBreak = L'\n');

// ---- white space and case ----

// A copy without leading (TrimStart), trailing (TrimEnd) or both (TrimWS) white space, as isspace
// says for each byte taken as unsigned (iswspace for wide texts).
QEL_CORE_API std::string TrimStart(const std::string& sText);
QEL_CORE_API std::string TrimEnd(const std::string& sText);
QEL_CORE_API std::string TrimWS(const std::string& sText);
QEL_CORE_API TUnicodeStr TrimStart(const TUnicodeStr& sText);
QEL_CORE_API TUnicodeStr TrimEnd(const TUnicodeStr& sText);
QEL_CORE_API TUnicodeStr TrimWS(const TUnicodeStr& sText);

// Each character through toupper or tolower (towupper, towlower); everything else stays.
QEL_CORE_API std::string UpCase(const std::string& sText);
QEL_CORE_API std::string DownCase(const std::string& sText);
QEL_CORE_API TUnicodeStr UpCase(const TUnicodeStr& sText);
QEL_CORE_API TUnicodeStr DownCase(const TUnicodeStr& sText);

// ---- numbers ----

// The number at the start of the text as strtod reads it (0 for a text with no number). Reads the
// forms in which runtimes print special values: "1.#INF" and "-1.#INF" give plus and minus
// infinity, "1.#QNAN" a quiet NaN (bits 0x7FF8000000000000), "1.#SNAN" a NaN with the bits
// 0x7FF8000000000001; a number other than 1 or -1 followed by exactly "nan" gives the quiet NaN.
// Any other trailing text is ignored.
QEL_CORE_API double ToDouble(const std::string& sText);
QEL_CORE_API double ToDouble(const TUnicodeStr& sText);
// As ToDouble, read in double precision and converted to float at the end; the NaNs have the bits
// 0x7FC00000 (quiet) and 0x7FC00001 ("#SNAN").
QEL_CORE_API float ToFloat(const std::string& sText);
QEL_CORE_API float ToFloat(const TUnicodeStr& sText);

// strtoul of the text in the radix `nRadix`, cut down to the width of the result. With the radix 0
// the text's prefix decides: "0x"/"0X" hexadecimal, a leading 0 octal, else decimal. A text with
// no number gives 0. Note that unsigned long is 64 bits wide on Linux.
QEL_CORE_API unsigned char ToByte(const std::string& sText, int nRadix = 0);
QEL_CORE_API unsigned short ToUnsignedShort(const std::string& sText, int nRadix = 0);
QEL_CORE_API unsigned int ToUnsignedInt(const std::string& sText, int nRadix = 0);
QEL_CORE_API unsigned long ToUnsignedLong(const std::string& sText, int nRadix = 0);
QEL_CORE_API unsigned char ToByte(const TUnicodeStr& sText, int nRadix = 0);
QEL_CORE_API unsigned short ToUnsignedShort(const TUnicodeStr& sText, int nRadix = 0);
QEL_CORE_API unsigned int ToUnsignedInt(const TUnicodeStr& sText, int nRadix = 0);
QEL_CORE_API unsigned long ToUnsignedLong(const TUnicodeStr& sText, int nRadix = 0);

// Decimal only: ToShort and ToInt are atoi of the text (ToShort cut down to 16 bits), ToLong is
// atol (64 bits on Linux). A text with no number gives 0.
QEL_CORE_API short ToShort(const std::string& sText);
QEL_CORE_API int ToInt(const std::string& sText);
QEL_CORE_API long ToLong(const std::string& sText);
QEL_CORE_API short ToShort(const TUnicodeStr& sText);
QEL_CORE_API int ToInt(const TUnicodeStr& sText);
QEL_CORE_API long ToLong(const TUnicodeStr& sText);

// True for "1", "t" and "true" in any case, false for every other text.
QEL_CORE_API bool ToBool(const std::string& sText);
QEL_CORE_API bool ToBool(const TUnicodeStr& sText);

// ---- escaped lists ----

// Puts a backslash before each backslash and each `cDelimiter` of the text, in place.
QEL_CORE_API void Escape(std::string& sText, char cDelimiter);
// Removes each backslash, keeping the character behind it as it stands without looking at it
// again; a backslash at the very end is removed too. The delimiter plays no part.
QEL_CORE_API void UnEscape(std::string& sText, char cDelimiter);

// The items, each escaped, with one bare `cDelimiter` between them, into `sResult` (cleared first).
QEL_CORE_API void Array2Str(const std::vector<std::string>& vItems, char cDelimiter, std::string& sResult);
// Undoes Array2Str: cuts the text at each delimiter that is preceded by an even number of
// backslashes and unescapes the items into `vItems` (cleared first). An empty text gives no items,
// so a list of a single empty item does not come back.
QEL_CORE_API void Str2Array(const std::string& sText, char cDelimiter, std::vector<std::string>& vItems);

} // namespace StringTools
} // namespace Qel::Core
