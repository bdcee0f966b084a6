// The decoder of the trace programs' records beside a walk over the bytes. The input is one record; where it is long
// enough, its lengths are also made to fit, so that what is behind the head is reached.
#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "process/trace_decoder.h"
#include "process/trace_layout.h"
#include "tests/fuzz/fuzz_target.h"

namespace {

void Check(const std::vector<std::uint8_t>& bytes)
{
    NEUtils::ProcessRecord record;
    trace_head head = {};
    const bool decoded = NEUtils::DecodeTraceRecord(bytes.data(), bytes.size(), 0, record);
    if (bytes.size() < sizeof(head)) {
        Require(!decoded);
        return;
    }
    std::memcpy(&head, bytes.data(), sizeof(head));
    const std::string behind(bytes.begin() + sizeof(head), bytes.end());
    const std::size_t args = std::size_t{head.path_size} + head.interpreter_size;
    const bool fits = head.kind >= 1 && head.kind <= 3 && head.path_size <= 4096 && head.interpreter_size <= 256 &&
                      head.args_size <= 16384 && head.args_size <= head.args_total &&
                      args + head.args_size == behind.size() && (head.kind == TRACE_EXEC || behind.empty());
    Require(decoded == fits);
    if (!decoded || head.kind != TRACE_EXEC) {
        Require(record.args.empty() && record.exe.empty());
        return;
    }
    const auto& path = (head.flags & TRACE_SCRIPT) != 0 ? record.script : record.exe;
    Require(path == behind.substr(0, head.path_size).c_str());
    std::size_t sum = 0;
    for (const std::string& arg : record.args) {
        sum += arg.size() + 1;
    }
    Require(sum == head.args_size || sum == head.args_size + std::size_t{1});  // the last one may have been cut
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    std::vector<std::uint8_t> bytes(data, data + size);
    Check(bytes);
    if (bytes.size() > sizeof(trace_head)) {
        trace_head head;
        std::memcpy(&head, bytes.data(), sizeof(head));
        const auto behind = static_cast<std::uint32_t>(std::min<std::size_t>(bytes.size() - sizeof(head), 16384));
        head.kind = TRACE_EXEC;
        head.path_size = std::min({head.path_size, behind, 4096U});
        head.interpreter_size = std::min({head.interpreter_size, behind - head.path_size, 256U});
        head.args_size = behind - head.path_size - head.interpreter_size;
        head.args_total |= 0x8000;
        std::memcpy(bytes.data(), &head, sizeof(head));
        bytes.resize(sizeof(head) + behind);
        Check(bytes);
    }
    return 0;
}
