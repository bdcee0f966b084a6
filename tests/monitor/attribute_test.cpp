#include "attribute.h"

#include <sys/resource.h>
#include <unistd.h>

#include "logger.h"
#include "tests/support/support.h"
#include "util/clock.h"

using Monitor::g_attrMap;

static Strings Keys()
{
    Strings keys;
    for (const auto& [path, attr] : g_attrMap) {
        keys.push_back(path);
    }
    return keys;
}

TEST(AttributeTest, TellsWhatChangedInARecordedFileOnce)
{
    const TempDir directory;
    const std::string file = directory / "file";
    const std::string link = directory / "link";
    Write(file, "12");
    fs::permissions(file, fs::perms(0644));
    fs::create_symlink(file, link);
    const bool root = lchown(link.c_str(), 1, 2) == 0;
    std::string text = "before;";
    EXPECT_FALSE(Monitor::UpdateAttrAndLog(file, text));  // not recorded
    Monitor::RecordAttribute(file);
    Monitor::RecordAttribute(link);
    g_attrMap[link].uid = g_attrMap[link].gid = 0xFFFFFFFFU;
    g_attrMap[link].size = -1;
    EXPECT_FALSE(Monitor::UpdateAttrAndLog(file, text));
    fs::permissions(file, fs::perms(0600));
    fs::create_hard_link(file, directory / "other");
    EXPECT_TRUE(Monitor::UpdateAttrAndLog(file, text) && Monitor::UpdateAttrAndLog(link, text));
    EXPECT_FALSE(Monitor::UpdateAttrAndLog(file, text));
    EXPECT_EQ(text, "before;" + file + " oaccess=33188 access=33152 olink=1 link=2 " + link +
                        " ouid=4294967295 cuid=" + std::to_string(root ? 1 : geteuid()) + " ogid=4294967295 cgid=" +
                        std::to_string(root ? 2 : getegid()) + " osize=-1 size=" + std::to_string(file.size()) + " ");
    const Monitor::Attribute last = {0, 0xFFFFFFFFU, 0xFFFFFFFFU, 0xFFFFFFFFU, 0x7FFFFFFF};
    EXPECT_EQ(Monitor::GetDiff({0100644, 0, 0, 0, 5}, last),
              "oaccess=33188 access=0 ouid=0 cuid=4294967295 ogid=0 cgid=4294967295 olink=0 link=4294967295 "
              "osize=5 size=2147483647 ");
    fs::remove(file);
    Monitor::Attribute attr = last;
    EXPECT_FALSE(Monitor::UpdateAttrAndLog(file, text) || Monitor::GetFileAttr(file, attr));
    EXPECT_EQ(Monitor::GetDiff(attr, last), "");
}

TEST(AttributeTest, WalksOneLevelDeepAndForgetsByTheFirstBytes)
{
    const TempDir directory;
    const std::string top = directory / "top";
    const std::string moved = directory / "moved";
    const std::string link = directory / "link";
    fs::create_directories(top + "/sub/deep");
    fs::create_directory_symlink(top, link);
    Monitor::RecordAttribute("");
    Monitor::RecordAttributeRecursive(link);
    Monitor::RecordAttributeRecursive(top);
    EXPECT_EQ(Keys(), (Strings{link, top, top + "/sub"}));
    Monitor::RemoveRecord(link);
    fs::rename(top, moved);
    const std::string longest = moved + std::string(1024 - moved.size(), '/');
    Monitor::UpdateFileNameRecursive(top, longest);
    Monitor::UpdateFileNameRecursive(longest, moved);
    EXPECT_EQ(Keys(), (Strings{top, top + "/sub"}));
    Monitor::UpdateFileNameRecursive(top, longest.substr(1));  // relative: nothing is there
    EXPECT_EQ(Keys(), Strings{top + "/sub"});
    Monitor::UpdateFileNameRecursive(top, moved);
    EXPECT_EQ(Keys(), (Strings{moved, moved + "/sub"}));
    for (const char* name : {"/x/", "/x/a", "/x/a.conf", "/x/a/b", "/x/ab", "/x/a\xff", "/x/b"}) {
        g_attrMap[name] = {};
    }
    Monitor::RemoveRecordRecursive("/x/a");  // kept: also where no separator follows
    EXPECT_EQ(Keys(), (Strings{moved, moved + "/sub", "/x/", "/x/b"}));
    Monitor::RemoveRecordRecursive("");
    EXPECT_EQ(Keys(), Strings());
}

TEST(AttributeTest, TellsOfADirectoryThatCannotBeOpenedAndKeepsItsRecord)
{
    const Records records;
    NE_LOG(INFO, "The first record.");  // a sanitizer needs descriptors for the first look at each type of object
    rlimit files = {0, 1024};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &files), 0);
    Monitor::RecordAttributeRecursive("/tmp");
    Monitor::UpdateFileNameRecursive("/old", "/tmp");
    files.rlim_cur = 1024;  // a sanitizer needs some
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &files), 0);
    EXPECT_EQ(records.Count("ERROR Open dir failed for error.[dir=/tmp error=Too many open files]"), 2);
    EXPECT_EQ(Keys(), Strings{"/tmp"});
}

TEST(AttributeTest, FullTableTakesNothingAndTellsSoAtMostEveryQuarterOfAnHour)
{
    const Records records;
    const auto told = [&](std::int64_t stepMs, const std::string& path) {
        Clock::wallOffsetMs += stepMs;
        Monitor::RecordAttribute(path);
        return records.Count("ERROR The monitoring file status has reached the upper limit. [limit=21000]");
    };
    for (int i = 0; i < 20999; ++i) {
        g_attrMap["record" + std::to_string(i)] = {};
    }
    EXPECT_EQ(told(0, "/tmp"), 0);
    g_attrMap["/tmp"].mode = 1;
    EXPECT_EQ(told(0, "/usr"), 1);
    EXPECT_EQ(told(890000, "/tmp"), 1);
    EXPECT_EQ(told(20000, "/tmp"), 2);
    EXPECT_EQ(told(-3600000, "/tmp"), 2);
    EXPECT_EQ(g_attrMap.size(), 21000U);
    EXPECT_EQ(g_attrMap["/tmp"].mode, 1U);  // kept: not refreshed
}

TEST(AttributeTest, SeveralThreadsShareTheTable)
{
    const TempDir directory;
    InThreads(4, [&](int i) {
        std::string text;
        for (int round = 0; round < 100; ++round) {
            Write(directory / "file", std::string(static_cast<std::size_t>(i), 'x'));
            Monitor::UpdateFileNameRecursive("/old", directory.Path());
            Monitor::UpdateAttrAndLog(directory / "file", text);
            Monitor::RemoveRecordRecursive(directory.Path());
        }
    });
    EXPECT_EQ(Keys(), Strings());
}
