// The process that the fatal exit benchmarks start: it logs N entries and then
//   qel N     lets an error escape main: report, log entry, copy on standard error, exit 255;
//   clean N   calls ShutdownQelCore and returns 0;
//   abort N   lets the error escape with the standard library's own terminate handler (abort).
#include <Infrastructure/QelCore/QelCore.h>

#include <cstdlib>
#include <cstring>
#include <exception>

QEL_DEFINE_ERROR(BenchFatalError, Qel::Core::LogicError, eERROR, "bench error escaped")

int main(int argc, char** argv)
{
    const char* mode = argc > 1 ? argv[1] : "qel";
    int entries = argc > 2 ? std::atoi(argv[2]) : 0;
    if (std::strcmp(mode, "abort") == 0) std::set_terminate(__gnu_cxx::__verbose_terminate_handler);
    std::shared_ptr<Qel::Core::Logger> logger = Qel::Core::LogManager::Instance()->GetLogger("Qel.Bench.Fatal");
    for (int n = 0; n < entries; ++n) logger->WriteLog(QelLogError, "queued entry %d", n);
    if (std::strcmp(mode, "clean") == 0) {
        ShutdownQelCore();
        return 0;
    }
    QEL_RAISE_ERROR(BenchFatalError(), "Qel.Bench.Fatal");
    return 0;
}
