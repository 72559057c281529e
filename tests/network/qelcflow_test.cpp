// Qelc flows: frames built in place, sequence stamping, days, references,
// readers, and the file form without the prefix.
#include "network/qelcflow.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "base/datetime.h"
#include "base/byteorder.h"
#include "parallel/flowrecycler.h"
#include "tests/support/temp_dir.h"

using Base::DataFlow;
using Network::QelcFlow;
using Network::QelcPacket;
using Network::XmpPacket;
using test_support::TempDir;

namespace {

void* day_of(int date) {
    return reinterpret_cast<void*>(static_cast<uintptr_t>(Base::Date::get_days(date)));
}

unsigned long sequence_of(const char* frame) {
    return Base::get_be32(frame + 14) |
           static_cast<unsigned long>(static_cast<unsigned char>(frame[18])) << 32;
}

// Writes a packet with n records of 6 bytes that carry tag and i.
unsigned long write_packet(QelcFlow::Writer& writer, unsigned short packet_id, int n, int tag,
                           bool notify = false) {
    QelcPacket* packet = writer.alloc_packet(packet_id, 0);
    packet->get_header().RequestId = static_cast<unsigned int>(tag);
    for (int i = 0; i < n; i++) {
        char* value = packet->add_field(static_cast<unsigned short>(100 + i), 6);
        EXPECT_NE(value, nullptr);
        Base::put_be32(value, static_cast<uint32_t>(tag));
        Base::put_be16(value + 4, static_cast<uint16_t>(i));
    }
    return writer.commit_packet(notify);
}

// Checks a packet as a reader hands it out.
void expect_packet(const QelcFlow::Package* got, unsigned short subject, unsigned long sequence,
                   unsigned short packet_id, int n, int tag) {
    ASSERT_NE(got, nullptr);
    const QelcPacket::Header* h = got->package_header;
    EXPECT_EQ(h->Subject, subject);
    EXPECT_EQ(h->get_sequence(), sequence);
    EXPECT_EQ(h->PacketId, packet_id);
    EXPECT_EQ(h->RequestId, static_cast<unsigned int>(tag));
    EXPECT_EQ(h->FieldCount, n);
    QelcPacket::Iterator it(h, got->package_body);
    for (int i = 0; i < n; i++) {
        ASSERT_EQ(it.next(), 100 + i);
        unsigned short size;
        const char* value = it.get_field(size);
        ASSERT_EQ(size, 6);
        EXPECT_EQ(Base::get_be32(value), static_cast<uint32_t>(tag));
        EXPECT_EQ(Base::get_be16(value + 4), i);
    }
    EXPECT_EQ(it.next(), QelcPacket::END);
}

class Versions : public DataFlow::ReadCallback {
public:
    void on_read(unsigned long, const void*, unsigned short) override {}
    void on_version(unsigned int version) override { seen.push_back(version); }
    std::vector<unsigned int> seen;
};

}  // namespace

TEST(QelcFlow, WriterStampsFramesInPlace) {
    for (unsigned long start : {0ul, 250ul}) {
        QelcFlow flow(1, 0, 0, nullptr, nullptr, start, nullptr, false, false);
        QelcFlow::Writer writer(&flow, false);
        // An empty packet is a frame of 26 bytes with Length 22.
        EXPECT_EQ(writer.alloc_packet(77, 0)->get_header().get_sequence(), start + 1);
        EXPECT_EQ(writer.commit_packet(false), start);
        EXPECT_EQ(write_packet(writer, 78, 3, 9), start + 1);

        DataFlow::Iterator it(&flow, nullptr, nullptr, nullptr);
        const DataFlow::Item* empty = it.next();
        ASSERT_NE(empty, nullptr);
        ASSERT_EQ(empty->length, 26);
        const unsigned char prefix[] = {2, 0, 0, 22, 1, 0, 4, 'L', 0, 1, 0, 0, 0, 77};
        EXPECT_EQ(std::memcmp(empty->data, prefix, sizeof(prefix)), 0);
        EXPECT_EQ(sequence_of(empty->data), start + 1);  // first packet: start id + 1

        QelcFlow::DataReader reader(&flow, nullptr, nullptr, nullptr, nullptr);
        expect_packet(reader.read(), 1, start + 1, 77, 0, 0);
        expect_packet(reader.read(), 1, start + 2, 78, 3, 9);
        EXPECT_EQ(reader.read(), nullptr);
    }

    // The other ways in: a whole frame copied, a Qelc header with its body,
    // and a frame filled in by the caller; all get this flow's stamps.
    QelcFlow source(5, 0, 0, nullptr, nullptr, 40, nullptr, false, false);
    QelcFlow::Writer source_writer(&source, false);
    write_packet(source_writer, 90, 2, 1);
    DataFlow::Iterator source_it(&source, nullptr, nullptr, nullptr);
    const char* frame = source_it.next()->data;

    QelcFlow flow(2, 0, 0, nullptr, nullptr, 0, nullptr, false, false);
    QelcFlow::Writer writer(&flow, false);
    writer.add_packet(reinterpret_cast<const XmpPacket::Header*>(frame), true, false);
    writer.add_packet(reinterpret_cast<const QelcPacket::Header*>(frame + 6), false);
    char* mine = writer.alloc_xmp_packet();
    std::memcpy(mine + 6, frame + 6, 20 + 20);
    writer.commit_xmp_packet(40, false);
    EXPECT_EQ(flow.reference_mode, 0);  // not by reference: copies
    QelcFlow::DataReader reader(&flow, nullptr, nullptr, nullptr, nullptr);
    for (unsigned long seq = 1; seq <= 3; seq++) expect_packet(reader.read(), 2, seq, 90, 2, 1);
}

TEST(QelcFlow, NewDayRestartsAtOne) {
    QelcFlow flow(3, 0, 0, nullptr, nullptr, 0, day_of(20240105), false, false);
    QelcFlow::Writer writer(&flow, false);
    Versions versions;
    QelcFlow::DataReader reader(&flow, nullptr, &versions, nullptr, nullptr);
    QelcFlow::Sender* sender = QelcFlow::Sender::create(&flow);
    EXPECT_EQ(sender->get_version(), 20240105u);
    for (int i = 0; i < 5; i++) write_packet(writer, 10, 1, i);
    for (int i = 0; i < 5; i++) expect_packet(reader.read(), 3, i + 1, 10, 1, i);

    QelcFlow::Receiver receiver(&flow);
    receiver.set_version(20240108);
    EXPECT_EQ(receiver.get_version(), 20240108u);
    // The writer follows the chain to the new day by itself.
    EXPECT_EQ(write_packet(writer, 11, 1, 50), 0u);
    EXPECT_TRUE(reader.available());
    expect_packet(reader.read(), 3, 1, 11, 1, 50);
    ASSERT_EQ(versions.seen.size(), 1u);
    EXPECT_EQ(versions.seen[0], static_cast<unsigned int>(Base::Date::get_days(20240108)));
    EXPECT_EQ(receiver.get_count(), 1u);

    // The Receiver writes Qelc headers with bodies, as a channel hands them.
    char packet[20 + 10];
    QelcPacket built(12, 61, 'L');
    built.attach(packet);
    built.get_header().RequestId = 61;
    std::memcpy(built.add_field(100, 6), "\0\0\0\x3d\0\0", 6);
    built.commit();
    receiver.write(packet, 0);
    receiver.notify();
    expect_packet(reader.read(), 3, 2, 12, 1, 61);

    // The sender hops too: it is on the old day's flow.
    unsigned short length;
    for (int i = 0; i < 5; i++) ASSERT_NE(sender->read(length), nullptr);
    const char* header = sender->read(length);
    ASSERT_NE(header, nullptr);
    EXPECT_EQ(length, 20 + 10);
    EXPECT_EQ(sender->get_version(), 20240108u);
    delete sender;
}

// A frame published in many flows by reference: stored once, turned into a
// frame of each flow and place on reading.
TEST(QelcFlow, ReferencesAndTheTwoCopyBuffers) {
    QelcFlow source(5, 0, 0, nullptr, nullptr, 700, nullptr, false, false);
    QelcFlow::Writer source_writer(&source, false);
    write_packet(source_writer, 90, 2, 1);
    write_packet(source_writer, 91, 1, 2);
    DataFlow::Iterator source_it(&source, nullptr, nullptr, nullptr);
    const char* first = source_it.next()->data;
    const char* second = source_it.next()->data;

    QelcFlow flow(8, 0, 0, nullptr, nullptr, 0, nullptr, false, false);
    QelcFlow::Writer writer(&flow, true);
    EXPECT_EQ(flow.reference_mode, 1);
    writer.add_packet(reinterpret_cast<const XmpPacket::Header*>(first), true, false);
    writer.add_packet(reinterpret_cast<const XmpPacket::Header*>(second), true, false);
    writer.add_packet(reinterpret_cast<const XmpPacket::Header*>(first), false, false);

    DataFlow::Iterator raw(&flow, nullptr, nullptr, nullptr);
    const DataFlow::Item* record = raw.next();
    ASSERT_EQ(record->length, 12);
    EXPECT_EQ(std::memcmp(record->data, "\x11\x08\0\0", 4), 0);

    QelcFlow::Iterator it(&flow, nullptr, nullptr, nullptr);
    const DataFlow::Item* a = it.next();
    ASSERT_NE(a, nullptr);
    const char* a_data = a->data;
    EXPECT_EQ(Base::get_be16(a_data + 8), 8);  // this flow's subject
    EXPECT_EQ(sequence_of(a_data), 1u);            // and place
    const DataFlow::Item* b = it.next();
    ASSERT_NE(b, nullptr);
    EXPECT_NE(b->data, a_data);  // the other buffer: a's frame is still whole
    EXPECT_EQ(sequence_of(a_data), 1u);
    EXPECT_EQ(Base::get_be32(a_data + 6 + 4), 90u);
    EXPECT_EQ(sequence_of(b->data), 2u);
    EXPECT_EQ(Base::get_be32(b->data + 6 + 4), 91u);
    EXPECT_EQ(b->length, 26 + 10);
    const DataFlow::Item* c = it.next();  // a copy record is handed out in place
    EXPECT_EQ(sequence_of(c->data), 3u);

    // Reader shows the referred-to frames as they are, in place.
    QelcFlow::Reader reader(&flow, nullptr, nullptr, nullptr);
    const QelcFlow::Package* got = reader.read();
    expect_packet(got, 5, 701, 90, 2, 1);
    EXPECT_EQ(got->package_body, first + 26);
    expect_packet(reader.read(), 5, 702, 91, 1, 2);
    expect_packet(reader.read(), 8, 3, 90, 2, 1);

    // A new day's flow starts without reference mode.
    DataFlow* next = flow.shift(day_of(20240301));
    EXPECT_EQ(next->reference_mode, 0);
    // The DataReader gathers one frame per read through the copy buffers.
    QelcFlow::DataReader data_reader(&flow, nullptr, nullptr, nullptr, nullptr);
    expect_packet(data_reader.read(), 8, 1, 90, 2, 1);
    expect_packet(data_reader.read(), 8, 2, 91, 1, 2);
}

// Saved through QelcFlow::Saver and loaded back: the same frames, with
// subject and sequence set anew by the loading flow.
TEST(QelcFlow, SaveLoadAndFileFallback) {
    TempDir dir;
    const int N = 2000;
    {
        QelcFlow flow(3, 0, 0, nullptr, nullptr, 0, day_of(20240105), false, false);
        QelcFlow::Writer writer(&flow, false);
        for (int i = 0; i < N; i++) write_packet(writer, 20, 1 + i % 40, i);
        QelcFlow::Saver saver(&flow, dir.path.c_str(), "orders", false, nullptr);
        while (saver.invoke() == 1) {
        }
    }
    struct stat st;
    ASSERT_EQ(stat((dir.path + "/orders.flow").c_str(), &st), 0);
    long expect = 2;
    for (int i = 0; i < N; i++) expect += 4 + 20 + 10 * (1 + i % 40);
    EXPECT_EQ(st.st_size, expect);  // no prefix in the file
    {
        QelcFlow flow(7, 0, 0, nullptr, nullptr, 0, nullptr, false, false);
        QelcFlow::Loader loader(&flow, dir.path.c_str(), "orders", nullptr);
        int loaded = 0;
        while (loader.invoke()) loaded++;
        EXPECT_EQ(loaded, N);
        // The flow had no day and no records: it takes the file's day.
        QelcFlow* day = static_cast<QelcFlow*>(flow.get_last());
        EXPECT_EQ(static_cast<unsigned short>(reinterpret_cast<uintptr_t>(day->get_version())),
                  static_cast<unsigned short>(Base::Date::get_days(20240105)));
        QelcFlow::DataReader reader(day, nullptr, nullptr, nullptr, nullptr);
        for (int i = 0; i < N; i++) expect_packet(reader.read(), 7, i + 1, 20, 1 + i % 40, i);
    }

    // A reader that seeks behind the recycler's margin reads frames from the
    // file, with prefix, subject and sequence as from memory.
    QelcFlow flow(4, 0, 0, nullptr, nullptr, 0, nullptr, false, false);
    char path[256];
    flow.get_file_name(dir.path.c_str(), nullptr, path);
    Parallel::FlowRecycler recycler(nullptr, &flow, 100, path, 64);
    QelcFlow::Saver saver(&flow, dir.path.c_str(), nullptr, false, &recycler);
    QelcFlow::Writer writer(&flow, false);
    QelcFlow::DataReader reader(&flow, nullptr, nullptr, &recycler, nullptr);
    for (int i = 0; i < 3 * N; i++) {
        write_packet(writer, 30, 1 + i % 200, i);
        saver.invoke();
        expect_packet(reader.read(), 4, i + 1, 30, 1 + i % 200, i);
        recycler.on_invoke();
    }
    EXPECT_GT(flow.get_recycle_count(), 0u);
    ASSERT_TRUE(reader.seek(10));
    EXPECT_TRUE(reader.in_file());
    for (int i = 10; i < 3 * N; i++) expect_packet(reader.read(), 4, i + 1, 30, 1 + i % 200, i);
    EXPECT_FALSE(reader.in_file());
    EXPECT_EQ(reader.read(), nullptr);
}

// One writer thread, one reader thread, packets across many block changes.
TEST(QelcFlow, WriterAndReaderOnThreads) {
#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
    const int N = 5000;
#else
    const int N = 30000;
#endif
    QelcFlow flow(1, 0, 0, nullptr, nullptr, 0, nullptr, false, false);
    std::string fault;
    std::thread reader_thread([&] {
        QelcFlow::DataReader reader(&flow, nullptr, nullptr, nullptr, nullptr);
        for (int i = 0; i < N;) {
            const QelcFlow::Package* got = reader.read();
            if (!got) {
                std::this_thread::yield();
                continue;
            }
            const QelcPacket::Header* h = got->package_header;
            if (h->get_sequence() != static_cast<unsigned long>(i + 1) ||
                h->RequestId != static_cast<unsigned int>(i) || h->FieldCount != 1 + i % 200) {
                fault = "packet " + std::to_string(i);
                return;
            }
            i++;
        }
    });
    QelcFlow::Writer writer(&flow, false);
    for (int i = 0; i < N; i++) write_packet(writer, 40, 1 + i % 200, i);
    reader_thread.join();
    EXPECT_EQ(fault, "");
}
