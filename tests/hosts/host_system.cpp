// A host that reports what System found for it, as "Key=Value" lines on standard output.
//   host_system paths      the data paths and the sub-directory
//   host_system write      as paths, then creates the common and user folders and writes a file
//                          into each ("CommonWritable=1", "UserWritable=1" when that worked)
//   host_system shutdown   three shutdown listeners, then ShutdownQelCore: "heard <name>" lines
#include <Infrastructure/QelCore/QelCore.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <string>

using namespace Qel::Core;

namespace {

void Print(const char* key, const std::string& value)
{
    std::printf("%s=%s\n", key, value.c_str());
}

bool WriteInto(const std::string& folder)
{
    PathName path(folder);
    if (!path.CreateBranch()) return false;
    std::ofstream file(folder + "probe.txt");
    file << "written\n";
    return static_cast<bool>(file);
}

class NamedListener : public ShutdownListener
{
public:
    explicit NamedListener(const char* name) : m_pName(name) { System::AddShutdownListener(*this); }
    ~NamedListener() override { RemoveAllNotificationSources(); }
    void OnShutdown() override { std::printf("heard %s\n", m_pName); }

private:
    const char* m_pName;
};

} // namespace

int main(int argc, char** argv)
{
    const char* mode = argc > 1 ? argv[1] : "paths";
    if (std::strcmp(mode, "shutdown") == 0) {
        NamedListener first("first"), second("second"), third("third");
        ShutdownQelCore();
        return 0;
    }
    Print("ProcessName", System::GetProcessName());
    Print("ProcessPath", System::GetProcessPath());
    Print("AppDataSubDir", System::GetAppDataSubDir());
    Print("CommonDataPath", System::GetCommonDataPath());
    Print("UserDataPath", System::GetUserDataPath());
    if (std::strcmp(mode, "write") == 0) {
        Print("CommonWritable", WriteInto(System::GetCommonDataPath()) ? "1" : "0");
        Print("UserWritable", WriteInto(System::GetUserDataPath()) ? "1" : "0");
    }
    return 0;
}
