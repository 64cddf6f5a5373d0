// Fuzzes the reader of settings files: any text parses, and every look-up is safe.
#include "Infrastructure/QelCore/PathName.h"
#include "Infrastructure/QelCore/Platform/SystemInfo.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    std::string_view text(reinterpret_cast<const char*>(data), size);
    Qel::Core::Platform::IniFile file;
    file.Parse(text);
    std::string value;
    for (const char* section : {"default", "Acquire", "", "DEFAULT"}) {
        for (const char* key : {"AppDataSubDir", "EnablePerUserData", "LogPath", "ErrorPath", ""}) {
            if (file.GetString(section, key, value) && value.size() > Qel::Core::Platform::IniFile::sMaxValueLength)
                __builtin_trap();
            (void)file.GetInt(section, key, -1);
        }
    }
    // The report folder of fatal errors as the alert manager derives it from ErrorPath: macros
    // expanded, made a folder, asked whether it is a valid path.
    for (const char* section : {"default", "Acquire"}) {
        if (file.GetString(section, "ErrorPath", value) && !value.empty()) {
            Qel::Core::PathName folder(Qel::Core::ExpandPathMacros(value));
            folder.ForceAsDir();
            (void)folder.IsValid();
        }
    }
    // Sections and keys taken from the input itself.
    std::size_t split = size / 2;
    std::string section(text.substr(0, split < 40 ? split : 40));
    std::string key(text.substr(split, 40));
    (void)file.GetString(section, key, value);
    (void)file.GetInt(section, key, 0);
    return 0;
}
