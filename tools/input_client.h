#pragma once

#include <sys/types.h>

#include <string>

#include "client.h"

// Commands from standard input, of whatever kind. Standard error has what is said to it.
class InputClient final : public Client {
public:
    InputClient(event_base* base, Commands& commands) : Client(base, commands), base_(base), in_(evbuffer_new()) {}
    ~InputClient() override;

    // Gives why it cannot be read, or nothing.
    std::string Open();
    void Finish();  // runs no more commands
    void Check();   // once a second

    void Say(const std::string& line) override;
    void SayAnswer(const std::string&) override {}  // standard output has the answers

private:
    static void OnReady(int fd, short what, void* self);

    void Serve() override;
    void Close();
    bool Wait();
    void ReadSome();
    ssize_t Read(char* bytes, std::size_t size) const;

    event_base* base_;
    EventPtr<evbuffer> in_;
    EventPtr<event> ready_;
    int fd_ = -1;
    bool isSocket_ = false;
    bool hasName_ = false;  // is a FIFO that others find by its path
    bool isWaitable_ = false;
};
