#include "logger.h"

#include "log_system.h"
#include "tests/support/support.h"
#include "util/utf8.h"

// A record on two lines, or one that overruns the buffer, is a forged or lost record.
TEST(LoggerTest, RecordsStayOnOneLineAndWithinTheLimit)
{
    const Records records;
    const std::string most(4096, 'x');
    NE_LOG(INFO, "%s", "a\r\nb\tc\b\v\f\x7f\x1b");
    NE_LOG(INFO, "%s", most.c_str());
    NE_LOG(INFO, "%sx", most.c_str());
    NE_LOG(ERROR, "partly %ls", L"\x20ac");
    LoggerWriteLog(kNormalLog, ERROR, "f.cpp", 1, nullptr);
    const Strings expected = {"INFO a__b\tc____\x1b", "INFO " + most, "INFO " + std::string(4093, 'x') + "...",
                              "ERROR Failed to format log content."};
    EXPECT_EQ(records.Lines(), expected);
}

// Kept because the startup kind is only a name to register under: it is dropped, whoever subscribed to it.
TEST(LoggerTest, KindsAreApartAndTheStartupKindIsDropped)
{
    const Records startup(kStartupLog);
    const Records dot(kDotLog);
    const Records normal;
    LoggerWriteLog(kDotLog, UNKNOWN, "f.cpp", 1, "dot");
    PrintDebugLargeLog(std::string(4000, 'a'));
    PrintDebugLargeLog(std::string(4000, 'b') + "c");
    EXPECT_TRUE(startup.Lines().empty());
    EXPECT_EQ(dot.Lines(), Strings{"UNKNOWN dot"});
    const Strings expected = {"DEBUG Send largeLog over.[largeLog=" + std::string(4000, 'a') + "]",
                              "DEBUG Send part largeLog.[largeLog=" + std::string(4000, 'b') + "]",
                              "DEBUG Send largeLog over.[largeLog=c]"};
    EXPECT_EQ(normal.Lines(), expected);
}

TEST(LoggerTest, RecordCarriesPlaceAndLocalTime)
{
    std::string place;
    MessageBus::Subscribe(kNormalLog, "probe", [&](const NENormalLog& record) {
        struct tm time = *record.time;
        time.tm_year -= 1900;
        time.tm_mon -= 1;
        EXPECT_NEAR(std::mktime(&time), std::time(nullptr), 2);
        place = std::string(record.fileName) + ":" + std::to_string(record.line);
    });
    errno = E2BIG;
    NE_LOG(WARN, "x");
    EXPECT_EQ(errno, E2BIG);
    EXPECT_EQ(place, "logger_test.cpp:" + std::to_string(__LINE__ - 2));
}

// A subscriber that logs must find its own record unharmed, also when it passes it on.
TEST(LoggerTest, NestedRecordsKeepTheOuterOneAndEndAtFourLevels)
{
    Strings seen;
    MessageBus::Subscribe(kNormalLog, "nest", [&](const NENormalLog& record) {
        NE_LOG(INFO, "<%s>", record.content);
        seen.emplace_back(record.content);
    });
    NE_LOG(INFO, "a");
    NE_LOG(INFO, "b");
    EXPECT_EQ(seen, (Strings{"<<<a>>>", "<<a>>", "<a>", "a", "<<<b>>>", "<<b>>", "<b>", "b"}));
}

// Changes during a call, also through the registry itself, count for later calls only; nothing deadlocks.
TEST(LoggerTest, SubscribersChangeWhileARecordIsUnderWay)
{
    std::string seen;
    const auto second = [&](const NENormalLog& record) { seen += std::string("second ") + record.content; };
    MessageBus::Subscribe(kNormalLog, "first", [&](const NENormalLog& record) {
        seen += std::string("first ") + record.content;
        const std::lock_guard<std::mutex> lock(MessageBus::GetSubMutex());
        auto& names = MessageBus::GetSubList<const NENormalLog&>()[kNormalLog];
        names["second"] = second;
        names.erase("first");
    });
    EXPECT_FALSE(MessageBus::Subscribe(kNormalLog, "first", second));
    NE_LOG(INFO, "1, ");
    NE_LOG(INFO, "2");
    EXPECT_EQ(seen, "first 1, second 2");
    EXPECT_TRUE(MessageBus::Unsubscribe(kNormalLog, "second") && !MessageBus::Unsubscribe(kNormalLog, "second"));
}

// Whoever unsubscribes and is unloaded then must neither be called nor destroyed afterwards.
TEST(LoggerTest, UnsubscribeAndWaitEndsAllCallsOfASubscriber)
{
    std::atomic<int> entered{0};
    std::atomic<bool> go{false};
    const auto token = std::make_shared<int>();
    // Whichever comes first holds a record that has a copy of the other one too.
    const auto subscriber = [&, token](const NENormalLog&) {
        ++entered;
        go.wait(false);
    };
    MessageBus::Subscribe(kDotLog, "a", subscriber);
    MessageBus::Subscribe(kDotLog, "b", subscriber);
    const long others = token.use_count() - 2;
    std::jthread logger([] { LoggerWriteLog(kDotLog, INFO, "f.cpp", 1, "x"); });
    EXPECT_TRUE(Eventually([&] { return entered == 1; }));
    std::atomic<int> ended{0};
    std::vector<std::jthread> closers;
    for (const char* name : {"a", "b"}) {
        closers.emplace_back([&ended, name] { ended += MessageBus::UnsubscribeAndWait(kDotLog, name) ? 1 : 100; });
    }
    // The one that is not called.
    EXPECT_TRUE(Eventually([&] { return ended == 1 && token.use_count() == others + 1; }));
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_EQ(ended, 1);
    go = true;
    go.notify_all();
    closers.clear();
    EXPECT_TRUE(ended == 2 && entered == 1 && token.use_count() == others);
    EXPECT_FALSE(MessageBus::UnsubscribeAndWait(kDotLog, "a"));
}

// Kept because an empty callable is a fault of the program: it ends the process.
TEST(LoggerTest, ASubscriberMayUnsubscribeItselfInItsOwnCallAndAnEmptyOneEndsTheProcess)
{
    std::string seen;
    MessageBus::Subscribe(kNormalLog, "own", [&seen, text = std::string(100, 'x')](const NENormalLog& record) {
        EXPECT_EQ(MessageBus::UnsubscribeAndWait(kNormalLog, "own"), seen.empty());
        seen += record.content + text.substr(0, 1);
        NE_LOG(INFO, "not seen");
    });
    NE_LOG(INFO, "seen");
    EXPECT_EQ(seen, "seenx");
    MessageBus::Subscribe(kNormalLog, "empty", nullptr);
    EXPECT_DEATH(NE_LOG(INFO, "x"), "bad_function_call");
}

TEST(LoggerTest, DefaultLineEndsInOneLineFeedOrIsRefused)
{
    struct tm time = {0, 0, 7, 9, 1, 2026, 0, 0, 0, 0, nullptr};
    pthread_setname_np(pthread_self(), "name");
    const auto format = [&](const char* content, std::size_t size) {
        std::string out(size + 1, '#');
        const NENormalLog record{WARN, 12, "WARN", "f.cpp", content, &time};
        const auto count = LogSystem::GetDefaultLogContent(record, out.data(), static_cast<unsigned int>(size));
        EXPECT_EQ(out[size], '#');  // one past the size given
        return out.substr(0, count);
    };
    const std::string line = "20260109 07:00:00 WARN [f.cpp:12] [name] text\n";
    EXPECT_EQ(format("text\n\n", 4224), line);
    EXPECT_EQ(format("text", line.size() + 1), line);
    EXPECT_EQ(format("text", line.size()) + format("text", 1) + format("text", 0), "");
    time.tm_year = -12345;
    EXPECT_EQ(format("text", 4224).substr(0, 10), "-123450109");
}

// What others chose is shown to an operator: it must not steer his terminal, nor break who reads the log as UTF-8.
TEST(PrintableTest, LeavesTextAndReplacesEachByteOfTheRest)
{
    const std::pair<std::string, std::string> rows[] = {
        {"plain ~", "plain ~"},
        {"\xc3\xa9 \xe2\x82\xac \xf0\x9f\x98\x80 \xf4\x8f\xbf\xbf \xc2\xa0",
         "\xc3\xa9 \xe2\x82\xac \xf0\x9f\x98\x80 \xf4\x8f\xbf\xbf \xc2\xa0"},
        {"\x1b[2J\t\x7f", "?[2J??"},
        {"\xc2\x9b[J", "??[J"},  // a control character of two bytes
        {"\xff\xfe", "??"},
        {"\xc0\x9b\xe0\x9f\xbf\xf0\x8f\xbf\xbf", "?????????"},  // overlong forms
        {"\xed\xa0\x80", "???"},                                // a surrogate
        {"\xf4\x90\x80\x80", "????"},                           // above the last character
        {"\xc3(a\x80-\xe2\x82", "?(a?-??"},                     // cut
        {std::string("\xe2\x82\0", 3), "???"},
    };
    for (const auto& [text, shown] : rows) {
        EXPECT_EQ(Printable(text), shown);
        EXPECT_TRUE(IsUtf8(shown));
        EXPECT_EQ(IsUtf8(text), Printable(text) == text || text[0] == '\x1b' || text[0] == '\xc2');
    }
}
