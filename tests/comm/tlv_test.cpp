#include "tlv.h"

#include "tests/support/support.h"

namespace {

TLVValue Item(std::uint16_t tag, const std::string& bytes)
{
    TLVValue value;
    value.Init(tag, reinterpret_cast<const unsigned char*>(bytes.data()), static_cast<std::uint16_t>(bytes.size()));
    return value;
}

std::string Packed(const TLVPacker& packer)
{
    return {reinterpret_cast<const char*>(packer.GetBuffer()), packer.GetSize()};
}

std::string Bytes(const TLVValue& value)
{
    return value.GetData() == nullptr ? "none" : std::string(value.GetData(), value.GetData() + value.GetLength());
}

TLVAnalyzer Analyzer(std::string& bytes)
{
    return {reinterpret_cast<unsigned char*>(bytes.data()), static_cast<int>(bytes.size())};
}

}  // namespace

TEST(TLVTest, PacksTheBytesOfTheWire)
{
    const std::string large(2049, 'x');
    for (const bool swap : {true, false}) {
        TLVPacker packer;
        TLVValue items[3];
        items[0].Init(0x0102, std::string("ab"));
        items[1].Init(3, 0x01020304);
        items[2] = Item(9, "");
        for (TLVValue& item : items) {
            packer.Add(std::move(item));
        }
        EXPECT_TRUE(packer.Add(7, "x", 1) && !packer.Add(7, nullptr, 1) && !packer.Add(7, large.data(), 2049));
        EXPECT_EQ(packer.Pack(swap), 0);
        EXPECT_EQ(Packed(packer), swap ? std::string("\1\2\0\3ab\0\0\3\0\4\4\3\2\1\0\x9\0\0\0\7\0\1x", 24)
                                       : std::string("\2\1\3\0ab\0\3\0\4\0\4\3\2\1\x9\0\0\0\7\0\1\0x", 24));
        EXPECT_TRUE(packer.Add(8, large.data(), 2048));
        // Kept: the size counts the first call too. What follows the items must not be the heap's old bytes.
        (void)std::string(5000, 'z');  // such old bytes
        ASSERT_EQ(packer.Pack(swap), 0);
        EXPECT_EQ(packer.GetSize(), 24U + 24 + 4 + 2048);
        EXPECT_EQ(Packed(packer).substr(28 + 2048 - 1), "x" + std::string(24, '\0'));
    }
}

TEST(TLVTest, ValuesKeepTheirBoundsAndTypes)
{
    TLVValue value = Item(1, "old");
    value.Init(2, std::string(2049, 'x'));
    value.Init(2, std::string());
    value.Init(2, reinterpret_cast<const unsigned char*>(std::string(2049, 'x').data()), 2049);
    value.Init(2, nullptr, 3);
    EXPECT_EQ(Bytes(value), "old");
    EXPECT_EQ(value.GetTag(), 1);
    value.Init(2, std::string(2048, 'x'));
    EXPECT_EQ(value.GetLength(), 2049);
    value.Init(2, -5);
    int number = 0;
    EXPECT_TRUE(value.AsInt(number));
    EXPECT_EQ(number, -5);
    short half = 7;
    unsigned char byte = 8;
    EXPECT_FALSE(value.AsShort(half) || value.AsByte(byte) || Item(1, "ab").AsInt(number));
    EXPECT_TRUE(Item(1, std::string("\2\0", 2)).AsShort(half) && Item(1, "\x90").AsByte(byte));
    EXPECT_EQ(std::tuple(number, half, byte), std::tuple(-5, 2, 0x90));
    std::string text;
    EXPECT_TRUE(Item(1, std::string("ab\0cd\0", 6)).AsString(text));
    EXPECT_EQ(text, "ab");
    EXPECT_TRUE(Item(1, std::string("ab\0cd", 5)).AsString(text));
    EXPECT_EQ(text, std::string("ab\0cd", 5));
    EXPECT_FALSE(TLVValue().AsString(text) || Item(1, "").AsString(text));
}

// Kept: constructing from an item without bytes drops its tag, assigning keeps it.
TEST(TLVTest, MovingEmptiesTheSource)
{
    TLVValue source = Item(1, "abc");
    TLVValue target = std::move(source);
    EXPECT_EQ(Bytes(source), "none");  // NOLINT(bugprone-use-after-move,clang-analyzer-cplusplus.Move): the point
    TLVPacker packer;
    packer.Add(std::move(source));  // it still says how long its bytes were
    packer.Add(Item(7, "x"));
    EXPECT_TRUE(packer.Pack(true) == -1 && packer.GetBuffer() == nullptr);
    TLVValue& self = target;
    target = std::move(self);
    EXPECT_EQ(Bytes(target), "abc");
    target = Item(4, "");
    EXPECT_TRUE(target.GetTag() == 4 && TLVValue(std::move(target)).GetTag() == 0);
}

// What it does with all else is compared with a walk over the bytes, by the seeds of its fuzzer.
TEST(TLVTest, AnalyzerForgetsWhatIsNotWhole)
{
    std::string bytes("\0\2\0\1a\0\1\0\1b", 10);
    TLVAnalyzer items = Analyzer(bytes);
    ASSERT_TRUE(items.Analyze(true) && items.GetCount() == 2);
    auto* const begin = reinterpret_cast<unsigned char*>(bytes.data());
    EXPECT_EQ(Bytes(items[2]) + Bytes(items.ParseTLV(begin - 1)) + Bytes(items.ParseTLV(begin + 10)), "anonenone");
    EXPECT_FALSE(items.Analyze(false));  // the same bytes in the other order: far too long
    EXPECT_TRUE(items.GetCount() == 0 && !items.Has(2));
    TLVAnalyzer null(nullptr, 10);
    EXPECT_FALSE(null.Analyze(true) || null.ParseTLV(nullptr).GetData() != nullptr);
}

// A policy that lost a piece on its way would hold as another one.
TEST(TLVTest, LongTextsArriveWholeOrNotAtAll)
{
    for (const std::size_t size : {1, 2048, 2049, 60000}) {
        std::string text(size, 'x');
        text.back() = 'y';
        TLVPacker packer;
        packer.AddText(7, text);
        packer.Add(Item(8, "other"));
        packer.AddText(9, "");
        ASSERT_EQ(packer.Pack(false), 0);
        std::string bytes = Packed(packer);
        TLVAnalyzer items = Analyzer(bytes);
        std::string joined;
        EXPECT_TRUE(items.Analyze(false) && items.JoinText(7, joined) && joined == text);
        EXPECT_TRUE(items.Has(8) && !items.Has(9) && !items.JoinText(9, joined) && joined == text);
    }
    std::string bytes = std::string("\7\0\1\0x\7\0\xb8\x0b", 9) + std::string(3000, 'z');  // the second is too long
    TLVAnalyzer items = Analyzer(bytes);
    std::string joined = "untouched";
    EXPECT_TRUE(items.Analyze(false) && items.Has(7) && !items.JoinText(7, joined) && joined == "untouched");
}
