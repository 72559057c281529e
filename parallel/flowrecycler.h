// Parallel::FlowRecycler: runs a flow's Recycler as a handler on a reactor.
//
// Each pass of the reactor calls on_invoke, which marks whole blocks that
// all registered readers (and keep records more) have passed. Readers
// register from any thread: alloc_reader and free_reader go to the reactor
// thread as blocking events (1001, 1002), because the list of cells is the
// reactor's alone; without a reactor they are direct calls. The recycler
// also holds what a reader needs to fall back on the flow's file: the
// file's path, and the offset table when offset_step is not 0.
#pragma once

#include "flow/dataflow.h"
#include "parallel/reactor.h"

namespace Base {
class Vector;
}

namespace Parallel {

class FlowRecycler : public Handler {
public:
    static const int EVENT_ALLOC_READER = 1001;
    static const int EVENT_FREE_READER = 1002;

    FlowRecycler(Reactor* reactor, Base::DataFlow* flow, unsigned long keep, const char* path,
                 unsigned long offset_step);
    ~FlowRecycler() override;

    void start();
    void stop();
    unsigned long* alloc_reader();
    void free_reader(const unsigned long* cell);

    bool on_invoke() override;
    int on_event(int id, void* data) override;

    unsigned long get_keep() const { return keep; }
    const char* get_path() const { return path; }
    unsigned long get_offset_step() const { return offset_step; }
    Base::Vector* get_offsets() const { return offsets; }
    Base::DataFlow::Recycler* get_recycler() const { return recycler; }

private:
    Reactor* reactor;
    unsigned long keep;
    char path[256];
    unsigned long offset_step;
    Base::Vector* offsets;
    Base::DataFlow::Recycler* recycler;
};

}  // namespace Parallel
