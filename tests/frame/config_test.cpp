#include "config.h"

#include "tests/support/support.h"

using Table = std::unordered_map<std::string, std::string>;

// Trimming, or a later '=' taken for the split, would change passwords and paths in silence.
TEST(ConfigTest, SplitsAtTheFirstEqualsTrimsNothingAndTranslatesKeys)
{
    EXPECT_TRUE(Config::ParseConfig("a=b=c\n k = v \nplain\ncr=v\r\n=empty\nlast=1\nlast=2", false, {}));
    EXPECT_TRUE(Config::ParseConfig("port=17\nbig=2147483648\npad= 5", true, {{"port", "SERVER_PORT"}}));
    const Table expected = {{"a", "b=c"},  {" k ", " v "},        {"cr", "v\r"}, {"", "empty"},
                            {"last", "2"}, {"big", "2147483648"}, {"pad", " 5"}};
    EXPECT_EQ(Config::GetConfigMap<std::string>(), expected);
    int number = 3;
    EXPECT_FALSE(Config::GetConfigValue("port", number) || Config::GetConfigValue("big", number));
    EXPECT_EQ(number, 3);  // unchanged by a miss
    EXPECT_TRUE(Config::GetConfigValue("SERVER_PORT", number) && number == 17);
}

TEST(ConfigTest, ReadsFilesOfAnyContent)
{
    const TempDir dir;
    const Records records;
    EXPECT_FALSE(Config::ParseConfigByFile(dir / "none", false, {}));
    EXPECT_TRUE(records.Has("ERROR Open file failed when parse config.[errno=2][path=" + (dir / "none") + "]"));
    EXPECT_FALSE(Config::ParseConfigByFile(dir.Path(), false, {}));
    EXPECT_TRUE(records.Has("ERROR Read file failed when parse config.[errno=21][path=" + dir.Path() + "]"));
    const std::string most(10U << 20, 'x');
    Write(dir / "big", std::string("n\0k=v\0w\nlong=", 13) + most + "\nend=1");
    EXPECT_TRUE(Config::ParseConfigByFile(dir / "big", false, {}));
    const Table expected = {{std::string("n\0k", 3), std::string("v\0w", 3)}, {"long", most}, {"end", "1"}};
    EXPECT_TRUE(Config::GetConfigMap<std::string>() == expected);
}

TEST(ConfigTest, ParsesAndReadsFromManyThreads)
{
    InThreads(4, [](int i) {
        for (int n = 0; n < 200; ++n) {
            Config::ParseConfig("k" + std::to_string(n) + "=" + std::to_string(i), true, {});
            Config::GetConfigValue("k0", i);
        }
    });
    EXPECT_EQ(Config::GetConfigMap<int>().size(), 200U);
}

TEST(EnvTest, DeploymentTestsAreExact)
{
    setenv("WORK_PLACE", "EKARV", 1);
    setenv("AGENT_LOCATION", "manager", 1);
    EXPECT_TRUE(!Env::IseKarvEnv() && Env::IsManagerPlane() && !Env::IsIndieAgentEnv());
    setenv("WORK_PLACE", "ekarv", 1);
    setenv("AGENT_LOCATION", "indie", 1);
    EXPECT_TRUE(Env::IseKarvEnv() && !Env::IsManagerPlane() && Env::IsIndieAgentEnv());
}
