#include "process/trace_decoder.h"

#include <sys/stat.h>

#include <algorithm>
#include <cstring>

#include "process/trace_layout.h"

namespace NEUtils {

namespace {

constexpr int kSignalMask = 0x7f;
constexpr int kCoreFlag = 0x80;
constexpr std::size_t kMaxKeptArgs = 1024;  // a record that is used again holds no more memory than for these

bool LengthsFit(const trace_head& head, std::size_t length)
{
    const std::uint64_t behind = std::uint64_t{head.path_size} + head.interpreter_size + head.args_size;
    return head.kind >= TRACE_FORK && head.kind <= TRACE_EXIT && head.path_size <= TRACE_PATH_MAX &&
           head.interpreter_size <= TRACE_INTERPRETER_MAX && head.args_size <= TRACE_ARGS_MAX &&
           head.args_size <= head.args_total && behind + sizeof(head) == length &&
           (head.kind == TRACE_EXEC || behind == 0);
}

void PutIds(const trace_head& head, ProcessRecord& record)
{
    record.pid = head.pid;
    record.tid = head.tid;
    record.parentPid = head.parent;
    record.startNs = head.start;
    record.parentStartNs = head.parent_start;
    record.nsPid = head.ns_pid;
    record.uid = head.uid;
    record.gid = head.gid;
    record.euid = head.euid;
    record.egid = head.egid;
    record.loginUid = head.login_uid;
    record.session = head.session;
    record.cgroupId = head.cgroup;
    record.mountNs = head.mount_ns;
    record.pidNs = head.pid_ns;
    record.comm.assign(head.comm, strnlen(head.comm, sizeof(head.comm)));
}

void PutProgram(const trace_head& head, const char* data, ProcessRecord& record)
{
    const char* const interpreter = data + head.path_size;
    const bool isScript = (head.flags & TRACE_SCRIPT) != 0;
    std::string& given = isScript ? record.script : record.exe;
    given.assign(data, strnlen(data, head.path_size));
    if (isScript) {
        record.exe.assign(interpreter, strnlen(interpreter, head.interpreter_size));
    }
    record.exeDeleted = (head.flags & TRACE_DELETED) != 0;
    record.exeInMemory = (head.flags & TRACE_IN_MEMORY) != 0;
    record.exeInode = head.exe_inode;
    record.exeSetUid = (head.exe_mode & S_ISUID) != 0;
    record.exeSetGid = (head.exe_mode & S_ISGID) != 0;
    SplitArguments(interpreter + head.interpreter_size, head.args_size, record.args);
    record.argsCut = head.args_size < head.args_total && (head.flags & TRACE_NO_ARGS) == 0;
    record.argsSize = head.args_total;
    record.argCount = head.arg_count;
}

}  // namespace

void ForgetProgram(ProcessRecord& record)
{
    record.exe = {};
    record.exeGiven = {};
    record.script = {};
    record.args = {};  // the memory too: many arguments take half a megabyte
    record.exeDeleted = record.exeInMemory = record.exeSetUid = record.exeSetGid = record.argsCut = false;
    record.argsSize = record.exeInode = 0;
    record.argCount = 0;
}

void SplitArguments(const char* data, std::size_t length, std::vector<std::string>& args)
{
    const char* const end = data + length;
    args.clear();
    if (args.capacity() > kMaxKeptArgs) {
        args = {};
    }
    while (data < end) {
        const char* const stop = std::find(data, end, '\0');
        args.emplace_back(data, stop);
        data = stop == end ? end : stop + 1;
    }
}

void PutExitStatus(int status, ProcessRecord& record)
{
    record.exitSignal = status & kSignalMask;
    record.coreDumped = (status & kCoreFlag) != 0;
    record.exitCode = record.exitSignal == 0 ? (status >> 8) & 0xff : 0;
}

bool DecodeTraceRecord(const void* data, std::size_t length, std::int64_t wallOffsetNs, ProcessRecord& record)
{
    trace_head head;
    if (data == nullptr || length < sizeof(head)) {
        return false;
    }
    std::memcpy(&head, data, sizeof(head));
    if (!LengthsFit(head, length)) {
        return false;
    }
    record.kind = static_cast<ProcessRecord::Kind>(head.kind);
    record.whole = (head.flags & (TRACE_NO_ARGS | TRACE_NO_PATH)) == 0;
    record.bootNs = head.time;
    record.wallNs = static_cast<std::int64_t>(head.time + static_cast<std::uint64_t>(wallOffsetNs));
    PutIds(head, record);
    PutExitStatus(head.kind == TRACE_EXIT ? head.exit_status : 0, record);
    record.containerId.clear();
    ForgetProgram(record);
    if (head.kind == TRACE_EXEC) {
        PutProgram(head, static_cast<const char*>(data) + sizeof(head), record);
    }
    return true;
}

}  // namespace NEUtils
