// Front records: helpers that move Qel records by their descriptions, and
// Front::Reply, which writes one answer as a chain of packets.
//
// copy_by_name fills each member of a record from the member of the same
// name in another record: texts are cut to the target's width and end in a
// zero, numbers convert between integers, doubles and fixed-point scales
// (null stays null). Members with no namesake keep what they held.
//
// A Reply appends records to packets of one id on a flow writer; a record
// that doesn't fit closes the packet with Chain 'C' and opens the next, and
// finish() commits the last with Chain 'L'. Reactor thread only, one Reply
// at a time per writer.
#pragma once

#include "network/qelcflow.h"
#include "network/qelcpacket.h"
#include "record/fielddesc.h"

namespace Front {

void copy_by_name(const Base::FieldDesc* to_desc, void* to, const Base::FieldDesc* from_desc,
                  const void* from);

// Fixed-point value of a double at the scale of a record member, and back.
long to_fixed(const Base::FieldDesc* desc, const char* member, double value);
double from_fixed(const Base::FieldDesc* desc, const char* member, long value);

// Copies text into a char array of n bytes, zero-filled behind it.
void put_text(char* to, int n, const char* text);
template <int N>
void put_text(char (&to)[N], const char* text) {
    put_text(to, N, text);
}

// A record's text: "Name=value ..." for every member that isn't empty.
int record_text(const Base::FieldDesc* desc, const void* record, char* out, int size);

class Reply {
public:
    Reply(Network::QelcFlow::Writer* writer, unsigned short packet_id, unsigned int request_id);
    // A null coder uses the description's generic coder.
    bool add(const Base::FieldDesc* desc, const void* record,
             Network::QelcPacket::ToStreamCoder coder);
    template <class R>
    bool add(const R& record) {
        return add(&R::DESC, &record, &R::to_stream);
    }
    unsigned long finish();
    int get_packets() const { return packets; }

private:
    void open();

    Network::QelcFlow::Writer* writer;
    Network::QelcPacket* packet;
    unsigned short packet_id;
    unsigned int request_id;
    int packets;
};

}  // namespace Front
