// What the bodies of messages cost: 1,000 items of 32 bytes packed and indexed, beside protobuf, beside loops
// that write and find the same items without a library, and beside a copy of the same bytes.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <numeric>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "median_reporter.h"
#include "tlv.h"
#include "tlv_items.pb.h"

namespace {

using Bytes = std::vector<unsigned char>;
using Tags = std::vector<std::uint16_t>;

constexpr std::uint16_t kItems = 1000;
constexpr std::uint16_t kLength = 32;
constexpr std::size_t kSize = kItems * (2 * sizeof(std::uint16_t) + kLength);

std::array<unsigned char, kLength> g_value;

void Require(bool done, const char* what)
{
    if (!done) {
        std::fprintf(stderr, "failed: %s\n", what);
        std::abort();
    }
}

Tags AscendingTags()
{
    Tags tags(kItems);
    std::iota(tags.begin(), tags.end(), std::uint16_t{1});
    return tags;
}

Tags MixedTags()
{
    Tags tags = AscendingTags();
    std::shuffle(tags.begin(), tags.end(), std::minstd_rand(1));
    return tags;
}

void Fill(NEUtils::TLVPacker& packer, const Tags& tags)
{
    for (const std::uint16_t tag : tags) {
        NEUtils::TLVValue value;
        value.Init(tag, g_value.data(), kLength);
        packer.Add(std::move(value));
    }
    Require(packer.Pack(false) == 0 && packer.GetSize() == kSize, "pack");
}

void Pack(benchmark::State& state)
{
    const Tags tags = AscendingTags();
    for ([[maybe_unused]] auto step : state) {
        NEUtils::TLVPacker packer;
        Fill(packer, tags);
        benchmark::DoNotOptimize(packer.GetBuffer());
    }
}

void PackDirect(benchmark::State& state)
{
    const Tags tags = AscendingTags();
    for ([[maybe_unused]] auto step : state) {
        NEUtils::TLVPacker packer;
        for (const std::uint16_t tag : tags) {
            packer.Add(tag, g_value.data(), kLength);
        }
        Require(packer.Pack(false) == 0 && packer.GetSize() == kSize, "pack");
        benchmark::DoNotOptimize(packer.GetBuffer());
    }
}

Bytes Packed(const Tags& tags)
{
    NEUtils::TLVPacker packer;
    Fill(packer, tags);
    return {packer.GetBuffer(), packer.GetBuffer() + packer.GetSize()};
}

void Index(benchmark::State& state, const Tags& tags)
{
    Bytes bytes = Packed(tags);
    for ([[maybe_unused]] auto step : state) {
        NEUtils::TLVAnalyzer analyzer(bytes.data(), static_cast<int>(bytes.size()));
        Require(analyzer.Analyze(false), "analyze");
    }
}

void FillProto(tlv_bench::Items& message)
{
    for (const std::uint16_t tag : AscendingTags()) {
        tlv_bench::Item& item = *message.add_items();
        item.set_tag(tag);
        item.set_value(g_value.data(), kLength);
    }
}

void ProtoPack(benchmark::State& state)
{
    for ([[maybe_unused]] auto step : state) {
        tlv_bench::Items message;
        FillProto(message);
        const std::string bytes = message.SerializeAsString();
        benchmark::DoNotOptimize(bytes.data());
    }
}

void ProtoIndex(benchmark::State& state)
{
    tlv_bench::Items message;
    FillProto(message);
    const std::string bytes = message.SerializeAsString();
    for ([[maybe_unused]] auto step : state) {
        tlv_bench::Items parsed;
        Require(parsed.ParseFromString(bytes), "parse");
    }
}

// The same bytes as Pack's, written straight to their place.
void BarePack(benchmark::State& state)
{
    const Tags tags = AscendingTags();
    for ([[maybe_unused]] auto step : state) {
        const std::unique_ptr<unsigned char[]> buffer(new unsigned char[kSize]);
        unsigned char* at = buffer.get();
        for (const std::uint16_t tag : tags) {
            std::memcpy(at, &tag, sizeof(tag));
            std::memcpy(at + sizeof(tag), &kLength, sizeof(kLength));
            std::memcpy(at + sizeof(tag) + sizeof(kLength), g_value.data(), kLength);
            at += sizeof(tag) + sizeof(kLength) + kLength;
        }
        benchmark::DoNotOptimize(at);
    }
}

// The places of all items, in the order of the buffer.
void BareIndex(benchmark::State& state)
{
    const Bytes bytes = Packed(AscendingTags());
    for ([[maybe_unused]] auto step : state) {
        std::vector<std::pair<std::uint16_t, std::uint32_t>> places;
        for (std::size_t at = 0; bytes.size() - at >= 2 * sizeof(std::uint16_t);) {
            std::array<std::uint16_t, 2> header;
            std::memcpy(header.data(), &bytes[at], sizeof(header));
            places.emplace_back(header[0], static_cast<std::uint32_t>(at));
            at += sizeof(header) + header[1];
        }
        benchmark::DoNotOptimize(places.data());
    }
}

// What an object for each item costs without a library: its bytes in a block of its own.
struct OwnedItem {
    std::uint16_t tag;
    std::uint16_t length;
    std::unique_ptr<unsigned char[]> bytes;
};

OwnedItem Own(std::uint16_t tag, const unsigned char* data, std::uint16_t length)
{
    OwnedItem item = {tag, length, std::unique_ptr<unsigned char[]>(new unsigned char[length])};
    std::memcpy(item.bytes.get(), data, length);
    return item;
}

void OwnedPack(benchmark::State& state)
{
    const Tags tags = AscendingTags();
    for ([[maybe_unused]] auto step : state) {
        std::vector<OwnedItem> items;
        for (const std::uint16_t tag : tags) {
            items.push_back(Own(tag, g_value.data(), kLength));
        }
        const std::unique_ptr<unsigned char[]> buffer(new unsigned char[kSize]);
        unsigned char* at = buffer.get();
        for (const OwnedItem& item : items) {
            std::memcpy(at, &item.tag, sizeof(item.tag));
            std::memcpy(at + sizeof(item.tag), &item.length, sizeof(item.length));
            std::memcpy(at + sizeof(item.tag) + sizeof(item.length), item.bytes.get(), item.length);
            at += sizeof(item.tag) + sizeof(item.length) + item.length;
        }
        benchmark::DoNotOptimize(at);
    }
}

void OwnedIndex(benchmark::State& state)
{
    const Bytes bytes = Packed(AscendingTags());
    for ([[maybe_unused]] auto step : state) {
        std::vector<OwnedItem> items;
        for (std::size_t at = 0; bytes.size() - at >= 2 * sizeof(std::uint16_t);) {
            std::array<std::uint16_t, 2> header;
            std::memcpy(header.data(), &bytes[at], sizeof(header));
            items.push_back(Own(header[0], &bytes[at + sizeof(header)], header[1]));
            at += sizeof(header) + header[1];
        }
        benchmark::DoNotOptimize(items.data());
    }
}

// The same tags and places in a tree of the standard library.
void TreeIndex(benchmark::State& state, const Tags& tags)
{
    const Bytes bytes = Packed(tags);
    for ([[maybe_unused]] auto step : state) {
        std::multimap<std::uint16_t, std::int32_t> places;
        for (std::size_t at = 0; bytes.size() - at >= 2 * sizeof(std::uint16_t);) {
            std::array<std::uint16_t, 2> header;
            std::memcpy(header.data(), &bytes[at], sizeof(header));
            places.emplace_hint(places.end(), header[0], static_cast<std::int32_t>(at));
            at += sizeof(header) + header[1];
        }
        benchmark::DoNotOptimize(places.size());
    }
}

void Copy(benchmark::State& state)
{
    const Bytes bytes(kSize);
    for ([[maybe_unused]] auto step : state) {
        const std::unique_ptr<unsigned char[]> buffer(new unsigned char[kSize]);
        std::memcpy(buffer.get(), bytes.data(), kSize);
        benchmark::DoNotOptimize(buffer.get());
    }
}

void Settle(benchmark::internal::Benchmark* bench)
{
    bench->UseRealTime()->Repetitions(5)->ReportAggregatesOnly(true)->MinTime(0.35);
}

BENCHMARK(Pack)->Apply(Settle);
BENCHMARK(PackDirect)->Apply(Settle);
BENCHMARK(OwnedPack)->Apply(Settle);
BENCHMARK(ProtoPack)->Apply(Settle);
BENCHMARK(BarePack)->Apply(Settle);
BENCHMARK_CAPTURE(Index, ascending, AscendingTags())->Apply(Settle);
BENCHMARK_CAPTURE(Index, mixed, MixedTags())->Apply(Settle);
BENCHMARK(OwnedIndex)->Apply(Settle);
BENCHMARK_CAPTURE(TreeIndex, ascending, AscendingTags())->Apply(Settle);
BENCHMARK_CAPTURE(TreeIndex, mixed, MixedTags())->Apply(Settle);
BENCHMARK(ProtoIndex)->Apply(Settle);
BENCHMARK(BareIndex)->Apply(Settle);
BENCHMARK(Copy)->Apply(Settle);

class TlvReporter : public MedianReporter {
public:
    void Finalize() override
    {
        PrintRows("1,000 items", "ns");
        std::printf("\n%-20s %12s %12s %12s\n", "ratio", "to owned", "to protobuf", "to bare");
        PrintRatios("Pack", "Pack");
        PrintRatios("PackDirect", "Pack");
        PrintRatios("Index/ascending", "Index");
        PrintRatios("Index/mixed", "Index");
    }

private:
    void PrintRatios(const char* row, const std::string& rival) const
    {
        std::printf("%-20s %12s %12s %12s\n", row, Ratio({row, 1}, {"Owned" + rival, 1}).c_str(),
                    Ratio({row, 1}, {"Proto" + rival, 1}).c_str(), Ratio({row, 1}, {"Bare" + rival, 1}).c_str());
    }
};

}  // namespace

int main(int argc, char** argv)
{
    TlvReporter reporter;
    return RunBenchmarks(argc, argv, reporter);
}
