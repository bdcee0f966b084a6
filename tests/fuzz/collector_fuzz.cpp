// What the collector takes apart: reports, answers and command lines. The first byte chooses one of them, the
// second is the type of the message, the rest its body or the line.
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "tests/fuzz/fuzz_target.h"
#include "tools/answer.h"
#include "tools/command.h"
#include "tools/item_text.h"
#include "tools/report.h"
#include "tools/report_text.h"

namespace {

using NEUtils::SentrelAgentMsg;

using Bytes = std::vector<unsigned char>;

const Sender kSender = {7, "pid=1 uid=0"};

bool IsPrintable(const std::string& line)
{
    std::string same;
    AppendPrintable(same, line);
    return same == line;
}

// A line in its two forms: nothing steers a terminal, and the JSON is whole, of one line and ASCII.
void CheckLines(const std::string& text, const std::string& object)
{
    Require(IsPrintable(text) && text.find(" agent 7 ") != std::string::npos);
    for (const char letter : object) {
        Require(letter >= ' ' && letter <= '~');
    }
    Require(nlohmann::json::parse(object, nullptr, false)["agent"] == kSender.number);
}

void CheckReport(const SentrelAgentMsg& header, Bytes& body)
{
    Report report;
    if (ReadReport(header, body.data(), report).empty()) {
        CheckLines(ReportText(kSender, report), ReportJson(kSender, report));
    }
}

void CheckAnswer(const SentrelAgentMsg& header, Bytes& body)
{
    Command command;
    command.type = header.type - 1;
    command.feature = "a";
    Answer answer;
    if (ReadAnswer(header, body.data(), answer).empty()) {
        CheckLines(AnswerText(kSender, command, answer), AnswerJson(kSender, command, answer));
    }
}

void CheckCommand(const std::string& line)
{
    if (line.find_first_of("/.") != std::string::npos) {  // opens no files but those of the directory it runs in
        return;
    }
    Command command;
    const std::string fault = ParseCommand(line, command);
    Require(IsPrintable(fault));
    if (fault.empty() && command.type != 0) {
        Require(CommandMessage(command, 1).size() >= sizeof(SentrelAgentMsg) && IsPrintable(CommandName(command)));
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    if (size < 2) {
        return 0;
    }
    Bytes body(data + 2, data + size);  // exactly as long, so that a step behind it shows
    body.shrink_to_fit();
    const auto length = static_cast<std::uint32_t>(body.size());
    if (data[0] % 3 == 0) {
        CheckReport({NEUtils::kMsgVersion, data[1] | 1U, 1, length}, body);
    } else if (data[0] % 3 == 1) {
        CheckAnswer({NEUtils::kMsgVersion, data[1] % 2 == 0 ? 10U : 12U, 1, length}, body);
    } else {
        CheckCommand({body.begin(), body.end()});
    }
    return 0;
}
