#include "module.h"

#include <sys/stat.h>

#include "module_manager.h"
#include "tests/support/support.h"

using namespace NEUtils::Manager;

namespace {

std::mutex g_mutex;
Strings g_calls;
std::function<int(const std::string& call)> g_answer;  // of the entry points

// A directory for modules, and a manager that loads from there.
struct ModuleTest : testing::Test {
    ModuleTest()
    {
        g_calls.clear();
        g_answer = [](const std::string&) { return 1; };
        manager_.SetModulePrefix(prefix_);
    }
    // A new file, also where there is one.
    void Install(const std::string& build, const std::string& feature = "f") const
    {
        fs::copy_file(MODULE_DIR "/lib" + build + ".so", prefix_ + "new");
        chmod((prefix_ + "new").c_str(), 0755);
        fs::rename(prefix_ + "new", prefix_ + "lib" + feature + ".so");
    }
    void Update(bool enable, const std::string& policy) { manager_.UpdateModulePolicy({{"f", {enable, policy, ""}}}); }
    int Status() const { return manager_.GetModuleStatus("f"); }
    static Strings TakeCalls() { return std::exchange(g_calls, {}); }

    // Expects a refusal and forgets it; gives the status.
    int Refused(const std::string& reason, const std::string& feature = "f")
    {
        const auto count = records_.Lines().size();
        EXPECT_FALSE(manager_.InitModule(feature));
        EXPECT_EQ(records_.Lines()[count], "ERROR Library is refused.[feature=" + feature + ", reason=" + reason + "]");
        EXPECT_EQ(records_.Lines().back(), "ERROR Add new feature failed.[feature=" + feature + "]");
        const int status = manager_.GetModuleStatus(feature);
        manager_.DestroyModule(feature);
        return status;
    }

    const TempDir dir_;
    const std::string prefix_ = dir_ / "";
    Records records_;
    ModuleManager manager_;
};

}  // namespace

extern "C" NEUTILS_API int OnEntry(const char* entry, const char* policy)
{
    const std::string call = std::string(entry) + (*policy == '\0' ? "" : " ") + policy;
    {
        const std::lock_guard<std::mutex> lock(g_mutex);
        g_calls.push_back(call);
    }
    return g_answer(call);
}

// A library kept without its entry points would be called through null, or never be closed.
TEST_F(ModuleTest, MissingEntryPointOrLibraryFailsAndLeavesNothingLoaded)
{
    for (const std::string entry : {"InitModule", "StartModule", "StopModule", "DeinitModule"}) {
        Install("without_" + entry, entry);
        EXPECT_FALSE(manager_.InitModule(entry));
        EXPECT_TRUE(records_.Has("ERROR Get address of " + entry + " failed.[feature=" + entry + ", error=" + prefix_ +
                                 "lib" + entry + ".so: undefined symbol: " + entry + "]"));
        EXPECT_FALSE(manager_.StartModule(entry) || manager_.GetModuleStatus(entry) != kFailed);
    }
    EXPECT_FALSE(Contains(Read("/proc/self/maps"), prefix_));
    EXPECT_FALSE(manager_.InitModule("gone"));
    EXPECT_TRUE(Contains(records_.Lines().end()[-2], "INFO Try load library.[feature=gone, reason=" + prefix_));
    EXPECT_EQ(TakeCalls(), Strings());
    Module module;
    EXPECT_TRUE(module.InitModule() == 0 && records_.Has("ERROR Init nullptr module.[feature=]."));
}

// Wrong transitions would start twice, restart with every policy, or load what nobody wants.
TEST_F(ModuleTest, PoliciesMoveModulesThroughTheirStates)
{
    Install("traced");
    manager_.StartModule("unknown");
    manager_.StopModule("unknown", "p");
    Update(false, "p0");
    EXPECT_TRUE(records_.Lines().empty() && Status() == kNotLoaded);
    Update(true, "p1");
    Update(true, "p1");
    EXPECT_TRUE(manager_.IsRunable("f") && !manager_.StartModule("f"));
    Update(true, "p2");
    Update(false, "p3");
    manager_.StopModule("f", "p4");
    EXPECT_TRUE(manager_.StartModule("f"));  // with the policy of its last start
    manager_.UpdateModulePolicy({});
    EXPECT_TRUE(Status() == kStopped && manager_.StartModule("f"));
    manager_.StopAllModule("p5");
    manager_.StopAndDeinitAllModule();
    EXPECT_EQ(Status(), kLoaded);
    EXPECT_TRUE(manager_.StartModule("f"));  // also uninitialised
    manager_.DestroyModule("f");
    manager_.StartModule("f");
    EXPECT_EQ(TakeCalls(), (Strings{"init", "start p1", "stop p2", "start p2", "stop p3", "start p2", "stop",
                                    "start p2", "stop p5", "deinit", "start p2", "stop p2"}));
    const std::string init = "INFO Init module succeed.[feature=f].";
    const std::string start = "INFO Start module.[feature=f].";
    const std::string done = "INFO Start module succeed.[feature=f].";
    const std::string stop = "INFO Stop module.[feature=f].";
    const std::string notStopped = "INFO Module's status is not stopped, so won't start.[feature=f]";
    const std::string notStarted = "INFO Module's status is not started, so won't stop.[feature=f]";
    const std::string deinit = "INFO Deinit module.[feature=f].";
    const std::string notLoaded = "INFO Module's status is not loaded, so won't start.[feature=f]";
    EXPECT_EQ(records_.Lines(),
              (Strings{init, start, done,  notStopped, stop, start,  done,  stop, notStarted, start,
                       done, stop,  start, done,       stop, deinit, start, done, stop,       notLoaded}));
}

// A refused policy must not pass for the running one, and what was initialised must be given back.
TEST_F(ModuleTest, FailuresAreFinalForPoliciesAndDestroyingUndoesThem)
{
    Install("traced");
    g_answer = [](const std::string& call) { return call != "init"; };
    Update(true, "good");
    EXPECT_TRUE(records_.Has("INFO Init module failed.[feature=f].") && Status() == kFailed);
    manager_.DestroyModule("f");
    g_answer = [](const std::string& call) { return call != "start bad" && call != "stop bad"; };
    Update(true, "bad");
    EXPECT_EQ(records_.Lines().end()[-2], "INFO Start module failed.[feature=f].");
    EXPECT_EQ(records_.Lines().back(), "ERROR Start new module failed.[module=f]");
    Update(true, "good");
    manager_.StopAndDeinitAllModule();
    Update(true, "good");
    EXPECT_EQ(Status(), kFailed);
    manager_.DestroyModule("f");
    Update(true, "good");
    Update(true, "bad");
    EXPECT_TRUE(manager_.StartModule("f"));  // with the good one
    EXPECT_EQ(TakeCalls(), (Strings{"init", "init", "start bad", "deinit", "init", "start good", "stop bad",
                                    "start bad", "start good"}));
}

// The old code would run on, or each round keep a mapping.
TEST_F(ModuleTest, ReplacedLibraryComesIntoUseAndRoundsLeaveNothing)
{
    Install("traced");
    Module module;
    module.SetFeature("f");
    for (int i = 0; i < 100; ++i) {  // each gives back the one before
        EXPECT_TRUE(module.LoadModule(prefix_) && module.InitModule() != 0 && module.StartModule() != 0);
    }
    Install("replaced");
    TakeCalls();
    EXPECT_TRUE(module.LoadModule(prefix_) && module.InitModule() != 0);
    EXPECT_EQ(TakeCalls(), (Strings{"stop", "deinit", "init2"}));
    module.DestroyModule();
    EXPECT_TRUE(module.GetStatus() == kNotLoaded && !Contains(Read("/proc/self/maps"), prefix_));
}

// A feature's names must not take the place of another's, unless its owner wants them to.
TEST_F(ModuleTest, LoadFlagsAreTheOwners)
{
    Install("traced");
    Module module;
    module.SetFeature("f");
    EXPECT_TRUE(module.LoadModule(prefix_) && dlsym(RTLD_DEFAULT, "StartModule") == nullptr);
    module.SetLoadFlags(RTLD_NOW | RTLD_GLOBAL);
    EXPECT_TRUE(module.LoadModule(prefix_) && dlsym(RTLD_DEFAULT, "StartModule") != nullptr);
}

// Whoever may write a library or its directory could run code as the agent.
TEST_F(ModuleTest, OnlyLibrariesThatNobodyElseMayWriteAreLoaded)
{
    Install("traced");
    fs::create_symlink("libf.so", prefix_ + "liblink.so");
    EXPECT_EQ(Refused("it is no regular file", "link"), kFailed);
    for (const std::string object : {"it", "its directory"}) {
        const std::string path = prefix_ + (object == "it" ? "libf.so" : "");
        for (const mode_t mode : {0720, 0702}) {
            chmod(path.c_str(), mode);
            EXPECT_EQ(Refused("others may write " + object), kFailed);
        }
        chmod(path.c_str(), 0755);
        if (geteuid() == 0 && chown(path.c_str(), 65534, 0) == 0) {
            EXPECT_EQ(Refused(object + " belongs to another user"), kFailed);
            EXPECT_EQ(chown(path.c_str(), 0, 0), 0);
        }
    }
    for (const char* name : {"", "../f", "a.b", "a b"}) {
        EXPECT_EQ(Refused("its name is not of letters, digits, '_' and '-'", name), kNotLoaded);
    }
    EXPECT_TRUE(TakeCalls().empty() && manager_.InitModule("f"));
    manager_.DestroyModule("f");
    for (const char* prefix : {"", "lib"}) {
        manager_.SetModulePrefix(prefix);
        EXPECT_EQ(Refused("no directory is given"), kFailed);
    }
}

// Two threads would start a module twice; an entry point that calls the manager would wait for itself, or two
// of them for each other.
TEST_F(ModuleTest, ThreadsTakeTurnsAndEntryPointsNeverWait)
{
    Install("traced", "a");
    Install("replaced", "b");
    static std::atomic<int> inside[2];
    static std::atomic<bool> started[2];
    g_answer = [&](const std::string& call) {
        const int own = Contains(call, "2") ? 1 : 0;
        EXPECT_EQ(++inside[own], 1);
        EXPECT_EQ(started[own].exchange(call.starts_with("start")), call.starts_with("stop")) << call;
        manager_.StopAllModule("");
        return inside[own]--;
    };
    InThreads(4, [&](int number) {
        for (int i = 0; i < 100; ++i) {
            manager_.UpdateModulePolicy({{"a", {i % 3 != 0, number % 2 == 0 ? "x" : "y", ""}}});
            manager_.StartModule(number % 2 == 0 ? "a" : "b");
            if (i % 10 == number) {
                manager_.DestroyModule("b");
            }
            manager_.InitModule("b");
        }
    });
    EXPECT_TRUE(records_.Has("ERROR Module is being worked on.[feature=a]"));
}
