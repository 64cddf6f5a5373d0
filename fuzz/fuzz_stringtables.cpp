// Fuzzes the reader of string table files ("QelStringTables.xml"): any input, read as a file,
// leaves the library standing and throws nothing; the locales it filled still answer look-ups;
// and what a locale writes of its tables reads back without harm and changes none of them.
//
// The strings of all inputs pile up in the process's locales (a key keeps its first text), so a
// look-up here checks only that it answers, not what. A re-read adds no key to a table whose keys
// are all plain text (UTF-8 without control characters): the writer gives such a key back as it
// was. Bytes that are not UTF-8 are written as their Latin-1 characters, so that the file
// stays well-formed, and a key with them comes back as another key.
#include "Infrastructure/QelCore/Locale.h"

#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <fstream>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace {

using Qel::Core::Locale;
using Qel::Core::LocaleName;

// Two scratch files for the whole process, named by its id so that parallel runs don't meet.
struct ScratchFiles
{
    std::string m_sInput;
    std::string m_sOutput;

    ScratchFiles()
    {
        const std::string stem = "/tmp/fuzz_stringtables." + std::to_string(::getpid());
        m_sInput = stem + ".in.xml";
        m_sOutput = stem + ".out.xml";
    }
    ~ScratchFiles()
    {
        std::remove(m_sInput.c_str());
        std::remove(m_sOutput.c_str());
    }
};

const ScratchFiles& Files()
{
    static ScratchFiles files;
    return files;
}

void WriteFile(const std::string& path, const std::uint8_t* data, std::size_t size)
{
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char*>(data), static_cast<std::streamsize>(size));
    if (!out) __builtin_trap();
}

// The reader must take in every file without letting anything out.
void Input(const std::string& path)
{
    try {
        Locale::InputLocaleStrings(path);
    } catch (...) {
        __builtin_trap();
    }
}

void LookUp(const std::shared_ptr<Locale>& locale)
{
    static const std::pair<const char*, const char*> keys[] = {
        {"_AlertMessageFormats_", "Some.Key"},
        {"_LogMessageFormats_", "Some.Key"},
        {"Fuzz.Table", "DisplayFormat"},
        {"", ""},
    };
    for (const auto& [table, key] : keys) {
        std::string text = "unchanged";
        if (!locale->GetString(table, key, text) && text != "unchanged") __builtin_trap();
    }
}

// Well-formed UTF-8 (no overlong forms, no surrogates, nothing above U+10FFFF) without control
// characters.
bool IsPlain(const std::string& text)
{
    const auto* p = reinterpret_cast<const unsigned char*>(text.data());
    const auto* end = p + text.size();
    while (p < end) {
        const unsigned char c = *p;
        if (c < 0x20 || c == 0x7F) return false;
        if (c < 0x80) {
            ++p;
            continue;
        }
        int n = 0;
        unsigned long code = 0;
        if (c >= 0xC2 && c <= 0xDF) {
            n = 1;
            code = c & 0x1F;
        } else if (c >= 0xE0 && c <= 0xEF) {
            n = 2;
            code = c & 0x0F;
        } else if (c >= 0xF0 && c <= 0xF4) {
            n = 3;
            code = c & 0x07;
        } else {
            return false;
        }
        if (end - p <= n) return false;
        for (int i = 1; i <= n; ++i) {
            if ((p[i] & 0xC0) != 0x80) return false;
            code = (code << 6) | (p[i] & 0x3F);
        }
        if ((n == 2 && code < 0x800) || (n == 3 && code < 0x10000) || code > 0x10FFFF) return false;
        if (code >= 0xD800 && code <= 0xDFFF) return false;
        if (code >= 0x80 && code < 0xA0) return false; // C1 controls
        p += n + 1;
    }
    return true;
}

std::vector<std::pair<std::string, std::string>> Contents(const Locale& locale, const std::string& table)
{
    return locale.GetStringTable(table)->GetStrings();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const ScratchFiles& files = Files();
    WriteFile(files.m_sInput, data, size);
    Input(files.m_sInput);

    std::shared_ptr<Locale> root = Locale::GetRoot();
    std::shared_ptr<Locale> german = Locale::Acquire(LocaleName("de-DE"));
    if (!root || !german) __builtin_trap();
    LookUp(root);
    LookUp(german);

    // What de-DE writes reads back into de-DE; a table of plain keys gains none.
    const auto before = Contents(*german, "_AlertMessageFormats_");
    bool bPlain = true;
    for (const auto& entry : before) bPlain = bPlain && IsPlain(entry.first);
    std::remove(files.m_sOutput.c_str());
    german->OutputStrings(files.m_sOutput);
    Input(files.m_sOutput);
    if (bPlain && Contents(*german, "_AlertMessageFormats_") != before) __builtin_trap();
    LookUp(german);
    return 0;
}
