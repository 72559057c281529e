#include "network/qelcflow.h"

#include <unistd.h>

#include <cstdint>
#include <cstring>

#include "base/datetime.h"
#include "base/byteorder.h"
#include "network/crppacket.h"
#include "containers/vector.h"
#include "parallel/flowrecycler.h"

namespace Network {

static const unsigned short ROOM = XmpPacket::MAX_PACKAGE_SIZE;  // 4100 bytes per frame

static void write_prefix(char* frame, unsigned short length) {
    frame[0] = static_cast<char>(XmpPacket::TYPE_DATA);
    frame[1] = 0;
    Base::put_be16(frame + 2, length);
    frame[4] = static_cast<char>(CrpPacket::VERSION);
    frame[5] = 0;
}

// ---------------------------------------------------------------- QelcFlow

QelcFlow::QelcFlow(unsigned short subject, unsigned int first_block_size,
                   unsigned int block_size, Base::Memory* memory, WriteCallback* callback,
                   unsigned long start_id, void* version, bool auto_recycle, bool manual_commit)
    : Base::DataFlow(subject, first_block_size, block_size, memory, callback, start_id, version,
                     auto_recycle, manual_commit) {}

Base::DataFlow* QelcFlow::clone() const {
    unsigned int first_size, next_size;
    get_size(first_size, next_size);
    // reference_mode is not carried over: a new day's writer sets it anew.
    return new QelcFlow(subject, first_size, next_size, get_memory(), write_callback, 0, nullptr,
                        auto_recycle, manual_commit);
}

void QelcFlow::stamp(char* frame, unsigned short flow_subject, unsigned long sequence) {
    Base::put_be16(frame + SUBJECT_OFFSET, flow_subject);
    Base::put_be32(frame + SEQUENCE_LOW_OFFSET, static_cast<uint32_t>(sequence));
    frame[SEQUENCE_HIGH_OFFSET] = static_cast<char>(sequence >> 32);
}

unsigned int QelcFlow::version_to_date(void* version) {
    int days = static_cast<int>(reinterpret_cast<uintptr_t>(version));
    return days ? static_cast<unsigned int>(Base::Date::from_days(days)) : 0;
}

void* QelcFlow::date_to_version(unsigned int date) {
    int days = date ? Base::Date::get_days(static_cast<int>(date)) : 0;
    return reinterpret_cast<void*>(static_cast<uintptr_t>(static_cast<unsigned int>(days)));
}

// ---------------------------------------------------------------- Writer

QelcFlow::Writer::Writer(QelcFlow* writing, bool reference)
    : flow(writing),
      by_reference(reference ? 1 : 0),
      frame(nullptr),
      packet(0, 0, QelcPacket::CHAIN_LAST) {
    writing->reference_mode = by_reference;
    packet.get_header().Subject = writing->get_subject();
}

char* QelcFlow::Writer::alloc_frame() {
    follow_chain();
    frame = flow->alloc_object(ROOM);
    write_prefix(frame, XmpPacket::MAX_BODY_SIZE);
    return frame;
}

QelcPacket* QelcFlow::Writer::alloc_packet(unsigned short packet_id, unsigned char version) {
    alloc_frame();
    packet.attach(frame + PREFIX_SIZE);
    QelcPacket::Header& header = packet.get_header();
    header.Version = version ? version : QelcPacket::DEFAULT_VERSION;
    header.PacketId = packet_id;
    header.Subject = flow->get_subject();
    header.set_sequence(next_sequence());
    return &packet;
}

unsigned long QelcFlow::Writer::commit_packet(bool notify) {
    int n = packet.commit();
    Base::put_be16(frame + 2, static_cast<unsigned short>(n + 2));
    return flow->commit_object(static_cast<unsigned short>(n + PREFIX_SIZE), notify);
}

unsigned long QelcFlow::Writer::add_packet(const XmpPacket::Header* source, bool as_reference,
                                           bool notify) {
    follow_chain();
    const char* bytes = reinterpret_cast<const char*>(source);
    if (as_reference && by_reference) {
        char* record = flow->alloc_object(XmpPacket::REFERENCE_SIZE);
        record[0] = static_cast<char>(XmpPacket::TYPE_REFERENCE);
        record[1] = 8;
        record[2] = 0;
        record[3] = 0;
        std::memcpy(record + 4, &bytes, sizeof(bytes));
        return flow->commit_object(XmpPacket::REFERENCE_SIZE, notify);
    }
    unsigned short size = static_cast<unsigned short>(Base::get_be16(bytes + 2) + XmpPacket::HEADER_SIZE);
    char* record = flow->alloc_object(size);
    std::memcpy(record, bytes, size);
    stamp(record, flow->get_subject(), next_sequence());
    return flow->commit_object(size, notify);
}

unsigned long QelcFlow::Writer::add_packet(const QelcPacket::Header* source, bool notify) {
    const char* bytes = reinterpret_cast<const char*>(source);
    unsigned short body = Base::get_be16(bytes + 14);
    if (body > ROOM - PREFIX_SIZE - QelcPacket::HEADER_SIZE)
        body = ROOM - PREFIX_SIZE - QelcPacket::HEADER_SIZE;
    unsigned short size = static_cast<unsigned short>(body + QelcPacket::HEADER_SIZE);
    alloc_frame();
    std::memcpy(frame + PREFIX_SIZE, bytes, size);
    stamp(frame, flow->get_subject(), next_sequence());
    Base::put_be16(frame + 2, static_cast<unsigned short>(size + 2));
    return flow->commit_object(static_cast<unsigned short>(size + PREFIX_SIZE), notify);
}

char* QelcFlow::Writer::alloc_xmp_packet() { return alloc_frame(); }

unsigned long QelcFlow::Writer::commit_xmp_packet(unsigned short size, bool notify) {
    // Every record of the flow carries its subject and id + 1, whatever
    // the caller wrote there.
    stamp(frame, flow->get_subject(), next_sequence());
    Base::put_be16(frame + 2, static_cast<unsigned short>(size + 2));
    return flow->commit_object(static_cast<unsigned short>(size + PREFIX_SIZE), notify);
}

void QelcFlow::Writer::shift(void* version) {
    flow = static_cast<QelcFlow*>(flow->shift(version));
}

// ---------------------------------------------------------------- Iterator

QelcFlow::Iterator::Iterator(Base::DataFlow* reading, Base::Notify* notify,
                             ReadCallback* callback, unsigned long* recycle_pos)
    : Base::DataFlow::Iterator(reading, notify, callback, recycle_pos),
      copy{nullptr, 0},
      buffers(new char[2 * QelcPacket::MAX_PACKAGE_SIZE + 8]) {}

QelcFlow::Iterator::~Iterator() { delete[] buffers; }

const Base::DataFlow::Item* QelcFlow::Iterator::next() {
    const Item* record = Base::DataFlow::Iterator::next();
    if (!record || static_cast<unsigned char>(record->data[0]) != XmpPacket::TYPE_REFERENCE)
        return record;
    const char* target;
    std::memcpy(&target, record->data + 4, sizeof(target));  // stored unaligned
    unsigned int size = Base::get_be16(target + 2) + XmpPacket::HEADER_SIZE;
    if (size > QelcPacket::MAX_PACKAGE_SIZE) return record;  // no frame of a flow is larger
    char* second = buffers + QelcPacket::MAX_PACKAGE_SIZE + 8;
    char* into = copy.data == buffers ? second : buffers;
    std::memcpy(into, target, size);
    // position has moved on already: it is this record's id + 1.
    stamp(into, flow->get_subject(), position);
    copy.data = into;
    copy.length = static_cast<unsigned short>(size);
    return &copy;
}

// ---------------------------------------------------------------- DataReader

QelcFlow::DataReader::DataReader(QelcFlow* reading, Base::Notify* notify,
                                 ReadCallback* callback, Parallel::FlowRecycler* owner,
                                 Base::Reportable* reporter)
    : recycler(owner), recycle_cell(nullptr), header(), package{&header, nullptr} {
    unsigned long margin = 0;
    const char* file_path = "";
    unsigned long step = 0;
    Base::Vector* table = nullptr;
    if (recycler) {
        margin = recycler->get_keep();
        file_path = recycler->get_path();
        step = recycler->get_offset_step();
        table = recycler->get_offsets();
        recycle_cell = recycler->alloc_reader();
    }
    init(reading, new QelcFlow::Iterator(reading, notify, callback, recycle_cell), margin,
         file_path, step, table, reporter);
}

QelcFlow::DataReader::~DataReader() {
    delete file_reader;
    file_reader = nullptr;
    delete iterator;
    iterator = nullptr;
    if (recycler && recycle_cell) recycler->free_reader(recycle_cell);
}

Base::DataFlow::FileReader* QelcFlow::DataReader::create_file_reader() {
    Base::DataFlow* f = get_flow();
    return new QelcFlow::FileReader(f->get_subject(), f->get_start_id(), path, offset_step,
                                    offsets);
}

const QelcFlow::Package* QelcFlow::DataReader::read() {
    if (!available()) return nullptr;
    unsigned short length = 0;
    const char* record = Base::DataReader::read(length);
    if (!record) return nullptr;
    const char* qelc = record + PREFIX_SIZE + static_cast<unsigned char>(record[1]);
    QelcPacket::from_stream(&header, qelc);
    package.package_body = qelc + QelcPacket::HEADER_SIZE;
    return &package;
}

// ---------------------------------------------------------------- Sender

QelcFlow::Sender::Sender(QelcFlow* reading, Parallel::FlowRecycler* owner)
    : QelcFlow::DataReader(reading, nullptr, nullptr, owner, nullptr) {}

QelcFlow::Sender* QelcFlow::Sender::create(const void* reading) {
    return new Sender(static_cast<QelcFlow*>(const_cast<void*>(reading)), nullptr);
}

unsigned int QelcFlow::Sender::get_version() const {
    Base::DataFlow* f = get_flow();
    return f ? version_to_date(f->get_version()) : 0;
}

unsigned long QelcFlow::Sender::get_count() const {
    Base::DataFlow* f = get_flow();
    return f ? f->get_count() : 0;
}

const char* QelcFlow::Sender::read(unsigned short& length) {
    const Package* got = DataReader::read();
    if (!got) {
        length = 0;
        return nullptr;
    }
    length = static_cast<unsigned short>(header.BodyLength + QelcPacket::HEADER_SIZE);
    return got->package_body - QelcPacket::HEADER_SIZE;
}

// ---------------------------------------------------------------- Receiver

QelcFlow::Receiver::Receiver(QelcFlow* writing)
    : Base::DataFlow::Receiver(writing),
      writer(new Writer(static_cast<QelcFlow*>(flow), false)) {}

QelcFlow::Receiver::~Receiver() { delete writer; }

unsigned int QelcFlow::Receiver::get_version() const {
    return version_to_date(writer->get_flow()->get_version());
}

unsigned long QelcFlow::Receiver::get_count() const { return writer->get_flow()->get_count(); }

void QelcFlow::Receiver::set_version(unsigned int date) {
    writer->shift(date_to_version(date));
    flow = writer->get_flow();
}

bool QelcFlow::Receiver::write(const char* packet, unsigned short) {
    writer->add_packet(reinterpret_cast<const QelcPacket::Header*>(packet), false);
    flow = writer->get_flow();
    return true;
}

void QelcFlow::Receiver::notify() { writer->get_flow()->notify(); }

// ---------------------------------------------------------------- Reader

QelcFlow::Reader::Reader(QelcFlow* reading, Base::Notify* notify, ReadCallback* callback,
                         Parallel::FlowRecycler* owner)
    : recycler(owner),
      recycle_cell(owner ? owner->alloc_reader() : nullptr),
      iterator(new Base::DataFlow::Iterator(reading, notify, callback, recycle_cell)),
      header(),
      package{&header, nullptr} {}

QelcFlow::Reader::~Reader() {
    delete iterator;
    if (recycler && recycle_cell) recycler->free_reader(recycle_cell);
}

const QelcFlow::Package* QelcFlow::Reader::read() {
    const Item* record = iterator->next();
    if (!record) return nullptr;
    const char* frame = record->data;
    if (static_cast<unsigned char>(frame[0]) == XmpPacket::TYPE_REFERENCE)
        std::memcpy(&frame, record->data + 4, sizeof(frame));  // in place, no copy
    const char* qelc = frame + PREFIX_SIZE + static_cast<unsigned char>(frame[1]);
    QelcPacket::from_stream(&header, qelc);
    package.package_body = qelc + QelcPacket::HEADER_SIZE;
    return &package;
}

// ---------------------------------------------------------------- Saver

static void put_header(char* out, unsigned short version) { Base::put_be16(out, version); }

QelcFlow::Saver::Saver(QelcFlow* saved, const char* dir, const char* name, bool append,
                       Parallel::FlowRecycler* owner)
    : QelcFlow::Sender(saved, owner),
      file(nullptr),
      date(version_to_date(saved->get_version())),
      offset_step(owner ? owner->get_offset_step() : 0),
      offsets(owner ? owner->get_offsets() : nullptr) {
    char name_buffer[256];
    saved->get_file_name(dir, name, name_buffer);
    if (!append) std::remove(name_buffer);
    file = std::fopen(name_buffer, "a+b");
    if (!file) return;
    std::fseek(file, 0, SEEK_END);
    if (std::ftell(file) > 0) {
        DataReader::seek(saved->get_count());
        return;
    }
    char header_bytes[2];
    put_header(header_bytes,
               static_cast<unsigned short>(reinterpret_cast<uintptr_t>(saved->get_version())));
    if (std::fwrite(header_bytes, 1, 2, file) != 2 || std::fflush(file) != 0) {
        std::fclose(file);
        file = nullptr;
        return;
    }
    Base::offsets_extend(offsets, offset_step, tell());
}

QelcFlow::Saver::~Saver() {
    if (file) {
        while (save_one() > 0) {
        }
        std::fclose(file);
    }
}

int QelcFlow::Saver::invoke() {
    if (!file) return -1;
    return save_one();
}

int QelcFlow::Saver::save_one() {
    if (!file) return -1;
    if (!available()) return 0;
    unsigned int flow_date = version_to_date(get_flow()->get_version());
    if (flow_date != date) {
        char header_bytes[2];
        put_header(header_bytes, static_cast<unsigned short>(
                                     reinterpret_cast<uintptr_t>(get_flow()->get_version())));
        if (std::fflush(file) != 0 || ftruncate64(fileno(file), 0) != 0 ||
            std::fseek(file, 0, SEEK_SET) != 0 || std::fwrite(header_bytes, 1, 2, file) != 2 ||
            std::fflush(file) != 0) {
            std::fclose(file);
            file = nullptr;
            return -1;
        }
        if (offsets) offsets->clear();  // the table described the old day's file
        date = flow_date;
    }
    long at = std::ftell(file);
    unsigned short length = 0;
    const char* record = Sender::read(length);
    if (!record) return 0;
    char word[4];
    Base::put_be32(word, length);
    if (std::fwrite(word, 1, 4, file) != 4 || std::fwrite(record, 1, length, file) != length)
        return -1;
    if (std::fflush(file) != 0) return -1;
    Base::offsets_note(offsets, offset_step, tell() - 1, at);
    return 1;
}

// ---------------------------------------------------------------- Loader

QelcFlow::Loader::Loader(QelcFlow* loaded, const char* dir, const char* name,
                         Parallel::FlowRecycler* owner)
    : Writer(loaded, false),
      file(nullptr),
      offset_step(owner ? owner->get_offset_step() : 0),
      offsets(owner ? owner->get_offsets() : nullptr),
      last(nullptr) {
    char path[256];
    Base::make_flow_file_name(dir, name, loaded->get_subject(), path);
    file = std::fopen(path, "r+b");
    if (!file) return;
    char header_bytes[2];
    if (std::fread(header_bytes, 1, 2, file) != 2) {
        std::fclose(file);
        file = nullptr;
        return;
    }
    unsigned short file_version = Base::get_be16(header_bytes);
    unsigned short flow_version =
        static_cast<unsigned short>(reinterpret_cast<uintptr_t>(loaded->get_version()));
    if (flow_version > file_version) {
        std::fclose(file);
        file = nullptr;
        std::remove(path);
        return;
    }
    if (flow_version < file_version)
        flow = static_cast<QelcFlow*>(
            loaded->shift(reinterpret_cast<void*>(static_cast<uintptr_t>(file_version))));
}

QelcFlow::Loader::~Loader() {
    if (file) std::fclose(file);
}

bool QelcFlow::Loader::invoke() {
    if (!file) return false;
    long start = std::ftell(file);
    unsigned char word[4];
    if (std::fread(word, 1, 4, file) == 4) {
        unsigned short length = static_cast<unsigned short>(word[2] << 8 | word[3]);
        // A record larger than a frame's room is no record of this flow.
        if (length >= QelcPacket::HEADER_SIZE && length <= ROOM - PREFIX_SIZE) {
            alloc_frame();
            if (std::fread(frame + PREFIX_SIZE, 1, length, file) == length) {
                unsigned long id =
                    flow->get_start_id() + flow->mem->stored.load(std::memory_order_relaxed);
                Base::offsets_note(offsets, offset_step, id, start);
                stamp(frame, flow->get_subject(), id + 1);
                Base::put_be16(frame + 2, static_cast<unsigned short>(length + 2));
                flow->commit_object(static_cast<unsigned short>(length + PREFIX_SIZE), false);
                last = frame + PREFIX_SIZE;
                return true;
            }
        }
    }
    // The end, or a torn tail: cut the file back to its last whole record.
    Base::cut_and_close(file, start);
    return false;
}

void QelcFlow::Loader::truncate() {
    if (file) Base::cut_and_close(file, 0);
}

// ---------------------------------------------------------------- FileReader

QelcFlow::FileReader::FileReader(unsigned short subject, unsigned long start_id, const char* path,
                                 unsigned long offset_step, Base::Vector* offsets)
    : Base::DataFlow::FileReader(subject, start_id, path, offset_step, offsets) {}

bool QelcFlow::FileReader::prepare_data(unsigned short size, unsigned short want,
                                        unsigned short& used) {
    if (want != 0 && want - used < size + PREFIX_SIZE) return false;
    // A record larger than a frame's room is no record of this flow; taking
    // it would run past the buffer.
    if (size < QelcPacket::HEADER_SIZE || size > ROOM - PREFIX_SIZE) return false;
    write_prefix(buffer + used, static_cast<unsigned short>(size + 2));
    used = static_cast<unsigned short>(used + PREFIX_SIZE);
    return true;
}

void QelcFlow::FileReader::adjust_data(char* data, unsigned short) {
    // data is the Qelc header just read; the frame starts 6 bytes before.
    stamp(data - PREFIX_SIZE, subject, position + 1);
}

}  // namespace Network
