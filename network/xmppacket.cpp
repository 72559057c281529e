#include "network/xmppacket.h"

#include "record/fieldcoder.h"
#include "base/byteorder.h"

namespace Network {

namespace {

const int CRP_HEADER_SIZE = 2;

}  // namespace

void XmpPacket::to_stream(const Header* header, char* out)
{
    out[0] = static_cast<char>(header->Type);
    out[1] = static_cast<char>(header->ExtLength);
    Base::put_be16(out + 2, header->Length);
}

void XmpPacket::from_stream(Header* header, const char* in)
{
    header->Type = static_cast<unsigned char>(in[0]);
    header->ExtLength = static_cast<unsigned char>(in[1]);
    header->Length = Base::get_be16(in + 2);
}

void XmpPacket::to_stream(const FieldHeader* header, char* out)
{
    Base::put_be16(out, header->FieldId);
    Base::put_be16(out + 2, header->FieldLength);
}

void XmpPacket::from_stream(FieldHeader* header, const char* in)
{
    header->FieldId = Base::get_be16(in);
    header->FieldLength = Base::get_be16(in + 2);
}

int XmpPacket::write_heartbeat(char* out)
{
    const Header header = {TYPE_CONTROL, 2, 0};
    to_stream(&header, out);
    out[4] = static_cast<char>(TAG_HEARTBEAT);
    out[5] = 0;
    return HEARTBEAT_SIZE;
}

int XmpPacket::write_heartbeat_interval(char* out, unsigned int seconds)
{
    const Header header = {TYPE_CONTROL, 6, 0};
    to_stream(&header, out);
    out[4] = static_cast<char>(TAG_HEARTBEAT_INTERVAL);
    out[5] = 4;
    Base::put_be32(out + 6, seconds);
    return HEARTBEAT_INTERVAL_SIZE;
}

bool XmpPacket::read_heartbeat_interval(const char* frame, int size, unsigned int& seconds)
{
    if (size < HEARTBEAT_INTERVAL_SIZE) return false;
    Header header;
    from_stream(&header, frame);
    if (header.Type != TYPE_CONTROL || header.ExtLength != 6 || header.Length != 0) return false;
    if (static_cast<unsigned char>(frame[4]) != TAG_HEARTBEAT_INTERVAL || frame[5] != 4) return false;
    seconds = Base::get_be32(frame + 6);
    return true;
}

bool XmpPacket::is_data_frame(const char* frame, int size)
{
    if (size < HEADER_SIZE) return false;
    Header header;
    from_stream(&header, frame);
    return header.Type == TYPE_DATA && header.ExtLength == 0 && header.Length >= CRP_HEADER_SIZE &&
           header.Length + HEADER_SIZE <= size;
}

// The generic coders are the record layer's; the packet layer offers them
// under its own name, beside the frame headers they serve.
void XmpPacket::to_stream(const Base::FieldDesc* desc, const void* record, void* stream, int record_size)
{
    Base::FieldCoder::to_stream(desc, record, stream, record_size);
}

int XmpPacket::from_stream(const Base::FieldDesc* desc, void* record, const void* stream, int stream_size, bool raw)
{
    return Base::FieldCoder::from_stream(desc, record, stream, stream_size, raw);
}

void XmpPacket::to_struct(const Base::FieldDesc* desc, const void* record, void* out, int record_size)
{
    Base::FieldCoder::to_struct(desc, record, out, record_size);
}

void XmpPacket::to_struct(const Base::FieldDesc* desc, void* record)
{
    Base::FieldCoder::to_struct(desc, record);
}

int XmpPacket::from_struct(const Base::FieldDesc* desc, void* record, const void* in, int in_size)
{
    return Base::FieldCoder::from_struct(desc, record, in, in_size);
}

void XmpPacket::from_struct(const Base::FieldDesc* desc, void* record)
{
    Base::FieldCoder::from_struct(desc, record);
}

}  // namespace Network
