#include "self_check.h"

#include <utility>

#include "logger.h"
#include "report.h"
#include "report_messages.h"

namespace {

void ReportProblem(const char* action, const std::string& text)
{
    NEUtils::Report(NEUtils::kMsgProblem)
        .Add(NEUtils::kTagAction, std::string(action))
        .Add(NEUtils::kTagProblem, text)
        .Push();
}

}  // namespace

void SelfCheck::Check()
{
    const Problems problems = status_.FindProblems();
    std::map<std::string, std::string> found;
    for (const auto& [key, text] : problems.GetList()) {
        found[key] = text;
        if (known_.count(key) == 0) {
            NE_LOG(WARN, "Problem has begun.[problem=%s]", NEUtils::Printable(text).c_str());
            ReportProblem("begins", text);
        }
    }
    for (const auto& [key, text] : known_) {
        if (found.count(key) == 0) {
            NE_LOG(INFO, "Problem is over.[problem=%s]", NEUtils::Printable(text).c_str());
            ReportProblem("ends", text);
        }
    }
    known_ = std::move(found);
}
