#include "comm/report_message.h"

#include <new>

#include "basecomm.h"
#include "report_messages.h"
#include "tlv.h"
#include "util/clock.h"

namespace NEUtils {

namespace {

void Add(TLVPacker& packer, ReportTag tag, std::uint64_t value)
{
    packer.Add(tag, &value, sizeof(value));
}

}  // namespace

std::shared_ptr<std::string> MakeMessage(std::uint32_t type, const void* body, std::size_t length)
{
    const SentrelAgentMsg header = {kMsgVersion, type, 0, static_cast<std::uint32_t>(length)};
    try {
        auto message = std::make_shared<std::string>();
        message->reserve(sizeof(header) + length);
        message->append(reinterpret_cast<const char*>(&header), sizeof(header));
        message->append(static_cast<const char*>(length > 0 ? body : ""), length);
        return message;
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}

std::shared_ptr<std::string> MakeDropNotice(std::uint64_t count, std::uint64_t total)
{
    TLVPacker packer;
    Add(packer, kTagTime, static_cast<std::uint64_t>(Clock::WallMs()));
    Add(packer, kTagCount, count);
    Add(packer, kTagTotal, total);
    return packer.Pack(kSwapReport) == 0 ? MakeMessage(kMsgDroppedReports, packer.GetBuffer(), packer.GetSize())
                                         : nullptr;
}

}  // namespace NEUtils
