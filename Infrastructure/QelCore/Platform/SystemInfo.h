// Facts of the machine, the user and the process, the data folders, temporary names, thread names
// for debuggers, and the reader of settings files.
//
// Porting decisions taken here:
// - Folder shared by all users: $QEL_COMMON_DATA_DIR if set; else /var/lib/ when the process may
//   create folders there; else the per-user folder (an unprivileged user gets a writable folder
//   and no warning).
// - Per-user folder: $XDG_DATA_HOME if set and absolute; else $HOME/.local/share/; else the
//   password entry's home + /.local/share/.
// - OS name: PRETTY_NAME of /etc/os-release (else uname's system name), " build ", the kernel
//   release, " (64 bit)" on 64-bit machines (" (32 bit)" on 32-bit x86).
// - Host name: gethostname, not cut to 15 characters; empty on failure.
// - User names: the login name and the full name of the password entry (its GECOS field up to
//   the first comma); "Unknown" when either is empty or cannot be read. There is no domain part.
// - Processors: the processors online; type "x64" for x86_64, "x86" for i386..i686, else
//   "Unknown Processor Type".
// - Temporary folder: $TMPDIR if it names a folder, else /tmp/. A temporary name is made by
//   mkstemps (prefix, six random characters, ".tmp"), whose file is closed and removed again.
// - Thread names for debuggers: pthread_setname_np, which keeps the first 15 bytes (cut on a
//   UTF-8 character boundary); the full name stays in the library's table.
// - Modules: a module is found among the objects the dynamic linker has loaded by its file name,
//   exactly or followed by version suffixes ("libQelCore.so" finds "libQelCore.so.0.1").
// - Settings files (the INI format): see IniFile.
#pragma once

#include "Infrastructure/QelCore/QelCoreExport.h"

#include <cstdint>
#include <map>
#include <string>
#include <string_view>

namespace Qel::Core::Platform {

// ---- folders (each with a trailing '/', or empty when none can be found) ----

std::string CommonDataFolder();
std::string UserDataFolder();

// The temporary folder, with a trailing '/'; false when none is found.
bool TempFolder(std::string& folder);
// Makes a free file name in `folder` that begins with `prefix`: the file is created (so the name
// is unique at that moment) and removed again. False when the folder cannot take the file.
bool FreeTempFileName(const std::string& folder, const std::string& prefix, std::string& name);

// ---- machine and user ----

std::string OsName();
std::string HostName();
std::string UserAccountName();
std::string UserDisplayName();
unsigned NumProcessors();
std::string ProcessorType();

// ---- modules ----

// The full path of a module loaded in the process, found by its file name (see above); the
// executable is found by its own name. False when no loaded module has that name.
bool LoadedModulePath(const std::string& moduleName, std::string& path);
// The full path of this library's own file; empty if it cannot be found.
std::string LibraryPath();

// ---- threads ----

// Shows the name for the calling thread in debuggers, ps and /proc/<pid>/task/<tid>/comm.
void AnnounceThreadName(const std::string& name);

// ---- settings files ----

// A settings file in the INI format, read whole:
//   [section]
//   key = value
// Sections and keys compare without regard to case; the first occurrence of a key in a section
// wins (a section that appears twice is read as one). Lines that begin with ';' or '#' are
// comments; blank lines and lines of another form are skipped. Keys and values are trimmed of
// blanks and tabs, and one pair of surrounding double or single quotes is stripped from a value.
// Values are cut to 259 bytes. CR LF line ends and a UTF-8 byte-order mark are accepted; a key
// before the first section belongs to the section "".
// Exported for the library's tests.
class QEL_CORE_API IniFile
{
public:
    IniFile() = default;

    // Reads the file; a file that cannot be read gives an empty IniFile and false.
    bool Load(const std::string& path);
    // Reads settings from a text.
    void Parse(std::string_view text);

    // The value of a key; false when the section or the key is missing.
    bool GetString(const std::string& section, const std::string& key, std::string& value) const;
    // The value as an integer: an optional sign and decimal digits ("0x" for hexadecimal) at
    // its start, the rest ignored; a value without digits gives 0, a missing key `defaultValue`.
    // Values beyond the range of int are clamped.
    int GetInt(const std::string& section, const std::string& key, int defaultValue) const;

    bool IsEmpty() const { return m_Values.empty(); }

    static constexpr std::size_t sMaxValueLength = 259;

private:
    // Key: lower-case section, '\n', lower-case key.
    std::map<std::string, std::string> m_Values;
};

} // namespace Qel::Core::Platform
