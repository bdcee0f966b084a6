#include <sys/stat.h>

#include "sha256.h"
#include "tests/support/support.h"
#include "util/bounded.h"
#include "util/file.h"
#include "util/rate_limiter.h"
#include "util/text.h"
#include "util/text_list.h"

// A cut text that is lost or unterminated would truncate log lines to nothing or overrun the buffer.
TEST(BoundedTest, CutTextStaysTerminatedAndFailsOnlyWhenItDoesNotFit)
{
    char buffer[5];
    EXPECT_EQ(snprintf_s(buffer, 5, "%s", "abcd"), 4);
    EXPECT_EQ(snprintf_s(buffer, 5, "%s", "abcde"), -1);
    EXPECT_STREQ(buffer, "abcd");
    EXPECT_EQ(snprintf_s(buffer, 0, "x"), -1);
    EXPECT_EQ(snprintf_s(buffer, 5, "a%ls", L"\x20ac"), -1);  // without a form in the C locale
    EXPECT_STREQ(buffer, "");
}

// A refused copy must not leave old bytes that pass for a result.
TEST(BoundedTest, RefusedCopyZeroesItsDestination)
{
    std::string dest = "old!";
    EXPECT_EQ(memcpy_s(dest.data(), 4, "12345", 5), ERANGE);
    EXPECT_EQ(dest, std::string(4, '\0'));
    EXPECT_EQ(memcpy_s(dest.data(), 4, "1234", 4), 0);
    EXPECT_EQ(memset_s(dest.data(), 2, 'x', 3), ERANGE);
    EXPECT_EQ(dest, "xx34");
    EXPECT_EQ(memcpy_s(dest.data(), 4, nullptr, 1), EINVAL);
    EXPECT_EQ(dest, std::string(4, '\0'));
}

// Size limits: one byte off here is an overrun or a refused legal file.
TEST(FileTest, ReadsWholeFilesUpToTheLimit)
{
    const TempDir dir;
    ByteBuffer content;
    EXPECT_FALSE(FileOperation::ReadAll(dir.Path(), content));
    const std::string most(0xA00000, 'x');
    Write(dir / "most", most);
    EXPECT_TRUE(FileOperation::ReadAll(dir / "most", content));
    EXPECT_EQ(content.ToString(), most);
    EXPECT_FALSE(FileOperation::ReadAllNosize(dir / "most", content));  // this one stays below the limit
}

// Pipes and files of /proc claim to be empty; reading by size would find nothing in them.
TEST(FileTest, ReadsWithoutASize)
{
    ByteBuffer content;
    std::FILE* pipe = File::RunCmdWithPopen("head -c 100000 /dev/zero | tr '\\0' x; sleep 0.05; echo end");
    EXPECT_TRUE(FileOperation::ReadAllNosize(fileno(pipe), content));
    EXPECT_EQ(pclose(pipe), 0);
    EXPECT_EQ(content.ToString(), std::string(100000, 'x') + "end\n");
}

// A pid file that kept the tail of a longer one would name another process.
TEST(FileTest, WritesFromTheStartAndTruncatesOnRequest)
{
    const TempDir dir;
    EXPECT_TRUE(FileOperation::WriteByDirect(dir / "f", "123456", 6, true));
    EXPECT_TRUE(FileOperation::WriteByDirect(dir / "f", "ab", 2, false));
    EXPECT_EQ(Read(dir / "f"), "ab3456");
    EXPECT_TRUE(FileOperation::WriteByDirect(dir / "f", "ab", 2, true));
    EXPECT_EQ(Read(dir / "f"), "ab");
    EXPECT_FALSE(FileOperation::WriteByDirect("/dev/full", "ab", 2, true));
}

// What repeats is let through once a period: at first, and once more than the period has passed, also before zero.
TEST(RateLimiterTest, AllowsOnceAPeriodWhoeverAsks)
{
    RateLimiter limiter(100);
    std::string allowed;
    for (const int nowMs : {-50, -50, 50, 51, 151, 152}) {
        std::atomic<int> count{0};
        InThreads(4, [&](int) { count += limiter.Allow(nowMs) ? 1 : 0; });
        allowed += std::to_string(count);
    }
    EXPECT_EQ(allowed, "100101");
}

// A number read from half a text would turn a typing error into a setting.
TEST(TextTest, OnlyAWholeTextIsANumberAndSplitKeepsEmptyPieces)
{
    int value = 7;
    for (const char* bad : {"", " 1", "1 ", "1\r", "+1", "1x", "0x10", "2147483648", "-2147483649", "-"}) {
        EXPECT_FALSE(Convert::StringToInt(bad, value) || value != 7) << bad;
    }
    EXPECT_TRUE(Convert::StringToInt("-2147483648", value) && value == INT32_MIN);
    EXPECT_TRUE(Convert::StringToInt("0042", value) && value == 42);
    EXPECT_EQ(StringProcess::StrSplit("a::b:::", "::"), (Strings{"a", "b", ":"}));
    EXPECT_EQ(StringProcess::StrSplit("\n\na", "\n"), (Strings{"", "", "a"}));
    EXPECT_EQ(StringProcess::StrSplit("ab", ""), (Strings{"ab"}));
}

// A wrong digest hides a change; a FIFO would hold the caller for ever, and a link show a file of others.
TEST(Sha256Test, DigestsBytesAndRegularFilesAndTellsWhyNot)
{
    const TempDir dir;
    std::string digest;
    EXPECT_TRUE(Sha256::Digest("abc", 3, digest));
    EXPECT_EQ(digest, "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
    Write(dir / "million", std::string(1000000, 'a'));
    EXPECT_EQ(Sha256::DigestFile(dir / "million", 1000000, digest), Sha256::kOk);
    EXPECT_EQ(digest, "cdc76e5c9914fb9281a1c7e284d73e67f1809a48a497200e046d39ccc7112cd0");
    mkfifo((dir / "fifo").c_str(), 0600);
    fs::create_symlink(dir / "million", dir / "link");
    const std::pair<std::string, Sha256::Result> refused[] = {
        {dir / "million", Sha256::kTooLarge},    {dir / "gone", Sha256::kGone},
        {dir / "million/x", Sha256::kGone},      {dir / "fifo", Sha256::kNotRegular},
        {dir / "link", Sha256::kNotRegular},     {dir.Path(), Sha256::kNotRegular},
        {"/proc/self/maps", Sha256::kTooLarge},  // says that it is empty
        {"/proc/self/mem", Sha256::kUnreadable},
    };
    for (const auto& [path, result] : refused) {
        EXPECT_EQ(Sha256::DigestFile(path, 99, digest), result) << path;
    }
    EXPECT_EQ(digest.substr(0, 8), "cdc76e5c");  // unchanged
}

// A list crosses the wire as one text: no item may vanish in it, nor two become one.
TEST(TextListTest, KeepsEachItemAndSaysWhereBlanksDoNotTellThemApart)
{
    const struct {
        const char* name;
        Strings list;
        std::string text;
        bool needsList;
    } rows[] = {
        {"none", {}, "", false},
        {"words", {"ls", "-l"}, {"ls\0-l\0", 6}, false},
        {"empty ones", {"", "a", ""}, {"\0a\0\0", 4}, true},
        {"blanks", {"a b"}, {"a b\0", 4}, true},
        {"control characters", {"a\x7f"}, {"a\x7f\0", 3}, true},
        {"others", {"\xe2\x82\xac"}, {"\xe2\x82\xac\0", 4}, true},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(PackList(row.list), row.text) << row.name;
        EXPECT_EQ(UnpackList(row.text), row.list) << row.name;
        EXPECT_EQ(NeedsList(row.list), row.needsList) << row.name;
    }
    EXPECT_EQ(UnpackList("cut"), Strings{"cut"});
}
