#include "features/process_log.h"

#include "tests/support/support.h"

// A thread that began while the process was looked at ends uncounted: the process would be told as ended, and once
// more when it does end.
TEST(ProcessLogTest, TellsTheEndOfAProcessOnceAndNotBefore)
{
    Records records;
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    const pid_t parent = Fork([&] {  // the test's own children are left out
        const pid_t child = Fork([] { return pause(); });
        const bool told = write(ends[1], &child, sizeof(child)) == sizeof(child);
        Wait(child);
        return told ? 0 : 1;
    });
    pid_t pid = 0;
    ASSERT_EQ(read(ends[0], &pid, sizeof(pid)), static_cast<ssize_t>(sizeof(pid)));
    ProcessLog log({});
    log.LoadRunningProcesses();
    const auto endsThread = [&](int thread) {
        proc_event event = {};
        event.what = static_cast<decltype(event.what)>(kExitEvent);
        event.event_data.exit.process_pid = thread;
        event.event_data.exit.process_tgid = pid;
        log.Handle(event);
        return std::ranges::count_if(records.Lines(), [&](const std::string& line) {
            return line.starts_with("INFO Process exited.[pid=" + std::to_string(pid) +
                                    " ppid=" + std::to_string(parent) + " ");
        });
    };
    EXPECT_EQ(endsThread(pid + 1), 0);
    kill(pid, SIGKILL);
    Wait(parent);
    EXPECT_EQ(endsThread(pid), 1);
}
