// Facts of the machine, the user and the process; data folders; temporary names; thread names;
// settings files (see SystemInfo.h for the decisions behind each).
#include "Infrastructure/QelCore/Platform/SystemInfo.h"

#include "Infrastructure/QelCore/Platform/FileSystem.h"
#include "Infrastructure/QelCore/Platform/Platform.h"

#include <cctype>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <link.h>
#include <dlfcn.h>
#include <pthread.h>
#include <pwd.h>
#include <sstream>
#include <sys/utsname.h>
#include <unistd.h>
#include <vector>

namespace Qel::Core::Platform {
namespace {

std::string WithSlash(std::string path)
{
    if (!path.empty() && path.back() != '/') path += '/';
    return path;
}

bool IsFolder(const std::string& path)
{
    return Stat(path).eKind == PathKind::Directory;
}

const char* Environment(const char* name)
{
    const char* value = std::getenv(name);
    return value != nullptr && *value != '\0' ? value : nullptr;
}

// The password entry of the effective user: login name, GECOS field and home folder.
struct PasswordEntry
{
    bool found = false;
    std::string name;
    std::string gecos;
    std::string home;
};

PasswordEntry ReadPasswordEntry()
{
    PasswordEntry entry;
    long suggested = ::sysconf(_SC_GETPW_R_SIZE_MAX);
    std::vector<char> buffer(suggested > 0 ? static_cast<std::size_t>(suggested) : 16384);
    struct passwd record;
    struct passwd* result = nullptr;
    while (true) {
        int status = ::getpwuid_r(::geteuid(), &record, buffer.data(), buffer.size(), &result);
        if (status == ERANGE && buffer.size() < (1u << 20)) {
            buffer.resize(buffer.size() * 2);
            continue;
        }
        break;
    }
    if (result == nullptr) return entry;
    entry.found = true;
    if (record.pw_name != nullptr) entry.name = record.pw_name;
    if (record.pw_gecos != nullptr) entry.gecos = record.pw_gecos;
    if (record.pw_dir != nullptr) entry.home = record.pw_dir;
    return entry;
}

// The value of KEY=value in /etc/os-release, without its quotes.
std::string OsReleaseValue(const std::string& key)
{
    std::ifstream file("/etc/os-release");
    std::string line;
    while (std::getline(file, line)) {
        if (line.compare(0, key.size() + 1, key + "=") != 0) continue;
        std::string value = line.substr(key.size() + 1);
        if (value.size() >= 2 && (value.front() == '"' || value.front() == '\'') && value.back() == value.front())
            value = value.substr(1, value.size() - 2);
        return value;
    }
    return std::string();
}

} // namespace

// ---- folders ----

std::string UserDataFolder()
{
    if (const char* xdg = Environment("XDG_DATA_HOME"); xdg != nullptr && xdg[0] == '/') return WithSlash(xdg);
    if (const char* home = Environment("HOME")) return WithSlash(home) + ".local/share/";
    PasswordEntry entry = ReadPasswordEntry();
    if (entry.found && !entry.home.empty()) return WithSlash(entry.home) + ".local/share/";
    return std::string();
}

std::string CommonDataFolder()
{
    if (const char* common = Environment("QEL_COMMON_DATA_DIR")) return WithSlash(common);
    // Creating a folder in /var/lib needs write and search rights on it.
    if (::access("/var/lib", W_OK | X_OK) == 0) return "/var/lib/";
    return UserDataFolder();
}

bool TempFolder(std::string& folder)
{
    if (const char* tmp = Environment("TMPDIR"); tmp != nullptr && IsFolder(tmp)) {
        folder = WithSlash(tmp);
        return true;
    }
    folder = "/tmp/";
    return IsFolder(folder);
}

bool FreeTempFileName(const std::string& folder, const std::string& prefix, std::string& name)
{
    std::string pattern = WithSlash(folder) + prefix + "XXXXXX.tmp";
    std::vector<char> text(pattern.begin(), pattern.end());
    text.push_back('\0');
    int fd = ::mkstemps(text.data(), 4);
    if (fd < 0) return false;
    ::close(fd);
    ::unlink(text.data());
    name.assign(text.data());
    return true;
}

// ---- machine and user ----

std::string OsName()
{
    struct utsname names;
    bool haveNames = ::uname(&names) == 0;
    std::string text = OsReleaseValue("PRETTY_NAME");
    if (text.empty() && haveNames) text = names.sysname;
    if (text.empty()) return "Failed To Get Windows Version Information";
    if (haveNames) {
        text += " build ";
        text += names.release;
    }
    std::string machine = haveNames ? names.machine : "";
    if (machine == "x86_64" || machine == "aarch64" || machine == "ppc64le" || machine == "s390x" ||
        machine == "riscv64")
        text += " (64 bit)";
    else if (machine.size() == 4 && machine[0] == 'i' && machine.compare(2, 2, "86") == 0)
        text += " (32 bit)";
    return text;
}

std::string HostName()
{
    char buffer[HOST_NAME_MAX + 1];
    if (::gethostname(buffer, sizeof buffer) != 0) return std::string();
    buffer[HOST_NAME_MAX] = '\0';
    return buffer;
}

std::string UserAccountName()
{
    PasswordEntry entry = ReadPasswordEntry();
    return entry.name.empty() ? "Unknown" : entry.name;
}

std::string UserDisplayName()
{
    PasswordEntry entry = ReadPasswordEntry();
    std::string display = entry.gecos.substr(0, entry.gecos.find(','));
    return display.empty() ? "Unknown" : display;
}

unsigned NumProcessors()
{
    long count = ::sysconf(_SC_NPROCESSORS_ONLN);
    return count > 0 ? static_cast<unsigned>(count) : 1u;
}

std::string ProcessorType()
{
    struct utsname names;
    if (::uname(&names) != 0) return "Unknown Processor Type";
    std::string machine = names.machine;
    if (machine == "x86_64") return "x64";
    if (machine.size() == 4 && machine[0] == 'i' && machine[1] >= '3' && machine[1] <= '6' &&
        machine.compare(2, 2, "86") == 0)
        return "x86";
    return "Unknown Processor Type";
}

// ---- modules ----

namespace {

bool LeafMatches(const std::string& path, const std::string& wanted)
{
    std::string leaf = path.substr(path.rfind('/') == std::string::npos ? 0 : path.rfind('/') + 1);
    if (leaf == wanted) return true;
    // Version suffixes of a shared object: "libX.so" finds "libX.so.1.2".
    return leaf.size() > wanted.size() && leaf.compare(0, wanted.size(), wanted) == 0 && leaf[wanted.size()] == '.' &&
           wanted.size() >= 3 && wanted.compare(wanted.size() - 3, 3, ".so") == 0;
}

struct ModuleSearch
{
    const std::string* wanted;
    std::string found;
};

int VisitModule(struct dl_phdr_info* info, size_t, void* data)
{
    auto* search = static_cast<ModuleSearch*>(data);
    if (info->dlpi_name == nullptr || info->dlpi_name[0] == '\0') return 0; // the executable
    if (!LeafMatches(info->dlpi_name, *search->wanted)) return 0;
    search->found = info->dlpi_name;
    return 1;
}

} // namespace

bool LoadedModulePath(const std::string& moduleName, std::string& path)
{
    if (moduleName.empty()) return false;
    std::string executable = ExecutablePath();
    if (!executable.empty() && LeafMatches(executable, moduleName)) {
        path = executable;
        return true;
    }
    ModuleSearch search{&moduleName, std::string()};
    ::dl_iterate_phdr(&VisitModule, &search);
    if (search.found.empty()) return false;
    // The dynamic linker names a module as it was asked for; make a relative name absolute.
    if (search.found[0] != '/') {
        char* real = ::realpath(search.found.c_str(), nullptr);
        if (real != nullptr) {
            search.found = real;
            std::free(real);
        }
    }
    path = search.found;
    return true;
}

std::string LibraryPath()
{
    Dl_info info;
    if (::dladdr(reinterpret_cast<void*>(&LibraryPath), &info) == 0 || info.dli_fname == nullptr) return std::string();
    std::string path = info.dli_fname;
    if (!path.empty() && path[0] != '/') {
        char* real = ::realpath(path.c_str(), nullptr);
        if (real != nullptr) {
            path = real;
            std::free(real);
        }
    }
    return path;
}

// ---- threads ----

void AnnounceThreadName(const std::string& name)
{
    // The kernel keeps 15 bytes; do not cut a UTF-8 character in two.
    std::size_t length = name.size() < 15 ? name.size() : 15;
    while (length > 0 && length < name.size() && (static_cast<unsigned char>(name[length]) & 0xC0) == 0x80) --length;
    std::string shortName = name.substr(0, length);
    ::pthread_setname_np(::pthread_self(), shortName.c_str());
}

// ---- settings files ----

namespace {

std::string Lower(std::string_view text)
{
    std::string lower(text);
    for (char& c : lower) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return lower;
}

std::string_view Trim(std::string_view text)
{
    std::size_t begin = 0;
    while (begin < text.size() && (text[begin] == ' ' || text[begin] == '\t')) ++begin;
    std::size_t end = text.size();
    while (end > begin && (text[end - 1] == ' ' || text[end - 1] == '\t' || text[end - 1] == '\r')) --end;
    return text.substr(begin, end - begin);
}

} // namespace

bool IniFile::Load(const std::string& path)
{
    m_Values.clear();
    if (Stat(path).eKind != PathKind::File) return false;
    std::ifstream file(path, std::ios::binary);
    if (!file) return false;
    std::ostringstream content;
    content << file.rdbuf();
    if (file.bad()) return false;
    Parse(content.str());
    return true;
}

void IniFile::Parse(std::string_view text)
{
    m_Values.clear();
    if (text.size() >= 3 && text.compare(0, 3, "\xEF\xBB\xBF") == 0) text.remove_prefix(3);
    std::string section;
    while (!text.empty()) {
        std::size_t end = text.find('\n');
        std::string_view line = Trim(text.substr(0, end));
        text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
        if (line.empty() || line[0] == ';' || line[0] == '#') continue;
        if (line[0] == '[') {
            std::size_t close = line.find(']');
            if (close != std::string_view::npos) section = Lower(Trim(line.substr(1, close - 1)));
            continue;
        }
        std::size_t equals = line.find('=');
        if (equals == std::string_view::npos) continue;
        std::string_view key = Trim(line.substr(0, equals));
        if (key.empty()) continue;
        std::string_view value = Trim(line.substr(equals + 1));
        if (value.size() >= 2 && (value.front() == '"' || value.front() == '\'') && value.back() == value.front())
            value = value.substr(1, value.size() - 2);
        if (value.size() > sMaxValueLength) value = value.substr(0, sMaxValueLength);
        m_Values.emplace(section + '\n' + Lower(key), std::string(value)); // the first one stays
    }
}

bool IniFile::GetString(const std::string& section, const std::string& key, std::string& value) const
{
    auto found = m_Values.find(Lower(section) + '\n' + Lower(key));
    if (found == m_Values.end()) return false;
    value = found->second;
    return true;
}

int IniFile::GetInt(const std::string& section, const std::string& key, int defaultValue) const
{
    std::string text;
    if (!GetString(section, key, text)) return defaultValue;
    std::size_t index = 0;
    bool negative = false;
    if (index < text.size() && (text[index] == '+' || text[index] == '-')) negative = text[index++] == '-';
    int base = 10;
    if (index + 1 < text.size() && text[index] == '0' && (text[index + 1] == 'x' || text[index + 1] == 'X') &&
        index + 2 < text.size() && std::isxdigit(static_cast<unsigned char>(text[index + 2]))) {
        base = 16;
        index += 2;
    }
    long long number = 0;
    for (; index < text.size(); ++index) {
        int digit;
        unsigned char c = static_cast<unsigned char>(text[index]);
        if (std::isdigit(c)) digit = c - '0';
        else if (base == 16 && std::isxdigit(c)) digit = std::tolower(c) - 'a' + 10;
        else break;
        number = number * base + digit;
        if (number > static_cast<long long>(INT_MAX) + 1) number = static_cast<long long>(INT_MAX) + 1;
    }
    if (negative) number = -number;
    if (number > INT_MAX) number = INT_MAX;
    return static_cast<int>(number);
}

} // namespace Qel::Core::Platform
