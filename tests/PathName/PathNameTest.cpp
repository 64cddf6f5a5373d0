// PathName: parts of NT, UNC and Linux paths, kinds, validity, changes of parts, appending, and
// the file-system operations in a real temporary folder.
#include "tests/TestSupport.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>

using namespace Qel::Core;
namespace fs = std::filesystem;

namespace {

struct Parts
{
    std::string text, base, branch, baseAndBranch, leaf, ext, leafAndExt;
};

std::string Text(const PathName& path)
{
    return static_cast<const std::string&>(path);
}

// A fresh folder under the temporary folder, made the current folder while it lives.
class TempFolder
{
public:
    TempFolder()
    {
        m_Previous = fs::current_path();
        m_Folder = fs::temp_directory_path() / ("qel-path-" + std::to_string(System::GetProcessId()) + "-" +
                                                std::to_string(s_iCount++));
        fs::remove_all(m_Folder);
        fs::create_directories(m_Folder);
        fs::current_path(m_Folder);
    }
    ~TempFolder()
    {
        fs::current_path(m_Previous);
        fs::remove_all(m_Folder);
    }
    std::string Path() const { return m_Folder.string(); }
    static void Write(const fs::path& file, const std::string& content)
    {
        std::ofstream out(file, std::ios::binary);
        out << content;
    }

private:
    fs::path m_Previous;
    fs::path m_Folder;
    static inline int s_iCount = 0;
};

} // namespace

// ---- parts ----

TEST(PathNameParts, NtUncAndLinuxPathsFallIntoTheirParts)
{
    const Parts cases[] = {
        {"C:\\dir\\file1.txt", "C", "\\dir\\", "C:\\dir\\", "file1", "txt", "file1.txt"},
        {"\\\\server\\share\\dir\\file.txt1", "\\\\server", "\\share\\dir\\", "\\\\server\\share\\dir\\", "file", "txt1",
         "file.txt1"},
        {"/usr/lib/x86_64-linux-gnu/libc.so.6", "", "/usr/lib/x86_64-linux-gnu/", "/usr/lib/x86_64-linux-gnu/", "libc.so",
         "6", "libc.so.6"},
        {"relative/dir/", "", "relative/dir/", "relative/dir/", "", "", ""},
        {".hidden", "", "", "", "", "hidden", ".hidden"},
        {"archive.tar.gz", "", "", "", "archive.tar", "gz", "archive.tar.gz"},
        {"F:the file name.the extension", "F", "", "F:", "the file name", "the extension", "the file name.the extension"},
        {"Z:the file name", "Z", "", "Z:", "the file name", "", "the file name"},
        {"R:.txt", "R", "", "R:", "", "txt", ".txt"},
        {"bare\\path\\", "", "bare\\path\\", "bare\\path\\", "", "", ""},
        {"F:bare\\path\\", "F", "bare\\path\\", "F:bare\\path\\", "", "", ""},
        {"C:\\di r1\\file1.txt", "C", "\\di r1\\", "C:\\di r1\\", "file1", "txt", "file1.txt"},
        {"C:\\dir\\.txt1", "C", "\\dir\\", "C:\\dir\\", "", "txt1", ".txt1"},
        {"some\\directory\\.exe", "", "some\\directory\\", "some\\directory\\", "", "exe", ".exe"},
        {"C:\\dir.d\\file", "C", "\\dir.d\\", "C:\\dir.d\\", "file", "", "file"},
        {"file.", "", "", "", "file", "", "file"},
        {"\\\\server", "", "\\\\", "\\\\", "server", "", "server"},
        {"", "", "", "", "", "", ""},
    };
    for (const Parts& c : cases) {
        PathName path(c.text);
        SCOPED_TRACE(c.text);
        EXPECT_EQ(path.GetBase(), c.base);
        EXPECT_EQ(path.GetBranch(), c.branch);
        EXPECT_EQ(path.GetBaseAndBranch(), c.baseAndBranch);
        EXPECT_EQ(path.GetLeaf(), c.leaf);
        EXPECT_EQ(path.GetExt(), c.ext);
        EXPECT_EQ(path.GetLeafAndExt(), c.leafAndExt);
        EXPECT_EQ(path.HasExt(), !c.ext.empty());
        EXPECT_EQ(path.HasLeaf(), !c.leafAndExt.empty());
    }
}

TEST(PathNameParts, UncAndBaseQuestions)
{
    EXPECT_TRUE(PathName("\\\\server\\share").IsUNC());
    EXPECT_TRUE(PathName("\\\\server").HasBase()); // every UNC path has a base
    EXPECT_FALSE(PathName("//server/share").IsUNC());
    EXPECT_FALSE(PathName("\\").IsUNC());
    EXPECT_TRUE(PathName("C:x").HasBase());
    EXPECT_FALSE(PathName("/usr/lib").HasBase());
    EXPECT_TRUE(PathName("a/b").HasBranch());
    EXPECT_FALSE(PathName("ab").HasBranch());
}

TEST(PathNameParts, KindsOfPath)
{
    EXPECT_TRUE(PathName("C:\\Test").IsAbsolute());
    EXPECT_TRUE(PathName("\\\\Computer\\Test").IsAbsolute());
    EXPECT_TRUE(PathName("/usr/lib").IsAbsolute()); // the POSIX root
    EXPECT_TRUE(PathName("/").IsAbsolute());
    EXPECT_TRUE(PathName("/usr", UNIX).IsAbsolute());
    EXPECT_TRUE(PathName("\\Test").IsRelative());
    EXPECT_TRUE(PathName("C:Test").IsRelative());
    EXPECT_TRUE(PathName(".\\Test").IsRelative());
    EXPECT_TRUE(PathName("relative/dir").IsRelative());
    EXPECT_TRUE(PathName("").IsRelative());
}

TEST(PathNameParts, PreferredSeparatorFollowsTheText)
{
    PathName slash("D:/path");
    slash.ForceAsDir();
    EXPECT_EQ(Text(slash), "D:/path/");
    PathName backslash("D:\\x");
    backslash.ForceAsDir();
    EXPECT_EQ(Text(backslash), "D:\\x\\");
    PathName none("dir");
    none.ForceAsDir();
    EXPECT_EQ(Text(none), "dir/"); // no separator in the text: "/"
    PathName empty;
    empty.ForceAsDir();
    EXPECT_EQ(Text(empty), "");
    PathName copy = backslash;
    copy = "other";
    copy.ForceAsDir(); // assignment looks at the new text; none there, the old one stays
    EXPECT_EQ(Text(copy), "other\\");
}

// ---- validity ----

TEST(PathNameValidity, ValidTexts)
{
    for (const char* text :
         {"Test.txt", "_Test.txt.txt", "bare.fi_le", "spaces bare.fi.le", "under_score_bare.file", "bare", "spaces bare",
          "underscore_bare", "/.txt", "\\Test.txt", "a:", "\\\\Computer\\path", "D:\\path", "D:/path", "..\\path",
          ".\\path", "W:\\path\\no\\spaces\\file.txt", "X:\\path\\with 2 spaces", "C:\\path\\no\\spaces",
          "/usr/lib/x86_64-linux-gnu/libc.so.6", "Messger\xC3\xA4t.txt"})
        EXPECT_TRUE(PathName(text).IsValid()) << text;
}

TEST(PathNameValidity, InvalidTexts)
{
    for (const char* text : {"", "\".txt", "*.txt", "|.txt", "?.txt", "<.txt", ">.txt", ":.txt", ";.txt", "a//b",
                             "C:\\a\\\\b", "a:b:c", "CC:\\x", ":", "\\\\\\", "dir\\fi|le"})
        EXPECT_FALSE(PathName(text).IsValid()) << text;
    EXPECT_FALSE(PathName(std::string(257, 'a')).IsValid()); // a leaf without a dot: 256 at most
    EXPECT_TRUE(PathName(std::string(256, 'a')).IsValid());
    EXPECT_FALSE(PathName(std::string(200, 'a') + "." + std::string(60, 'b')).IsValid()); // 261 > 260
}

TEST(PathNameValidity, UnixFormatHasShortNamesAndTheBackslash)
{
    EXPECT_TRUE(PathName("a\\b.txt", UNIX).IsValid()); // a backslash is a name character there
    EXPECT_TRUE(PathName(std::string(31, 'x'), UNIX).IsValid());
    EXPECT_FALSE(PathName(std::string(32, 'x'), UNIX).IsValid());
    EXPECT_EQ(PathName("a\\b.txt", UNIX).GetLeaf(), "a\\b");
}

// ---- changes of parts ----

TEST(PathNameChanges, SetBaseAcrossForms)
{
    for (const char* base : {"d", "d:"}) {
        PathName path("C:\\dir\\file1.txt");
        path.SetBase(base);
        EXPECT_EQ(Text(path), "d:\\dir\\file1.txt");
        PathName unc("\\\\server\\share\\file1.txt");
        unc.SetBase(base);
        EXPECT_EQ(Text(unc), "d:\\share\\file1.txt");
    }
    for (const char* base : {"\\\\server\\", "\\\\server"}) {
        PathName path("C:\\dir\\file1.txt");
        path.SetBase(base);
        EXPECT_EQ(Text(path), "\\\\server\\dir\\file1.txt");
        EXPECT_TRUE(path.IsUNC());
    }
    for (const char* base : {"\\\\server2\\", "\\\\server2"}) {
        PathName path("\\\\server\\share\\file1.txt");
        path.SetBase(base);
        EXPECT_EQ(Text(path), "\\\\server2\\share\\file1.txt");
    }
    PathName drop("c:\\temp\\test.txt");
    drop.SetBase("");
    EXPECT_EQ(Text(drop), "\\temp\\test.txt");
}

TEST(PathNameChanges, SetBaseAndBranch)
{
    for (const char* front : {"d:\\dir2", "d:\\dir2\\"}) {
        PathName path("C:\\dir\\file1.txt");
        path.SetBaseAndBranch(front);
        EXPECT_EQ(Text(path), "d:\\dir2\\file1.txt");
    }
    for (const char* front : {"\\\\server\\share", "\\\\server\\share\\"}) {
        PathName path("C:\\dir\\file1.txt");
        path.SetBaseAndBranch(front);
        EXPECT_EQ(Text(path), "\\\\server\\share\\file1.txt");
    }
    PathName unc("\\\\server\\share\\dir1\\file1.txt");
    unc.SetBaseAndBranch("\\\\server2\\share2\\dir2");
    EXPECT_EQ(Text(unc), "\\\\server2\\share2\\dir2\\file1.txt");
    PathName linux("/var/log/app.log");
    linux.SetBaseAndBranch("/tmp");
    EXPECT_EQ(Text(linux), "/tmp/app.log");
}

TEST(PathNameChanges, BranchLeafAndExtension)
{
    PathName path("C:\\x\\f.txt");
    path.SetBranch("dir");
    EXPECT_EQ(Text(path), "C:dir\\f.txt"); // a leading separator is the caller's
    path.SetBranch("\\a\\b\\");
    EXPECT_EQ(Text(path), "C:\\a\\b\\f.txt");
    path.AddBranch("c");
    EXPECT_EQ(Text(path), "C:\\a\\b\\c\\f.txt");

    path.SetLeaf("name.ext");
    EXPECT_EQ(Text(path), "C:\\a\\b\\c\\name.txt");
    path.SetLeaf(".profile");
    EXPECT_EQ(Text(path), "C:\\a\\b\\c\\.profile.txt");
    path.SetExt("log");
    EXPECT_EQ(Text(path), "C:\\a\\b\\c\\.profile.log");
    path.SetExt(".csv");
    EXPECT_EQ(Text(path), "C:\\a\\b\\c\\.profile.csv");
    path.SetExt("");
    EXPECT_EQ(Text(path), "C:\\a\\b\\c\\.profile");
    path.SetLeafAndExt("data.bin");
    EXPECT_EQ(Text(path), "C:\\a\\b\\c\\data.bin");

    PathName sub("Korvel/");
    sub.AddBranch("Acquire");
    EXPECT_EQ(Text(sub), "Korvel/Acquire/");
    PathName bare("file.txt");
    bare.SetBranch(""); // neither base nor branch: nothing to separate
    EXPECT_EQ(Text(bare), "file.txt");
}

TEST(PathNameChanges, UpDirLeavesTheFolder)
{
    PathName file("/a/b/c.txt");
    EXPECT_TRUE(file.UpDir());
    EXPECT_EQ(Text(file), "/a/");
    PathName folder("C:\\a\\b\\");
    EXPECT_TRUE(folder.UpDir());
    EXPECT_EQ(Text(folder), "C:\\a\\");
    PathName top("/a/");
    EXPECT_TRUE(top.UpDir());
    EXPECT_EQ(Text(top), "/");
    PathName root("/");
    EXPECT_FALSE(root.UpDir());
    EXPECT_EQ(Text(root), "/");
    PathName single("a/");
    EXPECT_FALSE(single.UpDir());
    EXPECT_EQ(Text(single), "a/");
    PathName leafOnly("file.txt");
    EXPECT_FALSE(leafOnly.UpDir());
}

// ---- appending ----

TEST(PathNameAppend, AppendsWithOneSeparator)
{
    PathName path("/var/lib");
    path += "Korvel";
    EXPECT_EQ(Text(path), "/var/lib/Korvel");
    path += std::string("/Acquire/");
    EXPECT_EQ(Text(path), "/var/lib/Korvel/Acquire/");
    path += "";
    path += static_cast<const char*>(nullptr);
    EXPECT_EQ(Text(path), "/var/lib/Korvel/Acquire/");
    PathName empty;
    empty += "\\start";
    EXPECT_EQ(Text(empty), "\\start");
    PathName nt("C:\\data");
    nt += "\\logs";
    EXPECT_EQ(Text(nt), "C:\\data\\logs");
}

TEST(PathNameAppend, AFileNameCannotBeAppendedTo)
{
    PathName path("/var/log/app.log");
    try {
        path += "more";
        FAIL() << "no error";
    } catch (LogicError& error) {
        EXPECT_EQ(error.GetMessageA(), "Cannot append to a PathName that is a file name: /var/log/app.log");
        EXPECT_EQ(error.GetData(AlertInfo::sLOG_NAME), "Qel.Core.PathName");
    }
    EXPECT_EQ(Text(path), "/var/log/app.log");
}

TEST(PathNameAppend, APathWithABaseCannotBeAppended)
{
    PathName path("/var/lib");
    try {
        path += "D:\\other";
        FAIL() << "no error";
    } catch (InvalidParameter& error) {
        EXPECT_NE(error.GetMessageA().find("aPath"), std::string::npos) << error.GetMessageA();
        EXPECT_NE(error.GetMessageA().find("D:\\other"), std::string::npos) << error.GetMessageA();
        EXPECT_EQ(error.GetData(AlertInfo::sLOG_NAME), "Qel.Core.PathName");
    }
    EXPECT_THROW(path += "\\\\server\\share", InvalidParameter);
}

TEST(PathNameAppend, AnInPlaceHandlerLetsTheAppendGoOn)
{
    QelTest::AlertRecorder recorder;
    recorder.HandleInPlace(true);
    PathName file("/var/log/app.log");
    file += "more";
    EXPECT_EQ(Text(file), "/var/log/app.log/more");
    PathName base("/data");
    base += "C:x";
    EXPECT_EQ(Text(base), "/data/C:x");
    EXPECT_EQ(recorder.Count("handled"), 2u);
}

// ---- the file system ----

TEST(PathNameFileSystem, CreateExistsIsDirLengthAndDelete)
{
    TempFolder temp;
    PathName folder;
    folder.SetBaseAndBranch(temp.Path());
    folder.AddBranch("TmpName/inner");
    EXPECT_EQ(Text(folder), temp.Path() + "/TmpName/inner/");
    EXPECT_FALSE(folder.Exists());
    EXPECT_TRUE(folder.CreateBranch());
    EXPECT_TRUE(folder.Exists());
    EXPECT_TRUE(folder.IsDir());
    EXPECT_EQ(folder.GetLength(), 0u);

    PathName file(Text(folder) + "data.bin");
    TempFolder::Write(Text(file), "12345");
    EXPECT_TRUE(file.Exists());
    EXPECT_FALSE(file.IsDir());
    EXPECT_EQ(file.GetLength(), 5u);
    EXPECT_FALSE(folder.Delete()); // not empty
    EXPECT_TRUE(folder.Delete(file.GetLeafAndExt()));
    EXPECT_FALSE(folder.Delete(file.GetLeafAndExt())); // gone already
    EXPECT_FALSE(file.Exists());
    EXPECT_TRUE(file.Delete()); // nothing there: true
    EXPECT_TRUE(folder.Delete());
    EXPECT_FALSE(folder.Exists());

    // A folder written without its separator is no file, so it "does not exist".
    fs::create_directory("plain");
    EXPECT_FALSE(PathName("plain").Exists());
    EXPECT_TRUE(PathName("plain").IsDir());
    EXPECT_TRUE(PathName("plain/").Exists());
}

TEST(PathNameFileSystem, CreateBranchMakesTheFoldersToAFile)
{
    TempFolder temp;
    PathName file("a\\b/c\\report.txt"); // backslashes are separators for the file system
    EXPECT_TRUE(file.CreateBranch());
    EXPECT_TRUE(fs::is_directory("a/b/c"));
    EXPECT_FALSE(fs::exists("a/b/c/report.txt"));
    EXPECT_TRUE(file.CreateBranch()); // again: nothing to do
    TempFolder::Write("blocker", "x");
    EXPECT_FALSE(PathName("blocker/sub/file.txt").CreateBranch());
}

TEST(PathNameFileSystem, CurrentFolderAndNamesThatDoNotExist)
{
    TempFolder temp;
    EXPECT_TRUE(PathName(temp.Path() + "\\.").Exists());
    EXPECT_TRUE(PathName(temp.Path() + "/").Exists());
    for (const char* name : {"__A_B_C_D_E_F_G_H__", "__A_B_C_D_E_F_G_H__\\", "_()_*_()_"})
        EXPECT_FALSE(PathName(temp.Path() + "/" + name).Exists()) << name;
    PathName empty;
    EXPECT_FALSE(empty.Exists());
    EXPECT_FALSE(empty.IsDir());
    EXPECT_EQ(empty.GetLength(), 0u);
}

TEST(PathNameFileSystem, DriveAndUncPathsFailAndCreateNothing)
{
    TempFolder temp;
    TempFolder::Write("C:file.txt", "x"); // a Linux file whose name merely holds a colon
    for (const char* text : {"C:\\dir\\file.txt", "C:dir\\", "\\\\server\\share\\dir\\", "C:file.txt", "C:\\"}) {
        PathName path(text);
        SCOPED_TRACE(text);
        EXPECT_FALSE(path.Exists());
        EXPECT_FALSE(path.IsDir());
        EXPECT_EQ(path.GetLength(), 0u);
        EXPECT_FALSE(path.CreateBranch());
        EXPECT_FALSE(path.Rename("other"));
        std::vector<std::string> names;
        EXPECT_FALSE(path.ReadDirectory(names, "*"));
    }
    EXPECT_FALSE(fs::exists("C:"));
    EXPECT_FALSE(fs::exists("C:dir"));
    EXPECT_TRUE(fs::exists("C:file.txt"));
}

TEST(PathNameFileSystem, RenameNeverReplacesATarget)
{
    TempFolder temp;
    TempFolder::Write("first.txt", "1");
    TempFolder::Write("second.txt", "2");
    PathName first(temp.Path() + "/first.txt");
    EXPECT_FALSE(first.Rename("second.txt"));
    EXPECT_EQ(Text(first), temp.Path() + "/first.txt");
    EXPECT_TRUE(first.Rename("third.txt"));
    EXPECT_EQ(Text(first), temp.Path() + "/third.txt");
    EXPECT_TRUE(fs::exists("third.txt"));
    EXPECT_FALSE(fs::exists("first.txt"));
    EXPECT_FALSE(PathName(temp.Path() + "/missing.txt").Rename("x.txt"));

    fs::create_directories("dirA/inside");
    fs::create_directories("dirB");
    PathName folder(temp.Path() + "/dirA/");
    EXPECT_FALSE(folder.Rename("dirB"));
    EXPECT_TRUE(folder.Rename("dirC"));
    EXPECT_EQ(Text(folder), temp.Path() + "/dirC/");
    EXPECT_TRUE(fs::is_directory("dirC/inside"));
    EXPECT_FALSE(fs::exists("dirA"));
}

TEST(PathNameFileSystem, ReadDirectoryFiltersWithWildcards)
{
    TempFolder temp;
    for (const char* name : {"a.txt", "b.txt", "abc.log", "axc", "notes"}) TempFolder::Write(name, "x");
    PathName folder(temp.Path());
    std::vector<std::string> names{"kept"};
    EXPECT_TRUE(folder.ReadDirectory(names, "*.txt"));
    std::sort(names.begin(), names.end());
    EXPECT_EQ(names, (std::vector<std::string>{"a.txt", "b.txt", "kept"})); // appended, not cleared
    names.clear();
    EXPECT_TRUE(folder.ReadDirectory(names, "a?c*"));
    std::sort(names.begin(), names.end());
    EXPECT_EQ(names, (std::vector<std::string>{"abc.log", "axc"}));
    names.clear();
    EXPECT_TRUE(folder.ReadDirectory(names, "*"));
    EXPECT_EQ(names.size(), 7u); // "." and ".." too
    names.clear();
    EXPECT_TRUE(folder.ReadDirectory(names, "*.*"));
    EXPECT_EQ(names.size(), 7u); // every name, as on Windows
    names.clear();
    EXPECT_TRUE(folder.ReadDirectory(names, "*.none")); // nothing matches: an empty listing
    EXPECT_TRUE(names.empty());
    EXPECT_FALSE(PathName(temp.Path() + "/missing").ReadDirectory(names, "*"));
}

TEST(PathNameFileSystem, ForceAbsoluteAndForceRelativeRoundTrip)
{
    TempFolder temp;
    std::string current = fs::current_path().string();
    PathName path("sub/../sub/./file.txt");
    EXPECT_TRUE(path.ForceAbsolute());
    EXPECT_EQ(Text(path), current + "/sub/file.txt");
    path.ForceRelative(current);
    EXPECT_EQ(Text(path), "sub/file.txt");

    PathName dot(".\\");
    EXPECT_TRUE(dot.ForceAbsolute());
    EXPECT_EQ(Text(dot), current + "/");
    PathName absolute("/usr/./lib/../share");
    EXPECT_TRUE(absolute.ForceAbsolute());
    EXPECT_EQ(Text(absolute), "/usr/share");
    PathName unc("\\\\server\\share");
    EXPECT_TRUE(unc.ForceAbsolute());
    EXPECT_EQ(Text(unc), "\\\\server\\share");
    PathName drive("C:\\dir");
    EXPECT_FALSE(drive.ForceAbsolute());
    EXPECT_EQ(Text(drive), "C:\\dir");

    // Relative to a relative folder: both are made absolute first.
    PathName relative("logs/today/app.log");
    relative.ForceRelative("logs");
    EXPECT_EQ(Text(relative), "today/app.log");
    // No match: the path stays absolute.
    PathName elsewhere("/opt/app/x.txt");
    elsewhere.ForceRelative("/srv");
    EXPECT_EQ(Text(elsewhere), "/opt/app/x.txt");
    // An empty folder drops the base, and a leading "/".
    PathName withBase("c:\\temp\\test.txt");
    withBase.ForceRelative("");
    EXPECT_EQ(Text(withBase), "\\temp\\test.txt");
    PathName rooted("/temp/test.txt");
    rooted.ForceRelative("");
    EXPECT_EQ(Text(rooted), "temp/test.txt");
}
