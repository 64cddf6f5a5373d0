// Fuzzes PathName's text logic: the validity check, every query and the changes of parts, in
// both formats. Nothing touches the file system.
#include <Infrastructure/QelCore/QelCore.h>

#include <cstddef>
#include <cstdint>
#include <string>

using namespace Qel::Core;

namespace {

void Exercise(const std::string& text, const std::string& other, PathFormat format)
{
    PathName path(text, format);
    (void)path.IsValid();
    (void)path.GetBase();
    (void)path.GetBranch();
    (void)path.GetBaseAndBranch();
    (void)path.GetLeaf();
    (void)path.GetExt();
    (void)path.GetLeafAndExt();
    (void)path.HasBase();
    (void)path.HasBranch();
    (void)path.HasExt();
    (void)path.HasLeaf();
    (void)path.IsUNC();
    (void)path.IsAbsolute();
    (void)path.IsRelative();

    // Changes of parts, each on a fresh copy, then queried again.
    auto check = [](PathName& changed) {
        (void)changed.IsValid();
        (void)changed.GetBaseAndBranch();
        (void)changed.GetLeafAndExt();
    };
    PathName a(path); a.SetBase(other); check(a);
    PathName b(path); b.SetBranch(other); check(b);
    PathName c(path); c.AddBranch(other); check(c);
    PathName d(path); d.SetBaseAndBranch(other); check(d);
    PathName e(path); e.SetLeaf(other); check(e);
    PathName f(path); f.SetExt(other); check(f);
    PathName g(path); g.SetLeafAndExt(other); check(g);
    PathName h(path); h.ForceAsDir(); check(h);
    PathName i(path); (void)i.UpDir(); check(i);
    PathName j(path); (void)j.ForceRelative(std::string()); check(j);
    try {
        PathName k(path);
        k += other;
        check(k);
    } catch (Error&) {
        // a file name or a path with a base cannot be appended: a typed error, not a crash
    }
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    // No alert of an append reaches a listener that prints; the library starts as a host's would.
    InitializeQelCore();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    std::string input(reinterpret_cast<const char*>(data), size);
    std::size_t split = input.find('\x01');
    std::string text = split == std::string::npos ? input : input.substr(0, split);
    std::string other = split == std::string::npos ? std::string() : input.substr(split + 1);
    Exercise(text, other, NT);
    Exercise(text, other, UNIX);
    return 0;
}
