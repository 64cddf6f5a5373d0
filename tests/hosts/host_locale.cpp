// A host that switches the process's locale and shows an alert's wording in it, as "Key=Value"
// lines on standard output. The wording comes from "de-DE/QelStringTables.xml" beside the
// program, which the calling script writes.
//   host_locale typename   the type name of the host's error class, the key of its string table
//   host_locale run        listens for locale changes, makes "de-DE" current, raises the error
//                          and reports its messages, the notifications and the locales
//   host_locale start      reports the locale the process started in (the user's) and the display
//                          message of the error raised in it
#include <Infrastructure/QelCore/QelCore.h>

#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <typeinfo>

using namespace Qel::Core;

namespace HostLocale {

QEL_DEFINE_ERROR(SampleFileMissing, IOError, eERROR, "Sample file %1% is missing", std::string)

} // namespace HostLocale

namespace {

void Print(const char* key, const std::string& value)
{
    std::printf("%s=%s\n", key, value.c_str());
}

std::string NameOf(const std::shared_ptr<Locale>& locale)
{
    return locale ? locale->GetName().ToString() : std::string("(none)");
}

class CountingListener : public SystemLocaleListener
{
public:
    CountingListener() { System::AddLocaleListener(*this); }
    ~CountingListener() override { RemoveAllNotificationSources(); }

    void OnLocaleChange(std::shared_ptr<Locale> spNew, std::shared_ptr<Locale> spOld) override
    {
        ++m_nCount;
        m_sNew = NameOf(spNew);
        m_sOld = NameOf(spOld);
    }

    int m_nCount = 0;
    std::string m_sNew;
    std::string m_sOld;
};

int Run()
{
    const std::string typeName = TypeName(typeid(HostLocale::SampleFileMissing));
    Print("LocaleBefore", NameOf(System::GetLocale()));

    CountingListener listener;
    bool bSet = false;
    try {
        bSet = System::SetLocale(LocaleName("de-DE"));
    } catch (const Error& error) {
        Print("SetLocaleFailed", error.GetMessage());
        return 1;
    }
    Print("SetLocale", bSet ? "true" : "false");
    Print("Notifications", std::to_string(listener.m_nCount));
    Print("NotifiedNew", listener.m_sNew);
    Print("NotifiedOld", listener.m_sOld);
    Print("LocaleAfter", NameOf(System::GetLocale()));

    // The class's entry among the alert formats, as the current locale has it.
    std::string alertFormat = "(none)";
    GetString("_AlertMessageFormats_", typeName, alertFormat);
    Print("AlertMessageFormat", alertFormat);

    bool bCaught = false;
    try {
        QEL_RAISE_ERROR(HostLocale::SampleFileMissing("/data/run7.dat"), "Qel.Host.Locale");
    } catch (const HostLocale::SampleFileMissing& error) {
        bCaught = true;
        Print("DisplayMessage", error.GetDisplayMessage());
        Print("Message", error.GetMessage());
    }
    Print("Caught", bCaught ? "true" : "false");
    return bCaught && bSet ? 0 : 1;
}

} // namespace

// The locale the library took from the environment, and the error's wording in it.
int Start()
{
    Print("LocaleAtStart", NameOf(System::GetLocale()));
    try {
        QEL_RAISE_ERROR(HostLocale::SampleFileMissing("/data/run7.dat"), "Qel.Host.Locale");
    } catch (const HostLocale::SampleFileMissing& error) {
        Print("DisplayMessage", error.GetDisplayMessage());
    }
    return 0;
}

int main(int argc, char** argv)
{
    if (argc == 2 && std::strcmp(argv[1], "start") == 0) {
        const int rc = Start();
        ShutdownQelCore();
        return rc;
    }
    if (argc == 2 && std::strcmp(argv[1], "typename") == 0) {
        std::printf("%s\n", TypeName(typeid(HostLocale::SampleFileMissing)).c_str());
        return 0;
    }
    if (argc == 2 && std::strcmp(argv[1], "run") == 0) {
        const int rc = Run();
        ShutdownQelCore();
        return rc;
    }
    std::fprintf(stderr, "usage: host_locale typename|run|start\n");
    return 2;
}
