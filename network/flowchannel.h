// Network::FlowChannel: a channel that moves packet flows, each named by
// its 16-bit subject. It keeps a table of the flows it sends (publish) and
// of the flows it fills (subscribe); the tables bind flows for one
// connection only and are emptied when it closes.
//
// PubItem: a flow to send, with the reader whose position is the send
// position, owned by the item. SubItem: a flow to fill, with an optional
// filter, a buffer limit above which frames are dropped (and the connection
// closed once the flow has drained, so that the peer replays the gap), and
// whether its sequence numbers are checked.
#pragma once

#include "flow/dataflow.h"
#include "network/channel.h"

namespace Base {
class DataReader;
class List;
}  // namespace Base

namespace Parallel {
class FlowRecycler;
}

namespace Network {

typedef bool (*FrameFilter)(Base::DataFlow* flow, char* frame, unsigned short& size);

class FlowChannel : public Channel {
public:
    struct PubItem {
        Base::DataFlow* flow;  // null once cancelled
        Base::DataFlow::AckCallback* ack_callback;
        Base::DataFlow::ReadCallback* read_callback;
        Base::DataReader* reader;  // owned
        Parallel::FlowRecycler* recycler;
        unsigned int* waiting;
        unsigned short subject;
    };

    struct SubItem {
        Base::DataFlow* flow;  // null once cancelled
        FrameFilter filter;
        unsigned long last_stored;  // reactor clock of the last frame stored
        unsigned long limit;        // buffers; 0: no limit
        bool blocked;
        bool no_sequence_check;
        unsigned short subject;
    };

    FlowChannel(Parallel::FdReactor* reactor, Base::Reportable* reporter);
    ~FlowChannel() override;

    virtual bool publish(Base::DataFlow* flow, Base::DataFlow::AckCallback* ack,
                         Base::DataFlow::ReadCallback* read_callback, Base::DataReader* reader,
                         Parallel::FlowRecycler* recycler, unsigned int* waiting) = 0;
    virtual bool subscribe(Base::DataFlow* flow, FrameFilter filter, unsigned long limit,
                           bool no_sequence_check) = 0;

    static unsigned int subject_hash_func(const void* subject);
    static bool subject_equal_func(const void* a, const void* b);

    // True if a PubItem of the list has a flow and a reader with data.
    static bool available(Base::List* list);
    // Blocks and unblocks subscriptions with a buffer limit; closes with
    // -15 when one drains after blocking. Returns the close's reason or 0.
    int check_sub_buffer(Base::List* list);
    // Gathers whole frames from the reader into buffer, up to length bytes;
    // length becomes what was gathered. Null if nothing came.
    static const char* prepare_reader_buffer(Base::DataReader* reader, unsigned short& length,
                                             char* buffer);
};

}  // namespace Network
