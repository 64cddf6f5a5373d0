// Tests of PathName: splitting into parts, kinds of path, the syntax check, changes of parts,
// appending, going up, making absolute and relative, and the file-system operations in a
// temporary folder of their own.
#include <Infrastructure/QelCore/QelCore.h>

#include "tests/TestSupport.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <thread>
#include <vector>

using Qel::Core::PathName;
namespace fs = std::filesystem;

namespace {

using Strings = std::vector<std::string>;

const std::string& Text(const PathName& path)
{
    return path;
}

// ---------------------------------------------------------------------------------------------
// Splitting

struct Parts
{
    const char* pszPath;
    const char* pszBase;
    const char* pszBranch;
    const char* pszLeaf;
    const char* pszExt;
    const char* pszBaseAndBranch;
    const char* pszLeafAndExt;
};

void ExpectParts(const Parts& parts)
{
    SCOPED_TRACE(parts.pszPath);
    const PathName path(parts.pszPath);
    EXPECT_EQ(path.GetBase(), parts.pszBase);
    EXPECT_EQ(path.GetBranch(), parts.pszBranch);
    EXPECT_EQ(path.GetLeaf(), parts.pszLeaf);
    EXPECT_EQ(path.GetExt(), parts.pszExt);
    EXPECT_EQ(path.GetBaseAndBranch(), parts.pszBaseAndBranch);
    EXPECT_EQ(path.GetLeafAndExt(), parts.pszLeafAndExt);
}

TEST(PathNameSplit, DriveAndUNCPaths)
{
    //           path                              base        branch          leaf     ext    base+branch                leaf+ext
    ExpectParts({R"(C:\dir\file1.txt)", "C", R"(\dir\)", "file1", "txt", R"(C:\dir\)", "file1.txt"});
    ExpectParts({R"(\\server\share\dir\file.txt1)", R"(\\server)", R"(\share\dir\)", "file", "txt1",
                 R"(\\server\share\dir\)", "file.txt1"});
    ExpectParts({R"(C:\di r1\file1.txt)", "C", R"(\di r1\)", "file1", "txt", R"(C:\di r1\)", "file1.txt"});
    ExpectParts({"D:/path/to/x.y", "D", "/path/to/", "x", "y", "D:/path/to/", "x.y"});
    // No base separator behind the server name: no base.
    ExpectParts({R"(\\server)", "", R"(\\)", "server", "", R"(\\)", "server"});
}

TEST(PathNameSplit, LinuxPaths)
{
    ExpectParts({"/usr/lib/x86_64-linux-gnu/libc.so.6", "", "/usr/lib/x86_64-linux-gnu/", "libc.so", "6",
                 "/usr/lib/x86_64-linux-gnu/", "libc.so.6"});
    ExpectParts({"relative/dir/", "", "relative/dir/", "", "", "relative/dir/", ""});
    ExpectParts({".hidden", "", "", "", "hidden", "", ".hidden"});
    ExpectParts({"archive.tar.gz", "", "", "archive.tar", "gz", "", "archive.tar.gz"});
    ExpectParts({"/", "", "/", "", "", "/", ""});
    ExpectParts({"../up/x", "", "../up/", "x", "", "../up/", "x"});
}

TEST(PathNameSplit, ColonsBehindTheFirstTwoCharactersAreOrdinary)
{
    ExpectParts({"/data/x/logs:2024/run/", "", "/data/x/logs:2024/run/", "", "", "/data/x/logs:2024/run/", ""});
    ExpectParts({"/data/x/12:30/f.log", "", "/data/x/12:30/", "f", "log", "/data/x/12:30/", "f.log"});
    ExpectParts({"12:30/", "", "12:30/", "", "", "12:30/", ""});
    ExpectParts({"2024-05-01T10:00", "", "", "2024-05-01T10:00", "", "", "2024-05-01T10:00"});
    ExpectParts({R"(C::b\c)", "C", R"(:b\)", "c", "", R"(C::b\)", "c"});
    for (const char* pszText : {"/data/12:30/", "12:30/", "logs:1", "/a:b"}) {
        EXPECT_FALSE(PathName(pszText).HasBase()) << pszText;
    }
    EXPECT_TRUE(PathName("/data/12:30/").IsAbsolute());
    EXPECT_TRUE(PathName("12:30/").IsRelative());
}

TEST(PathNameSplit, BaseWithoutBranch)
{
    ExpectParts({"F:the file name.the extension", "F", "", "the file name", "the extension", "F:",
                 "the file name.the extension"});
    ExpectParts({"Z:the file name", "Z", "", "the file name", "", "Z:", "the file name"});
    ExpectParts({"R:.txt", "R", "", "", "txt", "R:", ".txt"});
}

TEST(PathNameSplit, BranchesAreTheirOwnBaseAndBranch)
{
    ExpectParts({R"(bare\path\)", "", R"(bare\path\)", "", "", R"(bare\path\)", ""});
    ExpectParts({R"(F:bare\path\)", "F", R"(bare\path\)", "", "", R"(F:bare\path\)", ""});
}

TEST(PathNameSplit, DotsDecideLeafAndExtension)
{
    // A leading dot belongs to the extension.
    EXPECT_EQ(PathName(".txt").GetLeafAndExt(), ".txt");
    EXPECT_EQ(PathName(".txt").GetLeaf(), "");
    EXPECT_EQ(PathName(R"(C:\dir\.txt1)").GetLeafAndExt(), ".txt1");
    EXPECT_EQ(PathName(R"(some\directory\.exe)").GetLeafAndExt(), ".exe");
    // A dot in a directory is no extension.
    ExpectParts({R"(C:\dir.d\file)", "C", R"(\dir.d\)", "file", "", R"(C:\dir.d\)", "file"});
    // A trailing dot gives the empty extension, and leaf and extension lose it.
    ExpectParts({"file.", "", "", "file", "", "", "file"});
    EXPECT_FALSE(PathName("file.").HasExt());
}

TEST(PathNameSplit, HasQuestions)
{
    EXPECT_TRUE(PathName(R"(\\server)").HasBase()); // every UNC path
    EXPECT_TRUE(PathName("C:x").HasBase());
    EXPECT_FALSE(PathName("/usr/lib").HasBase());
    EXPECT_TRUE(PathName(R"(a\b)").HasBranch());
    EXPECT_FALSE(PathName("ab").HasBranch());
    EXPECT_TRUE(PathName("a.b").HasExt());
    EXPECT_FALSE(PathName("dir.d/").HasExt());
    EXPECT_TRUE(PathName(".x").HasLeaf());
    EXPECT_FALSE(PathName("dir/").HasLeaf());
    EXPECT_FALSE(PathName("dir/.").HasLeaf());
    EXPECT_TRUE(PathName(R"(\\s)").IsUNC());
    EXPECT_FALSE(PathName("//server/share").IsUNC());
    EXPECT_FALSE(PathName(R"(\)").IsUNC());
}

TEST(PathNameSplit, UnixFormatKeepsBackslashesInNames)
{
    const PathName path(R"(/home/a\b/file\1.txt)", Qel::Core::UNIX);
    EXPECT_EQ(path.GetBranch(), R"(/home/a\b/)");
    EXPECT_EQ(path.GetLeaf(), R"(file\1)");
    EXPECT_EQ(path.GetExt(), "txt");
    // The same text in the NT format splits at the backslashes.
    EXPECT_EQ(PathName(R"(/home/a\b/file\1.txt)").GetLeafAndExt(), "1.txt");
}

// Every question and every change on odd texts: nothing reads outside the text, and the text in
// front of the leaf and the leaf with its extension always give the text back (but for the dot
// that a trailing dot loses).
TEST(PathNameSplit, AnyTextCanBeAskedEverything)
{
    const char cAlphabet[] = {'\\', '/', ':', '.', 'a'};
    Strings vTexts = {"", R"(\)", R"(\\)", ":", ".", R"(\\\\)", R"(\\\)", "a:b:c", "file...", "dir//", "::",
                      ".:.", R"(\:)", R"(\\:)", std::string("a\0b", 3), "\xff\xfe.\x80"};
    // Every text of up to five characters of the alphabet.
    std::vector<std::string> vLevel = {""};
    for (int iLength = 1; iLength <= 5; ++iLength) {
        std::vector<std::string> vNext;
        for (const std::string& s : vLevel)
            for (char c : cAlphabet) vNext.push_back(s + c);
        vTexts.insert(vTexts.end(), vNext.begin(), vNext.end());
        vLevel.swap(vNext);
    }

    for (Qel::Core::PathFormat eFormat : {Qel::Core::NT, Qel::Core::UNIX}) {
        for (const std::string& sText : vTexts) {
            SCOPED_TRACE(sText);
            const PathName path(sText, eFormat);
            (void)path.IsValid();
            (void)path.IsAbsolute();
            (void)path.HasBase();
            (void)path.HasBranch();
            (void)path.HasLeaf();
            (void)path.GetBase();
            (void)path.GetBranch();
            EXPECT_EQ(path.HasExt(), !path.GetExt().empty());
            if (sText.empty() || sText.back() != '.') {
                EXPECT_EQ(path.GetBaseAndBranch() + path.GetLeafAndExt(), sText);
            }

            PathName changed(path);
            changed.SetBranch("");
            changed = path;
            changed.SetBase("");
            changed = path;
            changed.SetBase(R"(\\)");
            changed = path;
            changed.SetLeaf(".");
            changed.SetExt(".");
            changed.SetLeafAndExt("");
            changed = path;
            changed.AddBranch("");
            changed.SetBaseAndBranch(":");
            changed = path;
            for (int i = 0; i < 20 && changed.UpDir(); ++i) {
            }
            changed = path;
            changed.ForceRelative("");
        }
    }
}

// ---------------------------------------------------------------------------------------------
// Kinds of path

TEST(PathNameKind, AbsoluteAndRelative)
{
    for (const char* pszAbsolute : {R"(C:\Test)", R"(\\Computer\Test)", "C:/Test", "/abs", "/", "/a/../b"}) {
        EXPECT_TRUE(PathName(pszAbsolute).IsAbsolute()) << pszAbsolute;
        EXPECT_FALSE(PathName(pszAbsolute).IsRelative()) << pszAbsolute;
    }
    for (const char* pszRelative : {R"(\Test)", "C:Test", R"(.\Test)", "", "C:", "relative/x", "x:", "./x"}) {
        EXPECT_TRUE(PathName(pszRelative).IsRelative()) << pszRelative;
    }
    // The root is absolute in the UNIX format as well.
    EXPECT_TRUE(PathName("/abs", Qel::Core::UNIX).IsAbsolute());
    EXPECT_TRUE(PathName("rel", Qel::Core::UNIX).IsRelative());
}

// ---------------------------------------------------------------------------------------------
// Syntax check

TEST(PathNameValid, ValidTexts)
{
    for (const char* pszText :
         {"Test.txt", "_Test.txt.txt", "bare.fi_le", "spaces bare.fi.le", "under_score_bare.file", "bare",
          "spaces bare", "underscore_bare", "/.txt", R"(\Test.txt)", "a:", R"(\\Computer\path)", R"(D:\path)",
          "D:/path", R"(..\path)", R"(.\path)", R"(W:\path\no\spaces\file.txt)", R"(X:\path\with 2 spaces)",
          R"(C:\path\no\spaces)", "/usr/lib/x86_64-linux-gnu/libc.so.6", "dir/", "(a)~b!#%&@`'^$-",
          // a colon behind the first component is part of a name
          "/data/12:30/", "/data/2024-05-01T10:00/x.log", "run/a:b:c", R"(C:\a:b)"}) {
        EXPECT_TRUE(PathName(pszText).IsValid()) << pszText;
    }
}

TEST(PathNameValid, InvalidTexts)
{
    for (const char* pszText : {"", "\".txt", "*.txt", "|.txt", "?.txt", "<.txt", ">.txt", ":.txt", ";.txt",
                                // nothing but base separators
                                ":", "::", R"(\\\)", R"(\\\\)",
                                // two colons, a drive of two letters
                                "a:b:c", R"(ab:\x)", "12:30/", "ab:c",
                                // separators next to each other
                                R"(a\\b)", "a//b", R"(C:\x/\y)", "dir//"}) {
        EXPECT_FALSE(PathName(pszText).IsValid()) << pszText;
    }
    EXPECT_FALSE(PathName(std::string("a\0b", 3)).IsValid());
    EXPECT_FALSE(PathName("caf\xc3\xa9").IsValid()); // letters beyond ASCII are no letters here
}

TEST(PathNameValid, LengthLimitsOfTheFormats)
{
    const std::string sLeaf256(256, 'a');
    EXPECT_TRUE(PathName("dir/" + sLeaf256).IsValid());
    EXPECT_FALSE(PathName("dir/" + sLeaf256 + "a").IsValid());
    // A name with a dot: at most 260 characters.
    EXPECT_TRUE(PathName(std::string(250, 'a') + "." + std::string(9, 'b')).IsValid());
    EXPECT_FALSE(PathName(std::string(250, 'a') + "." + std::string(10, 'b')).IsValid());

    const std::string sUnix31(31, 'u');
    EXPECT_TRUE(PathName("/x/" + sUnix31, Qel::Core::UNIX).IsValid());
    EXPECT_FALSE(PathName("/x/" + sUnix31 + "u", Qel::Core::UNIX).IsValid());
    // The UNIX format takes a backslash as a character of a name, and a longer base.
    EXPECT_TRUE(PathName(R"(/x/a\b)", Qel::Core::UNIX).IsValid());
    EXPECT_TRUE(PathName("host:/x", Qel::Core::UNIX).IsValid());
    EXPECT_FALSE(PathName("host:/x").IsValid());
}

// Each thread checks its own texts; a tokeniser with shared state would mix them up.
TEST(PathNameValid, CheckIsReentrant)
{
    std::atomic<int> iWrong{0};
    auto check = [&iWrong](const char* pszText, bool bValid) {
        const PathName path(pszText);
        for (int i = 0; i < 3000; ++i) {
            if (path.IsValid() != bValid) ++iWrong;
        }
    };
    std::thread first(check, R"(C:\one\two\three\four\five.txt)", true);
    std::thread second(check, R"(\\server\a\b\c\d\e\f\g\h\i\j\*.txt)", false);
    check(R"(x\y\z\w\v\u)", true);
    first.join();
    second.join();
    EXPECT_EQ(iWrong.load(), 0);
}

// ---------------------------------------------------------------------------------------------
// Changes of parts

TEST(PathNameSet, SetBaseChangesTheFormOfTheBase)
{
    for (const char* pszBase : {"d", "d:"}) {
        PathName path(R"(C:\dir\file1.txt)");
        path.SetBase(pszBase);
        EXPECT_EQ(Text(path), R"(d:\dir\file1.txt)");
    }
    for (const char* pszBase : {R"(\\server\)", R"(\\server)"}) {
        PathName path(R"(C:\dir\file1.txt)");
        path.SetBase(pszBase);
        EXPECT_EQ(Text(path), R"(\\server\dir\file1.txt)");
        EXPECT_EQ(path.GetBase(), R"(\\server)");
    }
    for (const char* pszBase : {R"(\\server2\)", R"(\\server2)"}) {
        PathName path(R"(\\server\share\file1.txt)");
        path.SetBase(pszBase);
        EXPECT_EQ(Text(path), R"(\\server2\share\file1.txt)");
    }
    PathName path(R"(\\server\share\file1.txt)");
    path.SetBase("d");
    EXPECT_EQ(Text(path), R"(d:\share\file1.txt)");
    // The base separator follows the new form: the drive's branch starts behind the colon.
    EXPECT_EQ(path.GetBase(), "d");
    EXPECT_EQ(path.GetBranch(), R"(\share\)");

    PathName removed(R"(c:\temp\test.txt)");
    removed.SetBase("");
    EXPECT_EQ(Text(removed), R"(\temp\test.txt)");
}

TEST(PathNameSet, SetBaseAndBranch)
{
    for (const char* pszNew : {R"(d:\dir2)", R"(d:\dir2\)"}) {
        PathName path(R"(C:\dir\file1.txt)");
        path.SetBaseAndBranch(pszNew);
        EXPECT_EQ(Text(path), R"(d:\dir2\file1.txt)");
    }
    for (const char* pszNew : {R"(\\server\share)", R"(\\server\share\)"}) {
        PathName path(R"(C:\dir\file1.txt)");
        path.SetBaseAndBranch(pszNew);
        EXPECT_EQ(Text(path), R"(\\server\share\file1.txt)");
        EXPECT_EQ(path.GetBase(), R"(\\server)");
    }
    PathName unc(R"(\\server\share\dir1\file1.txt)");
    unc.SetBaseAndBranch(R"(\\server2\share2\dir2)");
    EXPECT_EQ(Text(unc), R"(\\server2\share2\dir2\file1.txt)");

    // A text without separator inserts the slash.
    PathName bare("file.txt");
    bare.SetBaseAndBranch("dir");
    EXPECT_EQ(Text(bare), "dir/file.txt");
}

TEST(PathNameSet, SetBranchAndAddBranch)
{
    PathName path(R"(C:\x\f.txt)");
    path.SetBranch("dir");
    EXPECT_EQ(Text(path), R"(C:dir\f.txt)"); // a leading separator is the caller's
    path.SetBranch(R"(\y\z)");
    EXPECT_EQ(Text(path), R"(C:\y\z\f.txt)");
    path.AddBranch("sub");
    EXPECT_EQ(Text(path), R"(C:\y\z\sub\f.txt)");

    // Without a base, the empty branch takes the branch away and adds nothing.
    PathName relative("a/b/f.txt");
    relative.SetBranch("");
    EXPECT_EQ(Text(relative), "f.txt");
    relative.AddBranch("p/q");
    EXPECT_EQ(Text(relative), "p/q/f.txt");

    PathName empty;
    empty.AddBranch("tmp");
    EXPECT_EQ(Text(empty), "tmp/");

    // Putting back the branch that the path gives changes nothing, UNC paths included.
    for (const char* pszPath : {R"(\\server\share\dir\file.txt1)", R"(C:\dir\file1.txt)", "/usr/lib/libc.so.6",
                                "rel/dir/", R"(F:bare\path\)"}) {
        PathName same(pszPath);
        same.SetBranch(same.GetBranch());
        EXPECT_EQ(Text(same), pszPath);
    }
    PathName unc(R"(\\server\share\dir\file.txt)");
    unc.AddBranch("sub");
    EXPECT_EQ(Text(unc), R"(\\server\share\dir\sub\file.txt)");
}

TEST(PathNameSet, LeafAndExtension)
{
    PathName path(R"(C:\dir\file1.txt)");
    path.SetLeaf("name");
    EXPECT_EQ(Text(path), R"(C:\dir\name.txt)");
    path.SetLeaf("other.ext"); // cut at its dot, the extension stays
    EXPECT_EQ(Text(path), R"(C:\dir\other.txt)");
    path.SetLeaf(".hidden"); // a leading dot does not cut
    EXPECT_EQ(Text(path), R"(C:\dir\.hidden.txt)");

    path = R"(C:\dir\file1.txt)";
    path.SetExt("txt2");
    EXPECT_EQ(Text(path), R"(C:\dir\file1.txt2)");
    path.SetExt(".dat");
    EXPECT_EQ(Text(path), R"(C:\dir\file1.dat)");
    path.SetExt("");
    EXPECT_EQ(Text(path), R"(C:\dir\file1)");
    path.SetLeaf("noext");
    EXPECT_EQ(Text(path), R"(C:\dir\noext)");

    path.SetLeafAndExt("report.pdf");
    EXPECT_EQ(Text(path), R"(C:\dir\report.pdf)");
    path.SetLeafAndExt("");
    EXPECT_EQ(Text(path), R"(C:\dir\)");

    PathName drive("F:name.ext");
    drive.SetLeafAndExt("other");
    EXPECT_EQ(Text(drive), "F:other");
}

TEST(PathNameSet, PreferredSeparator)
{
    PathName path(R"(D:\x)");
    path.ForceAsDir();
    EXPECT_EQ(Text(path), R"(D:\x\)");
    path.ForceAsDir();
    EXPECT_EQ(Text(path), R"(D:\x\)");

    PathName slash("D:/path");
    slash.ForceAsDir();
    EXPECT_EQ(Text(slash), "D:/path/");

    // Without a separator in the text: the slash.
    PathName bare("rel");
    bare.ForceAsDir();
    EXPECT_EQ(Text(bare), "rel/");

    // The first separator of a text decides, also a mixed one.
    PathName mixed(R"(a\b/c)");
    mixed.ForceAsDir();
    EXPECT_EQ(Text(mixed), R"(a\b/c\)");

    // An assigned text without separator keeps the separator of the text before.
    PathName kept(R"(a\b)");
    kept = "c";
    kept.ForceAsDir();
    EXPECT_EQ(Text(kept), R"(c\)");

    PathName empty;
    empty.ForceAsDir();
    EXPECT_EQ(Text(empty), "");
}

TEST(PathNameSet, CopyKeepsTheFormat)
{
    const PathName unixPath(R"(a\b)", Qel::Core::UNIX);
    PathName copy(unixPath);
    EXPECT_FALSE(copy.HasBranch()); // the backslash is still a character of the name
    PathName assigned;
    assigned = unixPath;
    assigned = R"(x\y)";
    EXPECT_EQ(assigned.GetLeaf(), R"(x\y)");

    EXPECT_TRUE(copy == R"(a\b)");
    EXPECT_TRUE(copy != "A\\b"); // case counts
    EXPECT_TRUE(copy == std::string(R"(a\b)"));
    EXPECT_STREQ(static_cast<const char*>(copy), R"(a\b)");
}

// ---------------------------------------------------------------------------------------------
// Appending

TEST(PathNameAppend, AppendsRelativePaths)
{
    PathName path("dir");
    path += "sub";
    EXPECT_EQ(Text(path), "dir/sub");
    path += "/more"; // one leading separator is skipped
    EXPECT_EQ(Text(path), "dir/sub/more");
    path += std::string(R"(\last\f.txt)");
    EXPECT_EQ(Text(path), R"(dir/sub/more/last\f.txt)");

    PathName drive(R"(C:\dir)");
    drive += R"(sub\f.txt)";
    EXPECT_EQ(Text(drive), R"(C:\dir\sub\f.txt)");

    PathName empty;
    empty += R"(C:\taken\as\is.txt)"; // an empty path is assigned, nothing is checked
    EXPECT_EQ(Text(empty), R"(C:\taken\as\is.txt)");
    EXPECT_EQ(empty.GetBase(), "C");

    PathName same("d");
    same += "";
    same += static_cast<const char*>(nullptr);
    EXPECT_EQ(Text(same), "d");
    same += static_cast<const char*>(same); // its own text
    EXPECT_EQ(Text(same), "d/d");
}

TEST(PathNameAppend, FileNameRaisesLogicError)
{
    PathName path("dir/file.txt");
    try {
        path += "x";
        FAIL() << "not raised";
    } catch (Qel::Core::LogicError& error) {
        EXPECT_EQ(error.GetMessageA(), "Cannot append to a PathName that is a file name: dir/file.txt");
        EXPECT_EQ(error.GetData(Qel::Core::AlertInfo::sLOG_NAME), "Qel.Core.PathName");
    }
    EXPECT_EQ(Text(path), "dir/file.txt");
}

TEST(PathNameAppend, BaseInArgumentRaisesInvalidParameter)
{
    PathName path("dir");
    try {
        path += R"(c:\x)";
        FAIL() << "not raised";
    } catch (Qel::Core::InvalidParameter& error) {
        EXPECT_EQ(error.GetMessageA(), R"(Invalid Parameter: aPath = c:\x)");
        EXPECT_EQ(error.GetData(Qel::Core::InvalidParameter::sNAME), "aPath");
        EXPECT_EQ(error.GetData(Qel::Core::InvalidParameter::sVALUE), R"(c:\x)");
        EXPECT_EQ(error.GetData(Qel::Core::AlertInfo::sLOG_NAME), "Qel.Core.PathName");
    }
    EXPECT_EQ(Text(path), "dir");
    EXPECT_THROW(path += R"(\\server\share)", Qel::Core::InvalidParameter);
}

TEST(PathNameAppend, InPlaceHandlerLetsTheAppendGoOn)
{
    QelTest::AlertRecorder recorder;
    recorder.HandleInPlace(true);

    PathName file("dir/file.txt");
    file += "x";
    EXPECT_EQ(Text(file), "dir/file.txt/x");

    PathName folder("dir");
    folder += R"(c:\x)";
    EXPECT_EQ(Text(folder), R"(dir/c:\x)");

    const auto events = recorder.Events();
    ASSERT_EQ(recorder.Count("raised"), 2u);
    EXPECT_EQ(events[0].message, "Cannot append to a PathName that is a file name: dir/file.txt");
    EXPECT_EQ(std::count_if(events.begin(), events.end(),
                            [](const QelTest::AlertRecorder::Event& e) {
                                return e.kind == "raised" && e.message == R"(Invalid Parameter: aPath = c:\x)";
                            }),
              1);
}

// ---------------------------------------------------------------------------------------------
// Going up

TEST(PathNameUpDir, LeafAndLastDirectoryGo)
{
    PathName path("/usr/lib/libc.so");
    EXPECT_TRUE(path.UpDir());
    EXPECT_EQ(Text(path), "/usr/");
    EXPECT_TRUE(path.UpDir());
    EXPECT_EQ(Text(path), "/");
    EXPECT_FALSE(path.UpDir()); // nothing above the root
    EXPECT_EQ(Text(path), "/");

    PathName drive(R"(C:\dir\sub\f.txt)");
    EXPECT_TRUE(drive.UpDir());
    EXPECT_EQ(Text(drive), R"(C:\dir\)");
    EXPECT_TRUE(drive.UpDir());
    EXPECT_EQ(Text(drive), R"(C:\)");
    EXPECT_FALSE(drive.UpDir());

    PathName unc(R"(\\server\share\dir\f)");
    EXPECT_TRUE(unc.UpDir());
    EXPECT_EQ(Text(unc), R"(\\server\share\)");
    EXPECT_TRUE(unc.UpDir());
    EXPECT_EQ(Text(unc), R"(\\server\)");
    EXPECT_FALSE(unc.UpDir());

    // A branch that mixes the separators loses exactly one directory.
    PathName mixed(R"(/tmp/a\b\f.txt)");
    EXPECT_TRUE(mixed.UpDir());
    EXPECT_EQ(Text(mixed), "/tmp/a/");

    PathName relative("a/b/");
    EXPECT_TRUE(relative.UpDir());
    EXPECT_EQ(Text(relative), "a/");
    EXPECT_TRUE(relative.UpDir()); // to the current folder: the empty text
    EXPECT_EQ(Text(relative), "");
    EXPECT_FALSE(relative.UpDir());

    PathName driveRelative(R"(C:dir\f.txt)");
    EXPECT_TRUE(driveRelative.UpDir());
    EXPECT_EQ(Text(driveRelative), "C:");

    PathName leafOnly("f.txt");
    EXPECT_FALSE(leafOnly.UpDir());
    EXPECT_EQ(Text(leafOnly), "f.txt");
}

// ---------------------------------------------------------------------------------------------
// The file system

// A new folder of its own for each test, made the current folder while the test runs; both are
// undone at the end.
class PathNameFileSystem : public testing::Test
{
protected:
    void SetUp() override
    {
        std::random_device random;
        const fs::path base = fs::canonical(fs::temp_directory_path());
        for (;;) {
            m_Folder = base / ("qel-pathname-" + std::to_string(random()) + std::to_string(random()));
            if (fs::create_directory(m_Folder)) break;
        }
        m_sFolder = m_Folder.string();
        m_PreviousCurrent = fs::current_path();
        fs::current_path(m_Folder);
    }
    void TearDown() override
    {
        fs::current_path(m_PreviousCurrent);
        std::error_code error;
        fs::permissions(m_Folder, fs::perms::owner_all, fs::perm_options::add, error);
        fs::remove_all(m_Folder, error);
    }

    // Writes a file below the folder.
    void Write(const std::string& sRelative, const std::string& sContent = "hello")
    {
        std::ofstream file(m_Folder / sRelative, std::ios::binary);
        file << sContent;
    }
    std::string Read(const std::string& sRelative)
    {
        std::ifstream file(m_Folder / sRelative, std::ios::binary);
        return std::string(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
    }
    Strings Entries()
    {
        Strings vNames;
        for (const auto& entry : fs::directory_iterator(m_Folder)) vNames.push_back(entry.path().filename().string());
        std::sort(vNames.begin(), vNames.end());
        return vNames;
    }

    fs::path m_Folder;
    std::string m_sFolder;
    fs::path m_PreviousCurrent;
};

TEST_F(PathNameFileSystem, CreateExistsAndDeleteAFolder)
{
    PathName path;
    path.SetBaseAndBranch(m_sFolder);
    path.AddBranch("TmpName");
    EXPECT_EQ(Text(path), m_sFolder + "/TmpName/");
    EXPECT_FALSE(path.Exists());
    EXPECT_TRUE(path.CreateBranch());
    EXPECT_TRUE(path.Exists());
    EXPECT_TRUE(path.IsDir());
    EXPECT_EQ(path.GetLength(), 0u);
    EXPECT_TRUE(path.Delete());
    EXPECT_FALSE(path.Exists());
    EXPECT_FALSE(fs::exists(m_Folder / "TmpName"));
}

TEST_F(PathNameFileSystem, CreateBranchMakesEveryMissingFolderButNotTheLeaf)
{
    PathName path(m_sFolder + "/a/b/c/file.txt");
    EXPECT_TRUE(path.CreateBranch());
    EXPECT_TRUE(fs::is_directory(m_Folder / "a/b/c"));
    EXPECT_FALSE(fs::exists(m_Folder / "a/b/c/file.txt"));
    EXPECT_TRUE(path.CreateBranch()); // all there already

    // Relative, with backslashes: made below the current folder, backslashes as slashes.
    PathName relative(R"(x\y\)");
    EXPECT_TRUE(relative.CreateBranch());
    EXPECT_TRUE(fs::is_directory(m_Folder / "x/y"));
    EXPECT_TRUE(relative.IsDir());

    // A file in the way: false, and what was made before stays.
    Write("blocker");
    PathName blocked("fresh/../blocker/q/");
    EXPECT_FALSE(blocked.CreateBranch());
    EXPECT_TRUE(fs::is_directory(m_Folder / "fresh"));
    EXPECT_TRUE(fs::is_regular_file(m_Folder / "blocker"));
}

TEST_F(PathNameFileSystem, FilesExistHaveALengthAndAreDeletedFromTheirFolder)
{
    Write("data.bin", "12345");
    PathName file(m_sFolder + "/data.bin");
    EXPECT_TRUE(file.Exists());
    EXPECT_FALSE(file.IsDir());
    EXPECT_EQ(file.GetLength(), 5u);

    PathName folder(file);
    folder.SetLeafAndExt("");
    EXPECT_TRUE(folder.IsDir());
    EXPECT_TRUE(folder.Delete(file.GetLeafAndExt()));
    EXPECT_FALSE(file.Exists());
    EXPECT_FALSE(folder.Delete(file.GetLeafAndExt()));
    EXPECT_EQ(Text(folder), m_sFolder + "/"); // not changed

    // Only a folder deletes files in it, and only with a name.
    Write("other.txt");
    PathName other(m_sFolder + "/other.txt");
    EXPECT_FALSE(other.Delete("x"));
    EXPECT_FALSE(folder.Delete(""));
    // Without a trailing separator as well.
    EXPECT_TRUE(PathName(m_sFolder).Delete("other.txt"));

    // Delete(file) never removes a folder.
    fs::create_directory(m_Folder / "keep");
    EXPECT_FALSE(folder.Delete("keep"));
    EXPECT_TRUE(fs::is_directory(m_Folder / "keep"));
}

TEST_F(PathNameFileSystem, ExistsTellsFilesFromFolders)
{
    fs::create_directory(m_Folder / "dir");
    Write("dir/f.txt");
    // A folder exists when written as one; without its trailing separator it is asked for a file.
    EXPECT_TRUE(PathName(m_sFolder + "/dir/").Exists());
    EXPECT_TRUE(PathName(m_sFolder + R"(\dir\)").Exists());
    EXPECT_FALSE(PathName(m_sFolder + "/dir").Exists());
    EXPECT_TRUE(PathName(m_sFolder + "/dir").IsDir());
    EXPECT_TRUE(PathName(m_sFolder + "/dir/f.txt").Exists());
    EXPECT_FALSE(PathName(m_sFolder + "/dir/f.txt/").Exists());

    // The current folder followed by a backslash and a dot exists; odd names under it do not.
    const std::string sCurrent = fs::current_path().string();
    EXPECT_TRUE(PathName(sCurrent + R"(\.)").Exists());
    for (const char* pszName : {"__A_B_C_D_E_F_G_H__", R"(__A_B_C_D_E_F_G_H__\)", "_()_*_()_"}) {
        EXPECT_FALSE(PathName(sCurrent + "\\" + pszName).Exists()) << pszName;
    }

    const PathName empty;
    EXPECT_FALSE(empty.Exists());
    EXPECT_FALSE(empty.IsDir());
    EXPECT_EQ(empty.GetLength(), 0u);
    EXPECT_TRUE(PathName("/").IsDir());
    EXPECT_TRUE(PathName("/").Exists());

    // A colon behind the first component is part of a name.
    Write("12:30.log", "abc");
    EXPECT_TRUE(PathName(m_sFolder + "/12:30.log").Exists());
    EXPECT_EQ(PathName(m_sFolder + "/12:30.log").GetLength(), 3u);
}

TEST_F(PathNameFileSystem, DeleteRemovesFilesAndEmptyFolders)
{
    Write("f.txt");
    PathName file("f.txt");
    EXPECT_TRUE(file.Delete());
    EXPECT_FALSE(fs::exists(m_Folder / "f.txt"));
    EXPECT_TRUE(file.Delete()); // does not exist: true

    fs::create_directories(m_Folder / "full/inner");
    PathName full("full/");
    EXPECT_FALSE(full.Delete()); // not empty
    EXPECT_TRUE(fs::is_directory(m_Folder / "full/inner"));
    EXPECT_TRUE(PathName("full/inner/").Delete());
    EXPECT_TRUE(full.Delete());
    EXPECT_FALSE(fs::exists(m_Folder / "full"));

    // A folder named like a file does not exist for Delete, which leaves it alone.
    fs::create_directory(m_Folder / "folder.d");
    EXPECT_TRUE(PathName("folder.d").Delete());
    EXPECT_TRUE(fs::is_directory(m_Folder / "folder.d"));
}

TEST_F(PathNameFileSystem, RenameAFile)
{
    Write("a.txt", "A");
    PathName path(m_sFolder + "/a.txt");
    EXPECT_TRUE(path.Rename("b.txt"));
    EXPECT_EQ(Text(path), m_sFolder + "/b.txt");
    EXPECT_EQ(Read("b.txt"), "A");
    EXPECT_FALSE(fs::exists(m_Folder / "a.txt"));

    // Never onto an existing target.
    Write("c.txt", "C");
    EXPECT_FALSE(path.Rename("c.txt"));
    EXPECT_EQ(Text(path), m_sFolder + "/b.txt");
    EXPECT_EQ(Read("b.txt"), "A");
    EXPECT_EQ(Read("c.txt"), "C");
    // Nor onto an existing folder.
    fs::create_directory(m_Folder / "d.txt");
    EXPECT_FALSE(path.Rename("d.txt"));
    EXPECT_EQ(Read("b.txt"), "A");

    // Relative, in the current folder.
    PathName relative("b.txt");
    EXPECT_TRUE(relative.Rename("e.txt"));
    EXPECT_EQ(Text(relative), "e.txt");
    EXPECT_EQ(Read("e.txt"), "A");

    PathName missing("missing.txt");
    EXPECT_FALSE(missing.Rename("x.txt"));
    EXPECT_FALSE(fs::exists(m_Folder / "x.txt"));
}

TEST_F(PathNameFileSystem, RenameAFolder)
{
    fs::create_directory(m_Folder / "d1");
    Write("d1/inside.txt", "in");
    PathName path(m_sFolder + "/d1/");
    EXPECT_TRUE(path.Rename("d2"));
    EXPECT_EQ(Text(path), m_sFolder + "/d2/");
    EXPECT_EQ(Read("d2/inside.txt"), "in");
    EXPECT_FALSE(fs::exists(m_Folder / "d1"));

    // An empty folder as the target is not replaced either (a plain rename would do that).
    fs::create_directory(m_Folder / "empty");
    EXPECT_FALSE(path.Rename("empty"));
    EXPECT_TRUE(fs::is_directory(m_Folder / "d2"));
    EXPECT_TRUE(fs::is_empty(m_Folder / "empty"));
    // Nor a file.
    Write("plain", "p");
    EXPECT_FALSE(path.Rename("plain"));
    EXPECT_EQ(Read("plain"), "p");

    // A folder with backslashes behind a Linux folder: the right one is renamed.
    PathName backslashed(m_sFolder + R"(\d2\)");
    EXPECT_TRUE(backslashed.Rename("d3"));
    EXPECT_EQ(Text(backslashed), m_sFolder + "/d3/");
    EXPECT_TRUE(fs::is_directory(m_Folder / "d3"));
    EXPECT_FALSE(fs::exists(m_Folder / "d2"));
}

TEST_F(PathNameFileSystem, ColonsInFolderNamesReachTheFileSystemWhole)
{
    PathName branch(m_sFolder + "/logs:2024/run/");
    EXPECT_TRUE(branch.CreateBranch());
    EXPECT_TRUE(fs::is_directory(m_Folder / "logs:2024/run"));
    EXPECT_EQ(Entries(), Strings{"logs:2024"}); // nothing stray beside it

    PathName stamped(m_sFolder + "/12:30/");
    ASSERT_TRUE(stamped.CreateBranch());
    EXPECT_TRUE(stamped.Rename("renamed"));
    EXPECT_EQ(Text(stamped), m_sFolder + "/renamed/");
    EXPECT_TRUE(fs::is_directory(m_Folder / "renamed"));
    EXPECT_FALSE(fs::exists(m_Folder / "12:30"));

    // Relative to the current folder (the fixture's), and appended.
    PathName relative("10:00/x/");
    EXPECT_TRUE(relative.CreateBranch());
    EXPECT_TRUE(fs::is_directory(m_Folder / "10:00/x"));
    PathName appended(m_sFolder);
    appended += "run:1";
    appended += "logs";
    EXPECT_EQ(Text(appended), m_sFolder + "/run:1/logs");
    EXPECT_TRUE(appended.CreateBranch()); // the leaf "logs" is a file name here: run:1 is made
    EXPECT_TRUE(fs::is_directory(m_Folder / "run:1"));
}

TEST_F(PathNameFileSystem, ReadDirectoryWithFilters)
{
    for (const char* pszName : {"a.txt", "b.txt", "abc.dat", "axc", "x[1].txt", "B.TXT"}) Write(pszName);
    fs::create_directory(m_Folder / "sub");
    const PathName folder(m_sFolder);

    auto read = [&folder](const std::string& sFilter) {
        Strings vNames;
        EXPECT_TRUE(folder.ReadDirectory(vNames, sFilter)) << sFilter;
        std::sort(vNames.begin(), vNames.end());
        return vNames;
    };
    EXPECT_EQ(read("*.txt"), (Strings{"a.txt", "b.txt", "x[1].txt"}));
    EXPECT_EQ(read("a?c*"), (Strings{"abc.dat", "axc"}));
    EXPECT_EQ(read("*"), (Strings{".", "..", "B.TXT", "a.txt", "abc.dat", "axc", "b.txt", "sub", "x[1].txt"}));
    EXPECT_EQ(read("*.*"), read("*"));
    EXPECT_EQ(read("x[1].txt"), (Strings{"x[1].txt"})); // brackets are no wildcards
    EXPECT_EQ(read("nothing*"), Strings{});             // no match: listed, nothing found

    // Names are appended.
    Strings vNames = {"kept"};
    EXPECT_TRUE(PathName(m_sFolder + "/").ReadDirectory(vNames, "s*"));
    EXPECT_EQ(vNames, (Strings{"kept", "sub"}));
    // Relative, with a backslash.
    vNames.clear();
    EXPECT_TRUE(PathName(R"(.\sub)").ReadDirectory(vNames, "*"));
    std::sort(vNames.begin(), vNames.end());
    EXPECT_EQ(vNames, (Strings{".", ".."}));

    // A missing folder, or a file taken for one, cannot be listed.
    vNames.clear();
    EXPECT_FALSE(PathName(m_sFolder + "/missing").ReadDirectory(vNames, "*"));
    EXPECT_FALSE(PathName(m_sFolder + "/a.txt").ReadDirectory(vNames, "*"));
    EXPECT_TRUE(vNames.empty());
}

TEST_F(PathNameFileSystem, ForceAbsoluteAndForceRelativeRoundTrips)
{
    for (const char* pszRelative : {"sub/file.txt", "sub/dir/", R"(sub\dir\f.txt)", "file"}) {
        PathName path(pszRelative);
        EXPECT_TRUE(path.ForceAbsolute());
        EXPECT_TRUE(path.IsAbsolute());
        std::string sExpected = m_sFolder + "/" + pszRelative;
        std::replace(sExpected.begin(), sExpected.end(), '\\', '/');
        EXPECT_EQ(Text(path), sExpected);
        path.ForceRelative(m_sFolder);
        std::string sBack = pszRelative;
        std::replace(sBack.begin(), sBack.end(), '\\', '/');
        EXPECT_EQ(Text(path), sBack);
    }

    // A relative folder is made absolute, and so is the path.
    PathName relative("sub/file.txt");
    relative.ForceRelative(".");
    EXPECT_EQ(Text(relative), "sub/file.txt");
    PathName absolute(m_sFolder + "/sub/file.txt");
    absolute.ForceRelative("./");
    EXPECT_EQ(Text(absolute), "sub/file.txt");
    PathName withSlash(m_sFolder + "/sub/file.txt");
    withSlash.ForceRelative(m_sFolder + "/");
    EXPECT_EQ(Text(withSlash), "sub/file.txt");

    // Elsewhere: stays absolute.
    PathName elsewhere("/elsewhere/x");
    elsewhere.ForceRelative(m_sFolder);
    EXPECT_EQ(Text(elsewhere), "/elsewhere/x");
}

TEST_F(PathNameFileSystem, ForceAbsoluteIsLexical)
{
    const std::string sParent = m_Folder.parent_path().string();
    struct Case
    {
        const char* pszText;
        std::string sExpected;
    };
    for (const Case& test : {Case{R"(.\sub\..\x\f.txt)", m_sFolder + "/x/f.txt"}, Case{"./", m_sFolder + "/"},
                             Case{".", m_sFolder + "/"}, Case{"..", sParent + "/"}, Case{"../", sParent + "/"},
                             Case{"a//b/./c", m_sFolder + "/a/b/c"}, Case{"/abs/../x", "/x"},
                             Case{"/../..", "/"}, Case{R"(\Test)", "/Test"}}) {
        PathName path(test.pszText);
        EXPECT_TRUE(path.ForceAbsolute()) << test.pszText;
        EXPECT_EQ(Text(path), test.sExpected) << test.pszText;
    }

    // Links are not resolved.
    fs::create_directory(m_Folder / "real");
    fs::create_directory_symlink(m_Folder / "real", m_Folder / "link");
    PathName link("link/../link/f");
    EXPECT_TRUE(link.ForceAbsolute());
    EXPECT_EQ(Text(link), m_sFolder + "/link/f");

    // Drive paths have no meaning, UNC paths stay as they are, the empty text has nothing to resolve.
    for (const char* pszDrive : {R"(C:\x)", "Z:Test"}) {
        PathName drive(pszDrive);
        EXPECT_FALSE(drive.ForceAbsolute());
        EXPECT_EQ(Text(drive), pszDrive);
    }
    PathName unc(R"(\\server\share\x)");
    EXPECT_TRUE(unc.ForceAbsolute());
    EXPECT_EQ(Text(unc), R"(\\server\share\x)");
    PathName empty;
    EXPECT_FALSE(empty.ForceAbsolute());
}

TEST(PathNameRelative, EmptyFolderRemovesTheBase)
{
    PathName path(R"(c:\temp\test.txt)");
    path.ForceRelative("");
    EXPECT_EQ(Text(path), R"(\temp\test.txt)");
    EXPECT_TRUE(path.IsRelative());

    PathName noBase("/usr/lib");
    noBase.ForceRelative("");
    EXPECT_EQ(Text(noBase), "/usr/lib");

    // The match ignores case; the separator behind it goes, of either kind.
    PathName drive(R"(C:\Data\Sub\f.txt)");
    drive.ForceRelative(R"(c:\data)");
    EXPECT_EQ(Text(drive), R"(Sub\f.txt)");
}

TEST_F(PathNameFileSystem, DriveAndUNCPathsFailEveryOperation)
{
    // Even with folders named like the drive present, a drive path never reaches them.
    fs::create_directory(m_Folder / "C:");
    Write("C:/x.txt", "xx");
    const Strings vBefore = Entries();

    for (const char* pszPath : {R"(C:\x.txt)", "C:x.txt", "C:/x.txt", R"(\\server\share\x.txt)"}) {
        SCOPED_TRACE(pszPath);
        PathName path(pszPath);
        EXPECT_FALSE(path.Exists());
        EXPECT_FALSE(path.IsDir());
        EXPECT_EQ(path.GetLength(), 0u);
        EXPECT_FALSE(path.Delete());
        EXPECT_FALSE(path.Rename("y.txt"));
        EXPECT_EQ(Text(path), pszPath);
    }
    for (const char* pszFolder : {R"(C:\)", "C:", "C:/", R"(D:\new\folders\)", R"(D:new\f.txt)",
                                  R"(\\server\share\)", R"(\\server\share\dir\f.txt)"}) {
        SCOPED_TRACE(pszFolder);
        PathName folder(pszFolder);
        EXPECT_FALSE(folder.IsDir());
        EXPECT_FALSE(folder.Exists());
        EXPECT_FALSE(folder.CreateBranch());
        EXPECT_FALSE(folder.Delete());
        EXPECT_FALSE(folder.Delete("x.txt"));
        Strings vNames;
        EXPECT_FALSE(folder.ReadDirectory(vNames, "*"));
        EXPECT_TRUE(vNames.empty());
    }
    // Nothing was made, renamed or removed: no folder named `D:`, the `C:` folder untouched.
    EXPECT_EQ(Entries(), vBefore);
    EXPECT_EQ(Read("C:/x.txt"), "xx");
}

} // namespace
