// Network::QelcFlow: a flow whose records are whole transport frames.
//
// A record is either a data frame, ready to be sent as it stands:
//   0 Type 2 | 1 ExtLength 0 | 2 Length (BE, 22 + body) | 4 Crp 1, 0
//   6 Qelc header (20, stream form) | 26 body
// with Subject (offset 8) the flow's subject and the sequence number
// (offsets 14 and 18) the record's id + 1; or a 12-byte reference
// 11 08 00 00 + native pointer to a data frame held in another flow, which
// Iterator turns into a frame of this flow and place on reading.
//
// The version of a QelcFlow is a day number; Sender, Receiver and the file
// classes speak dates (YYYYMMDD) and convert, 0 staying 0. A new trading day
// is a successor flow that starts again at id 0.
//
// Writer builds requests in place: alloc_packet hands out a QelcPacket on
// 4100 bytes of room in the current block, commit_packet stores only what
// was used and publishes it. One thread at a time may use a Writer or a
// Receiver; readers follow the rules of Base::DataFlow.
#pragma once

#include "flow/datareader.h"
#include "flow/flowfile.h"
#include "network/qelcpacket.h"
#include "network/xmppacket.h"

namespace Parallel {
class FlowRecycler;
}

namespace Network {

class QelcFlow : public Base::DataFlow {
public:
    // Fixed places in a data frame with ExtLength 0.
    static const int PREFIX_SIZE = 6;
    static const int SUBJECT_OFFSET = 8;
    static const int SEQUENCE_LOW_OFFSET = 14;
    static const int SEQUENCE_HIGH_OFFSET = 18;

    // What the packet readers hand out: the header in host form and the body.
    struct Package {
        const QelcPacket::Header* package_header;
        const char* package_body;
    };

    class Writer;
    class Iterator;
    class DataReader;
    class Sender;
    class Receiver;
    class Reader;
    class Saver;
    class Loader;
    class FileReader;

    QelcFlow(unsigned short subject, unsigned int first_block_size, unsigned int block_size,
             Base::Memory* memory, WriteCallback* callback, unsigned long start_id, void* version,
             bool auto_recycle, bool manual_commit);
    Base::DataFlow* clone() const override;

    // Puts subject and sequence number into a frame with ExtLength 0.
    static void stamp(char* frame, unsigned short subject, unsigned long sequence);
    // Date of a day-number version and back; 0 stays 0.
    static unsigned int version_to_date(void* version);
    static void* date_to_version(unsigned int date);
};

class QelcFlow::Writer {
public:
    Writer(QelcFlow* flow, bool by_reference);

    QelcPacket* alloc_packet(unsigned short packet_id, unsigned char version);
    unsigned long commit_packet(bool notify);
    // A stream frame of Type 2 and ExtLength 0: stored as a 12-byte
    // reference when both as_reference and the writer's mode say so,
    // otherwise copied and stamped with this flow's subject and sequence.
    unsigned long add_packet(const XmpPacket::Header* frame, bool as_reference, bool notify);
    // A Qelc header in stream form with its body behind it.
    unsigned long add_packet(const QelcPacket::Header* packet, bool notify);
    // The frame for a caller that fills everything behind the 6-byte prefix.
    char* alloc_xmp_packet();
    unsigned long commit_xmp_packet(unsigned short size, bool notify);
    void shift(void* version);

    QelcFlow* get_flow() const { return flow; }

protected:
    void follow_chain() {
        if (flow->get_next()) flow = static_cast<QelcFlow*>(flow->get_last());
    }
    char* alloc_frame();
    unsigned long next_sequence() const {
        return flow->get_start_id() + flow->mem->stored.load(std::memory_order_relaxed) + 1;
    }

    QelcFlow* flow;
    unsigned char by_reference;
    char* frame;
    QelcPacket packet;
};

// Turns references into frames of this flow. Two copy buffers, because
// DataReader::read takes one record ahead: the frame handed out by the
// previous call must stay whole during the next.
class QelcFlow::Iterator : public Base::DataFlow::Iterator {
public:
    Iterator(Base::DataFlow* flow, Base::Notify* notify, ReadCallback* callback,
             unsigned long* recycle_pos);
    ~Iterator() override;
    const Item* next() override;

private:
    Item copy;       // the buffer now handed out, and its length
    char* buffers;   // two buffers of MAX_PACKAGE_SIZE, 8 spare bytes between
};

class QelcFlow::DataReader : public Base::DataReader {
public:
    DataReader(QelcFlow* flow, Base::Notify* notify, ReadCallback* callback,
               Parallel::FlowRecycler* recycler, Base::Reportable* reporter);
    ~DataReader() override;
    Base::DataFlow::FileReader* create_file_reader() override;
    // One packet, or null.
    const Package* read();

protected:
    Parallel::FlowRecycler* recycler;
    unsigned long* recycle_cell;
    QelcPacket::Header header;
    Package package;
};

class QelcFlow::Sender : public Base::FlowSource, public QelcFlow::DataReader {
public:
    Sender(QelcFlow* flow, Parallel::FlowRecycler* recycler);
    static Sender* create(const void* flow);

    unsigned int get_version() const override;
    unsigned long get_count() const override;
    unsigned long tell() const override { return DataReader::tell(); }
    bool available() override { return DataReader::available(); }
    bool seek(unsigned long id) override { return DataReader::seek(id); }
    // The Qelc header of the next record, length BodyLength + 20.
    const char* read(unsigned short& length) override;
};

class QelcFlow::Receiver : public Base::DataFlow::Receiver {
public:
    explicit Receiver(QelcFlow* flow);
    ~Receiver() override;
    unsigned int get_version() const override;
    unsigned long get_count() const override;
    void set_version(unsigned int date) override;
    // packet is a Qelc header in stream form; its BodyLength decides.
    bool write(const char* packet, unsigned short size) override;
    void notify() override;

private:
    Writer* writer;
};

// Reads packets in place: a reference shows the frame it points to, with
// that frame's own subject and sequence.
class QelcFlow::Reader {
public:
    Reader(QelcFlow* flow, Base::Notify* notify, ReadCallback* callback,
           Parallel::FlowRecycler* recycler);
    ~Reader();
    const Package* read();

private:
    Parallel::FlowRecycler* recycler;
    unsigned long* recycle_cell;
    Base::DataFlow::Iterator* iterator;
    QelcPacket::Header header;
    Package package;

    Reader(const Reader&) = delete;
    Reader& operator=(const Reader&) = delete;
};

// Files of a QelcFlow hold the Qelc header and body of each frame; the
// 6-byte prefix is left out, and the header's version is the low 16 bits of
// the day number.
class QelcFlow::Saver : public QelcFlow::Sender {
public:
    Saver(QelcFlow* flow, const char* dir, const char* name, bool append,
          Parallel::FlowRecycler* recycler);
    ~Saver() override;
    int invoke();

private:
    int save_one();

    FILE* file;
    unsigned int date;
    unsigned long offset_step;
    Base::Vector* offsets;
};

class QelcFlow::Loader : public QelcFlow::Writer {
public:
    Loader(QelcFlow* flow, const char* dir, const char* name, Parallel::FlowRecycler* recycler);
    ~Loader();
    bool invoke();
    const char* get_last() const { return last; }
    void truncate();

private:
    FILE* file;
    unsigned long offset_step;
    Base::Vector* offsets;
    const char* last;
};

class QelcFlow::FileReader : public Base::DataFlow::FileReader {
public:
    FileReader(unsigned short subject, unsigned long start_id, const char* path,
               unsigned long offset_step, Base::Vector* offsets);
    bool prepare_data(unsigned short size, unsigned short want, unsigned short& used) override;
    void adjust_data(char* data, unsigned short size) override;
};

}  // namespace Network
