#include "process_utils.h"

#include "tests/support/support.h"
#include "user_info.h"

TEST(ProcessUtilsTest, DescribesALiveProcessAndRefusesADeadOne)
{
    const pid_t child = Fork([] { return execlp("sleep", "sleep", "20", "0", nullptr); });
    std::string cmdLine;
    ASSERT_TRUE(Eventually([&] { return ProcessUtils::GetCmdLine(child, cmdLine) && cmdLine == "sleep 20 0"; }));
    ASSERT_TRUE(ProcessUtils::GetCmdLine(child, cmdLine, 6));
    EXPECT_EQ(cmdLine, "sleep");  // its end cut off
    ProcessUtils::ProcessStatus status;
    ASSERT_TRUE(ProcessUtils::GetProcessStatus(child, status));
    EXPECT_TRUE(status.parentPid == getpid() && status.name == "sleep");
    std::vector<int> pids;
    ASSERT_TRUE(ProcessUtils::GetProcessIds(pids));
    EXPECT_EQ(std::count(pids.begin(), pids.end(), child), 1);
    kill(child, SIGKILL);
    Wait(child);
    EXPECT_FALSE(ProcessUtils::GetProcessStatus(child, status) || ProcessUtils::GetCmdLine(child, cmdLine));
    EXPECT_EQ(cmdLine, "sleep");  // unchanged
}

// A process names itself; its name must not pass for another field.
TEST(ProcessUtilsTest, NameCannotForgeFields)
{
    prctl(PR_SET_NAME, "a\nUid:\t7\t7\t7\t7");
    ProcessUtils::ProcessStatus status;
    EXPECT_TRUE(ProcessUtils::GetProcessStatus(getpid(), status) && status.uid == getuid());
    std::string name = "unchanged";
    EXPECT_TRUE(!UserInfo::GetInstance().GetUserName(4000000000U, name) && name == "unchanged");
    EXPECT_TRUE(UserInfo::GetInstance().GetUserName(0, name) && name == "root");
}
