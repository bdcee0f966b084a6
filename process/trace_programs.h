#pragma once

#include <bpf/libbpf.h>

#include <cerrno>
#include <cstddef>
#include <string>

#include "process/libbpf_messages.h"

namespace NEUtils {

// A set of trace programs, as bpftool made a header of it. They are in the kernel from Load on, as long as this lives.
template <typename Skeleton>
class TracePrograms {
public:
    TracePrograms() = default;
    ~TracePrograms() { Skeleton::destroy(skeleton_); }
    TracePrograms(const TracePrograms&) = delete;
    TracePrograms& operator=(const TracePrograms&) = delete;

    // `prepare` sets what must be known before they are loaded. False with the reason.
    template <typename Prepare>
    bool Load(std::size_t ringSize, std::size_t wakeSize, const Prepare& prepare, std::string& reason);

    Skeleton* operator->() const { return skeleton_; }

private:
    Skeleton* skeleton_ = nullptr;
};

// The reason that a step of loading failed with an error of libbpf, which is a negative errno.
std::string LoadFault(const char* step, int error, const LibbpfMessages& messages);

template <typename Skeleton>
template <typename Prepare>
bool TracePrograms<Skeleton>::Load(std::size_t ringSize, std::size_t wakeSize, const Prepare& prepare,
                                   std::string& reason)
{
    const LibbpfMessages messages;
    skeleton_ = Skeleton::open();
    int error = skeleton_ == nullptr ? -errno : 0;
    const char* step = "open";
    if (error == 0) {
        skeleton_->rodata->wake_size = wakeSize;
        prepare(*skeleton_);
        step = "load";
        error = bpf_map__set_max_entries(skeleton_->maps.ring, static_cast<__u32>(ringSize));
    }
    if (error == 0) {
        error = Skeleton::load(skeleton_);
    }
    if (error == 0) {
        step = "attach";
        error = Skeleton::attach(skeleton_);
    }
    if (error != 0) {
        reason = LoadFault(step, error, messages);
    }
    return error == 0;
}

}  // namespace NEUtils
