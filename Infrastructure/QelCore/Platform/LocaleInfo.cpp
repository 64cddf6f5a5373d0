// Locale data from ICU: validity, names, codes, parents, identifiers and the list of locales.
#include "Infrastructure/QelCore/Platform/LocaleInfo.h"

#include <dlfcn.h>
#include <unicode/uloc.h>
#include <unicode/ustring.h>

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <cstring>
#include <map>
#include <unordered_map>
#include <vector>

namespace Qel::Core::Platform {
namespace {

std::string Lower(std::string text)
{
    for (char& c : text) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return text;
}

// ICU's identifier ("en_US") of a BCP 47 tag, or empty if ICU cannot read the whole tag.
std::string ToIcuId(const std::string& tag)
{
    if (tag.empty() || tag.size() > 100) return std::string();
    char id[ULOC_FULLNAME_CAPACITY];
    int32_t parsed = 0;
    UErrorCode status = U_ZERO_ERROR;
    int32_t length = uloc_forLanguageTag(tag.c_str(), id, sizeof(id), &parsed, &status);
    if (U_FAILURE(status) || status == U_STRING_NOT_TERMINATED_WARNING || parsed != static_cast<int32_t>(tag.size()) ||
        length <= 0)
        return std::string();
    return std::string(id, static_cast<std::size_t>(length));
}

std::string ToTag(const char* icuId)
{
    char tag[ULOC_FULLNAME_CAPACITY];
    UErrorCode status = U_ZERO_ERROR;
    int32_t length = uloc_toLanguageTag(icuId, tag, sizeof(tag), true, &status);
    if (U_FAILURE(status) || status == U_STRING_NOT_TERMINATED_WARNING || length <= 0) return std::string();
    return std::string(tag, static_cast<std::size_t>(length));
}

std::string Part(int32_t (*function)(const char*, char*, int32_t, UErrorCode*), const std::string& id);

// ICU's likely full form of an identifier ("zh_CN" -> "zh_Hans_CN"), or empty.
std::string Likely(const std::string& id)
{
    char full[ULOC_FULLNAME_CAPACITY];
    UErrorCode status = U_ZERO_ERROR;
    int32_t length = uloc_addLikelySubtags(id.c_str(), full, sizeof(full), &status);
    if (U_FAILURE(status) || status == U_STRING_NOT_TERMINATED_WARNING || length <= 0) return std::string();
    return std::string(full, static_cast<std::size_t>(length));
}

// The name a user writes for an available locale. ICU lists some locales only with their script
// ("zh_Hans_CN", "pa_Guru_IN"); where the script is the one the language and region imply, the
// name without it ("zh-CN", "pa-IN") means the same locale and is what users and LANG give. A
// script that is not implied stays ("zh-Hans-HK", "sr-Latn-RS").
std::string UserTag(const std::string& id)
{
    const std::string script = Part(uloc_getScript, id);
    const std::string region = Part(uloc_getCountry, id);
    const std::string variant = Part(uloc_getVariant, id);
    if (!script.empty() && !region.empty() && variant.empty()) {
        const std::string shorter = Part(uloc_getLanguage, id) + "_" + region;
        if (Lower(Likely(shorter)) == Lower(id)) return ToTag(shorter.c_str());
    }
    return ToTag(id.c_str());
}

// The available locales: ICU identifiers in ICU's order, the names users write for them, and
// those names by lower-case identifier.
struct Available
{
    std::vector<std::string> ids;
    std::unordered_map<std::string, std::string> tagByLowerId;

    Available()
    {
        int32_t count = uloc_countAvailable();
        for (int32_t i = 0; i < count; ++i) {
            const char* id = uloc_getAvailable(i);
            if (!id) continue;
            std::string tag = UserTag(id);
            if (tag.empty()) continue;
            ids.emplace_back(id);
            tagByLowerId.emplace(Lower(id), tag);
        }
    }
};

// ICU keeps process-wide caches that belong to the process, not to this library: its library
// stays loaded when this one is unloaded, so that a host that loads and unloads the library does
// not leave those caches behind, unreachable, nor pull ICU away from other users in the process.
void PinIcu()
{
    Dl_info info;
    if (dladdr(reinterpret_cast<void*>(&uloc_countAvailable), &info) && info.dli_fname)
        (void)dlopen(info.dli_fname, RTLD_NOW | RTLD_NOLOAD | RTLD_NODELETE);
}

const Available& AvailableLocales()
{
    static const Available s_Available = (PinIcu(), Available());
    return s_Available;
}

std::string FromUtf16(const UChar* text, int32_t length)
{
    if (length <= 0) return std::string();
    std::string out(static_cast<std::size_t>(length) * 3 + 1, '\0');
    int32_t written = 0;
    UErrorCode status = U_ZERO_ERROR;
    u_strToUTF8(out.data(), static_cast<int32_t>(out.size()), &written, text, length, &status);
    if (U_FAILURE(status)) return std::string();
    out.resize(static_cast<std::size_t>(written));
    return out;
}

using DisplayFunction = int32_t (*)(const char*, const char*, UChar*, int32_t, UErrorCode*);

std::string Display(DisplayFunction function, const std::string& id, const char* inLocale)
{
    UChar buffer[260];
    UErrorCode status = U_ZERO_ERROR;
    int32_t length = function(id.c_str(), inLocale, buffer, 260, &status);
    // ICU falls back to the code itself when it has no name; that is no name.
    if (U_FAILURE(status) || status == U_USING_DEFAULT_WARNING || length <= 0 || length > 260) return std::string();
    return FromUtf16(buffer, length);
}

std::string Part(int32_t (*function)(const char*, char*, int32_t, UErrorCode*), const std::string& id)
{
    char buffer[ULOC_FULLNAME_CAPACITY];
    UErrorCode status = U_ZERO_ERROR;
    int32_t length = function(id.c_str(), buffer, sizeof(buffer), &status);
    if (U_FAILURE(status) || length <= 0 || length >= static_cast<int32_t>(sizeof(buffer))) return std::string();
    return std::string(buffer, static_cast<std::size_t>(length));
}

// The identifier of the available locale that a name stands for, or empty when it stands for
// none. A name stands for a locale that ICU lists under it, or under the fuller form that ICU's
// likely-subtags rules give it ("zh-CN" is "zh_Hans_CN"); a name without a language ("und-CN")
// stands for none.
std::string ValidId(const std::string& name)
{
    std::string id = ToIcuId(name);
    if (id.empty()) return id;
    const auto& available = AvailableLocales().tagByLowerId;
    if (available.count(Lower(id))) return id;
    if (Part(uloc_getLanguage, id).empty()) return std::string();
    std::string likely = Likely(id);
    if (likely.empty() || !available.count(Lower(likely))) return std::string();
    // Only the script may be filled in: a region the name did not give would make another locale.
    if (Lower(Part(uloc_getCountry, likely)) != Lower(Part(uloc_getCountry, id))) return std::string();
    return likely;
}

} // namespace

bool IsValidLocaleName(const std::string& name)
{
    return !ValidId(name).empty();
}

std::string GetLocaleInfo(const std::string& name, LocaleQuery query)
{
    std::string id = ValidId(name);
    if (id.empty()) return std::string();
    switch (query) {
    case LocaleQuery::Language:
    case LocaleQuery::LanguageInEnglish: return Display(uloc_getDisplayLanguage, id, "en");
    case LocaleQuery::NativeLanguage: return Display(uloc_getDisplayLanguage, id, id.c_str());
    case LocaleQuery::LanguageCode: return Part(uloc_getLanguage, id);
    case LocaleQuery::Region:
    case LocaleQuery::RegionInEnglish:
        return Part(uloc_getCountry, id).empty() ? std::string() : Display(uloc_getDisplayCountry, id, "en");
    case LocaleQuery::NativeRegion:
        return Part(uloc_getCountry, id).empty() ? std::string() : Display(uloc_getDisplayCountry, id, id.c_str());
    case LocaleQuery::RegionCode: return Part(uloc_getCountry, id);
    case LocaleQuery::Parent: {
        std::string parent = Part(uloc_getParent, id);
        return parent.empty() ? std::string() : ToTag(parent.c_str());
    }
    case LocaleQuery::LanguageId: {
        unsigned long lcid = LocaleNameToId(name);
        if (lcid == 0 || lcid == 0x1000) return std::string();
        char hex[8];
        static const char digits[] = "0123456789abcdef";
        for (int i = 3; i >= 0; --i) hex[3 - i] = digits[(lcid >> (4 * i)) & 0xF];
        return std::string(hex, 4);
    }
    }
    return std::string();
}

unsigned long LocaleNameToId(const std::string& name)
{
    std::string id = ValidId(name);
    if (id.empty()) return 0;
    uint32_t lcid = uloc_getLCID(id.c_str());
    if (lcid == 0) return 0x1000;
    // Only an identifier that leads back to the same locale is the locale's own.
    char back[ULOC_FULLNAME_CAPACITY];
    UErrorCode status = U_ZERO_ERROR;
    int32_t length = uloc_getLocaleForLCID(lcid, back, sizeof(back), &status);
    if (U_FAILURE(status) || length <= 0) return 0x1000;
    const std::string backId(back, static_cast<std::size_t>(length));
    if (Lower(backId) == Lower(id)) return lcid;
    // ICU names some identifiers without the implied script ("zh_CN" for zh_Hans_CN): the same
    // locale, when the region is the same and the script the implied one.
    if (Lower(Part(uloc_getCountry, backId)) == Lower(Part(uloc_getCountry, id)) && Lower(Likely(backId)) == Lower(id))
        return lcid;
    return 0x1000;
}

void EnumerateLocales(const std::function<void(const std::string&)>& each)
{
    const Available& available = AvailableLocales();
    // Languages in the order ICU first shows them, each with its locales in ICU's order.
    std::vector<std::string> languages;
    std::map<std::string, std::vector<const std::string*>> byLanguage;
    for (const std::string& id : available.ids) {
        std::string language = Part(uloc_getLanguage, id);
        auto& list = byLanguage[language];
        if (list.empty()) languages.push_back(language);
        list.push_back(&id);
    }
    for (const std::string& language : languages) {
        const auto& list = byLanguage[language];
        // The likely locale of the language: "en" gives "en_Latn_US", taken as "en_US".
        std::string likely;
        char full[ULOC_FULLNAME_CAPACITY];
        UErrorCode status = U_ZERO_ERROR;
        int32_t length = uloc_addLikelySubtags(language.c_str(), full, sizeof(full), &status);
        if (U_SUCCESS(status) && length > 0) {
            std::string region = Part(uloc_getCountry, std::string(full, static_cast<std::size_t>(length)));
            if (!region.empty()) likely = Lower(language + "_" + region);
        }
        const std::string* first = nullptr;
        for (const std::string* id : list) {
            std::string tag = Lower(available.tagByLowerId.at(Lower(*id)));
            std::replace(tag.begin(), tag.end(), '-', '_');
            if (!likely.empty() && tag == likely) first = id;
        }
        // A name is given once, even where ICU lists a locale with and without its script.
        std::vector<std::string> given;
        auto give = [&](const std::string* id) {
            const std::string& tag = available.tagByLowerId.at(Lower(*id));
            if (std::find(given.begin(), given.end(), tag) != given.end()) return;
            given.push_back(tag);
            each(tag);
        };
        if (first) give(first);
        for (const std::string* id : list) {
            if (id != first) give(id);
        }
    }
}

std::string UserDefaultLocaleName()
{
    const char* value = nullptr;
    for (const char* variable : {"LC_ALL", "LC_MESSAGES", "LANG"}) {
        const char* v = std::getenv(variable);
        if (v && *v) {
            value = v;
            break;
        }
    }
    if (!value) return std::string();
    std::string name(value);
    name = name.substr(0, name.find_first_of(".@"));
    if (name.empty() || name == "C" || name == "POSIX") return std::string();
    std::replace(name.begin(), name.end(), '_', '-');
    return name;
}

} // namespace Qel::Core::Platform
