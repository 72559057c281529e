// Generated per-record coders beside the description-driven ones, for the two
// records that carry most of the order traffic.
#include <benchmark/benchmark.h>

#include <cstring>
#include <vector>

#include "record/fieldcoder.h"
#include "record/gen/qelfield.h"

namespace {

template <typename Record>
Record sample_record() {
    Record r;
    std::memset(&r, 0, sizeof(r));
    // A few non-zero members so that the byte swaps do real work.
    const Base::FieldDesc& desc = Record::DESC;
    for (int i = 0; i < desc.member_count; ++i) {
        const Base::FieldDesc::MemberDesc* m = desc.get_member_desc(i);
        char* at = reinterpret_cast<char*>(&r) + m->offset;
        if (m->type == Base::DT_STRING) std::memcpy(at, "ABCDEFGH", m->total_size > 9 ? 9 : m->total_size - 1);
        else if (Base::is_fixed_point(m->type)) { long v = 1234567 + i; std::memcpy(at, &v, 8); }
        else if (m->type == Base::DT_FLOAT64) { double v = 3001.5 + i; std::memcpy(at, &v, 8); }
        else if (m->type == Base::DT_INT32) { int v = 100 + i; std::memcpy(at, &v, 4); }
        else *at = 'A';
    }
    return r;
}

template <typename Record>
void BM_ToStreamGenerated(benchmark::State& state) {
    Record r = sample_record<Record>();
    std::vector<unsigned char> wire(Record::DESC.stream_size);
    for (auto _ : state) {
        Record::to_stream(&r, wire.data(), sizeof(r));
        benchmark::DoNotOptimize(wire.data());
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(state.iterations() * Record::DESC.stream_size);
}

template <typename Record>
void BM_ToStreamGeneric(benchmark::State& state) {
    Record r = sample_record<Record>();
    std::vector<unsigned char> wire(Record::DESC.stream_size);
    for (auto _ : state) {
        Base::FieldCoder::to_stream(&Record::DESC, &r, wire.data(), sizeof(r));
        benchmark::DoNotOptimize(wire.data());
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(state.iterations() * Record::DESC.stream_size);
}

template <typename Record>
void BM_FromStreamGenerated(benchmark::State& state) {
    Record r = sample_record<Record>();
    std::vector<unsigned char> wire(Record::DESC.stream_size);
    Record::to_stream(&r, wire.data(), sizeof(r));
    const bool raw = state.range(0) != 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(Record::from_stream(&r, wire.data(), static_cast<int>(wire.size()), raw));
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(state.iterations() * Record::DESC.stream_size);
}

template <typename Record>
void BM_FromStreamGeneric(benchmark::State& state) {
    Record r = sample_record<Record>();
    std::vector<unsigned char> wire(Record::DESC.stream_size);
    Record::to_stream(&r, wire.data(), sizeof(r));
    const bool raw = state.range(0) != 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(
            Base::FieldCoder::from_stream(&Record::DESC, &r, wire.data(), static_cast<int>(wire.size()), raw));
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(state.iterations() * Record::DESC.stream_size);
}

}  // namespace

BENCHMARK_TEMPLATE(BM_ToStreamGenerated, QelInputOrderField);
BENCHMARK_TEMPLATE(BM_ToStreamGeneric, QelInputOrderField);
BENCHMARK_TEMPLATE(BM_FromStreamGenerated, QelInputOrderField)->Arg(0);
BENCHMARK_TEMPLATE(BM_FromStreamGeneric, QelInputOrderField)->Arg(0);
BENCHMARK_TEMPLATE(BM_ToStreamGenerated, QelOrderField);
BENCHMARK_TEMPLATE(BM_ToStreamGeneric, QelOrderField);
BENCHMARK_TEMPLATE(BM_FromStreamGenerated, QelOrderField)->Arg(0)->Arg(1);
BENCHMARK_TEMPLATE(BM_FromStreamGeneric, QelOrderField)->Arg(0)->Arg(1);

BENCHMARK_MAIN();
