#pragma once

#include <string>

// Collects what the log says on this thread while a feature starts: an entry point gives no reason itself.
//
// Threads  each for itself; one object at a time.
class StartReasons {
public:
    StartReasons();
    ~StartReasons();
    StartReasons(const StartReasons&) = delete;
    StartReasons& operator=(const StartReasons&) = delete;

    const std::string& GetText() const { return text_; }

    // Once for the process, before the first object and after the last.
    static void Subscribe();
    static void Unsubscribe();

private:
    std::string text_;
};
