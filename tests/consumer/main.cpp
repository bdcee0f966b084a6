// Embeds the installed library the way another program does: consumer LOG_FILE.
#include <fstream>
#include <memory>
#include <string>

#include "byte_buffer.h"
#include "config.h"
#include "log_system.h"

using namespace NEUtils;

int main(int argc, char** argv)
{
    const std::string path = argc == 2 ? argv[1] : "";
    const auto file = std::make_shared<LogSystem::LogFile>(path, INFO, 0, 0);
    ByteBuffer buffer;
    int port = 0;
    bool worked = buffer.SetBuffer("abc", 3) && Config::ParseConfig("PORT=8443", true, {{"PORT", "port"}}) &&
                  Config::GetConfigValue("port", port) && Config::GetConfigMap<int>().size() == 1 &&
                  LogSystem::Register(file, kNormalLog, "Consumer", &LogSystem::GetDefaultLogContent);
    NE_LOG(WARN, "Embedded.[port=%d]", port);
    LogSystem::CloseAllLogFile();
    std::string line;
    std::getline(std::ifstream(path), line);
    worked = worked && line.find(" WARN [main.cpp:") < line.find("Embedded.[port=8443]");
    return worked ? 0 : 1;
}
