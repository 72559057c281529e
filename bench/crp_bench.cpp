// Zero compression throughput on the frames a channel really sends: one
// order insert, and a full 4 KiB frame of mixed records. Each figure is in
// bytes of plain packet per second, beside memcpy of the same bytes.
#include "base/byteorder.h"
#include "record/gen/qelfield.h"
#include "network/crppacket.h"
#include "network/qelcpacket.h"
#include "network/xmppacket.h"

#include <benchmark/benchmark.h>

#include <cstring>
#include <random>
#include <vector>

using Network::CrpPacket;
using Network::QelcPacket;

namespace {

const int CAPACITY = 2 * Network::XmpPacket::MAX_PACKAGE_SIZE - 6;

// The part of a frame that the channel compresses: Qelc header and body.
struct Sample {
    std::vector<unsigned char> plain;
    std::vector<unsigned char> coded;
};

// A typical order insert, as an application fills it in.
QelInputOrderField typical_order()
{
    QelInputOrderField r;
    std::memset(&r, 0, sizeof(r));
    std::strcpy(r.ParticipantID, "0001");
    std::strcpy(r.ClientID, "00010203");
    std::strcpy(r.UserID, "trader01");
    std::strcpy(r.InstrumentID, "IF2612");
    r.OrderPriceType = '2';
    r.Direction = '0';
    std::strcpy(r.CombOffsetFlag, "0");
    std::strcpy(r.CombHedgeFlag, "1");
    r.LimitPrice = 4123.4;
    r.VolumeTotalOriginal = 5;
    r.TimeCondition = '3';
    r.VolumeCondition = '1';
    r.MinVolume = 1;
    r.ContingentCondition = '1';
    r.ForceCloseReason = '0';
    std::strcpy(r.OrderLocalID, "000000012345");
    std::strcpy(r.IPAddress, "10.0.0.17");
    std::strcpy(r.MacAddress, "00:1A:2B:3C:4D:5E");
    return r;
}

Sample make_sample(bool full)
{
    std::vector<char> area(QelcPacket::HEADER_SIZE + QelcPacket::MAX_BODY_SIZE);
    QelcPacket packet(0, 0, QelcPacket::CHAIN_LAST);
    packet.get_header().Subject = 1;
    packet.get_header().set_sequence(123456);
    packet.attach(area.data());
    packet.get_header().PacketId = get_qel_packet_id("ReqOrderInsert");
    packet.get_header().RequestId = 42;
    const QelInputOrderField order = typical_order();
    packet.add_field(&QelInputOrderField::DESC, &order, &QelInputOrderField::to_stream);
    if (full) {
        // Returned orders, trades and bulletins of their usual sizes: short
        // texts in zero-filled arrays, prices as doubles.
        std::mt19937 rng(5);
        const unsigned short sizes[] = {341, 215, 91, 843, 165};
        for (int i = 0;; ++i) {
            unsigned short size = sizes[i % 5];
            char* v = packet.add_field(static_cast<unsigned short>(0x2500 + i % 5), size);
            if (v == nullptr) {
                // Top the body up to exactly 4000 bytes with one last record.
                int left = QelcPacket::MAX_BODY_SIZE - packet.get_header().BodyLength - 4;
                if (left < 0) break;
                size = static_cast<unsigned short>(left);
                v = packet.add_field(0x2607, size);
            }
            std::memset(v, 0, size);
            for (int at = 0; at + 16 < size; at += 16 + static_cast<int>(rng() % 16)) {
                int text = static_cast<int>(rng() % 10);
                for (int k = 0; k < text; ++k) v[at + k] = static_cast<char>('0' + rng() % 43);
                if (rng() % 3 == 0) {
                    double d = (rng() % 1000000) / 100.0;
                    Base::put_be64(v + at + 8, Base::load_host<uint64_t>(&d));
                }
            }
            if (packet.get_header().BodyLength == QelcPacket::MAX_BODY_SIZE) break;
        }
    }
    int size = packet.commit();
    Sample s;
    s.plain.assign(area.begin(), area.begin() + size);
    s.coded.resize(CAPACITY);
    int len = CAPACITY;
    if (CrpPacket::encode_zero(s.coded.data(), len, s.plain.data(), size) != 0) std::abort();
    s.coded.resize(len);
    return s;
}

const Sample& sample(int kind)
{
    static const Sample order = make_sample(false);
    static const Sample full = make_sample(true);
    return kind == 0 ? order : full;
}

void label(benchmark::State& state, const Sample& s)
{
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * s.plain.size());
    state.SetLabel(std::to_string(s.plain.size()) + " B -> " + std::to_string(s.coded.size()) + " B");
}

void BM_encode_zero(benchmark::State& state)
{
    const Sample& s = sample(static_cast<int>(state.range(0)));
    std::vector<unsigned char> out(CAPACITY);
    for (auto _ : state) {
        int len = CAPACITY;
        int rc = CrpPacket::encode_zero(out.data(), len, s.plain.data(), static_cast<int>(s.plain.size()));
        benchmark::DoNotOptimize(rc);
        benchmark::ClobberMemory();
    }
    label(state, s);
}

void BM_decode_zero(benchmark::State& state)
{
    const Sample& s = sample(static_cast<int>(state.range(0)));
    std::vector<unsigned char> out(CAPACITY);
    for (auto _ : state) {
        int len = CAPACITY;
        int rc = CrpPacket::decode_zero(out.data(), len, s.coded.data(), static_cast<int>(s.coded.size()));
        benchmark::DoNotOptimize(rc);
        benchmark::ClobberMemory();
    }
    label(state, s);
}

void BM_memcpy(benchmark::State& state)
{
    const Sample& s = sample(static_cast<int>(state.range(0)));
    std::vector<unsigned char> out(CAPACITY);
    for (auto _ : state) {
        std::memcpy(out.data(), s.plain.data(), s.plain.size());
        benchmark::DoNotOptimize(out.data());
        benchmark::ClobberMemory();
    }
    label(state, s);
}

}  // namespace

// Argument 0: one order insert frame; 1: a full frame of mixed records.
BENCHMARK(BM_encode_zero)->Arg(0)->Arg(1);
BENCHMARK(BM_decode_zero)->Arg(0)->Arg(1);
BENCHMARK(BM_memcpy)->Arg(0)->Arg(1);

BENCHMARK_MAIN();
