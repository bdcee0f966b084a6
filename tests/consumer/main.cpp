// Embeds the installed library the way another program does, with a feature: consumer LOG_FILE FEATURE_FOLDER/.
#include <fstream>
#include <iterator>
#include <memory>
#include <string>

#include "byte_buffer.h"
#include "config.h"
#include "log_system.h"
#include "module_manager.h"

using namespace NEUtils;

int main(int argc, char** argv)
{
    const std::string path = argc == 3 ? argv[1] : "";
    const auto file = std::make_shared<LogSystem::LogFile>(path, INFO, 0, 0);
    ByteBuffer buffer;
    int port = 0;
    bool worked = buffer.SetBuffer("abc", 3) && Config::ParseConfig("PORT=8443", true, {{"PORT", "port"}}) &&
                  Config::GetConfigValue("port", port) && Config::GetConfigMap<int>().size() == 1 &&
                  LogSystem::Register(file, kNormalLog, "Consumer", &LogSystem::GetDefaultLogContent);
    NE_LOG(WARN, "Embedded.[port=%d]", port);
    Manager::ModuleManager features;
    features.SetModulePrefix(argc == 3 ? argv[2] : "");
    features.UpdateModulePolicy({{"hello", {true, "world", ""}}});
    worked = worked && features.IsRunable("hello");
    features.DestroyModule("hello");
    LogSystem::CloseAllLogFile();
    std::ifstream log(path);
    const std::string text{std::istreambuf_iterator<char>(log), {}};
    worked = worked && text.find(" WARN [main.cpp:") < text.find("Embedded.[port=8443]") &&
             text.find("Hello.[policy=world]") != std::string::npos;
    return worked ? 0 : 1;
}
