#include "process_utils.h"

#include "process/container_id.h"
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
    Kill(child);
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

// Events of a container would be taken for the host's, or a path that a process chose for a container.
TEST(ProcessUtilsTest, FindsTheContainerInThePathsOfAllRuntimes)
{
    const std::string id = "0123456789abcdef0123456789abcdef0123456789abcdef0123456789abcdef";
    const std::string inner(64, 'e');
    const std::pair<std::string, bool> cases[] = {
        {"12:pids:/user.slice\n1:name=systemd:/runtime/" + id + "\n0::/\n", true},
        {"0::/system.slice/runtime-" + id + ".scope\n", true},
        {"0::/kube.slice/kube-pod8a2f_11.slice/some-runtime-" + id + ".scope/container", true},
        {"0::/system.slice/runtime.service/pod.slice:some-runtime:" + id, true},
        {"3:cpu:/kube/besteffort/pod00bee1b8/" + id + "/runtime/" + inner + "\n", true},
        {"0::/user.slice/user-0.slice/session-1.scope\n", false},
        {"0::/a" + id + "\n0::/" + id + "0\n0::/" + id + ".slice\n0::/" + id.substr(1) + "\n0::/x" + id + ".scope",
         false},
        {"", false},
    };
    for (const auto& [text, inContainer] : cases) {
        std::string found;
        EXPECT_EQ(ProcessUtils::FindContainerId(text, found), inContainer) << text;
        EXPECT_EQ(found, inContainer ? id : "") << text;
    }
    std::string found;
    EXPECT_FALSE(ProcessUtils::GetContainerId(0, found));
}
