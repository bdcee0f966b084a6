// Embeds the installed library the way another program does, with a feature: consumer LOG_FILE FEATURE_DIRECTORY/.
// Such a program may define DEBUG, and have a config.h of its own.
#include "config.h"

#include <neutils/byte_buffer.h>
#include <neutils/config.h>
#include <neutils/log_system.h>
#include <neutils/module_manager.h>

#include <fstream>
#include <iterator>
#include <memory>
#include <string>

#include "logger.h"  // the bare name of a header finds it too

using namespace NEUtils;

int main(int argc, char** argv)
{
    const std::string path = argc == 3 ? argv[1] : "";
    const auto file = std::make_shared<LogSystem::LogFile>(path, LogLevel(0), 0, 0);
    ByteBuffer buffer;
    int port = 0;
    bool worked = buffer.SetBuffer("abc", 3) && Config::ParseConfig(CONSUMER_PORT, true, {{"PORT", "port"}}) &&
                  Config::GetConfigValue("port", port) && Config::GetConfigMap<int>().size() == 1 &&
                  LogSystem::Register(file, kNormalLog, "Consumer", &LogSystem::GetDefaultLogContent);
    NE_LOG(DEBUG, "Embedded.[port=%d]", port);
    Manager::ModuleManager features;
    features.SetModulePrefix(argc == 3 ? argv[2] : "");
    features.UpdateModulePolicy({{"hello", {true, "world", ""}}});
    worked = worked && features.IsRunable("hello");
    features.DestroyModule("hello");
    LogSystem::CloseAllLogFile();
    std::ifstream log(path);
    const std::string text{std::istreambuf_iterator<char>(log), {}};
    worked = worked && text.find(" DEBUG [main.cpp:") < text.find("Embedded.[port=8443]") &&
             text.find("Hello.[policy=world]") != std::string::npos;
    return worked ? 0 : 1;
}
