#include "network/channel.h"

#include <sys/time.h>

#include <cstring>

#include "flow/dataflow.h"
#include "base/byteorder.h"

namespace Network {

Channel::Channel(Parallel::FdReactor* r, Base::Reportable* rep)
    : reactor(r), reporter(rep), log(nullptr) {}

Channel::~Channel() {}

void Channel::write_log(unsigned short kind, unsigned short size, const void* data) {
    if (!log) return;
    int id = get_id();
    if (id == 0) return;
    unsigned short total = static_cast<unsigned short>(TRACE_HEADER_SIZE + size);
    char* record = log->alloc_object(total);
    timeval tv;
    gettimeofday(&tv, nullptr);
    Base::put_be32(record, static_cast<uint32_t>(id));
    Base::put_be32(record + 4, static_cast<uint32_t>(tv.tv_sec));
    Base::put_be16(record + 8, kind);
    Base::put_be16(record + 10, size);
    Base::put_be32(record + 12, static_cast<uint32_t>(tv.tv_usec));
    if (size) memcpy(record + TRACE_HEADER_SIZE, data, size);
    log->commit_object(total, true);
}

void Channel::set_cipher(unsigned char type, unsigned long key) {
    if (!cipher.set(type, key)) return;
    unsigned char data[9];
    data[0] = type;
    memcpy(data + 1, &key, 8);
    write_log(TRACE_CIPHER, 9, data);
}

}  // namespace Network
