#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "neutils_api.h"

namespace NEUtils {

// The file of events: one event a line, written by a job of the process's thread pool, so that whoever has an event
// never waits for the disk. A full file is rolled: <path> becomes <path>.1, that becomes <path>.2, and so on.
//
// A file that is there at the start goes on. One that somebody moves away or removes is made anew. While the disk is
// full, lines wait here. The next line, or whoever asks for the fault, tries again, once a second; one that was cut
// goes on where it stopped.
//
// Threads  any; Open and Close belong to the owner of the process. Needs ThreadPool::GetInstance(), started: until
//          then lines wait.
// Locks    none is held while the file is written, but for that of its one writer.
// Blocks   Write never. Close writes what waits, so as long as the disk takes.
// Limits   4 MiB of lines may wait; a line above that is dropped and counted.
// Errors   a file that cannot be written is logged as an ERROR record, at most once a minute, and in GetFault().
class NEUTILS_API EventFile {
public:
    struct Settings {
        std::string path;                  // absolute
        std::uint64_t maxSize = 10 << 20;  // in bytes; a line that does not fit makes it roll; 0: it never does
        unsigned int copies = 5;           // rolled files to keep; 0: a full file is removed
    };

    // The process's own, which all features write to; never destroyed.
    static EventFile& GetInstance();

    EventFile();
    ~EventFile();  // closes it
    EventFile(const EventFile&) = delete;
    EventFile& operator=(const EventFile&) = delete;

    // Opens the file, with mode 0640 where it is made, for this process to write. Gives what is wrong, or nothing:
    // only a regular file of this user with one name is taken. One that is open is closed first.
    std::string Open(const Settings& settings);
    void Close();

    [[nodiscard]] bool IsOpen() const;
    [[nodiscard]] std::string GetPath() const;  // of the file that is open

    // Queues a line, without its end. False where none is open, and where it is dropped.
    bool Write(const std::string& line);

    struct Figures {
        std::uint64_t written = 0;  // lines since the process began
        std::uint64_t dropped = 0;  // lines that had no room, or that a moved file has cut
        std::size_t waiting = 0;    // bytes
    };
    [[nodiscard]] Figures GetFigures() const;

    // Why the last attempt to write has failed; empty where it has not. Where lines wait, it makes the pool try again:
    // ask now and then, or they wait for the next line.
    [[nodiscard]] std::string GetFault() const;

private:
    class Writer;

    const std::unique_ptr<Writer> writer_;
};

}  // namespace NEUtils
