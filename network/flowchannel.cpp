#include "network/flowchannel.h"

#include <cstring>

#include "flow/datareader.h"
#include "containers/list.h"
#include "base/reportable.h"

namespace Network {

FlowChannel::FlowChannel(Parallel::FdReactor* r, Base::Reportable* rep) : Channel(r, rep) {}

FlowChannel::~FlowChannel() {}

unsigned int FlowChannel::subject_hash_func(const void* subject) {
    return *static_cast<const unsigned short*>(subject);
}

bool FlowChannel::subject_equal_func(const void* a, const void* b) {
    return *static_cast<const unsigned short*>(a) == *static_cast<const unsigned short*>(b);
}

bool FlowChannel::available(Base::List* list) {
    for (Base::List::Node* n = list->get_head(); n; n = n->next) {
        PubItem* item = static_cast<PubItem*>(n->value);
        if (item->flow && item->reader && item->reader->available()) return true;
    }
    return false;
}

int FlowChannel::check_sub_buffer(Base::List* list) {
    for (Base::List::Node* n = list->get_head(); n; n = n->next) {
        SubItem* item = static_cast<SubItem*>(n->value);
        if (!item->flow || item->limit == 0) continue;
        unsigned long count = 0;
        if (!item->flow->get_buffer_count(count)) continue;
        if (count >= 3 * item->limit && !item->blocked) {
            item->blocked = true;
            if (reporter)
                reporter->report(5, "FlowBufferBlocking",
                                 "buffer blocking -> ON! flow_subject=[0x%04x] buffer_count=[%zu]",
                                 item->subject, static_cast<size_t>(count));
        } else if (count <= 2 * item->limit && item->blocked) {
            item->blocked = false;
            if (reporter)
                reporter->report(5, "FlowBufferBlocking",
                                 "buffer blocking -> OFF! flow_subject=[0x%04x] buffer_count=[%zu]",
                                 item->subject, static_cast<size_t>(count));
            // Frames were dropped while blocked: reconnecting makes the peer
            // replay from the flow's count.
            return close(REASON_BUFFER_DRAINED);
        }
    }
    return 0;
}

const char* FlowChannel::prepare_reader_buffer(Base::DataReader* reader, unsigned short& length,
                                               char* buffer) {
    unsigned int want = length, total = 0;
    while (total < want) {
        unsigned short chunk = static_cast<unsigned short>(want - total);
        const char* data = reader->read(chunk);
        if (!data || chunk == 0) break;
        memcpy(buffer + total, data, chunk);
        total += chunk;
    }
    length = static_cast<unsigned short>(total);
    return total ? buffer : nullptr;
}

}  // namespace Network
