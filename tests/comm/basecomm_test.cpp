#include "basecomm.h"

#include <csignal>

#include "tests/support/support.h"

namespace {

struct FakeComponent : NetCommBase {
    ~FakeComponent() override
    {
        if (endsProcess) {
            _exit(1);
        }
    }
    bool Init() override { return succeeds; }
    bool Start() override { return up = succeeds; }
    bool Stop() override { return ++stops > 0 && !(up = false); }
    bool DeInit() override { return true; }
    bool StatusCheck() override { return up; }
    int SendControlMsg(const char*, unsigned) override { return up ? kSendDone : kSendFailed; }
    int SendLogWithTopicHeader(const std::string&, const std::string&, bool) override { return kSendRefused; }
    bool RegisterMsgHandler(std::uint32_t, MsgHandler, void*) override { return true; }
    bool UnregisterMsgHandler(std::uint32_t, MsgHandler) override { return true; }

    bool succeeds = true;
    bool up = false;
    bool endsProcess = false;
    int stops = 0;
};

}  // namespace

TEST(BaseCommTest, EmptyRegistrySaysWhatCannotBeDone)
{
    const Records records;
    EXPECT_FALSE(RegisterComponent(kSocketClient, nullptr) || BaseCommInit() || BaseCommStart() || BaseCommStop() ||
                 BaseCommDeInit() || BaseCommStatusCheck() || RegisterControlMsgHandler(1, nullptr, nullptr));
    EXPECT_EQ(SendControlMsg("x", 1), kSendRefused);
    const Strings expected = {
        "ERROR Register failed: component is NULL.",     "ERROR BaseComm init failed: no components.",
        "ERROR BaseComm start failed: no components.",   "ERROR BaseComm stop failed: no components.",
        "ERROR BaseComm deInit failed: no components.",  "ERROR No communication status to check",
        "ERROR No valid component to send this message."};
    EXPECT_EQ(records.Lines(), expected);
}

TEST(BaseCommTest, DrivesAllComponents)
{
    const Records records;
    const auto working = std::make_shared<FakeComponent>();
    const auto failing = std::make_shared<FakeComponent>();
    failing->succeeds = false;
    ASSERT_TRUE(RegisterComponent(kSocketClient, failing) && RegisterComponent(kKafkaClient, working) &&
                RegisterComponent(kWebSocket, failing));
    EXPECT_FALSE(BaseCommInit());
    failing->succeeds = true;
    EXPECT_TRUE(BaseCommInit() && BaseCommInit());
    failing->succeeds = false;
    EXPECT_FALSE(BaseCommStart());
    EXPECT_EQ(SendControlMsg("x", 1), kSendDone);  // one is enough
    working->up = false;
    EXPECT_EQ(SendControlMsg("x", 1), kSendFailed);
    EXPECT_FALSE(BaseCommStatusCheck());
    EXPECT_TRUE(working->up && working->stops == 1);
    failing->succeeds = true;
    EXPECT_TRUE(BaseCommStatusCheck());
    EXPECT_EQ(records.Count("INFO Component reboot. [name=Nimbara kafka client]"), 1);
    EXPECT_EQ(records.Count("INFO Component reboot. [name=Socket client]"), 2);
    EXPECT_EQ(records.Count("ERROR Component init. [name=Socket client, result=failed]"), 1);
    EXPECT_EQ(records.Count("INFO Component start. [name=Nimbara kafka client, result=success]"), 1);
    EXPECT_EQ(records.Count("INFO BaseComm already init."), 1);
    EXPECT_EQ(SendLogWithTopicHeader("topic", "log", true), kSendRefused);
    EXPECT_EQ(raise(SIGPIPE), 0);  // does not end the process
    EXPECT_EQ(WTERMSIG(Wait(Fork([] { return execlp("sh", "sh", "-c", "kill -PIPE $$", nullptr); }))), SIGPIPE);
    EXPECT_TRUE(BaseCommStop() && BaseCommDeInit() && BaseCommInit());
    EXPECT_EQ(records.Count("INFO Component init. [name=Nimbara kafka client, result=success]"), 3);
}

// Threads may send while the process ends: nothing that they use is destroyed by then.
TEST(BaseCommTest, ComponentsOutliveTheEndOfTheProcess)
{
    EXPECT_EQ(Wait(Fork([] {
                  const auto component = std::make_shared<FakeComponent>();
                  component->endsProcess = component->up = true;
                  RegisterComponent(kSocketClient, component);
                  static std::atomic<bool> sends{false};
                  std::thread([] {
                      for (;;) {
                          SendControlMsg("x", 1);
                          sends = true;
                      }
                  }).detach();
                  Eventually([] { return sends.load(); });
                  exit(0);
                  return 1;
              })),
              0);
}
