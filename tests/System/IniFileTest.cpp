// The reader of settings files.
#include "Infrastructure/QelCore/Platform/SystemInfo.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

using Qel::Core::Platform::IniFile;

namespace {

std::string Get(const IniFile& file, const std::string& section, const std::string& key)
{
    std::string value = "<missing>";
    file.GetString(section, key, value);
    return value;
}

} // namespace

TEST(IniFile, SectionsAndKeysIgnoreCaseAndTheFirstKeyWins)
{
    IniFile file;
    file.Parse("[Default]\nAppDataSubDir=one\nappdatasubdir=two\n[ACQUIRE]\nKey=x\n[default]\nAPPDATASUBDIR=three\n");
    EXPECT_EQ(Get(file, "default", "AppDataSubDir"), "one");
    EXPECT_EQ(Get(file, "DEFAULT", "appDATAsubdir"), "one");
    EXPECT_EQ(Get(file, "Acquire", "KEY"), "x");
    EXPECT_EQ(Get(file, "Acquire", "AppDataSubDir"), "<missing>");
    EXPECT_EQ(Get(file, "other", "Key"), "<missing>");
}

TEST(IniFile, CommentsBlanksQuotesAndLineEnds)
{
    IniFile file;
    file.Parse("\xEF\xBB\xBF; leading comment\r\n# another\r\n\r\n  [ s ]  \r\n a = \" padded value \" \r\n"
               "b='single'\r\nc=\"unbalanced\r\nd=\r\ne = x = y\r\nnot a pair\r\n=novalue\r\n;f=commented\r\n");
    EXPECT_EQ(Get(file, "s", "a"), " padded value ");
    EXPECT_EQ(Get(file, "s", "b"), "single");
    EXPECT_EQ(Get(file, "s", "c"), "\"unbalanced");
    EXPECT_EQ(Get(file, "s", "d"), "");
    EXPECT_EQ(Get(file, "s", "e"), "x = y");
    EXPECT_EQ(Get(file, "s", "f"), "<missing>");
    EXPECT_EQ(Get(file, "s", ""), "<missing>");
}

TEST(IniFile, KeysBeforeAnySectionAndUnterminatedHeaders)
{
    IniFile file;
    file.Parse("top=1\n[broken\nk=2\n[]\nempty=3");
    EXPECT_EQ(Get(file, "", "top"), "1");
    EXPECT_EQ(Get(file, "", "k"), "2"); // a header without ']' is skipped: still the section ""
    EXPECT_EQ(Get(file, "", "empty"), "3"); // the last line needs no line end
}

TEST(IniFile, ValuesAreCutTo259Bytes)
{
    IniFile file;
    file.Parse("[s]\nlong=" + std::string(400, 'v') + "\n");
    EXPECT_EQ(Get(file, "s", "long"), std::string(259, 'v'));
}

TEST(IniFile, IntegersReadTheirLeadingNumber)
{
    IniFile file;
    file.Parse("[n]\na=1\nb=0\nc=-17\nd=42abc\ne=abc\nf=0x1F\ng=+5\nh=99999999999\ni=-99999999999\nj=\n");
    EXPECT_EQ(file.GetInt("n", "a", 7), 1);
    EXPECT_EQ(file.GetInt("n", "b", 7), 0);
    EXPECT_EQ(file.GetInt("n", "c", 7), -17);
    EXPECT_EQ(file.GetInt("n", "d", 7), 42);
    EXPECT_EQ(file.GetInt("n", "e", 7), 0);
    EXPECT_EQ(file.GetInt("n", "f", 7), 31);
    EXPECT_EQ(file.GetInt("n", "g", 7), 5);
    EXPECT_EQ(file.GetInt("n", "h", 7), 2147483647);
    EXPECT_EQ(file.GetInt("n", "i", 7), -2147483647 - 1);
    EXPECT_EQ(file.GetInt("n", "j", 7), 0);
    EXPECT_EQ(file.GetInt("n", "missing", 7), 7);
}

TEST(IniFile, LoadReadsAFileAndAMissingFileIsEmpty)
{
    namespace fs = std::filesystem;
    fs::path path = fs::temp_directory_path() / "qel-inifile-test.ini";
    {
        std::ofstream out(path, std::ios::binary);
        out << "[default]\r\nEnablePerUserData=1\r\n";
    }
    IniFile file;
    EXPECT_TRUE(file.Load(path.string()));
    EXPECT_EQ(file.GetInt("default", "EnablePerUserData", 0), 1);
    fs::remove(path);
    EXPECT_FALSE(file.Load(path.string()));
    EXPECT_TRUE(file.IsEmpty());
    EXPECT_FALSE(file.Load(fs::temp_directory_path().string())); // a folder is no settings file
}
