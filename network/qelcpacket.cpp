#include "network/qelcpacket.h"

#include "record/fielddesc.h"
#include "base/byteorder.h"
#include "network/xmppacket.h"

#include <cstring>

namespace Network {

static_assert(sizeof(QelcPacket::Header) == QelcPacket::HEADER_SIZE, "a body may follow the host header");

namespace {

// Stands in for the value when there is no current record: it is decoded
// with length 0, so nothing is read from it, but a coder never sees null.
const char NO_VALUE[1] = {0};

}  // namespace

QelcPacket::QelcPacket(unsigned int packet_id, unsigned int request_id, unsigned char chain) : body(nullptr)
{
    std::memset(&header, 0, sizeof(header));
    header.Version = DEFAULT_VERSION;
    header.Chain = chain;
    header.PacketId = packet_id;
    header.RequestId = request_id;
}

void QelcPacket::attach(void* packet_area)
{
    body = static_cast<char*>(packet_area) + HEADER_SIZE;
    header.FieldCount = 0;
    header.BodyLength = 0;
    header.RequestId = 0;
    header.Chain = CHAIN_LAST;
}

void QelcPacket::to_stream(const Header* h, char* out)
{
    out[0] = static_cast<char>(h->Version);
    out[1] = static_cast<char>(h->Chain);
    Base::put_be16(out + 2, h->Subject);
    Base::put_be32(out + 4, h->PacketId);
    Base::put_be32(out + 8, h->SequenceLow);
    out[12] = static_cast<char>(h->SequenceHigh);
    out[13] = static_cast<char>(h->FieldCount);
    Base::put_be16(out + 14, h->BodyLength);
    Base::put_be32(out + 16, h->RequestId);
}

void QelcPacket::from_stream(Header* h, const char* in)
{
    h->Version = static_cast<unsigned char>(in[0]);
    h->Chain = static_cast<unsigned char>(in[1]);
    h->Subject = Base::get_be16(in + 2);
    h->PacketId = Base::get_be32(in + 4);
    h->SequenceLow = Base::get_be32(in + 8);
    h->SequenceHigh = static_cast<unsigned char>(in[12]);
    h->FieldCount = static_cast<unsigned char>(in[13]);
    h->BodyLength = Base::get_be16(in + 14);
    h->RequestId = Base::get_be32(in + 16);
}

char* QelcPacket::add_field(unsigned short id, unsigned short size)
{
    if (body == nullptr || header.FieldCount == MAX_FIELD_COUNT) return nullptr;
    // The whole addition is tested, so a body can be filled to exactly 4000.
    if (header.BodyLength + XmpPacket::FIELD_HEADER_SIZE + size > MAX_BODY_SIZE) return nullptr;
    char* at = body + header.BodyLength;
    Base::put_be16(at, id);
    Base::put_be16(at + 2, size);
    header.FieldCount++;
    header.BodyLength = static_cast<unsigned short>(header.BodyLength + XmpPacket::FIELD_HEADER_SIZE + size);
    return at + XmpPacket::FIELD_HEADER_SIZE;
}

int QelcPacket::commit()
{
    if (body == nullptr) return 0;
    to_stream(&header, body - HEADER_SIZE);
    return HEADER_SIZE + header.BodyLength;
}

char* QelcPacket::add_field(const Base::FieldDesc* desc, const void* record, ToStreamCoder coder)
{
    char* value = add_field(desc->id, desc->stream_size);
    if (value == nullptr || record == nullptr) return value;
    if (coder != nullptr) coder(record, value, desc->struct_size);
    else XmpPacket::to_stream(desc, record, value, desc->struct_size);
    return value;
}

int QelcPacket::Iterator::get_field(void* record, const Base::FieldDesc* desc, bool raw) const
{
    unsigned short size;
    const char* value = get_field(size);
    return XmpPacket::from_stream(desc, record, value != nullptr ? value : NO_VALUE, size, raw);
}

int QelcPacket::Iterator::get_field(void* record, FromStreamCoder coder, bool raw) const
{
    unsigned short size;
    const char* value = get_field(size);
    return coder(record, value != nullptr ? value : NO_VALUE, size, raw);
}

void QelcPacket::Iterator::attach(const Header* h, const void* b)
{
    header = h;
    body = static_cast<const char*>(b);
    if (body == nullptr && header != nullptr) body = reinterpret_cast<const char*>(header) + HEADER_SIZE;
    position = 0;
    field_id = END;
    field_length = 0;
}

unsigned short QelcPacket::Iterator::next()
{
    field_id = END;
    field_length = 0;
    if (header == nullptr) return END;
    const int length = header->BodyLength;
    if (position + XmpPacket::FIELD_HEADER_SIZE > length) return END;
    const unsigned short id = Base::get_be16(body + position);
    const unsigned short size = Base::get_be16(body + position + 2);
    position += XmpPacket::FIELD_HEADER_SIZE;
    // A record cut off by the end of the body ends the walk without an error,
    // and so does one that names the end mark: it cannot be a current record.
    if (position + size > length || id == END) return END;
    field_id = id;
    field_length = size;
    position += size;
    return id;
}

const char* QelcPacket::Iterator::get_field(unsigned short& size) const
{
    if (field_id == END) {
        size = 0;
        return nullptr;
    }
    size = field_length;
    return body + position - field_length;
}

}  // namespace Network
