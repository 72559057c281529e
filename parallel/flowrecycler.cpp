#include "parallel/flowrecycler.h"

#include "sync/sign.h"
#include "base/strings.h"
#include "containers/vector.h"

namespace Parallel {

FlowRecycler::FlowRecycler(Reactor* owner, Base::DataFlow* flow, unsigned long keep_records,
                           const char* file_path, unsigned long step)
    : reactor(owner),
      keep(keep_records),
      path{},
      offset_step(step),
      offsets(step ? new Base::Vector(8, static_cast<int>(step), 1, nullptr) : nullptr),
      recycler(new Base::DataFlow::Recycler(flow, keep_records)) {
    Base::str_ncpy(sizeof(path) - 1, path, file_path ? file_path : "");
}

FlowRecycler::~FlowRecycler() {
    delete recycler;
    delete offsets;
}

void FlowRecycler::start() {
    if (reactor) reactor->add_handler(this);
}

void FlowRecycler::stop() {
    if (reactor) reactor->remove_handler(this);
}

unsigned long* FlowRecycler::alloc_reader() {
    if (!reactor) return recycler->alloc_reader();
    unsigned long* cell = nullptr;
    Base::Sign done(0);
    reactor->add_event(EVENT_ALLOC_READER, &cell, &done, this, false);
    done.join();
    return cell;
}

void FlowRecycler::free_reader(const unsigned long* cell) {
    if (!reactor) {
        recycler->free_reader(cell);
        return;
    }
    Base::Sign done(0);
    reactor->add_event(EVENT_FREE_READER, const_cast<unsigned long*>(cell), &done, this, false);
    done.join();
}

bool FlowRecycler::on_invoke() { return recycler->invoke() > 0; }

int FlowRecycler::on_event(int id, void* data) {
    if (id == EVENT_ALLOC_READER)
        *static_cast<unsigned long**>(data) = recycler->alloc_reader();
    else if (id == EVENT_FREE_READER)
        recycler->free_reader(static_cast<const unsigned long*>(data));
    return 0;
}

}  // namespace Parallel
