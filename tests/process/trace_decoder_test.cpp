#include "process/trace_decoder.h"

#include <gtest/gtest.h>

#include <csignal>
#include <cstring>

#include "process/trace_layout.h"

using namespace NEUtils;

static const std::string kText = std::string("/bin/x\0/bin/i\0a\0\0bc\0", 20);  // 7 bytes, 7 and 6

static trace_head Script()
{
    trace_head head = {};
    head.kind = TRACE_EXEC;
    head.flags = TRACE_SCRIPT;
    head.time = 500;
    head.path_size = head.interpreter_size = 7;
    head.args_size = 6;
    head.args_total = 6;
    std::memcpy(head.comm, "sixteen_bytes_no", 16);
    return head;
}

static bool Decodes(const trace_head& head, std::size_t length, ProcessRecord& record)
{
    std::string bytes(sizeof(head), '\0');
    std::memcpy(bytes.data(), &head, sizeof(head));
    bytes += kText;
    const std::vector<char> exact(bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(length));
    return DecodeTraceRecord(exact.data(), length, -1000, record);
}

// Which lengths are refused is what the fuzz target looks at.
TEST(TraceDecoderTest, OneObjectServesForAllRecords)
{
    ProcessRecord record;
    trace_head head = Script();
    ASSERT_TRUE(Decodes(head, sizeof(head) + 20, record));
    EXPECT_EQ(record.script, "/bin/x");
    EXPECT_EQ(record.exe, "/bin/i");
    EXPECT_EQ(record.args, (std::vector<std::string>{"a", "", "bc"}));
    EXPECT_EQ(record.comm, "sixteen_bytes_no");  // without a terminator
    EXPECT_EQ(record.wallNs, -500);
    EXPECT_FALSE(record.argsCut);
    head.args_total = 60;
    head.flags |= TRACE_NO_PATH;
    ASSERT_TRUE(Decodes(head, sizeof(head) + 20, record));
    EXPECT_TRUE(record.argsCut && record.argsSize == 60 && !record.whole);
    record.containerId = "that of the last one";
    head = {};
    head.kind = TRACE_EXIT;
    head.exit_status = SIGSEGV | 0x80;
    ASSERT_TRUE(Decodes(head, sizeof(head), record));
    EXPECT_TRUE(record.script.empty() && record.exe.empty() && record.args.empty() && record.comm.empty());
    EXPECT_EQ(record.containerId, "");
    EXPECT_TRUE(record.exitSignal == SIGSEGV && record.coreDumped && record.exitCode == 0);
    head.exit_status = 0x1200;
    ASSERT_TRUE(Decodes(head, sizeof(head), record));
    EXPECT_TRUE(record.exitSignal == 0 && !record.coreDumped && record.exitCode == 0x12);
}
